#include "service/worker.h"

#include "common/ending.h"
#include "common/exceptions.h"
#include "common/misc.h"
#include "common/trace.h"
#include "service/misc.h"
#include "service/service.h"

#include "zservice/channel.h"

#include <Poco/Logger.h>

#include <mysql.h>

#include <cerrno>
#include <fcntl.h>
#include <stdexcept>
#include <sys/wait.h>
#include <utility>
#include <unistd.h>

namespace Orvex {

namespace {

// Set in a forked grandchild: it must not take the logging library's locks.
bool forkedChild = false;

void logAt(Poco::Message::Priority priority, const std::string& text)
{
    if (forkedChild)
        return;
    Poco::Logger& root = Poco::Logger::root();
    if (root.getLevel() >= priority)
        root.log(Poco::Message(root.name(), text, priority));
}

#define ORVEX_WORKER_LOG(priority, format, ...) \
    logAt(priority, strformat("%s:%d, %s " format, trace::baseName(__FILE__), __LINE__, __PRETTY_FUNCTION__, __VA_ARGS__))

// Releases the call once invoke is done with it, also when sending an error reply throws.
class CallRelease {
public:
    CallRelease(json_t*& args, int& fd, zs_io* io) : args_(args), fd_(fd), io_(io) {}
    ~CallRelease() { releaseCall(args_, fd_, io_); }
    CallRelease(const CallRelease&) = delete;
    CallRelease& operator=(const CallRelease&) = delete;

private:
    json_t*& args_;
    int& fd_;
    zs_io* io_;
};

// Closes every descriptor from 3 up except the two kept (either may be -1): what a forked
// call must not hold (the listening socket, other callers, the lock file, the log).
void closeAllBut(int a, int b)
{
    if (a > b)
        std::swap(a, b);
    unsigned from = 3;
    for (int keep : {a, b}) {
        if (keep < static_cast<int>(from))
            continue;
        if (static_cast<unsigned>(keep) > from && ::close_range(from, unsigned(keep) - 1, 0) != 0)
            for (unsigned fd = from; fd < unsigned(keep); ++fd)
                ::close(int(fd));
        from = unsigned(keep) + 1;
    }
    if (::close_range(from, ~0u, 0) != 0) {
        const long last = ::sysconf(_SC_OPEN_MAX);
        for (long fd = from; fd < (last > 0 ? last : 1024); ++fd)
            ::close(int(fd));
    }
}

// The grandchild's whole life: no lock, no log line (see ProcessWorker).
[[noreturn]] void runForked(AbstractWorker& worker, Function function, json_t* args, const char* method, zs_io* io,
                            int fd)
{
    forkedChild = true;
    trace::rootLogger().setLevel(0);  // a plain store; the parent looked the logger up before the fork
    closeAllBut(channelSocket(io), fd);
    ::alarm(ProcessWorker::kForkedCallSeconds);
    worker.invoke(function, args, method, io, fd);
    ::_exit(0);
}

}  // namespace

WorkerTask::WorkerTask(int fd, zs_io* io, json_t* args, const char* method, Function function, size_t bytes)
    : fd(fd), io(io), args(args), method(method != nullptr ? method : ""), function(function), bytes(bytes)
{
}

void releaseCall(json_t* args, int fd, zs_io* io) noexcept
{
    json_decref(args);
    errno = 0;
    if (fd >= 0 && !(::fcntl(fd, F_GETFD) == -1 && errno == EBADF))
        ::close(fd);
    if (io != nullptr)
        zs_io_free(io);
}

void AbstractWorker::invoke(Function function, json_t* args, const char* method, zs_io* io, int fd)
{
    ORVEX_TRACE_POINT(":enter");
    (void)method;  // carried for the logs only
    {
        CallRelease release(args, fd, io);
        try {
            if (function == nullptr)
                throw Poco::NullPointerException("handler");
            function(io, args, fd);
        } catch (OptionException& e) {
            zs_reply_json(io, fd, nullptr, e.code(), e.message().c_str());
        } catch (SessionNotFound&) {
            zs_reply_json(io, fd, nullptr, 403, "");
        } catch (SyslogException& e) {
            zs_reply_json(io, fd, nullptr, e.code(), e.message().c_str());
        } catch (SessionException& e) {
            // A broken device session ends the daemon at once, without an orderly stop.
            zs_reply_json(io, fd, nullptr, e.code(), e.message().c_str());
            ORVEX_TRACE_POINT(":leave");
            Ending::aboutToEnd(Ending::Why::SessionError, std::string(method ? method : "") + ": " + e.message());
            ::_exit(0);
        } catch (MySQL::Exception& e) {
            ORVEX_WORKER_LOG(Poco::Message::PRIO_FATAL, "[AbstractWorker] (%d) %s", e.code(), e.message().c_str());
            zs_reply_json(io, fd, nullptr, 500, "");
        } catch (Database::Exception& e) {
            zs_reply_json(io, fd, nullptr, e.code(), e.message().c_str());
        } catch (OnlineUser::Exception& e) {
            ORVEX_WORKER_LOG(Poco::Message::PRIO_FATAL, "[AbstractWorker] (%d) %s", e.code(), e.message().c_str());
            zs_reply_json(io, fd, nullptr, 500, e.message().c_str());
        } catch (Poco::Exception& e) {
            ORVEX_WORKER_LOG(Poco::Message::PRIO_FATAL, "[AbstractWorker] %s", e.message().c_str());
            zs_reply_json(io, fd, nullptr, (e.code() == 3 || e.code() == 1644) ? 507 : 500, "");
        } catch (...) {
            zs_reply_json(io, fd, nullptr, 500, "");
        }
    }
    ORVEX_TRACE_POINT(":leave");
}

void PthreadWorker::dispatch(Endpoint* endpoint, json_t* args, const char* method, zs_io* io, int fd, size_t bytes)
{
    ORVEX_TRACE();
    const char* name = method != nullptr ? method : "";
    std::unique_lock<std::mutex> lock(mutex_);
    if (stopped_.load()) {
        lock.unlock();
        refuse(args, io, fd, kStoppedCode, kStoppedMessage);
        return;
    }
    if (overBytes(bytes)) {
        ORVEX_WORKER_LOG(Poco::Message::PRIO_WARNING, "[PthreadWorker] queue holds %zu bytes: %s refused with 429",
            queuedBytes_.load(), name);
    } else if (maxQueueLength_ != 0 && queue_.size() >= maxQueueLength_) {
        ORVEX_WORKER_LOG(Poco::Message::PRIO_WARNING, "[PthreadWorker] queue full (%llu calls): %s refused with 429",
            static_cast<unsigned long long>(maxQueueLength_), name);
    } else {
        queuedBytes_ += bytes;
        Poco::AutoPtr<WorkerTask> task(new WorkerTask(fd, io, args, method, endpoint->function, bytes));
        if (!inline_ || !waiting_) {
            queue_.enqueueNotification(task, endpoint->ticktock);
            return;
        }
        // Handed over to the waiting worker: no queue, no turn.
        waiting_ = false;
        if (running_) {
            handedOff_ = task;  // the tick running now is followed by this call
            return;
        }
        running_ = true;
        lock.unlock();
        serve(task);
        return;
    }
    lock.unlock();
    refuse(args, io, fd, 429, "");
}

void PthreadWorker::setInline(bool on)
{
    std::lock_guard<std::mutex> lock(mutex_);
    inline_ = on;
    if (!on || waiting_)
        return;
    // A worker thread's first look finds the queue empty, which switches the turn.
    queue_.dequeueNotification();
    waiting_ = true;
}

bool PthreadWorker::overBytes(size_t bytes) const
{
    return bytes > 0 && queuedBytes_.load() + bytes > kMaxQueuedBytes;
}

void PthreadWorker::refuse(json_t* args, zs_io* io, int fd, int code, const char* message)
{
    zs_reply_json(io, fd, nullptr, code, message);
    releaseCall(args, fd, io);
}

void PthreadWorker::stop()
{
    ORVEX_TRACE();
    Poco::AutoPtr<WorkerTask> handedOff;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopped_.store(true);
        handedOff = std::move(handedOff_);
    }
    {
        // A tick already running finishes before what it uses is torn down.
        std::lock_guard<std::mutex> wait(tickMutex_);
    }
    auto queued = queue_.removeIf([](Poco::Notification* n) { return dynamic_cast<WorkerTask*>(n) != nullptr; });
    if (handedOff)
        queued.push_back(handedOff);
    for (auto& notification : queued) {
        auto* task = static_cast<WorkerTask*>(notification.get());
        queuedBytes_ -= task->bytes;
        refuse(task->args, task->io, task->fd, kStoppedCode, kStoppedMessage);
    }
}

