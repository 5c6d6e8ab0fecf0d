// Keeps this process's status file current: written at start, after every sign-in attempt
// and sign-out (the session's observer), and on each keep-alive tick. The last-use time is
// read from the session when writing, so calls themselves never touch the file; the file
// is therefore at most one keep-alive period (60 s) behind on it, which is also the
// granularity at which the idle limit is enforced. Thread-safe.
#pragma once

#include <mutex>
#include <string>

#include "client/status_file.h"
#include "session/session.h"

namespace Orvex {

class StatusKeeper {
public:
    explicit StatusKeeper(const std::string& mac);
    // After a sign-in attempt or a sign-out.
    void update(const SessionStatus& status);
    // On the keep-alive tick: the last-use time only.
    void refresh();
    // On an orderly stop.
    void remove();

private:
    void write();

    std::mutex mutex_;
    StatusRecord record_;
};

// One line for a service manager's STATUS=.
std::string describe(const SessionStatus& status);

}  // namespace Orvex
