// The one authenticated HTTP(S) session of this process with its remote storage device,
// and the client-side operations that start, stop and call per-device session processes.
//
// Ownership: a process-wide singleton (getInstance()); json_t*& arguments are the caller's
// objects, filled in place, never released here.
// Threads: every instance operation takes the session's own (recursive) lock for its whole
// run, so the keep-alive timer thread and the handler threads see one operation at a time;
// getInstance() takes no session lock (the stamp is atomic). The static operations share
// nothing.
// Errors: SessionException ("connection fail" 400, "not signin" 403, "signin fail" 403),
// SessionNotFound(<MAC>, 0) for the per-device process operations. alive() may end the
// process with _exit(1). Neither the password nor a token is ever written to a log.
#pragma once

#include "common/exceptions.h"
#include "option/option.h"

#include <jansson.h>

#include <Poco/Timer.h>

#include <atomic>
#include <cstdint>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>

namespace Poco::Net {
class HTTPRequest;
}

namespace Orvex {

enum FirmwareFamily : int32_t { None = 0, Zem = 1, Nvx = 2 };

class Session {
public:
    Session();
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // The singleton; every call counts as use of the session (stamps lastAccess = time(0)).
    static Session& getInstance();

    // One exchange with the device: the reply body whatever the HTTP status. Sends the
    // session's cookies (legacy) or bearer token (otherwise) while signed in; "json" adds
    // the content type "application/json". Throws SessionException("connection fail", 400).
    std::string request(const std::string& method, const std::string& path, const std::string& body, bool json);
    std::string request(const std::string& method, const std::string& path);

    // Signs out of any previous session, then tries the legacy family and then the token
    // family; fills "out" like getSystemInfo. Throws "signin fail" (403), or "connection fail"
    // when the preceding sign-out cannot reach the old device.
    bool signin(json_t*& out, SigninOption& opt);
    // The family's own sign-out; false without a request when no family is known.
    bool signout();
    // Sets "model", "serial", "firmware" and "hostname" in "out"; other members stay.
    void getSystemInfo(json_t*& out);
    // Keep-alive tick: ends the process (_exit(1)) when idle for over 600 s or dead.
    void alive(Poco::Timer& timer);

    // Per-device processes over the service bus; each result replaces the object's content.
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
    struct Tls;

    std::string exchange(Poco::Net::HTTPRequest& request, const std::string& body);
    std::string exchangeTls(Poco::Net::HTTPRequest& request, const std::string& body);
    void addCredentials(Poco::Net::HTTPRequest& request) const;
    void requireSignin() const;
    void clearFields();

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
    std::atomic<time_t> lastAccess{0};
    std::unique_ptr<Tls> tls;
};

}  // namespace Orvex
