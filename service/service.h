// The registry of the methods offered on the service bus and the one entry through which
// each call is decoded and handed to a worker. Register everything (single-threaded)
// before start(); afterwards the tree is read without locks from the bus thread.
#pragma once

#include "service/ticktock.h"
#include "service/worker.h"
#include "zservice/zservice.h"

#include <Poco/SharedPtr.h>
#include <Poco/SingletonHolder.h>
#include <Poco/ThreadPool.h>

#include <jansson.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Orvex {

// One registered method. sync false: the service replies success at once and the handler
// runs without a channel. worker and ticktock are set by addEndpoint.
struct Endpoint {
    bool sync;
    std::string help;
    AbstractWorker* worker;
    Function function;
    TicktockQueue::TickTock ticktock;
};

// A node of the method tree: literal children keyed by their text, the one parameter
// child (its name is the parameter's) keyed by "".
struct ResourceNode {
    std::string name;
    std::map<std::string, ResourceNode, std::less<>> children;  // found by the method name as given
    Poco::SharedPtr<Endpoint> endpoint;
};

class Service {
public:
    enum WORKER_MODE { WORKER_THREAD_LIMITED = 0, WORKER_THREAD = 1, WORKER_PROCESS = 2 };

    static Service& getInstance();
    // Call before adding endpoints: "%SERVICE%" in help texts is replaced at add time.
    static void setServiceName(std::string name);
    // Binds to the worker of mode (unknown modes register nothing); Poco exceptions are
    // logged at fatal priority and swallowed.
    static void addEndpoint(WORKER_MODE mode, TicktockQueue::TickTock tick, std::string general,
        std::string restful, Poco::SharedPtr<Endpoint> endpoint);
    // Stores endpoint under the plain name general and/or the path restful ("a/{id}/b").
    // Throws Poco::NullPointerException for a null endpoint and ResourceException(restful, 0)
    // for a "{}" segment.
    void addEndpoint(AbstractWorker* worker, TicktockQueue::TickTock tick, std::string general,
        std::string restful, Poco::SharedPtr<Endpoint> endpoint);

    // Fills the help listing (every name but "help") grouped by what follows a 4-letter
    // verb; throws std::out_of_range for a name shorter than 4 characters.
    void sort();
    // The WORKER_THREAD and WORKER_THREAD_LIMITED calls run on the threads that dispatch
    // them (the bus's loop threads), each worker's one at a time, instead of on threads of
    // their own: no hand-over between threads per call. Call before start().
    void runCallsOnBusThreads();
    // tick runs, on each tick(), between two WORKER_THREAD calls (never beside one) and
    // never after stop(): on the thread running calls then, or on the caller of tick()
    // while none runs. Only after runCallsOnBusThreads(). Set it before start(); tick()
    // may be called from any thread.
    void setTick(std::function<void()> tick);
    void tick();
    // Logs, sorts and starts the thread workers that registered endpoints use (an unused
    // one costs no thread). Register everything before; call once.
    void start();
    // Logs, then stops the thread workers: calls still queued are answered with error_code
    // PthreadWorker::kStoppedCode ("service stopped") instead of reaching the device after
    // the shutdown; a call already running finishes. Safe beside dispatch. Worker threads
    // end with the process.
    void stop();

    // Exact plain-name lookup; ResourceException(name, 404) if absent.
    Endpoint* findEndpoint(const char* name);
    // Tree walk; parameter segments are URL-decoded into args under the parameter's name.
    // ResourceException(method, 404) if nothing matches.
    Endpoint* findEndpoint(const char* method, json_t*& args);

    // One incoming call, on the bus thread. Takes ownership of io and fd; unknown methods
    // get the 404 reply at once.
    void dispatch(const char* method, zs_io* io, int fd);

    // The built-in "help": the usage of args' "method", or the list of all methods.
    static void help(zs_io* io, json_t*& args, int& fd);
    static const char* __help__;

    const std::string& getServiceName() const { return name_; }
    // The names listed by help, after sort().
    const std::vector<std::string>& getMethods() const { return methods_; }
    // Every endpoint in the order added.
    const std::vector<Poco::SharedPtr<Endpoint>>& getEndpoints() const { return endpoints_; }

private:
    friend class Poco::SingletonHolder<Service>;
    Service();
    ~Service();
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    void addResource(const std::string& restful, const Poco::SharedPtr<Endpoint>& endpoint);
    void replyHelp(zs_io* io, const std::string& method);

    static std::atomic<Service*> instance_;  // for help in a forked child: no singleton lock there
    std::string name_;
    bool used(const AbstractWorker* worker) const;

    // Created by start() for a worker some endpoint uses (a pool starts a thread at once).
    std::unique_ptr<Poco::ThreadPool> boundedPool_;
    std::unique_ptr<Poco::ThreadPool> unboundedPool_;
    ResourceNode root_;
    PthreadWorker boundedWorker_;
    PthreadWorker unboundedWorker_;
    ProcessWorker processWorker_;
    std::vector<std::string> methods_;
    std::vector<Poco::SharedPtr<Endpoint>> endpoints_;
};

}  // namespace Orvex
