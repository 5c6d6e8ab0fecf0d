// What changes when systemd's template unit runs the daemon (orvex-session --unit): the
// process signs itself in with the device's settings from orvexctl enable and the password
// credential, as soon as its bus serves, retrying with a growing pause while the device is
// down; and it ends with statuses that the unit's restart policy (Restart=always) reads, so
// that every end comes back except a sign-out on request and an instance that has nothing
// to sign in with. Without --unit none of this exists.
//
// Threads: the sign-in runs on a thread of its own, through the session's own lock, so a
// caller's signin method call is never overtaken (the first session held wins). The other
// members are called from the keep-alive and the main thread.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "client/device_config.h"
#include "common/raii.h"
#include "session/session.h"

namespace Orvex {

namespace UnitExit {
// After the signout method: the unit keeps it down (RestartPreventExitStatus=, and
// SuccessExitStatus= so that it is not shown as failed).
constexpr int kSignedOut = 10;
// No usable settings, and nobody signed the process in: a restart would end the same way,
// so the unit keeps it down and shows it failed (systemd names it NOTCONFIGURED).
constexpr int kNotConfigured = 6;
}  // namespace UnitExit

class UnitInstance {
public:
    // The pauses between the process's own sign-in attempts: doubling from the first up
    // to the longest.
    static constexpr std::chrono::seconds kFirstPause{2};
    static constexpr std::chrono::seconds kLongestPause{300};

    // Reads the MAC's settings and the password credential, and sets the idle limit and
    // the sign-out status. Settings that exist but cannot be used (or no credential for
    // them) end the process with kNotConfigured, the reason in the log and the STATUS.
    UnitInstance(const std::string& mac, Session& session);
    // Stops the sign-in (waits for an attempt under way).
    ~UnitInstance();
    UnitInstance(const UnitInstance&) = delete;
    UnitInstance& operator=(const UnitInstance&) = delete;

    // The first attempt now, the next ones after the pauses, until one succeeds, a caller
    // signed the session in, or stop(). Nothing without settings.
    void start();
    void stop();

    // Before each keep-alive tick: false while the own sign-in still tries (the tick would
    // end the process for "not signin"). Without settings and without a caller's sign-in,
    // it ends the process with kNotConfigured after saying why.
    bool tickMayRun();

private:
    // Shared with the sign-in thread, which is detached: the process may end at any moment
    // (_exit after a signout or a session error), and a thread left to join there would be
    // a leak. The thread touches nothing else once it has set finished.
    struct Retries {
        std::mutex mutex;
        std::condition_variable wake;
        bool stopping = false;
        bool finished = false;
    };

    void run(Retries& retries);
    bool attempt();
    void reportFailure(std::chrono::seconds pause);

    Session& session_;
    std::string mac_;
    bool configured_ = false;
    DeviceConfig config_;
    JsonRef signinArgs_;

    std::shared_ptr<Retries> retries_;
    std::atomic<bool> retrying_{false};
};

}  // namespace Orvex
