// The daemon as the template unit runs it (orvex-session -d -m MAC --unit), for tests under
// tests/isolate.sh: its settings written as orvexctl enable writes them, the password in a
// credentials folder handed over as CREDENTIALS_DIRECTORY, and its notifications going to
// a stand-in service manager. Header-only; link orvex::client.
#pragma once

#include <sys/stat.h>

#include <fstream>
#include <memory>
#include <string>

#include "client/device_config.h"
#include "client/status_file.h"
#include "common/paths.h"
#include "tests/support/daemon.h"

namespace Orvex::Test {

struct UnitDaemonOptions {
    int port = 0;          // the device's port; 0: no settings at all
    bool secure = false;
    bool credential = true;  // hand over the password "secret"
    long idle = 600;         // the settings' idle limit
};

class UnitDaemon {
public:
    UnitDaemon(const std::string& mac, const UnitDaemonOptions& options) : mac_(mac)
    {
        if (options.port != 0)
            writeDeviceConfig(DeviceConfig{mac, "127.0.0.1", options.port, "admin", options.secure, options.idle});
        std::vector<std::string> env = {manager_.env()};
        if (options.credential) {
            std::string folder = dir_.file("credentials");
            mkdir(folder.c_str(), 0700);
            std::ofstream(folder + "/" + Paths::kCredentialName) << "secret";
            env.push_back("CREDENTIALS_DIRECTORY=" + folder);
        }
        daemon_ = std::make_unique<Daemon>(mac, std::vector<std::string>{"--unit"}, daemonBinary(),
            std::vector<std::string>{}, env);
    }
    ~UnitDaemon() { removeDeviceFiles(mac_); }
    UnitDaemon(const UnitDaemon&) = delete;
    UnitDaemon& operator=(const UnitDaemon&) = delete;

    NotifySocket& manager() { return manager_; }
    Child& process() { return daemon_->process(); }
    std::string log() const { return daemon_->log(); }

    // The last record of the status file once the process has ended: "state: reason".
    std::string end() const
    {
        StatusRecord record;
        if (!readStatus(mac_, record))
            return "no status file";
        return record.end + ": " + record.reason + (record.signedIn ? " (still signed in)" : "");
    }

private:
    std::string mac_;
    TempDir dir_;
    NotifySocket manager_;
    std::unique_ptr<Daemon> daemon_;
};

}  // namespace Orvex::Test
