// The thirteen bus methods of a per-device session process and their help texts.
//
// Each handler builds its option record from `json` (OptionException 400 on bad arguments),
// empties `json` and reuses it as the reply object, runs one operation of the Session
// singleton and replies through zs_reply_forward on `io`/`fd`. Handlers catch nothing: the
// worker that calls them turns exceptions into error replies and releases `json`, `io` and
// `fd` afterwards. `signout` ends the process with _exit(0) once it has replied (or with
// the status set by setSignoutExitStatus).
// Handlers keep no state; they run on whichever worker thread the service chooses.
#pragma once

#include <jansson.h>

#include "zservice/zservice.h"

namespace Orvex {

// The thirteen methods in registration order, each with its queue class: TICK for the
// three that only read the device, TOCK for those that change it or the session. The
// declarations below and the daemon's registry expand this one list.
#define ORVEX_SESSION_METHODS(M)                                                    \
    M(signin, TOCK) M(signout, TOCK) M(get_device_system_info, TICK)               \
    M(get_device_rsyslog_config, TICK) M(set_device_rsyslog_server_config, TOCK)   \
    M(set_device_rsyslog_client_config, TOCK) M(get_device_rsyslog_client, TICK)   \
    M(set_device_rsyslog_client, TOCK) M(add_device_rsyslog_client, TOCK)          \
    M(del_device_rsyslog_client, TOCK) M(add_device_rsyslog_client_test, TOCK)     \
    M(set_device_rsyslog_client_enable, TOCK) M(set_device_rsyslog_client_disable, TOCK)

// Per method: its help text `__<method>__` ("%SERVICE%"/"%GENERAL%" substituted by the
// registry; methods with the same options share one text) and its handler `<method>`.
#define ORVEX_DECLARE_METHOD(method, ticktock) \
    extern const char* __##method##__;         \
    void method(zs_io* io, json_t*& json, int& fd);
ORVEX_SESSION_METHODS(ORVEX_DECLARE_METHOD)
#undef ORVEX_DECLARE_METHOD

// The exit status after `signout` (0 unless set): a service manager that restarts the
// process on every other end must be able to tell that this one was asked for.
void setSignoutExitStatus(int status);

}  // namespace Orvex
