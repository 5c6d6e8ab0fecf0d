// Round-trip latency of one bus call: answered at once on the bus thread ("bare") and
// answered by a no-op handler behind Service::dispatch on the bounded thread worker
// ("service"). Calls alternate between the two so both see the same machine load.
//
//   orvex_dispatch_bench [calls=5000]
#include "service/misc.h"
#include "service/service.h"
#include "zservice/zservice.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

using namespace Orvex;

namespace {

void bareHandler(const char*, zs_io* io, int fd)
{
    zs_io_realloc(io, 0);
    zs_io_write(io, "{}", 2);
    zs_reply(io);
    zs_io_free(io);
    if (fd >= 0)
        ::close(fd);
}

void serviceHandler(const char* method, zs_io* io, int fd)
{
    Service::getInstance().dispatch(method, io, fd);
}

void noop(zs_io* io, json_t*& args, int& fd)
{
    json_object_clear(args);
    zs_reply_forward(io, fd, args);
}

class Bus {
public:
    Bus(const std::string& address, zs_handler handler) : address(address), bus_(zs_create(address.c_str(), 4, 0, handler))
    {
        if (bus_ == nullptr) {
            std::fprintf(stderr, "cannot serve %s\n", address.c_str());
            std::exit(1);
        }
        thread_ = std::thread([this] { zs_start(bus_); });
    }
    ~Bus()
    {
        zs_stop(bus_);
        thread_.join();
        zs_free(bus_);
    }
    const std::string address;

private:
    zs* bus_;
    std::thread thread_;
};

// Microseconds of one call, or a negative value if it failed.
double timedCall(const std::string& address, zs_io* io)
{
    zs_io_realloc(io, 0);
    zs_io_write(io, "{}", 2);
    auto start = std::chrono::steady_clock::now();
    int rc = zs_call(address.c_str(), "noop", io, 10, -1);
    auto end = std::chrono::steady_clock::now();
    if (rc != 0 || std::string(zs_io_read(io, 0)) != "{}")
        return -1;
    return std::chrono::duration<double, std::micro>(end - start).count();
}

struct Summary {
    double median;
    double p99;
};

Summary summarize(std::vector<double> samples)
{
    std::sort(samples.begin(), samples.end());
    size_t p99 = std::min(samples.size() - 1, samples.size() * 99 / 100);
    return {samples[samples.size() / 2], samples[p99]};
}

}  // namespace

int main(int argc, char** argv)
{
    int calls = argc > 1 ? std::atoi(argv[1]) : 5000;
    if (calls < 10)
        calls = 10;
    Service::addEndpoint(Service::WORKER_THREAD_LIMITED, TicktockQueue::TICK, "noop", "",
        new Endpoint{true, "", nullptr, &noop, TicktockQueue::TICK});
    Service::getInstance().start();

    std::string prefix = "@orvex-bench/" + std::to_string(::getpid());
    Bus bare(prefix + "/bare", &bareHandler);
    Bus service(prefix + "/service", &serviceHandler);
    zs_io* io = zs_io_create();

    std::vector<double> bareTimes, serviceTimes;
    for (int i = -calls / 10; i < calls; ++i) {  // the first tenth warms up
        double b = timedCall(bare.address, io);
        double s = timedCall(service.address, io);
        if (b < 0 || s < 0) {
            std::fprintf(stderr, "call %d failed\n", i);
            return 1;
        }
        if (i >= 0) {
            bareTimes.push_back(b);
            serviceTimes.push_back(s);
        }
    }
    zs_io_free(io);

    Summary b = summarize(bareTimes), s = summarize(serviceTimes);
    std::printf("calls per path: %d\n", calls);
    std::printf("bare bus       median %8.1f us   p99 %8.1f us\n", b.median, b.p99);
    std::printf("service+worker median %8.1f us   p99 %8.1f us\n", s.median, s.p99);
    std::printf("ratio (service/bare)  median %.2f   p99 %.2f\n", s.median / b.median, s.p99 / b.p99);
    return 0;
}
