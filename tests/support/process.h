// Shared test support: temporary folders, files, JSON helpers and child processes.
// For one test thread at a time; nothing here is tied to a particular program.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include <jansson.h>

#include "common/raii.h"

namespace Orvex::Test {

using namespace std::chrono_literals;

// True inside tests/isolate.sh (private lock, log and sbin folders and network).
bool isolated();

// A fresh directory under /tmp, removed with its content.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// Re-checks cond every few milliseconds until it holds or the time is up.
bool waitFor(const std::function<bool()>& cond, std::chrono::milliseconds timeout = 10s);
std::string readFile(const std::string& path);
// A null reference when the text does not parse.
JsonRef parseJson(const std::string& text);
// Compact text of a value, keys sorted (for comparisons and messages).
std::string dump(json_t* value);

struct Spawn {
    std::vector<std::string> argv;
    std::vector<std::string> env;     // extra NAME=VALUE entries
    std::string stdoutPath;           // empty: /dev/null
    std::string stderrPath;           // empty: /dev/null
    bool stdinPipe = false;           // else /dev/null
    int stdoutFd = -1;                // instead of stdoutPath
};

// One child process; killed (SIGKILL) and reaped at destruction if still there.
class Child {
public:
    explicit Child(const Spawn& spawn);
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t pid() const { return pid_; }
    bool running();
    // Exit status, 128 + signal number after a signal, -1 when still running at timeout.
    int wait(std::chrono::milliseconds timeout = 10s);
    void signal(int signo);
    // Write end of the child's stdin (with stdinPipe); closeStdin() sends EOF.
    void writeStdin(const std::string& text);
    void closeStdin();

private:
    pid_t pid_ = -1;
    int status_ = -1;
    bool reaped_ = false;
    UniqueFd stdin_;
};

struct RunResult {
    int status = -1;
    std::string out;
    std::string err;
};

// Runs a program to its end, feeding stdinText.
RunResult run(const std::vector<std::string>& argv, const std::vector<std::string>& env = {},
    const std::string& stdinText = "", std::chrono::milliseconds timeout = 60s);

}  // namespace Orvex::Test
