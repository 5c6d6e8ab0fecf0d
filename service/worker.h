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

#include <cstdint>
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
    virtual void dispatch(Endpoint* endpoint, json_t* args, const char* method, zs_io* io, int fd) = 0;

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
    WorkerTask(int fd, zs_io* io, json_t* args, const char* method, Function function)
        : fd(fd), io(io), args(args), method(method != nullptr ? method : ""), function(function)
    {
    }

    int fd;
    zs_io* io;
    json_t* args;
    std::string method;
    Function function;

protected:
    ~WorkerTask() override = default;
};

// Queues calls for the one thread that runs it (start it once on a pool). A non-zero
// limit refuses a call with 429 once that many are waiting. dispatch runs on the bus
// thread and never waits for a handler.
class PthreadWorker : public AbstractWorker, public Poco::Runnable {
public:
    explicit PthreadWorker(uint64_t maxQueueLength = 0) : maxQueueLength_(maxQueueLength) {}
    virtual ~PthreadWorker() = default;

    void dispatch(Endpoint* endpoint, json_t* args, const char* method, zs_io* io, int fd) override;
    // Takes calls until woken by wakeUpAll or handed a notification that is no call.
    void run() override;
    // Releases a thread blocked in run; calls still queued are never run.
    void wakeUpAll();
    // Makes run return after the calls taken before it (used when the owner goes away).
    void finish();

private:
    uint64_t maxQueueLength_;
    TicktockQueue queue_;
};

// Runs each call in a grandchild process (double fork): nobody has to reap it and the
// service never waits for the handler. Throws std::runtime_error("ProcessDispatcher") if
// the first fork fails.
class ProcessWorker : public AbstractWorker {
public:
    void dispatch(Endpoint* endpoint, json_t* args, const char* method, zs_io* io, int fd) override;
};

}  // namespace Orvex
