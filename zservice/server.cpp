// The service side: one epoll loop that accepts callers, collects their call frames
// side by side (a slow caller only costs its own few bytes of state) and hands each
// complete call to the handler. With several threads, one at a time serves the bus (the
// leader) and runs the calls it read, so a call needs no hand-over to another thread; a
// leader that stays in a handler longer than kTakeOverMs is replaced by a standby thread,
// which goes on accepting, reading and running calls. A standby only watches while calls
// keep coming and sleeps untimed once they stop, so an idle process wakes for nothing.
#include "zservice/internal.h"

#include <signal.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <thread>
#include <vector>

using namespace Orvex::Bus;

namespace {

// epoll tags below kFirstCaller; callers are numbered from there in accept order, so
// with one time-out for all the map below is also ordered by deadline.
constexpr uint64_t kListener = 0;
constexpr uint64_t kStop = 1;
constexpr uint64_t kSignals = 2;
constexpr uint64_t kFirstCaller = 16;
constexpr int64_t kNoDeadline = INT64_MAX;
constexpr int64_t kAcceptPauseMs = 100;  // after EMFILE: retry instead of spinning
constexpr size_t kScratchSize = 65536;
constexpr int kMaxEvents = 64;
constexpr int kMaxAcceptStreak = 64;  // callers accepted before the loop looks at the other events
constexpr int kMaxAcceptAttempts = 64;  // refused or interrupted accepts per caller taken
constexpr int kMaxRecvRounds = 16;       // per wake-up, so one fast sender cannot hog the loop
constexpr size_t kMaxPassedFds = 8;      // control room per recvmsg; more is truncation
constexpr int64_t kCapPauseMs = 10;      // at the open-call cap: look again this soon
// A leader this long in one handler hands the bus to a standby thread; a standby that saw
// no handler start in kQuietLooks looks sleeps until the next one.
constexpr int64_t kTakeOverMs = 5;
constexpr int kQuietLooks = 3;
// Open calls hold up to two descriptors each (connection, reply descriptor); this many stay
// for the process's own work (device connections, logs, forks) however many callers come.
constexpr long kReservedFds = 64;
constexpr long kMaxOpenCalls = 4096;
// Call bodies still arriving, all callers together; a caller that would pass it is dropped.
constexpr size_t kMaxPendingBytes = 128u << 20;

// A caller whose call frame is still arriving.
struct Caller {
    int fd = -1;
    int passedFd = -1;
    int64_t deadline = kNoDeadline;
    uint8_t head[ZS_HEADER_SIZE] = {};
    size_t headGot = 0;
    Header header;
    std::string name;
    zs_io* body = nullptr;  // created once the header is known; becomes the call's channel
    size_t* pendingBytes = nullptr;  // the service's total, which this body's bytes are in
    bool watched = false;            // registered with epoll

    Caller() = default;
    Caller(const Caller&) = delete;
    Caller& operator=(const Caller&) = delete;
    ~Caller()
    {
        if (fd >= 0)
            close(fd);
        if (passedFd >= 0)
            close(passedFd);
        if (body)
            *pendingBytes -= body->size;
        if (fd >= 0)
            openCalls().fetch_sub(1, std::memory_order_relaxed);
        zs_io_free(body);
    }
};

enum class Step { More, Complete, Drop };

// A complete call on its way to the handler.
struct ReadyCall {
    zs_io* io;
    int fd;
};

}  // namespace

struct zs {
    int listenFd = -1;
    int epollFd = -1;
    int stopFd = -1;
    int signalFd = -1;
    int64_t timeoutMs = 0;
    int policy = 1;
    zs_handler handler = nullptr;
    Address address;
    pid_t owner = 0;
    size_t pendingBytes = 0;  // before callers: their destructors update it
    std::map<uint64_t, std::unique_ptr<Caller>> callers;
    uint64_t nextId = kFirstCaller;
    int64_t acceptPausedUntil = -1;
    // Callers are accepted one at a time: the next accept waits until the call before is
    // answered, so the accept that finds nobody comes after a reply instead of before it.
    bool acceptMore = false;
    int acceptStreak = 0;  // accepted since the last epoll_wait (which the stop needs)
    long maxOpenCalls = kMaxOpenCalls;
    std::atomic<bool> running{false};
    // The loop's state is read and changed under this lock; handlers run without it.
    std::mutex mutex;
    std::deque<ReadyCall> ready;  // complete calls, taken one at a time by the leader
    std::atomic<bool> stopping{false};
    int serving = 0;  // loop threads still running, under mutex
    // Leadership (under mutex): which thread serves the bus, whether it is in a handler and
    // since when, how many handlers it started (standbys watch that count), and how many
    // standbys sleep untimed (only those need a wake-up when a handler starts).
    int leader = -1;
    bool leaderBusy = false;
    int64_t busySince = 0;
    uint64_t handlersStarted = 0;
    int deepSleepers = 0;
    std::condition_variable standby;
    void (*timerCallback)(void*) = nullptr;
    void* timerArg = nullptr;
    int64_t timerFirstMs = 0;
    int64_t timerPeriodMs = 0;
    int64_t timerDue = kNoDeadline;
    bool timerRunning = false;  // its callback is running on some loop thread
    bool signalsPending = false;
    // Not zeroed: an idle process then keeps only the pages that calls were received into.
    std::unique_ptr<char[]> scratch;

