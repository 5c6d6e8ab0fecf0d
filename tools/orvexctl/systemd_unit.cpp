#include "tools/orvexctl/systemd_unit.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <thread>
#include <vector>

#include <Poco/Exception.h>
#include <Poco/Pipe.h>
#include <Poco/PipeStream.h>
#include <Poco/Process.h>
#include <Poco/StreamCopier.h>

#include "common/files.h"
#include "common/paths.h"

namespace Orvex {
namespace ctl {

namespace {

using Args = std::vector<std::string>;

// Runs a program from PATH to its end; its output goes where ours does.
int run(const std::string& program, const Args& args)
{
    Poco::ProcessHandle child = Poco::Process::launch(program, args);
    return child.wait();
}

void systemctl(const Args& args)
{
    Args quiet{"--quiet"};
    quiet.insert(quiet.end(), args.begin(), args.end());
    int status = run("systemctl", quiet);
    if (status != 0) {
        std::string line = "systemctl";
        for (const std::string& a : args)
            line += " " + a;
        throw std::runtime_error(line + " failed (exit " + std::to_string(status) + ")");
    }
}

// systemd-creds' encryption of the password (host key, and the TPM where there is one),
// fed through a pipe; empty when it cannot encrypt here.
std::string encrypted(const std::string& password)
{
    try {
        Poco::Pipe in, out, err;
        Poco::ProcessHandle child = Poco::Process::launch("systemd-creds",
            {"encrypt", std::string("--name=") + Paths::kCredentialName, "-", "-"}, &in, &out, &err);
        // A tool that ends early must not take us down with SIGPIPE.
        ::signal(SIGPIPE, SIG_IGN);
        in.writeBytes(password.data(), static_cast<int>(password.size()));
        in.close(Poco::Pipe::CLOSE_WRITE);
        std::string text, noise;
        Poco::PipeInputStream output(out), errors(err);
        Poco::StreamCopier::copyToString(output, text);
        Poco::StreamCopier::copyToString(errors, noise);
        return child.wait() == 0 ? text : std::string();
    } catch (const Poco::Exception&) {
        return std::string();  // no systemd-creds
    }
}

// A file of the unit's configuration: readable by all, like the unit itself.
void writeUnitFile(const std::string& path, const std::string& text)
{
    if (replaceFile(path, text, 0644, false) != Replaced::Done)
        throw std::runtime_error(path + ": cannot write: " + std::strerror(errno));
}

Stored storePassword(const std::string& mac, const std::string& password)
{
    std::string secret = encrypted(password);
    Stored stored = secret.empty() ? Stored::Plain : Stored::Encrypted;
    bool encrypt = stored == Stored::Encrypted;
    writeRootOnlyFile(Paths::credentialPath(mac, encrypt), encrypt ? secret : password);
    // Only one of the two may stay, or disable would be the only one to know of the other.
    ::unlink(Paths::credentialPath(mac, !encrypt).c_str());
    std::string directory = Paths::dropInDirectory(mac);
    if (::mkdir(directory.c_str(), 0755) != 0 && errno != EEXIST)
        throw std::runtime_error(directory + ": cannot create: " + std::strerror(errno));
    writeUnitFile(Paths::dropInPath(mac),
        std::string("# Written by orvexctl enable, removed by orvexctl disable.\n[Service]\n") +
            (encrypt ? "LoadCredentialEncrypted=" : "LoadCredential=") + Paths::kCredentialName + ":" +
            Paths::credentialPath(mac, encrypt) + "\n");
    return stored;
}

void removeDropIn(const std::string& mac)
{
    std::string path = Paths::dropInPath(mac);
    if (::unlink(path.c_str()) != 0 && errno != ENOENT)
        throw std::runtime_error(path + ": cannot remove: " + std::strerror(errno));
    std::string directory = Paths::dropInDirectory(mac);
    if (::rmdir(directory.c_str()) != 0 && errno != ENOENT)
        throw std::runtime_error(directory + ": cannot remove: " + std::strerror(errno));
}

}  // namespace

void requireSystemd(const char* command)
{
    if (::access("/run/systemd/system", F_OK) != 0)
        throw std::runtime_error(std::string(command) + " needs systemd running (no /run/systemd/system)");
}

Stored enableInstance(const DeviceConfig& config, const std::string& password)
{
    requireSystemd("enable");
    writeDeviceConfig(config);
    Stored stored = storePassword(config.mac, password);
    const std::string unit = Paths::unitName(config.mac);
    systemctl({"daemon-reload"});
    systemctl({"enable", unit});
    // A running instance takes the new settings only when it starts again.
    systemctl({"restart", unit});
    return stored;
}

void disableInstance(const std::string& mac)
{
    requireSystemd("disable");
    std::string firstFailure;
    auto attempt = [&firstFailure](const std::function<void()>& step) {
        try {
            step();
        } catch (const std::exception& e) {
            if (firstFailure.empty())
                firstFailure = e.what();
        }
    };
    attempt([&] { systemctl({"disable", "--now", Paths::unitName(mac)}); });
    attempt([&] { removeDeviceFiles(mac); });
    attempt([&] { removeDropIn(mac); });
    attempt([] { systemctl({"daemon-reload"}); });
    if (!firstFailure.empty())
        throw std::runtime_error(firstFailure);
}

bool waitForSignin(const std::string& mac, std::chrono::seconds timeout, StatusRecord& record)
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (readStatus(mac, record) && (record.signedIn || !record.failure.empty() || !record.end.empty()))
            return true;
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

}  // namespace ctl
}  // namespace Orvex
