// Workers run one method call after dispatch: PthreadWorker queues it for its single
// thread, ProcessWorker runs it in a detached grandchild. Both end in invoke, which calls
// the handler, turns any exception into the error reply and releases the call.
//
// Ownership: every dispatch receives one reference to args, the channel io and the
// descriptor fd, and releases all three exactly once on every path -- except when it
// throws, in which case nothing has been taken and the caller still owns them.
#pragma once

#include "service/ticktock.h"
#include "zservice/zservice.h"

#include <Poco/Notification.h>
#include <Poco/Runnable.h>

#include <jansson.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

namespace Orvex {

struct Endpoint;

// A method handler. It may take over the arguments or the descriptor by setting them to
// null or -1; whatever is left in them afterwards is released by invoke.
typedef void (*Function)(zs_io*, json_t*&, int&);

// Ends one call: drops the reference to args, closes fd unless it is not an open
// descriptor (so -1 or an already-closed one is never closed), frees io if not null.
void releaseCall(json_t* args, int fd, zs_io* io) noexcept;

class AbstractWorker {
public:
    // bytes: the call body's size, counted against a queue's byte cap.
    virtual void dispatch(Endpoint* endpoint, json_t* args, const char* method, zs_io* io, int fd,
                          size_t bytes = 0) = 0;

    // Runs the handler and finishes the call (exception -> error reply, then release).
    // A SessionException ends the whole process with _exit(0) after its reply.
    void invoke(Function function, json_t* args, const char* method, zs_io* io, int fd);

protected:
    // Workers are members of the service, never deleted through this base.
    ~AbstractWorker() = default;
};

// One queued call. Owns none of fd, io and args: invoke ends them.
class WorkerTask : public Poco::Notification {
public:
    using Ptr = Poco::AutoPtr<WorkerTask>;
    WorkerTask(int fd, zs_io* io, json_t* args, const char* method, Function function, size_t bytes);

    int fd;
    zs_io* io;
    json_t* args;
    std::string method;
    Function function;
    size_t bytes;  // counted in the worker's queued bytes

protected:
    ~WorkerTask() override = default;
};

// Queues calls for the one thread that runs it (start it once on a pool), or, run
// inline, for whichever dispatching thread finds it waiting, one call at a time. A
// non-zero limit refuses a call with 429 once that many are waiting; so does a queue
// holding more than kMaxQueuedBytes of call bodies. Every call accepted is run, also when
// its caller has hung up meanwhile (the change still reaches the device; nobody gets the
// reply). dispatch runs on the bus thread and never waits for a queued handler.
//
// Inline, the worker behaves as its thread would: it is either busy or waiting, and a
// call that finds it waiting is handed over directly and runs at once on the dispatching
// thread, leaving the tick-tock turn alone; a call that finds it busy is queued. When a
// call ends, the next one is taken by the tick-tock rule; finding none, the worker waits
// again (that empty take switches the turn, as a thread's look at an empty queue does).
class PthreadWorker : public AbstractWorker, public Poco::Runnable {
public:
    static constexpr size_t kMaxQueuedBytes = 64u << 20;
    // The reply of a call that was still queued when the service stopped.
    static constexpr int kStoppedCode = 503;
    static constexpr const char* kStoppedMessage = "service stopped";

    explicit PthreadWorker(uint64_t maxQueueLength = 0) : maxQueueLength_(maxQueueLength) {}
    virtual ~PthreadWorker() = default;

    void dispatch(Endpoint* endpoint, json_t* args, const char* method, zs_io* io, int fd,
                  size_t bytes = 0) override;
    // Calls run on the threads that dispatch them instead of on a thread of the worker's
    // own; set once, before the first call. The worker then starts waiting for its first
    // call, as its thread would when started.
    void setInline(bool on);
    bool isInline() const { return inline_; }
    // What requestTick runs, between two calls; set before use.
    void setTick(std::function<void()> tick) { tick_ = std::move(tick); }
    // Inline only: runs the tick once, between two calls and never beside one, on the
    // thread running calls now or, if the worker waits, on the calling thread; never after
    // stop(). The tick is no call: it neither takes from the queue nor moves the turn.
    void requestTick();
    // Takes calls until woken by wakeUpAll or handed a notification that is no call.
    void run() override;
    // Releases a thread blocked in run; calls still queued are never run.
    void wakeUpAll();
    // Makes run return after the calls taken before it (used when the owner goes away).
    void finish();
    // Refuses every call from now on and answers those still queued with kStoppedCode and
    // kStoppedMessage; the call running now finishes, a tick running now is waited for.
    // Safe beside dispatch.
    void stop();

private:
    // Inline: runs first (may be null), then every pending tick and call, until the worker
    // waits again. The calling thread must have claimed running_.
    void serve(Poco::AutoPtr<WorkerTask> first);
    // Under mutex_: what serve runs next, or false once the worker waits (running_ off).
    bool nextWork(Poco::AutoPtr<WorkerTask>& call, bool& tick);
    void runTask(WorkerTask& task);
    // invoke, surviving an error reply that could not be sent.
    void runCall(Function function, json_t* args, const char* method, zs_io* io, int fd);
    void runTick();
    bool overBytes(size_t bytes) const;
    void refuse(json_t* args, zs_io* io, int fd, int code, const char* message);

    uint64_t maxQueueLength_;
    std::atomic<size_t> queuedBytes_{0};
    std::atomic<bool> stopped_{false};
    TicktockQueue queue_;
    // Guards the limit checks with the enqueue, and the inline state below.
    std::mutex mutex_;
    bool inline_ = false;
    bool waiting_ = false;                 // inline: the worker waits for a call
    bool running_ = false;                 // inline: a thread runs calls or a tick now
    bool tickPending_ = false;             // inline: requestTick not yet served
    Poco::AutoPtr<WorkerTask> handedOff_;  // inline: handed over while a tick still ran
    std::function<void()> tick_;
    std::mutex tickMutex_;  // held while the tick runs, so stop() can wait for it
};

// Runs each call in a grandchild process (double fork): nobody has to reap it and the
// service never waits for the handler. Throws std::runtime_error("ProcessDispatcher") if
// the first fork fails.
// The grandchild, a child of a threaded process, takes no lock and writes no log line
// (another thread may have held one at the fork): logging is switched off in it and
// handlers run there must not log either. It keeps only the standard streams, the call's
// connection and its reply descriptor, so no listening socket or other caller's connection
// outlives the service in it, and it ends after kForkedCallSeconds at the latest.
class ProcessWorker : public AbstractWorker {
public:
    static constexpr unsigned kForkedCallSeconds = 30;
    void dispatch(Endpoint* endpoint, json_t* args, const char* method, zs_io* io, int fd,
                  size_t bytes = 0) override;
};

}  // namespace Orvex