    zs() = default;
    zs(const zs&) = delete;
    zs& operator=(const zs&) = delete;
    ~zs()
    {
        for (const ReadyCall& call : ready) {  // left by a loop that ended by error
            if (call.fd >= 0)
                close(call.fd);
            zs_io_free(call.io);
        }
        for (auto& entry : callers)
            if (entry.second->watched)
                epoll_ctl(epollFd, EPOLL_CTL_DEL, entry.second->fd, nullptr);
        for (int fd : {listenFd, epollFd, stopFd})
            if (fd >= 0)
                close(fd);
    }
};

namespace {

// ---- reading a call frame -------------------------------------------------------------

bool frameComplete(const Caller& c)
{
    return c.headGot == ZS_HEADER_SIZE && c.name.size() == c.header.nameLength &&
           zs_io_size(c.body) == c.header.bodyLength;
}

// Checks the header as soon as it is whole; a bad one ends the connection.
bool takeHeader(Caller& c, const char*& data, size_t& n)
{
    const size_t take = std::min(ZS_HEADER_SIZE - c.headGot, n);
    memcpy(c.head + c.headGot, data, take);
    c.headGot += take;
    data += take;
    n -= take;
    if (c.headGot < ZS_HEADER_SIZE)
        return true;
    if (!decodeHeader(c.head, c.header) || !validCallHeader(c.header))
        return false;
    c.body = zs_io_create();
    return c.body != nullptr;
}

// Feeds received bytes into header, name and body; bytes after the frame are ignored.
Step feed(Caller& c, const char* data, size_t n)
{
    while (n > 0 && !frameComplete(c)) {
        if (c.headGot < ZS_HEADER_SIZE) {
            if (!takeHeader(c, data, n))
                return Step::Drop;
        } else if (c.name.size() < c.header.nameLength) {
            const size_t take = std::min<size_t>(c.header.nameLength - c.name.size(), n);
            c.name.append(data, take);
            data += take;
            n -= take;
        } else {
            const size_t take = std::min<size_t>(c.header.bodyLength - zs_io_size(c.body), n);
            if (*c.pendingBytes + take > kMaxPendingBytes || zs_io_write(c.body, data, take) < 0)
                return Step::Drop;
            *c.pendingBytes += take;
            data += take;
            n -= take;
        }
    }
    return frameComplete(c) ? Step::Complete : Step::More;
}

// Keeps the first passed descriptor, closes any others; false on truncated control data.
bool takeDescriptors(Caller& c, msghdr& msg)
{
    for (cmsghdr* cm = CMSG_FIRSTHDR(&msg); cm; cm = CMSG_NXTHDR(&msg, cm)) {
        if (cm->cmsg_level != SOL_SOCKET || cm->cmsg_type != SCM_RIGHTS)
            continue;
        const size_t count = (cm->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; ++i) {
            int fd;
            memcpy(&fd, CMSG_DATA(cm) + i * sizeof(int), sizeof(int));
            if (c.passedFd < 0)
                c.passedFd = fd;
            else
                close(fd);
        }
    }
    return (msg.msg_flags & MSG_CTRUNC) == 0;
}

Step receive(zs* bus, Caller& c)
{
    for (int round = 0; round < kMaxRecvRounds; ++round) {
        iovec iov{bus->scratch.get(), kScratchSize};
        alignas(cmsghdr) char control[CMSG_SPACE(kMaxPassedFds * sizeof(int))];
        msghdr msg{};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = control;
        msg.msg_controllen = sizeof(control);
        const ssize_t n = recvmsg(c.fd, &msg, MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return (errno == EAGAIN || errno == EWOULDBLOCK) ? Step::More : Step::Drop;
        if (!takeDescriptors(c, msg) || n == 0)
            return Step::Drop;
        const Step step = feed(c, bus->scratch.get(), static_cast<size_t>(n));
        if (step != Step::More)
            return step;
    }
    return Step::More;
}

// ---- callers ----------------------------------------------------------------------------

void drop(zs* bus, uint64_t id)
{
    auto it = bus->callers.find(id);
    if (it == bus->callers.end())
        return;
    // Unregister before closing: a forked child may still hold the same socket open.
    if (it->second->watched)
        epoll_ctl(bus->epollFd, EPOLL_CTL_DEL, it->second->fd, nullptr);
    bus->callers.erase(it);
}

// The channel takes the connection, the name and the body; the handler takes it all.
void handOver(zs* bus, uint64_t id)
{
    auto it = bus->callers.find(id);
    if (it == bus->callers.end())
        return;
    Caller& c = *it->second;
    if (c.watched)
        epoll_ctl(bus->epollFd, EPOLL_CTL_DEL, c.fd, nullptr);
    zs_io* io = c.body;
    const int fd = c.passedFd;
    bus->pendingBytes -= io->size;
    io->fd = c.fd;
    io->counted = true;
    io->method = std::move(c.name);
    c.body = nullptr;
    c.fd = c.passedFd = -1;
    bus->callers.erase(it);
    bus->ready.push_back(ReadyCall{io, fd});
}

bool arm(zs* bus, int op, int fd, uint64_t tag, uint32_t events)
{
    epoll_event ev{};
    ev.events = events;
    ev.data.u64 = tag;
    return epoll_ctl(bus->epollFd, op, fd, &ev) == 0;
}

void serve(zs* bus, uint64_t id)
{
    auto it = bus->callers.find(id);
    if (it == bus->callers.end())
        return;
    const Step step = receive(bus, *it->second);
    if (step == Step::Complete)
        handOver(bus, id);
    else if (step == Step::Drop)
        drop(bus, id);
}

bool admitted(const zs* bus, int fd)
{
    if (bus->policy == 0)
        return true;
    uid_t uid = 0;
    return peerUid(fd, uid) && trustedUid(uid);
}

void addCaller(zs* bus, int fd)
{
    const uint64_t id = bus->nextId++;
    auto caller = std::make_unique<Caller>();
    caller->fd = fd;
    caller->pendingBytes = &bus->pendingBytes;
    openCalls().fetch_add(1, std::memory_order_relaxed);
    caller->deadline = bus->timeoutMs > 0 ? nowMs() + bus->timeoutMs : kNoDeadline;
    Caller& c = *bus->callers.emplace(id, std::move(caller)).first->second;
    // Callers usually send right after connecting: try now, and only a caller whose frame
    // is still on its way costs epoll registrations and a wake-up.
    const Step step = receive(bus, c);
    if (step == Step::Complete)
        return handOver(bus, id);
    c.watched = step == Step::More && arm(bus, EPOLL_CTL_ADD, fd, id, EPOLLIN | EPOLLRDHUP);
    if (!c.watched)
        drop(bus, id);  // the caller's destructor closes fd
}

void setAccepting(zs* bus, bool on, int64_t pauseMs = kAcceptPauseMs)
{
    arm(bus, EPOLL_CTL_MOD, bus->listenFd, kListener, on ? uint32_t(EPOLLIN) : 0u);
    bus->acceptPausedUntil = on ? -1 : nowMs() + pauseMs;
}

// Accepts one admitted caller; refused and interrupted attempts are retried, a bounded
// number of times, so that a crowd of refused callers cannot hold the loop.
void acceptCaller(zs* bus)
{
    for (int attempt = 0; attempt < kMaxAcceptAttempts; ++attempt) {
        if (openCalls().load(std::memory_order_relaxed) >= bus->maxOpenCalls) {
            // Those waiting stay in the listen queue until calls end.
            setAccepting(bus, false, kCapPauseMs);
            return;
        }
        const int fd = accept4(bus->listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM)
                setAccepting(bus, false);
            if (errno == EINTR || errno == ECONNABORTED)
                continue;
            return;
        }
        if (!admitted(bus, fd)) {
            close(fd);
            continue;
        }
        addCaller(bus, fd);
        bus->acceptMore = ++bus->acceptStreak < kMaxAcceptStreak;
        return;
    }
}

// Callers out of time get one last read (the loop may have been busy in a handler
// while their frame arrived), then go.
void expireCallers(zs* bus)
{
    const int64_t now = nowMs();
    while (!bus->callers.empty() && bus->callers.begin()->second->deadline <= now) {
        const uint64_t id = bus->callers.begin()->first;
        if (receive(bus, *bus->callers.begin()->second) == Step::Complete)
            handOver(bus, id);
        else
            drop(bus, id);
    }
    if (bus->acceptPausedUntil >= 0 && bus->acceptPausedUntil <= now)
        setAccepting(bus, true);
}

// ---- the loop ---------------------------------------------------------------------------

// A timer tick that is due, claimed for the calling thread (the deadline moves on at a
// fixed rate, so a late tick does not shift the ones after it).
bool claimTimer(zs* bus)
{
    const int64_t now = nowMs();
    if (!bus->timerCallback || bus->timerRunning || bus->timerDue > now)
        return false;
    while (bus->timerDue <= now)
        bus->timerDue += bus->timerPeriodMs;
    bus->timerRunning = true;
    return true;
}

int nextTimeout(const zs* bus)
{
    int64_t deadline = bus->callers.empty() ? kNoDeadline : bus->callers.begin()->second->deadline;
    if (bus->acceptPausedUntil >= 0)
        deadline = std::min(deadline, bus->acceptPausedUntil);
    // A tick still running on a thread that lost the bus meanwhile ends without waking the
    // leader: look again soon.
    if (bus->timerCallback)
        deadline = std::min(deadline, bus->timerRunning ? nowMs() + kTakeOverMs : bus->timerDue);
    if (deadline == kNoDeadline)
        return -1;
    const int64_t left = deadline - nowMs();
    return left <= 0 ? 0 : static_cast<int>(std::min<int64_t>(left, 1000000));
}

// Under the lock. The stop event is left unread, so that the loop sees it again and again
// until it ends.
void handleEvent(zs* bus, const epoll_event& ev)
{
    switch (ev.data.u64) {
    case kListener:
        acceptCaller(bus);
        break;
    case kStop:
        bus->stopping.store(true);
        bus->standby.notify_all();
        break;
    case kSignals:
        bus->signalsPending = true;
        break;
    default:
        serve(bus, ev.data.u64);
        break;
    }
}

using Lock = std::unique_lock<std::mutex>;

// Work the leader found, to run without the lock: one call, the signal callbacks or the timer.
struct Work {
    enum Kind { None, Call, Signals, Timer } kind = None;
    ReadyCall call{nullptr, -1};
};

Work takeCall(zs* bus)
{
    Work work;
    work.kind = Work::Call;
    work.call = bus->ready.front();
    bus->ready.pop_front();
    return work;
}

Work takeWork(zs* bus)
{
    Work work;
    if (bus->signalsPending) {
        work.kind = Work::Signals;
        bus->signalsPending = false;
    } else if (!bus->ready.empty()) {
        work = takeCall(bus);
    } else if (claimTimer(bus)) {
        work.kind = Work::Timer;
    }
    return work;
}

// Runs work without the lock, marked as the leader's, so that a standby can take the bus
// over if it lasts. Wakes a standby that sleeps untimed: it watches from now on.
void runWork(zs* bus, Lock& lock, int self, const Work& work)
{
    const bool leading = bus->leader == self;
    if (leading) {
        bus->leaderBusy = true;
        bus->busySince = nowMs();
        ++bus->handlersStarted;
    }
    const bool wake = leading && bus->deepSleepers > 0;
    lock.unlock();
    if (wake)
        bus->standby.notify_one();
    switch (work.kind) {
    case Work::Call:
        bus->handler(work.call.io->method.c_str(), work.call.io, work.call.fd);
        break;
    case Work::Signals:
        runPendingSignals(bus->signalFd);
        break;
    case Work::Timer:
        bus->timerCallback(bus->timerArg);
        break;
    case Work::None:
        break;
    }
    lock.lock();
    if (work.kind == Work::Timer)
        bus->timerRunning = false;
    if (bus->leader == self)
        bus->leaderBusy = false;
}

// Held while a standby sleeps: the kernel then hands a signal to a thread that runs (the
// leader, whose loop runs the callbacks), not to one that may sleep for long; under
// ThreadSanitizer a sleeping thread's handler waited until it woke, and a stop with it.
class SignalsHeld {
public:
    SignalsHeld()
    {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, &old_);
    }
    ~SignalsHeld() { pthread_sigmask(SIG_SETMASK, &old_, nullptr); }
    SignalsHeld(const SignalsHeld&) = delete;
    SignalsHeld& operator=(const SignalsHeld&) = delete;

private:
    sigset_t old_;
};

