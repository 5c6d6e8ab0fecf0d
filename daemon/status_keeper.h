// Keeps this process's status file current: written at start, after every sign-in attempt
// and sign-out (the session's observer), and on each keep-alive tick. The last-use time is
// read from the session when writing, so calls themselves never touch the file; the file
// is therefore at most one keep-alive period (60 s) behind on it, which is also the
// granularity at which the idle limit is enforced.
//
// The last record tells how the process ended (no longer signed in, the state, the reason,
// the time); the first end recorded wins and nothing is written after it. Thread-safe;
// endFromSignal() is also async-signal-safe.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <mutex>
#include <string>

#include "client/status_file.h"
#include "session/session.h"

namespace Orvex {

class StatusKeeper {
public:
    StatusKeeper(const std::string& mac, bool systemd);
    // After a sign-in attempt or a sign-out.
    void update(const SessionStatus& status);
    // On the keep-alive tick: the last-use time only.
    void refresh();
    // state: "stopped", "ended" or "crashed" (see StatusRecord). True when this call made
    // the end record: not in another process (a forked copy), nor after an end.
    bool end(const char* state, bool abnormal, const std::string& reason);
    // The same without a lock or an allocation, for a signal handler: it completes the text
    // of the last record written. Does nothing in another process (a forked copy).
    void endFromSignal(const char* state, bool abnormal, const char* reason) noexcept;
    // The cause of the last failed sign-in, "" if none.
    std::string failure();

private:
    void write();
    void keepEndText();

    // Room for a record whose text fields are all at their bound, escaped.
    static constexpr size_t kTextRoom = 32768;

    const pid_t pid_;
    const std::string path_;
    const std::string endTemporary_;
    std::mutex mutex_;
    StatusRecord record_;
    std::atomic<bool> ended_{false};
    // The last record as not signed in, without its closing brace, in one of two buffers:
    // the one being filled is never the one a signal handler may be reading.
    char endText_[2][kTextRoom];
    size_t endLength_[2] = {0, 0};
    std::atomic<int> endCurrent_{-1};
};

// One line for a service manager's STATUS=.
std::string describe(const SessionStatus& status);

}  // namespace Orvex
