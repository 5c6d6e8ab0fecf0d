// The one authenticated HTTP(S) session of this process with its remote storage device,
// and forwarders of the client-side operations that start, stop and call per-device
// session processes (client/control.h).
//
// Ownership: a process-wide singleton (getInstance()); json_t*& arguments are the caller's
// objects, filled in place, never released here.
// Threads: every instance operation takes the session's own (recursive) lock for its whole
// run, so the keep-alive timer thread and the handler threads see one operation at a time;
// getInstance(), lastUse() and status() take no session lock (the stamp is atomic, the
// status a snapshot under its own small lock), so they never wait behind a device. The
// static operations share nothing.
// Errors: SessionException ("connection fail" 400, "not signin" 403, "signin fail" 403),
// SessionNotFound(<MAC>, 0) for the per-device process operations. alive() may end the
// process with _exit(1). Neither the password nor a session id or token is ever written to
// a log, not even in the traced device answers.
// Bounds: one exchange with the device (connect, TLS handshake, send, receive) ends within
// 10 s, and an answer over 16 MiB fails it ("connection fail"); so a sign-in ends within
// 70 s (sign-out, then up to three exchanges per family), a keep-alive tick within 20 s.
#pragma once

#include "common/exceptions.h"
#include "common/idle.h"
#include "common/raii.h"
#include "option/option.h"

#include <jansson.h>

#include <Poco/Timer.h>

#include <atomic>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace Poco::Net {
class HTTPRequest;
}

namespace Orvex {

namespace session_detail {
class TlsClient;
enum class Cause : int;
}  // namespace session_detail

enum FirmwareFamily : int32_t { None = 0, Zem = 1, Nvx = 2 };

// What a front end may show about the session; a snapshot.
struct SessionStatus {
    int family = None;
    std::string host;
    unsigned port = 0;
    bool secure = false;
    std::string model, serial, firmware, hostname;
    bool signedIn = false;
    // Cause of the last failed sign-in: "" or one of "refused", "unreachable" (no route or
    // time-out), "tls-mismatch" (TLS vs plain HTTP), "credentials", "bad-answer".
    std::string failure;
};

class Session {
public:
    Session();
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // The singleton; every call counts as use of the session (stamps lastAccess = time(0)).
    static Session& getInstance();
    // The last use without counting as one (0 while no instance exists).
    static time_t lastUse();

    // Thread-safe snapshot, as of the last sign-in attempt, sign-out or reset.
    SessionStatus status() const;
    // Called with the new status after every sign-in attempt (success or failure) and every
    // sign-out, on the thread that made it, with the session locked: it must not wait for
    // another session operation. Exceptions it throws are dropped.
    void setObserver(std::function<void(const SessionStatus&)> fn);

    // One exchange with the device: the reply body whatever the HTTP status. Sends the
    // session's cookies (legacy) or bearer token (otherwise) while signed in; "json" adds
    // the content type "application/json". Throws SessionException("connection fail", 400),
    // also for an answer over 16 MiB or an exchange not done within 10 s; the cause is logged
    // with the device address.
    std::string request(const std::string& method, const std::string& path, const std::string& body, bool json);
    std::string request(const std::string& method, const std::string& path);

    // Signs out of any previous session, then tries the legacy family and then the token
    // family; fills "out" like getSystemInfo. Throws "signin fail" (403), or "connection fail"
    // when the preceding sign-out cannot reach the old device. Each failed family logs a
    // warning naming the device address and the cause.
    bool signin(json_t*& out, SigninOption& opt);
    // The same unless a session is already held (whoever signed in first, a caller of the
    // signin method above all, wins): then false without a request. For the process's own
    // sign-in from its stored settings.
    bool signinUnlessSignedIn(json_t*& out, SigninOption& opt);
    // The family's own sign-out; false without a request when no family is known. The
    // status says signed out from then on, also for the legacy family, whose fields stay.
    bool signout();
    // Sets "model", "serial", "firmware" and "hostname" in "out"; other members stay.
    void getSystemInfo(json_t*& out);
    // Keep-alive tick: ends the process (_exit(1)) when idle for over the idle limit or dead.
    void alive(Poco::Timer& timer);
    // The idle limit in seconds, 600 unless set; 0: never idle.
    void setIdleLimit(time_t seconds);

    // Per-device processes over the service bus (forwarded to Orvex::Control, which bus
    // clients use directly); each result replaces the object's content.
    static void start(json_t*& out, const DeviceOption& opt);
    static void stop();
    static void stop(json_t*& out, const MacOption& opt);
    static void call(json_t*& inout, const DeviceOption& opt, std::string method);

