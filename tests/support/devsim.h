// The device simulator (orvex-devsim, path from the build as ORVEX_DEVSIM) as a child
// process on 127.0.0.1 and an ephemeral port, with its request log. Header-only, so that
// benchmarks can use it without the test library. The child watches its standard input,
// so it also ends when the test process dies. Not for use from several threads at once.
#pragma once

#include "common/raii.h"

#include <fcntl.h>
#include <jansson.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace Orvex::Test {

// One logged request of the simulator; record is the whole log line.
struct Logged {
    std::string method;
    std::string target;
    std::string body;
    JsonRef headers;
    JsonRef record;

    std::string header(const char* name) const
    {
        json_t* value = json_object_get(headers.get(), name);
        return json_is_string(value) ? json_string_value(value) : std::string();
    }
    bool hasHeader(const char* name) const { return json_object_get(headers.get(), name) != nullptr; }
};

class Devsim {
public:
    // family: "legacy" or "token"; extra: further command-line words (fault knobs).
    // Throws when the simulator does not print its ready line.
    Devsim(const std::string& family, bool tls, std::vector<std::string> extra = {}) : tls_(tls)
    {
        char path[] = "/tmp/orvex-devsim-log-XXXXXX";
        int fd = mkstemp(path);
        if (fd < 0)
            throw std::runtime_error("cannot create the request log");
        ::close(fd);
        log_ = path;
        std::vector<std::string> words{ORVEX_DEVSIM, "--family", family, "--host", "127.0.0.1", "--port", "0",
                                       "--log", log_, "--stdin-watch"};
        if (tls)
            words.push_back("--tls");
        words.insert(words.end(), extra.begin(), extra.end());
        launch(words);
    }
    ~Devsim()
    {
        stop();
        ::unlink(log_.c_str());
    }
    Devsim(const Devsim&) = delete;
    Devsim& operator=(const Devsim&) = delete;

    int port() const { return port_; }
    bool tls() const { return tls_; }
    pid_t pid() const { return pid_; }
    const std::string& readyLine() const { return ready_; }

    // SIGSTOP and SIGCONT: a device that stops answering, and back.
    void freeze() { frozen_ = pid_ > 0 && ::kill(pid_, SIGSTOP) == 0; }
    void thaw()
    {
        if (frozen_)
            ::kill(pid_, SIGCONT);
        frozen_ = false;
    }

    // Closes its standard input (it ends on that) and returns its exit status, 128 + the
    // signal after a signal; one that has not ended within 5 s is killed.
    int stop()
    {
        if (pid_ <= 0)
            return status_;
        thaw();
        ::close(stdin_);
        int status = 0;
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (::waitpid(pid_, &status, WNOHANG) == 0) {
            if (std::chrono::steady_clock::now() > deadline)
                ::kill(pid_, SIGKILL);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        pid_ = -1;
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return status_;
    }

    // Every request logged so far, in arrival order.
    std::vector<Logged> requests() const
    {
        std::vector<Logged> out;
        std::ifstream in(log_);
        std::string line;
        while (std::getline(in, line)) {
            JsonRef record = JsonRef::adopt(json_loads(line.c_str(), 0, nullptr));
            if (!record)
                continue;
            Logged logged{text(record.get(), "method"), text(record.get(), "target"), text(record.get(), "body"),
                          JsonRef::borrow(json_object_get(record.get(), "headers")), std::move(record)};
            out.push_back(std::move(logged));
        }
        return out;
    }

    // The requests logged after the first `from`.
    std::vector<Logged> requestsFrom(size_t from) const
    {
        std::vector<Logged> all = requests();
        if (from >= all.size())
            return {};
        return std::vector<Logged>(std::make_move_iterator(all.begin() + static_cast<long>(from)),
                                   std::make_move_iterator(all.end()));
    }

    // Requests with this HTTP method (any when empty) whose target starts with prefix.
    std::vector<Logged> requestsTo(const std::string& method, const std::string& prefix) const
    {
        std::vector<Logged> out;
        for (Logged& r : requests())
            if ((method.empty() || r.method == method) && r.target.rfind(prefix, 0) == 0)
                out.push_back(std::move(r));
        return out;
    }

    // Arguments of "signin" for this device.
    std::string signinArgs(const std::string& pass = "secret") const
    {
        JsonRef args = JsonRef::adopt(json_pack("{ss si ss ss sb}", "ip", "127.0.0.1", "port", port_, "user", "admin",
                                                "pass", pass.c_str(), "secure", tls_ ? 1 : 0));
        char* text = json_dumps(args.get(), JSON_COMPACT);
        std::string out = text ? text : "";
        free(text);
        return out;
    }

private:
    static std::string text(json_t* record, const char* key)
    {
        json_t* value = json_object_get(record, key);
        return json_is_string(value) ? std::string(json_string_value(value), json_string_length(value)) : "";
    }

    void launch(const std::vector<std::string>& words)
    {
        int out[2], in[2];
        if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(in, O_CLOEXEC) != 0)
            throw std::runtime_error("pipe");
        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(in[0], 0);
            ::dup2(out[1], 1);
            std::vector<char*> argv;
            for (const std::string& w : words)
                argv.push_back(const_cast<char*>(w.c_str()));
            argv.push_back(nullptr);
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
        ::close(in[0]);
        ::close(out[1]);
        stdin_ = in[1];
        readReadyLine(out[0]);
        ::close(out[0]);
    }

    // "orvex-devsim listening on <scheme>://127.0.0.1:<port>"
    void readReadyLine(int fd)
    {
        char c;
        while (ready_.find('\n') == std::string::npos) {
            pollfd p{fd, POLLIN, 0};
            if (::poll(&p, 1, 20000) <= 0 || ::read(fd, &c, 1) != 1) {
                stop();
                throw std::runtime_error("orvex-devsim gave no ready line: " + ready_);
            }
            ready_ += c;
        }
        std::string prefix = std::string("orvex-devsim listening on ") + (tls_ ? "https" : "http") + "://127.0.0.1:";
        if (ready_.compare(0, prefix.size(), prefix) != 0) {
            stop();
            throw std::runtime_error("unexpected ready line: " + ready_);
        }
        port_ = std::atoi(ready_.c_str() + prefix.size());
    }

    bool tls_;
    bool frozen_ = false;
    std::string log_;
    std::string ready_;
    pid_t pid_ = -1;
    int stdin_ = -1;
    int port_ = 0;
    int status_ = -1;
};

}  // namespace Orvex::Test