// A thread that does not serve the bus: takes it over from a leader stuck in a handler,
// watches while handlers keep starting, and sleeps untimed once they stop.
void standBy(zs* bus, Lock& lock, int self, uint64_t& seen, int& quiet)
{
    using std::chrono::milliseconds;
    if (bus->leader < 0 || (bus->leaderBusy && nowMs() - bus->busySince >= kTakeOverMs)) {
        bus->leader = self;  // the old leader stands by once its handler returns
        bus->leaderBusy = false;
        quiet = 0;
        return;
    }
    const SignalsHeld held;
    if (bus->leaderBusy) {
        bus->standby.wait_for(lock, milliseconds(kTakeOverMs - (nowMs() - bus->busySince)));
        return;
    }
    quiet = bus->handlersStarted == seen ? quiet + 1 : 0;
    seen = bus->handlersStarted;
    if (quiet < kQuietLooks) {
        bus->standby.wait_for(lock, milliseconds(kTakeOverMs));
        return;
    }
    ++bus->deepSleepers;
    bus->standby.wait(lock);
    --bus->deepSleepers;
    quiet = 0;
}

int runLoop(zs* bus, int self)
{
    Lock lock(bus->mutex);
    uint64_t seen = 0;
    int quiet = 0;
    for (;;) {
        if (bus->stopping.load()) {
            // Calls already read are still answered, by whichever thread is free.
            if (bus->ready.empty())
                return 0;
            runWork(bus, lock, self, takeCall(bus));
            continue;
        }
        if (bus->leader < 0)
            bus->leader = self;
        if (bus->leader != self) {
            standBy(bus, lock, self, seen, quiet);
            continue;
        }
        const Work work = takeWork(bus);
        if (work.kind != Work::None) {
            runWork(bus, lock, self, work);
            continue;
        }
        if (bus->acceptMore) {
            bus->acceptMore = false;
            acceptCaller(bus);
            continue;
        }
        bus->acceptStreak = 0;
        const int timeout = nextTimeout(bus);
        lock.unlock();
        epoll_event events[kMaxEvents];
        const int n = epoll_wait(bus->epollFd, events, kMaxEvents, timeout);
        const int error = errno;
        lock.lock();
        if (n < 0 && error != EINTR)
            return -1;
        for (int i = 0; i < n; ++i)
            handleEvent(bus, events[i]);
        expireCallers(bus);
    }
}

