#include "tests/support/devsim.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <stdexcept>

namespace Orvex::Test {

std::string Logged::header(const char* name) const
{
    return textAt(headers.get(), name);
}

std::vector<int> startDevsim(std::vector<std::string> argv, size_t devices, std::unique_ptr<Child>& child)
{
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0)
        throw std::runtime_error("orvex-devsim: no pipe for the ready lines");
    UniqueFd readEnd(out[0]), writeEnd(out[1]);
    Spawn spawn;
    spawn.argv = std::move(argv);
    spawn.stdinPipe = true;
    spawn.stdoutFd = writeEnd.get();
    child = std::make_unique<Child>(spawn);
    writeEnd.reset();
    std::vector<int> ports;
    std::string line;
    for (char c; ports.size() < devices;) {
        pollfd p{readEnd.get(), POLLIN, 0};
        if (poll(&p, 1, 20000) <= 0 || read(readEnd.get(), &c, 1) != 1)
            throw std::runtime_error("orvex-devsim gave " + std::to_string(ports.size()) + " of " +
                                     std::to_string(devices) + " ready lines: " + line);
        if (c != '\n') {
            line += c;
        } else if (line.rfind("orvex-devsim listening on http", 0) == 0) {
            ports.push_back(std::atoi(line.c_str() + line.rfind(':') + 1));
            line.clear();
        } else {
            throw std::runtime_error("orvex-devsim: unexpected ready line: " + line);
        }
    }
    return ports;
}

std::vector<int> startFleet(size_t devices, std::unique_ptr<Child>& child, bool tls)
{
    std::vector<std::string> argv = {ORVEX_DEVSIM, "--family", "mixed", "--devices", std::to_string(devices),
                                     "--port", "0", "--stdin-watch"};
    if (tls)
        argv.push_back("--tls");
    return startDevsim(argv, devices, child);
}

Devsim::Devsim(const std::string& family, bool tls, const std::vector<std::string>& extra) : tls_(tls)
{
    std::vector<std::string> argv = {ORVEX_DEVSIM, "--family", family, "--host", "127.0.0.1", "--port", "0",
                                     "--log", dir_.file("requests"), "--stdin-watch"};
    if (tls)
        argv.push_back("--tls");
    argv.insert(argv.end(), extra.begin(), extra.end());
    port_ = startDevsim(argv, 1, child_).front();
}

Devsim::~Devsim()
{
    stop();
}

int Devsim::stop()
{
    if (status_ != -1 || !child_)
        return status_;
    child_->closeStdin();
    status_ = child_->wait(5s);
    if (status_ == -1) {
        child_->signal(SIGKILL);
        status_ = child_->wait(5s);
    }
    return status_;
}

std::vector<Logged> Devsim::requests() const
{
    std::vector<Logged> out;
    std::ifstream in(dir_.file("requests"));
    std::string line;
    while (std::getline(in, line)) {
        JsonRef record = parseJson(line);
        if (!record)
            continue;
        out.push_back({textAt(record.get(), "method"), textAt(record.get(), "target"), textAt(record.get(), "body"),
                       JsonRef::borrow(json_object_get(record.get(), "headers")), std::move(record)});
    }
    return out;
}

std::vector<Logged> Devsim::requestsFrom(size_t from) const
{
    std::vector<Logged> all = requests();
    all.erase(all.begin(), all.begin() + static_cast<long>(std::min(from, all.size())));
    return all;
}

std::vector<Logged> Devsim::requestsTo(const std::string& method, const std::string& prefix) const
{
    std::vector<Logged> out;
    for (Logged& r : requests())
        if ((method.empty() || r.method == method) && r.target.rfind(prefix, 0) == 0)
            out.push_back(std::move(r));
    return out;
}

std::string Devsim::signinArgs(const std::string& pass) const
{
    JsonRef args = JsonRef::adopt(json_pack("{ss si ss ss sb}", "ip", "127.0.0.1", "port", port_, "user", "admin",
                                            "pass", pass.c_str(), "secure", tls_ ? 1 : 0));
    return dump(args.get());
}

}  // namespace Orvex::Test
