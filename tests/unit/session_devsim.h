// A real orvex-devsim child process on a loopback ephemeral port (the path comes from the
// build as ORVEX_DEVSIM) and its request log; shared by the session tests and benchmark.
// The child watches its standard input, so it also ends when the test process dies.
#pragma once

#include "common/raii.h"

#include <jansson.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace Orvex::Harness {

// One logged request of the simulator.
struct Logged {
    std::string method;
    std::string target;
    std::string body;
    JsonRef headers;

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
    Devsim(const std::string& family, bool tls, std::vector<std::string> extra = {}) : tls_(tls)
    {
        char path[] = "/tmp/orvex-session-devsim-XXXXXX";
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

    void stop()
    {
        if (pid_ <= 0)
            return;
        ::kill(pid_, SIGTERM);
        ::close(stdin_);
        int status = 0;
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
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
            Logged logged;
            logged.method = text(record.get(), "method");
            logged.target = text(record.get(), "target");
            logged.body = text(record.get(), "body");
            logged.headers = JsonRef::borrow(json_object_get(record.get(), "headers"));
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

private:
    static std::string text(json_t* record, const char* key)
    {
        json_t* value = json_object_get(record, key);
        return json_is_string(value) ? std::string(json_string_value(value), json_string_length(value)) : "";
    }

    void launch(const std::vector<std::string>& words)
    {
        int out[2], in[2];
        if (::pipe(out) != 0 || ::pipe(in) != 0)
            throw std::runtime_error("pipe");
        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(in[0], 0);
            ::dup2(out[1], 1);
            ::close(in[1]);
            ::close(out[0]);
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
        std::string line;
        char c;
        while (line.find('\n') == std::string::npos) {
            pollfd p{fd, POLLIN, 0};
            if (::poll(&p, 1, 20000) <= 0 || ::read(fd, &c, 1) != 1)
                throw std::runtime_error("orvex-devsim gave no ready line: " + line);
            line += c;
        }
        std::string prefix = std::string("orvex-devsim listening on ") + (tls_ ? "https" : "http") + "://127.0.0.1:";
        if (line.compare(0, prefix.size(), prefix) != 0)
            throw std::runtime_error("unexpected ready line: " + line);
        port_ = std::atoi(line.c_str() + prefix.size());
    }

    bool tls_;
    std::string log_;
    pid_t pid_ = -1;
    int stdin_ = -1;
    int port_ = 0;
};

}  // namespace Orvex::Harness