void PthreadWorker::requestTick()
{
    std::unique_lock<std::mutex> lock(mutex_);
    poco_assert_msg(inline_, "ticks are served by inline workers only");
    tickPending_ = true;
    if (running_)
        return;  // the thread running calls serves it before its next call
    running_ = true;
    lock.unlock();
    serve(nullptr);
}

void PthreadWorker::runTick()
{
    std::lock_guard<std::mutex> running(tickMutex_);
    if (stopped_.load() || !tick_)
        return;
    try {
        tick_();
    } catch (const Poco::Exception& e) {
        ORVEX_WORKER_LOG(Poco::Message::PRIO_ERROR, "[PthreadWorker] tick: %s", e.message().c_str());
    } catch (const std::exception& e) {
        ORVEX_WORKER_LOG(Poco::Message::PRIO_ERROR, "[PthreadWorker] tick: %s", e.what());
    }
}

void PthreadWorker::runTask(WorkerTask& task)
{
    queuedBytes_ -= task.bytes;
    runCall(task.function, task.args, task.method.c_str(), task.io, task.fd);
}

void PthreadWorker::runCall(Function function, json_t* args, const char* method, zs_io* io, int fd)
{
    try {
        invoke(function, args, method, io, fd);
    } catch (...) {
        // Only sending an error reply can throw here (the call is already released);
        // the thread must survive it to serve the calls behind.
        ORVEX_WORKER_LOG(Poco::Message::PRIO_FATAL, "[PthreadWorker] %s: error reply failed", method);
    }
}

