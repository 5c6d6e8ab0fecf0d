#include "tests/e2e/support.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "zservice/channel.h"

namespace e2e {

std::string daemonBinary() { return ORVEX_E2E_DAEMON; }
std::string devsimBinary() { return ORVEX_E2E_DEVSIM; }
std::string ctlBinary() { return ORVEX_E2E_CTL; }
std::string zsCallBinary() { return ORVEX_E2E_ZSCALL; }

bool isolated()
{
    const char* flag = std::getenv("ORVEX_ISOLATED");
    return flag && std::string(flag) == "1";
}

TempDir::TempDir()
{
    char pattern[] = "/tmp/orvex-e2e.XXXXXX";
    if (!mkdtemp(pattern))
        throw std::runtime_error(std::string("mkdtemp: ") + strerror(errno));
    path_ = pattern;
}

TempDir::~TempDir()
{
    std::string command = "rm -rf '" + path_ + "'";
    if (std::system(command.c_str()) != 0)
        std::fprintf(stderr, "could not remove %s\n", path_.c_str());
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

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
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

namespace {

void redirect(int target, const std::string& path, int flags)
{
    int fd = open(path.empty() ? "/dev/null" : path.c_str(), flags, 0644);
    if (fd < 0 || dup2(fd, target) < 0)
        _exit(126);
    close(fd);
}

[[noreturn]] void execChild(const Spawn& spawn, int stdinRead)
{
    if (stdinRead >= 0)
        dup2(stdinRead, STDIN_FILENO);
    else
        redirect(STDIN_FILENO, "", O_RDONLY);
    if (spawn.stdoutFd >= 0)
        dup2(spawn.stdoutFd, STDOUT_FILENO);
    else
        redirect(STDOUT_FILENO, spawn.stdoutPath, O_WRONLY | O_CREAT | O_TRUNC);
    redirect(STDERR_FILENO, spawn.stderrPath, O_WRONLY | O_CREAT | O_TRUNC);
    for (const std::string& entry : spawn.env)
        putenv(const_cast<char*>(entry.c_str()));
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

int Child::wait(std::chrono::milliseconds timeout)
{
    auto done = [this] {
        if (reaped_)
            return true;
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) != pid_)
            return false;
        reaped_ = true;
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return true;
    };
    return waitFor(done, timeout) ? status_ : -1;
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

RunResult run(const std::vector<std::string>& argv, const std::vector<std::string>& env,
    const std::string& stdinText, std::chrono::milliseconds timeout)
{
    TempDir dir;
    RunResult result;
    {
        Child child({argv, env, dir.file("out"), dir.file("err"), true});
        child.writeStdin(stdinText);
        child.closeStdin();
        result.status = child.wait(timeout);
    }
    result.out = readFile(dir.file("out"));
    result.err = readFile(dir.file("err"));
    return result;
}

namespace {

// The simulator's one ready line, read with a time limit.
std::string readReadyLine(int fd)
{
    std::string line;
    auto deadline = std::chrono::steady_clock::now() + 15s;
    while (line.find('\n') == std::string::npos && std::chrono::steady_clock::now() < deadline) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 100) <= 0)
            continue;
        char buffer[256];
        ssize_t n = read(fd, buffer, sizeof buffer);
        if (n <= 0)
            break;
        line.append(buffer, static_cast<size_t>(n));
    }
    return line;
}

}  // namespace

Devsim::Devsim(const std::string& family, bool tls, const std::vector<std::string>& extra) : tls_(tls)
{
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe failed");
    Spawn spawn{{devsimBinary(), "--family", family, "--port", "0", "--log", dir_.file("requests.log"),
                    "--stdin-watch"},
        {}, "", dir_.file("stderr"), true, out[1]};
    if (tls)
        spawn.argv.push_back("--tls");
    spawn.argv.insert(spawn.argv.end(), extra.begin(), extra.end());
    child_ = std::make_unique<Child>(spawn);
    close(out[1]);
    stdout_.reset(out[0]);
    std::string line = readReadyLine(stdout_.get());
    size_t colon = line.rfind(':');
    if (line.rfind("orvex-devsim listening on ", 0) != 0 || colon == std::string::npos)
        throw std::runtime_error("orvex-devsim did not start: " + line + readFile(dir_.file("stderr")));
    port_ = std::atoi(line.c_str() + colon + 1);
}

Devsim::~Devsim()
{
    child_->signal(SIGTERM);
    if (child_->wait(5s) == -1)
        child_->signal(SIGKILL);
}