bool watch(int epollFd, int fd, uint64_t tag)
{
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u64 = tag;
    return epoll_ctl(epollFd, EPOLL_CTL_ADD, fd, &ev) == 0 || errno == EEXIST;
}

// ---- binding ----------------------------------------------------------------------------

// A socket file nobody listens on any more (a crashed server's leftover).
bool staleSocketFile(const Address& address)
{
    struct stat st{};
    if (lstat(address.path.c_str(), &st) != 0 || !S_ISSOCK(st.st_mode))
        return false;
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (probe < 0)
        return false;
    const bool refused =
        connect(probe, reinterpret_cast<const sockaddr*>(&address.addr), address.length) != 0 &&
        errno == ECONNREFUSED;
    close(probe);
    return refused;
}

bool bindAddress(int fd, const Address& address)
{
    const auto* sa = reinterpret_cast<const sockaddr*>(&address.addr);
    if (bind(fd, sa, address.length) == 0)
        return true;
    if (errno != EADDRINUSE || address.abstract || !staleSocketFile(address))
        return false;
    return unlink(address.path.c_str()) == 0 && bind(fd, sa, address.length) == 0;
}

long openCallCap()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY)
        return kMaxOpenCalls;
    const long usable = (static_cast<long>(limit.rlim_cur) - kReservedFds) / 2;
    return std::max(1L, std::min(usable, kMaxOpenCalls));
}