void PthreadWorker::run()
{
    ORVEX_TRACE();
    mysql_thread_init();
    for (;;) {
        Poco::Notification::Ptr notification = queue_.waitDequeueNotification();
        auto* task = dynamic_cast<WorkerTask*>(notification.get());
        if (task == nullptr)
            break;
        runTask(*task);
    }
    mysql_thread_end();
}

void PthreadWorker::serve(Poco::AutoPtr<WorkerTask> call)
{
    bool tick = false;
    for (;;) {
        if (tick)
            runTick();
        if (call)
            runTask(*call);
        call = nullptr;
        std::lock_guard<std::mutex> lock(mutex_);
        if (!nextWork(call, tick))
            return;
    }
}

// A pending tick comes first, then a call handed over during it; a worker that waits
// stays waiting; otherwise the queue's next call, and none left means waiting again.
bool PthreadWorker::nextWork(Poco::AutoPtr<WorkerTask>& call, bool& tick)
{
    tick = std::exchange(tickPending_, false);
    if (!tick && handedOff_)
        call = std::move(handedOff_);
    else if (!tick && !waiting_) {
        Poco::Notification::Ptr next = queue_.dequeueNotification();
        call = next.cast<WorkerTask>();
        waiting_ = call.isNull();
    }
    running_ = tick || call;
    return running_;
}

void PthreadWorker::wakeUpAll()
{
    ORVEX_TRACE();
    queue_.wakeUpAll();
}

void PthreadWorker::finish()
{
    ORVEX_TRACE();
    // Any notification that is not a call ends run; urgent, so it is taken next.
    queue_.enqueueUrgentNotification(new Poco::Notification, TicktockQueue::TICK);
}

void ProcessWorker::dispatch(Endpoint* endpoint, json_t* args, const char* method, zs_io* io, int fd, size_t bytes)
{
    (void)bytes;
    ORVEX_TRACE_POINT(":enter");
    pid_t first = ::fork();
    if (first < 0) {
        ORVEX_WORKER_LOG(Poco::Message::PRIO_FATAL, "%s", "[ProcessWorker] fork first child process fail");
        throw std::runtime_error("ProcessDispatcher");
    }
    if (first == 0) {
        // A child of a threaded process: nothing but fork and _exit here (no log line,
        // no lock); the process's exit closes what it inherited.
        if (::fork() != 0)
            ::_exit(0);
        // The grandchild: reparented to init once its parent exits, so nobody reaps it.
        runForked(*this, endpoint->function, args, method, io, fd);
    }
    while (::waitpid(first, nullptr, 0) < 0 && errno == EINTR) {
    }
    releaseCall(args, fd, io);
    ORVEX_TRACE_POINT(":leave");
}

}  // namespace Orvex