std::vector<JsonRef> Devsim::requests() const
{
    std::vector<JsonRef> result;
    std::istringstream lines(readFile(dir_.file("requests.log")));
    std::string line;
    while (std::getline(lines, line))
        if (JsonRef entry = parseJson(line))
            result.push_back(std::move(entry));
    return result;
}

std::vector<JsonRef> Devsim::requestsTo(const std::string& method, const std::string& prefix) const
{
    std::vector<JsonRef> result;
    for (JsonRef& entry : requests()) {
        const char* m = json_string_value(json_object_get(entry.get(), "method"));
        const char* target = json_string_value(json_object_get(entry.get(), "target"));
        if (m && target && method == m && std::string(target).rfind(prefix, 0) == 0)
            result.push_back(std::move(entry));
    }
    return result;
}

std::string Devsim::signinArgs(const std::string& pass) const
{
    JsonRef args = JsonRef::adopt(json_pack("{ss si ss ss sb}", "ip", "127.0.0.1", "port", port_, "user", "admin",
        "pass", pass.c_str(), "secure", tls_ ? 1 : 0));
    return dump(args.get());
}

std::string busAddress(const std::string& mac)
{
    return "@/var/run/orvex/orvex-session@" + mac;
}

BusReply busCall(const std::string& mac, const std::string& method, const std::string& body, int fd,
    int timeoutSeconds)
{
    Orvex::ZsIoPtr io = Orvex::makeZsIo();
    zs_io_write(io.get(), body.data(), body.size());
    BusReply reply;
    errno = 0;
    reply.rc = zs_call(busAddress(mac).c_str(), method.c_str(), io.get(), timeoutSeconds, fd);
    reply.error = errno;
    reply.body.assign(zs_io_read(io.get(), 0), zs_io_size(io.get()));
    return reply;
}

std::string lockPath(const std::string& mac)
{
    return "/var/lock/orvex-session@" + mac + ".pid";
}

Daemon::Daemon(const std::string& mac, const std::vector<std::string>& extra, const std::string& binary)
    : mac_(mac)
{
    Spawn spawn{{binary, "-d", "-m", mac}, {}, dir_.file("stdout"), dir_.file("stderr"), false};
    spawn.argv.insert(spawn.argv.end(), extra.begin(), extra.end());
    child_ = std::make_unique<Child>(spawn);
}

bool Daemon::ready(std::chrono::milliseconds timeout)
{
    return waitFor([this] { return answers(mac_) || !child_->running(); }, timeout) && child_->running();
}

bool answers(const std::string& mac)
{
    // An unknown method is answered by the bus thread itself, without touching the device.
    return busCall(mac, "ready-probe", "{}", -1, 5).rc == 0;
}

pid_t lockHolder(const std::string& mac)
{
    Orvex::UniqueFd fd(open(lockPath(mac).c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd || flock(fd.get(), LOCK_SH | LOCK_NB) == 0)
        return 0;
    return static_cast<pid_t>(std::atol(readFile(lockPath(mac)).c_str()));
}

void killSessions()
{
    if (!isolated())
        return;
    DIR* dir = opendir("/var/lock");
    if (!dir)
        return;
    std::vector<std::string> macs;
    while (dirent* entry = readdir(dir)) {
        std::string name = entry->d_name;
        const std::string head = "orvex-session@", tail = ".pid";
        if (name.rfind(head, 0) == 0 && name.size() > head.size() + tail.size())
            macs.push_back(name.substr(head.size(), name.size() - head.size() - tail.size()));
    }
    closedir(dir);
    for (const std::string& mac : macs) {
        if (pid_t pid = lockHolder(mac))
            kill(pid, SIGKILL);
        waitFor([&] { return lockHolder(mac) == 0; }, 5s);
    }
}

SignedIn::SignedIn(const std::string& family, bool tls, const std::string& mac,
    const std::vector<std::string>& devsimExtra)
    : device(family, tls, devsimExtra), daemon(mac)
{
    if (!daemon.ready())
        throw std::runtime_error("orvex-session did not come up: " + daemon.log());
    BusReply reply = daemon.call("signin", device.signinArgs());
    if (reply.rc != 0)
        throw std::runtime_error("signin call failed: " + std::string(strerror(reply.error)));
    signin = reply.json();
}

namespace {

// Session processes that detached from a test must not outlive it.
class SessionReaper : public ::testing::Environment {
public:
    void TearDown() override { killSessions(); }
};

const auto* const reaper = ::testing::AddGlobalTestEnvironment(new SessionReaper);

}  // namespace

}  // namespace e2e