    // Remote syslog: one REST call each; the device's JSON object answer replaces the
    // content of "json" (anything else leaves it empty). "not signin" (403) before sign-in.
    void getRsyslogConfig(json_t*& json);
    void setRsyslogClientConfig(json_t*& json, SyslogClientManagerOption& option);
    void setRsyslogServerConfig(json_t*& json, SyslogServerOption& option);
    void getRsyslogClient(json_t*& json);
    void setRsyslogClient(json_t*& json, SyslogClientOption& option);
    void addRsyslogClient(json_t*& json, SyslogClientOption& option);
    void delRsyslogClient(json_t*& json, IdOption& option);
    void setRsyslogClientEnable(json_t*& json, IdOption& option);
    void setRsyslogClientDisable(json_t*& json, IdOption& option);
    void addRsyslogClientTest(json_t*& json, SyslogClientOption& option);

    FirmwareFamily getFamily() const;
    // For tests: moves the last-use stamp (to reach the idle limit without waiting), and
    // returns the object to its freshly constructed state without any request.
    void setLastAccess(time_t stamp);
    void reset();

private:
    using Lock = std::lock_guard<std::recursive_mutex>;
    using Cause = session_detail::Cause;
    struct Published;

    void addCredentials(Poco::Net::HTTPRequest& request) const;
    void requireSignin() const;
    // What the status calls signed in: a session id that no sign-out has ended.
    bool holdsSession() const;
    void clearFields();
    // One remote-syslog operation: lock, sign-in check, then target and body (built only
    // then), the request, the traced answer (under the operation's name), and the answer
    // merged into json. No body function: a request without body and content type.
    void syslogStep(json_t* json, const char* operation, const std::string& method,
                    const std::function<std::string()>& target, const std::function<std::string()>& body = nullptr);
    // The text with the password, session id and tokens (known or in the answer) hidden.
    std::string redacted(std::string text) const;
    // One family's sign-in; Cause::None on success, else the cause.
    Cause attempt(bool (Session::*step)());
    // The outcome of a sign-in's attempts (token None unless legacy failed).
    void logSignin(Cause legacy, Cause token);
    // Records the cause of a failed sign-in step (a transport cause found first stays).
    bool failStep(Cause cause);
    // A family step's rules, run so that anything thrown (no answer, one that does not parse)
    // fails the step with the given cause.
    bool checkedStep(Cause onThrow, const std::function<bool()>& rules);
    // One exchange of a family step, without content type; the answer is traced under the
    // step's name at the caller's file and line, as a trace point there would write it.
    std::string answer(const char* step, const std::string& method, const std::string& path,
                       const std::string& body = std::string(), const char* file = __builtin_FILE(),
                       int line = __builtin_LINE());
    bool signoutFamily();
    void publish(bool notify);

    bool _nvx_signin();
    bool _nvx_getSystemInfo();
    bool _nvx_getDeviceSerial();
    bool _nvx_alive();
    bool _nvx_signout();
    bool _zem_signin();
    bool _zem_getSystemInfo();
    bool _zem_getDeviceSerial();
    bool _zem_alive();
    bool _zem_signout();

    mutable std::recursive_mutex mutex;
    std::string host;
    uint32_t port = 0;
    bool secure = false;
    std::string user;
    std::string password;
    FirmwareFamily family = None;
    std::string sid;
    std::string accessToken;
    std::string refreshToken;
    std::string model;
    std::string serial;
    std::string firmware;
    std::string hostname;
    // The identity as JSON strings, each made (and its UTF-8 checked) once per value and
    // shared by reference with every reply: it is read far more often than it changes.
    struct IdentityJson {
        std::string value;
        JsonRef json;
        bool made = false;
        json_t* of(const std::string& current);
    };
    IdentityJson modelJson, serialJson, firmwareJson, hostnameJson;
    std::atomic<time_t> lastAccess{0};
    std::atomic<time_t> idleLimit{Idle::kDefaultSeconds};
    // Set by signout(), cleared by signin(): a legacy sign-out leaves the session id.
    bool signedOut = false;
    std::unique_ptr<session_detail::TlsClient> tls;
    int lastStatus = 0;
    Cause stepFailure{};
    Cause signinFailure{};

    mutable std::mutex statusMutex;
    SessionStatus published;
    std::function<void(const SessionStatus&)> observer;
    static std::atomic<Session*> current;
};

}  // namespace Orvex
