#include "tests/support/process.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/socket.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

namespace Orvex::Test {

bool isolated()
{
    const char* flag = std::getenv("ORVEX_ISOLATED");
    return flag && std::string(flag) == "1";
}

TempDir::TempDir()
{
    char pattern[] = "/tmp/orvex-test.XXXXXX";
    if (!mkdtemp(pattern))
        throw std::runtime_error(std::string("mkdtemp: ") + strerror(errno));
    path_ = pattern;
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

bool waitFor(const std::function<bool()>& cond, std::chrono::milliseconds timeout)
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!cond()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return cond();
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

unsigned modeOf(const std::string& path)
{
    struct stat st{};
    return lstat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string writeFile(const std::string& path, const std::string& content, unsigned mode)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
    chmod(path.c_str(), mode);
    return path;
}

std::vector<std::string> lines(const std::string& text)
{
    std::vector<std::string> out;
    size_t start = 0;
    for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
        out.push_back(text.substr(start, end - start));
    return out;
}

JsonRef parseJson(const std::string& text)
{
    return JsonRef::adopt(json_loadb(text.data(), text.size(), 0, nullptr));
}

std::string dump(json_t* value)
{
    if (!value)
        return "(null)";
    char* text = json_dumps(value, JSON_COMPACT | JSON_SORT_KEYS | JSON_ENCODE_ANY);
    std::string result = text ? text : "";
    free(text);
    return result;
}

std::string textAt(json_t* object, const char* key)
{
    json_t* value = json_object_get(object, key);
    return json_is_string(value) ? std::string(json_string_value(value), json_string_length(value)) : "";
}

namespace {

// A wait status as Child::wait reports it: the exit status, or 128 + the signal.
int exitStatus(int status)
{
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void redirect(int target, const std::string& path, int flags)
{
    int fd = open(path.empty() ? "/dev/null" : path.c_str(), flags, 0644);
    if (fd < 0 || dup2(fd, target) < 0)
        _exit(126);
    close(fd);
}

[[noreturn]] void execChild(const Spawn& spawn, int stdinRead)
{
    if (stdinRead >= 0 || spawn.stdinFd >= 0)
        dup2(stdinRead >= 0 ? stdinRead : spawn.stdinFd, STDIN_FILENO);
    else
        redirect(STDIN_FILENO, "", O_RDONLY);
    if (spawn.stdoutFd >= 0)
        dup2(spawn.stdoutFd, STDOUT_FILENO);
    else
        redirect(STDOUT_FILENO, spawn.stdoutPath, O_WRONLY | O_CREAT | O_TRUNC);
    redirect(STDERR_FILENO, spawn.stderrPath, O_WRONLY | O_CREAT | O_TRUNC);
    for (const std::string& entry : spawn.env)
        putenv(const_cast<char*>(entry.c_str()));
    if (spawn.uid >= 0 && (setgroups(0, nullptr) != 0 || setgid(gid_t(spawn.uid)) != 0 || setuid(uid_t(spawn.uid)) != 0))
        _exit(126);
    std::vector<char*> argv;
    for (const std::string& arg : spawn.argv)
        argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
}

}  // namespace

Child::Child(const Spawn& spawn)
{
    int pipeFds[2] = {-1, -1};
    if (spawn.stdinPipe && pipe2(pipeFds, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe failed");
    pid_ = fork();
    if (pid_ < 0)
        throw std::runtime_error("fork failed");
    if (pid_ == 0)
        execChild(spawn, pipeFds[0]);
    if (spawn.stdinPipe) {
        close(pipeFds[0]);
        stdin_.reset(pipeFds[1]);
    }
}

Child::~Child()
{
    stdin_.reset();
    if (!reaped_ && pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

bool Child::running()
{
    return wait(0ms) == -1;
}

bool Child::reap(int flags)
{
    int status = 0;
    if (!reaped_ && waitpid(pid_, &status, flags) == pid_) {
        reaped_ = true;
        status_ = exitStatus(status);
    }
    return reaped_;
}

int Child::waitEnd()
{
    reap(0);
    return status_;
}

int Child::wait(std::chrono::milliseconds timeout)
{
    return waitFor([this] { return reap(WNOHANG); }, timeout) ? status_ : -1;
}

void Child::signal(int signo)
{
    if (!reaped_)
        kill(pid_, signo);
}

void Child::writeStdin(const std::string& text)
{
    if (stdin_ && !text.empty() && write(stdin_.get(), text.data(), text.size()) < 0)
        ADD_FAILURE() << "could not write to the child's standard input";
}

void Child::closeStdin()
{
    stdin_.reset();
}

int openFds(pid_t pid)
{
    DIR* dir = opendir(pid ? ("/proc/" + std::to_string(pid) + "/fd").c_str() : "/proc/self/fd");
    if (!dir)
        return -1;
    int count = 0;
    while (dirent* entry = readdir(dir))
        count += entry->d_name[0] != '.';
    closedir(dir);
    return count - (pid ? 0 : 1);  // not the descriptor of the listing itself
}

int inChild(const std::function<void()>& body, bool quiet)
{
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        if (quiet)
            redirect(STDERR_FILENO, "", O_WRONLY);
        body();
        _exit(0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return exitStatus(status);
}

Stranger::Stranger(const std::function<std::string()>& setup)
{
    int report[2];
    if (pipe2(report, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe failed");
    fflush(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        close(report[0]);
        std::string said;
        if (setgroups(0, nullptr) == 0 && setgid(kNobody) == 0 && setuid(kNobody) == 0)
            said = setup();
        if (said.empty() || write(report[1], said.data(), said.size()) != static_cast<ssize_t>(said.size()))
            _exit(1);
        close(report[1]);
        for (;;)
            pause();
    }
    close(report[1]);
    char buffer[256];
    for (ssize_t n; (n = read(report[0], buffer, sizeof buffer)) > 0;)
        said_.append(buffer, static_cast<size_t>(n));
    close(report[0]);
}

Stranger::~Stranger()
{
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

bool dropCapabilities()
{
    // The bounding set first (that takes CAP_SETPCAP): otherwise root gets every
    // capability back from the next program it runs.
    int last = std::atoi(readFile("/proc/sys/kernel/cap_last_cap").c_str());
    for (int cap = 0; cap <= last; ++cap)
        if (prctl(PR_CAPBSET_DROP, cap, 0, 0, 0) != 0)
            return false;
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct none[2] = {};
    return syscall(SYS_capset, &header, none) == 0;
}

UniqueFd loopbackSocket(int type, int& port)
{
    UniqueFd fd(socket(AF_INET, type | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    socklen_t size = sizeof address;
    auto* sa = reinterpret_cast<sockaddr*>(&address);
    if (bind(fd.get(), sa, size) != 0 || (type == SOCK_STREAM && listen(fd.get(), 16) != 0) ||
        getsockname(fd.get(), sa, &size) != 0)
        return UniqueFd();
    port = ntohs(address.sin_port);
    return fd;
}

int closedPort()
{
    int port = 0;
    loopbackSocket(SOCK_STREAM, port);
    return port;
}

namespace {

RunResult runSpawn(Spawn spawn, const std::string& stdinText, std::chrono::milliseconds timeout)
{
    TempDir dir;
    spawn.stdoutPath = dir.file("out");
    spawn.stderrPath = dir.file("err");
    spawn.stdinPipe = true;
    RunResult result;
    {
        Child child(spawn);
        child.writeStdin(stdinText);
        child.closeStdin();
        result.status = child.wait(timeout);
    }
    result.out = readFile(dir.file("out"));
    result.err = readFile(dir.file("err"));
    return result;
}

}  // namespace

RunResult run(const std::vector<std::string>& argv, const std::vector<std::string>& env,
    const std::string& stdinText, std::chrono::milliseconds timeout)
{
    Spawn spawn;
    spawn.argv = argv;
    spawn.env = env;
    return runSpawn(spawn, stdinText, timeout);
}

RunResult runAs(int uid, const std::vector<std::string>& argv, std::chrono::milliseconds timeout)
{
    Spawn spawn;
    spawn.argv = argv;
    spawn.uid = uid;
    return runSpawn(spawn, "", timeout);
}

}  // namespace Orvex::Test
