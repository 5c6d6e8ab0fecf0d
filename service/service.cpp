#include "service/service.h"

#include "common/exceptions.h"
#include "common/misc.h"
#include "common/raii.h"
#include "common/trace.h"
#include "service/misc.h"

#include <Poco/Bugcheck.h>
#include <Poco/Exception.h>
#include <Poco/Logger.h>
#include <Poco/String.h>
#include <Poco/StringTokenizer.h>
#include <Poco/URI.h>

#include <algorithm>
#include <cstring>
#include <string_view>
#include <unistd.h>

namespace Orvex {

std::atomic<Service*> Service::instance_{nullptr};

const char* Service::__help__ = "[Method|Resource]:\n   Resource also be defined in method, all avaiable method are:\n";

namespace {

constexpr int kTokens = Poco::StringTokenizer::TOK_TRIM | Poco::StringTokenizer::TOK_IGNORE_EMPTY;

void logLine(Poco::Message::Priority priority, const std::string& text)
{
    Poco::Logger& root = Poco::Logger::root();
    if (root.getLevel() >= priority)
        root.log(Poco::Message(root.name(), text, priority));
}

// Orders names by what follows a 4-letter verb ("get_", "set_", ...), then by the verb's
// first byte, so that methods acting on the same thing are listed together.
bool methodBefore(const std::string& a, const std::string& b)
{
    int tail = a.substr(4).compare(b.substr(4));
    if (tail != 0)
        return tail < 0;
    return static_cast<unsigned char>(a[0]) < static_cast<unsigned char>(b[0]);
}

// Reads the request body as an object; anything else (no JSON, an array, ...) is {}.
json_t* readArguments(zs_io* io)
{
    json_error_t error;
    json_t* parsed = json_loadb(zs_io_read(io, 0), zs_io_size(io), 0, &error);
    zs_io_realloc(io, 0);
    if (parsed != nullptr && json_is_object(parsed))
        return parsed;
    json_decref(parsed);
    return json_object();
}

// An error before any worker took the call: reply, then close what the caller handed us.
void failCall(zs_io* io, int fd, int code, const char* message)
{
    zs_reply_json(io, fd, nullptr, code, message);
    releaseCall(nullptr, fd, io);
}

}  // namespace

Service::Service()
    : name_("orvex"),
      boundedWorker_(5000),
      unboundedWorker_(0)
{
    ORVEX_TRACE();
    Poco::SharedPtr<Endpoint> endpoint(new Endpoint{true, __help__, nullptr, &Service::help, TicktockQueue::TICK});
    addEndpoint(&processWorker_, TicktockQueue::TICK, "help", "", endpoint);
    instance_.store(this);
}

Service::~Service()
{
    // The worker threads must leave run() before the workers (declared after the pools)
    // are destroyed. stopAll waits at most ten seconds for a thread still in a handler.
    boundedWorker_.finish();
    unboundedWorker_.finish();
    for (auto* pool : {boundedPool_.get(), unboundedPool_.get()})
        if (pool != nullptr)
            pool->stopAll();
}

Service& Service::getInstance()
{
    ORVEX_TRACE();
    // Function-local, so a static initialiser elsewhere may already register endpoints.
    static Poco::SingletonHolder<Service> holder;
    return *holder.get();
}

void Service::setServiceName(std::string name)
{
    ORVEX_TRACE();
    getInstance().name_ = std::move(name);
}

void Service::addEndpoint(WORKER_MODE mode, TicktockQueue::TickTock tick, std::string general, std::string restful,
    Poco::SharedPtr<Endpoint> endpoint)
{
    ORVEX_TRACE();
    Service& service = getInstance();
    AbstractWorker* worker = nullptr;
    switch (mode) {
    case WORKER_THREAD_LIMITED: worker = &service.boundedWorker_; break;
    case WORKER_THREAD: worker = &service.unboundedWorker_; break;
    case WORKER_PROCESS: worker = &service.processWorker_; break;
    default: return;
    }
    try {
        service.addEndpoint(worker, tick, general, restful, endpoint);
    } catch (Poco::Exception& e) {
        logLine(Poco::Message::PRIO_FATAL, strformat("%s:%d, %s [Service] addEndpoint: %s", trace::baseName(__FILE__),
                                               __LINE__, __PRETTY_FUNCTION__, e.message().c_str()));
    }
}

void Service::addEndpoint(AbstractWorker* worker, TicktockQueue::TickTock tick, std::string general, std::string restful,
    Poco::SharedPtr<Endpoint> endpoint)
{
    ORVEX_TRACE();
    if (endpoint.isNull())
        throw Poco::NullPointerException("endpoint");
    endpoint->worker = worker;
    endpoint->ticktock = tick;
    Poco::replaceInPlace(endpoint->help, std::string("%SERVICE%"), name_);
    Poco::replaceInPlace(endpoint->help, std::string("%GENERAL%"), general);
    Poco::replaceInPlace(endpoint->help, std::string("%RESTFUL%"), restful);
    endpoints_.push_back(endpoint);
    if (!restful.empty())
        addResource(restful, endpoint);
    if (!general.empty()) {
        ResourceNode& node = root_.children[general];
        if (node.name.empty())
            node.name = general;
        node.endpoint = endpoint;
    }
}

// Builds the path's nodes: "{name}" segments become the parameter child (key ""), which
// keeps the name it was first created with.
void Service::addResource(const std::string& restful, const Poco::SharedPtr<Endpoint>& endpoint)
{
    Poco::StringTokenizer tokens(restful, "/", kTokens);
    ResourceNode* node = &root_;
    for (const std::string& token : tokens) {
        std::string key = token;
        std::string name = token;
        if (token.front() == '{' && token.back() == '}') {
            if (token.size() < 3)
                throw ResourceException(restful, 0);
            key.clear();
            name = token.substr(1, token.size() - 2);
        }
        auto found = node->children.find(key);
        if (found == node->children.end())
            found = node->children.emplace(key, ResourceNode{name, {}, nullptr}).first;
        node = &found->second;
    }
    node->endpoint = endpoint;
}

void Service::sort()
{
    ORVEX_TRACE();
    for (const auto& child : root_.children)
        if (!child.second.endpoint.isNull() && child.first != "help")
            methods_.push_back(child.first);
    std::sort(methods_.begin(), methods_.end(), methodBefore);
}

void Service::start()
{
    ORVEX_TRACE();
    logLine(Poco::Message::PRIO_INFORMATION, strformat("[%s] service pid(%d) start.", name_.c_str(), int(::getpid())));
    sort();
    if (used(&boundedWorker_) && !boundedWorker_.isInline()) {
        boundedPool_ = std::make_unique<Poco::ThreadPool>(1, 32, 60);
        boundedPool_->start(boundedWorker_);
    }
    if (used(&unboundedWorker_) && !unboundedWorker_.isInline()) {
        unboundedPool_ = std::make_unique<Poco::ThreadPool>(1, 8, 60);
        unboundedPool_->start(unboundedWorker_);
    }
}

void Service::runCallsOnBusThreads()
{
    boundedWorker_.setInline(true);
    unboundedWorker_.setInline(true);
}

void Service::setTick(std::function<void()> tick)
{
    unboundedWorker_.setTick(std::move(tick));
}

void Service::tick()
{
    unboundedWorker_.requestTick();
}

bool Service::used(const AbstractWorker* worker) const
{
    return std::any_of(endpoints_.begin(), endpoints_.end(),
        [worker](const Poco::SharedPtr<Endpoint>& endpoint) { return endpoint->worker == worker; });
}

void Service::stop()
{
    ORVEX_TRACE();
    logLine(Poco::Message::PRIO_INFORMATION, strformat("[%s] service pid(%d) stop.", name_.c_str(), int(::getpid())));
    boundedWorker_.stop();
    unboundedWorker_.stop();
}

Endpoint* Service::findEndpoint(const char* name)
{
    ORVEX_TRACE();
    if (name == nullptr)
        throw ResourceException("null ptr", 404);
    auto found = root_.children.find(name);
    if (found == root_.children.end() || found->second.endpoint.isNull())
        throw ResourceException(name, 404);
    return found->second.endpoint.get();
}

Endpoint* Service::findEndpoint(const char* method, json_t*& args)
{
    ORVEX_TRACE();
    if (method == nullptr)
        throw ResourceException("null ptr", 404);
    // A plain method name that is a literal child: what the walk below would find, without
    // splitting the name first.
    if (std::strpbrk(method, "/ \t\r\n\f\v") == nullptr) {
        // As a view, its length is counted once rather than at every node compared.
        auto literal = root_.children.find(std::string_view(method));
        if (literal != root_.children.end()) {
            if (literal->second.endpoint.isNull())
                throw ResourceException(method, 404);
            return literal->second.endpoint.get();
        }
    }
    Poco::StringTokenizer tokens(method, "/", kTokens);
    ResourceNode* node = &root_;
    for (const std::string& token : tokens) {
        auto literal = node->children.find(token);
        if (literal != node->children.end()) {
            node = &literal->second;
            continue;
        }
        auto parameter = node->children.find(std::string());
        if (parameter == node->children.end())
            throw ResourceException(method, 404);
        std::string value;
        try {
            Poco::URI::decode(token, value, false);
        } catch (Poco::SyntaxException&) {
            // A broken %-escape is the caller's mistake, not an unknown method.
            throw ResourceException(method, 400);
        }
        json_object_set_new(args, parameter->second.name.c_str(), detail::jsonMessage(value.c_str()));
        node = &parameter->second;
    }
    if (node->endpoint.isNull())
        throw ResourceException(method, 404);
    return node->endpoint.get();
}

void Service::dispatch(const char* method, zs_io* io, int fd)
{
    ORVEX_TRACE();
    const size_t bytes = zs_io_size(io);
    JsonRef args = JsonRef::adopt(readArguments(io));
    const char* name = method != nullptr ? method : "";
    std::string kept;
    try {
        json_t* raw = args.get();
        Endpoint* endpoint = findEndpoint(method, raw);
        if (!endpoint->sync) {
            // The bus may keep the method name inside the channel, which is freed here.
            kept = name;
            name = kept.c_str();
            // The caller only learns that the call was accepted; the handler runs without a
            // channel or descriptor.
            zs_reply_json(io, fd, nullptr, 0, "");
            if (fd >= 0)
                ::close(fd);
            zs_io_free(io);
            io = nullptr;
            fd = -1;
        }
        endpoint->worker->dispatch(endpoint, args.get(), name, io, fd, bytes);
        args.release();  // the worker owns it now
    } catch (Poco::Exception& e) {
        failCall(io, fd, e.code(), e.message().c_str());
    } catch (...) {
        failCall(io, fd, 500, "");
        Poco::Bugcheck::unexpected(__FILE__, __LINE__);
    }
}

// Runs in a forked child: no trace, no singleton lock.
void Service::help(zs_io* io, json_t*& args, int& fd)
{
    (void)fd;  // the worker closes it; help answers in the channel only
    const char* method = "";
    json_unpack(args, "{s?s}", "method", &method);
    std::string name = method != nullptr ? method : "";
    zs_io_realloc(io, 0);
    Service* service = instance_.load();
    (service != nullptr ? *service : getInstance()).replyHelp(io, name);
    zs_reply(io);
}

void Service::replyHelp(zs_io* io, const std::string& method)
{
    try {
        zs_io_printf(io, "\n%s\n", findEndpoint(method.c_str())->help.c_str());
        return;
    } catch (Poco::Exception&) {
        // Unknown, empty or path-form name: the whole listing.
    }
    auto self = root_.children.find("help");
    bool registered = self != root_.children.end() && !self->second.endpoint.isNull();
    zs_io_printf(io, "\n%s\n", registered ? self->second.endpoint->help.c_str() : __help__);
    for (const std::string& name : methods_)
        zs_io_printf(io, "   %s\n", name.c_str());
    zs_io_printf(io, "\n");
}

}  // namespace Orvex
