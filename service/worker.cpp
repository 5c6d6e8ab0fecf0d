#include "service/worker.h"

#include "common/exceptions.h"
#include "common/misc.h"
#include "common/trace.h"
#include "service/misc.h"
#include "service/service.h"

#include <Poco/Logger.h>

#include <mysql.h>

#include <cerrno>
#include <fcntl.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace Orvex {

namespace {

void logAt(Poco::Message::Priority priority, const std::string& text)
{
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

}  // namespace

void releaseCall(json_t* args, int fd, zs_io* io) noexcept
{
    json_decref(args);
    errno = 0;
    if (!(::fcntl(fd, F_GETFD) == -1 && errno == EBADF))
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

void PthreadWorker::dispatch(Endpoint* endpoint, json_t* args, const char* method, zs_io* io, int fd)
{
    ORVEX_TRACE();
    // The size check and the enqueue lock separately: with one producer (the bus thread)
    // the queue can only shrink in between.
    if (maxQueueLength_ == 0 || queue_.size() < maxQueueLength_) {
        Poco::Notification::Ptr task(new WorkerTask(fd, io, args, method, endpoint->function));
        queue_.enqueueNotification(task, endpoint->ticktock);
        return;
    }
    ORVEX_WORKER_LOG(Poco::Message::PRIO_WARNING, "[PthreadWorker] queue full (%llu calls): %s refused with 429",
        static_cast<unsigned long long>(maxQueueLength_), method != nullptr ? method : "");
    zs_reply_json(io, fd, nullptr, 429, "");
    releaseCall(args, fd, io);
}

void PthreadWorker::run()
{
    ORVEX_TRACE();
    mysql_thread_init();
    for (;;) {
        Poco::Notification::Ptr notification = queue_.waitDequeueNotification();
        WorkerTask* task = dynamic_cast<WorkerTask*>(notification.get());
        if (task == nullptr)
            break;
        try {
            invoke(task->function, task->args, task->method.c_str(), task->io, task->fd);
        } catch (...) {
            // Only sending an error reply can throw here (the call is already released);
            // the thread must survive it to serve the calls behind.
            ORVEX_WORKER_LOG(Poco::Message::PRIO_FATAL, "[PthreadWorker] %s: error reply failed", task->method.c_str());
        }
    }
    mysql_thread_end();
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

void ProcessWorker::dispatch(Endpoint* endpoint, json_t* args, const char* method, zs_io* io, int fd)
{
    ORVEX_TRACE_POINT(":enter");
    pid_t first = ::fork();
    if (first < 0) {
        ORVEX_WORKER_LOG(Poco::Message::PRIO_FATAL, "%s", "[ProcessWorker] fork first child process fail");
        throw std::runtime_error("ProcessDispatcher");
    }
    if (first == 0) {
        pid_t second = ::fork();
        if (second < 0) {
            ORVEX_WORKER_LOG(Poco::Message::PRIO_FATAL, "%s", "[ProcessWorker] fork second child process fail");
            ::_exit(0);
        }
        if (second > 0) {
            releaseCall(args, fd, io);
            ::_exit(0);
        }
        // The grandchild: reparented to init once its parent exits, so nobody reaps it.
        invoke(endpoint->function, args, method, io, fd);
        ORVEX_TRACE_POINT(":leave");
        ::_exit(0);
    }
    while (::waitpid(first, nullptr, 0) < 0 && errno == EINTR) {
    }
    releaseCall(args, fd, io);
    ORVEX_TRACE_POINT(":leave");
}

}  // namespace Orvex