bool openService(zs* bus)
{
    bus->listenFd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (bus->listenFd < 0 || !bindAddress(bus->listenFd, bus->address))
        return false;
    bus->owner = getpid();
    if (listen(bus->listenFd, SOMAXCONN) != 0)
        return false;
    bus->epollFd = epoll_create1(EPOLL_CLOEXEC);
    bus->stopFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    return bus->epollFd >= 0 && bus->stopFd >= 0 && arm(bus, EPOLL_CTL_ADD, bus->listenFd, kListener, EPOLLIN) &&
           watch(bus->epollFd, bus->stopFd, kStop);
}

void removeSocketFile(zs* bus)
{
    // Only the process that bound it: a forked child freeing its copy must not unlink.
    if (!bus->address.abstract && bus->owner == getpid())
        unlink(bus->address.path.c_str());
}

}  // namespace

zs* zs_create(const char* address, int recv_timeout_s, int peer_policy, zs_handler handler)
{
    Address parsed;
    if (!handler || !parseAddress(address, parsed))
        return nullptr;
    // Replies go to sockets and descriptors whose reader may be gone.
    signal(SIGPIPE, SIG_IGN);
    try {
        auto bus = std::make_unique<zs>();
        bus->address = parsed;
        bus->timeoutMs = recv_timeout_s > 0 ? int64_t(recv_timeout_s) * 1000 : 0;
        bus->policy = peer_policy;
        bus->handler = handler;
        bus->maxOpenCalls = openCallCap();
        if (!openService(bus.get())) {
            if (bus->owner)
                removeSocketFile(bus.get());
            return nullptr;
        }
        bus->scratch.reset(new char[kScratchSize]);
        return bus.release();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

namespace {

int serveLoop(zs* bus, int self)
{
    int result = -1;
    try {
        result = runLoop(bus, self);
    } catch (const std::bad_alloc&) {
        result = -1;
    }
    // A thread that ends by error stops the others too: a standby takes the bus and sees
    // the stop.
    if (result != 0)
        zs_stop(bus);
    std::lock_guard<std::mutex> lock(bus->mutex);
    if (bus->leader == self) {
        bus->leader = -1;
        bus->leaderBusy = false;
        bus->standby.notify_all();
    }
    if (--bus->serving == 0) {
        // The last one out consumes the stop, so the bus can be started again.
        uint64_t count;
        if (read(bus->stopFd, &count, sizeof(count)) < 0) {
            // No stop pending: this thread ended by error.
        }
        bus->stopping.store(false);
    }
    return result;
}

}  // namespace

int zs_start(zs* bus)
{
    return zs_start_threads(bus, 1);
}

int zs_start_threads(zs* bus, int threads)
{
    if (!bus || threads < 1 || threads > 16 || bus->running.exchange(true))
        return -1;
    int result = -1;
    bus->signalFd = signalPipeForLoop();
    if (bus->signalFd >= 0 && watch(bus->epollFd, bus->signalFd, kSignals)) {
        {
            std::lock_guard<std::mutex> lock(bus->mutex);
            bus->serving = threads;
            if (bus->acceptPausedUntil < 0)
                setAccepting(bus, true);
            if (bus->timerCallback)
                bus->timerDue = nowMs() + bus->timerFirstMs;
        }
        std::vector<std::thread> others;
        for (int i = 1; i < threads; ++i)
            others.emplace_back([bus, i] { serveLoop(bus, i); });
        result = serveLoop(bus, 0);
        for (std::thread& thread : others)
            thread.join();
        epoll_ctl(bus->epollFd, EPOLL_CTL_DEL, bus->signalFd, nullptr);
    }
    bus->running.store(false);
    return result;
}

int zs_timer(zs* bus, int first_ms, int period_ms, void (*callback)(void*), void* arg)
{
    if (!bus || !callback || first_ms < 0 || period_ms <= 0 || bus->running.load())
        return -1;
    std::lock_guard<std::mutex> lock(bus->mutex);
    bus->timerCallback = callback;
    bus->timerArg = arg;
    bus->timerFirstMs = first_ms;
    bus->timerPeriodMs = period_ms;
    return 0;
}

void zs_stop(zs* bus)
{
    if (!bus)
        return;
    const uint64_t one = 1;
    if (write(bus->stopFd, &one, sizeof(one)) < 0) {
        // Counter saturated: a stop is already pending.
    }
}

void zs_free(zs* bus)
{
    if (!bus)
        return;
    removeSocketFile(bus);
    delete bus;
}
