// Sign-in, sign-out, the device identity and the keep-alive tick; and the client side of
// the per-device processes (launch, stop, forward a call over the service bus).
#include "session/session.h"

#include "common/misc.h"
#include "common/raii.h"
#include "common/trace.h"
#include "session/buffer.h"
#include "zservice/channel.h"

#include <Poco/Logger.h>
#include <Poco/Process.h>

#include <unistd.h>

#include <cstdlib>

namespace Orvex {

using session_detail::dumpInto;
using session_detail::replaceContent;

namespace {

constexpr const char* kRunDirectory = "/var/run/orvex";
constexpr const char* kProgramName = "orvex-session";
constexpr const char* kProgramFile = "/usr/local/sbin/orvex-session";
constexpr time_t kIdleLimit = 600;
constexpr int kCallTimeout = 30;

std::string deviceAddress(const std::string& mac)
{
    return strformat("@%s/%s@%s", kRunDirectory, kProgramName, mac.c_str());
}

// One bus call to the per-device process; the buffer then holds its reply.
void callDevice(const std::string& mac, const std::string& method, zs_io* buffer)
{
    if (zs_call(deviceAddress(mac).c_str(), method.c_str(), buffer, kCallTimeout, -1) != 0)
        throw SessionNotFound(mac, 0);
}

void replaceWithReply(json_t* target, zs_io* buffer)
{
    replaceContent(target, zs_io_read(buffer, 0), zs_io_size(buffer));
}

[[noreturn]] void endProcess(Session& session, const char* reason)
{
    Poco::Logger::root().warning(strformat("[Session] %s", reason));
    try {
        session.signout();
    } catch (const Poco::Exception& e) {
        // The device is gone or refuses us: the process ends all the same, or it would
        // linger with a dead session and retry on every tick.
        Poco::Logger::root().warning(strformat("[Session] signout: %s", e.displayText().c_str()));
    }
    _exit(1);
}

}  // namespace

bool Session::signin(json_t*& out, SigninOption& opt)
{
    ORVEX_TRACE();
    Lock lock(mutex);
    signout();
    host = opt.ip;
    port = static_cast<uint32_t>(opt.port);
    secure = opt.secure;
    user = opt.user;
    password = opt.pass;
    if (!_nvx_signin() && !_zem_signin())
        throw SessionException("signin fail", 403);
    getSystemInfo(out);
    return true;
}

bool Session::signout()
{
    ORVEX_TRACE();
    Lock lock(mutex);
    if (family == Zem)
        return _zem_signout();
    if (family == Nvx)
        return _nvx_signout();
    return false;
}

void Session::getSystemInfo(json_t*& out)
{
    ORVEX_TRACE();
    Lock lock(mutex);
    requireSignin();
    json_object_set_new(out, "model", json_string(model.c_str()));
    json_object_set_new(out, "serial", json_string(serial.c_str()));
    json_object_set_new(out, "firmware", json_string(firmware.c_str()));
    json_object_set_new(out, "hostname", json_string(hostname.c_str()));
}

void Session::alive(Poco::Timer&)
{
    ORVEX_TRACE();
    Lock lock(mutex);
    if (time(nullptr) - lastAccess.load() > kIdleLimit)
        endProcess(*this, "timeout");
    if (!sid.empty() && (_zem_alive() || _nvx_alive()))
        return;
    endProcess(*this, "not signin");
}

void Session::start(json_t*& out, const DeviceOption& opt)
{
    ORVEX_TRACE();
    if (opt.mac.empty())
        throw SessionNotFound(opt.mac, 0);
    // The program detaches itself, so the wait ends when its first half exits.
    Poco::ProcessHandle handle = Poco::Process::launch(kProgramFile, Poco::Process::Args{"-m", opt.mac});
    handle.wait();
    // Time for the new process to register on the bus.
    usleep(500000);
    ZsIoPtr buffer = makeZsIo();
    JsonRef args = JsonRef::adopt(json_pack("{ss si sb ss ss}", "ip", opt.ip.c_str(), "port", opt.port, "secure",
                                            opt.secure, "user", opt.user.c_str(), "pass", opt.pass.c_str()));
    dumpInto(args.get(), buffer.get());
    args.reset();
    callDevice(opt.mac, "signin", buffer.get());
    replaceWithReply(out, buffer.get());
}

void Session::stop()
{
    ORVEX_TRACE();
    int status = std::system("/bin/kill $(/usr/sbin/lsof -t /usr/local/sbin/orvex-session) 2>/dev/null");
    (void)status;
}

void Session::stop(json_t*&, const MacOption& opt)
{
    ORVEX_TRACE();
    if (opt.mac.empty())
        throw SessionNotFound(opt.mac, 0);
    ZsIoPtr buffer = makeZsIo();
    callDevice(opt.mac, "signout", buffer.get());
}

void Session::call(json_t*& inout, const DeviceOption& opt, std::string method)
{
    ORVEX_TRACE();
    if (opt.mac.empty())
        throw SessionNotFound(opt.mac, 0);
    ZsIoPtr buffer = makeZsIo();
    dumpInto(inout, buffer.get());
    callDevice(opt.mac, method, buffer.get());
    replaceWithReply(inout, buffer.get());
}

}  // namespace Orvex
