// Round trips through the bus (zs_call against a handler that replies at once) beside a
// bare AF_UNIX echo server with the same one-connection-per-call pattern, so the cost
// of the bus itself shows as a ratio. Usage: bus_bench [SECONDS_PER_RUN] (default 1).
#include "zservice/zservice.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

const char kMethod[] = "ping";
const char kBody[] = "{\"mac\":\"00:11:22:33:44:55\",\"ip\":\"10.0.0.1\"}";

struct Result {
    double callsPerSecond = 0;
    double medianUs = 0;
    double p99Us = 0;
    long failures = 0;
};

// ---- the bus ------------------------------------------------------------------------------

void replyAtOnce(const char*, zs_io* io, int fd)
{
    zs_io_realloc(io, 0);
    zs_io_write(io, "{\"error_code\":0}", 16);
    zs_reply(io);
    zs_io_free(io);
    if (fd >= 0)
        close(fd);
}

bool busCall(const std::string& address)
{
    zs_io* io = zs_io_create();
    zs_io_write(io, kBody, sizeof(kBody) - 1);
    const bool ok = zs_call(address.c_str(), kMethod, io, 5, -1) == 0 && zs_io_size(io) == 16;
    zs_io_free(io);
    return ok;
}

// ---- the bare echo server -------------------------------------------------------------------

sockaddr_un abstractAddress(const std::string& name, socklen_t& length)
{
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    memcpy(sa.sun_path + 1, name.data() + 1, name.size() - 1);
    length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    return sa;
}

bool readExactly(int fd, char* data, size_t size)
{
    while (size > 0) {
        const ssize_t n = read(fd, data, size);
        if (n <= 0)
            return false;
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

const std::string& requestBytes()
{
    static const std::string bytes = [] {
        std::string frame(12, '\0');
        frame[0] = 'Z';
        frame[1] = 'S';
        frame[2] = 1;
        frame[3] = 'C';
        frame[4] = static_cast<char>(sizeof(kMethod) - 1);
        frame[8] = static_cast<char>(sizeof(kBody) - 1);
        return frame + kMethod + kBody;
    }();
    return bytes;
}

// One connection at a time, like the bus loop: read the whole request, echo it, close.
void echoServer(int listenFd, std::atomic<bool>& stop)
{
    std::string buffer(requestBytes().size(), '\0');
    while (!stop) {
        const int conn = accept(listenFd, nullptr, nullptr);
        if (conn < 0)
            continue;
        if (readExactly(conn, &buffer[0], buffer.size()))
            (void)!write(conn, buffer.data(), buffer.size());
        close(conn);
    }
}

bool rawCall(const std::string& address)
{
    socklen_t length;
    const sockaddr_un sa = abstractAddress(address, length);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    bool ok = connect(fd, reinterpret_cast<const sockaddr*>(&sa), length) == 0;
    const std::string& request = requestBytes();
    ok = ok && write(fd, request.data(), request.size()) == static_cast<ssize_t>(request.size());
    std::string reply(request.size(), '\0');
    ok = ok && readExactly(fd, &reply[0], reply.size());
    close(fd);
    return ok;
}

// ---- measuring ------------------------------------------------------------------------------

Result measure(const std::function<bool()>& call, int callers, double seconds)
{
    std::vector<std::vector<double>> latencies(static_cast<size_t>(callers));
    std::atomic<long> failures{0};
    const auto end = Clock::now() + std::chrono::duration<double>(seconds);
    const auto start = Clock::now();
    std::vector<std::thread> threads;
    for (int i = 0; i < callers; ++i) {
        threads.emplace_back([&, i] {
            auto& mine = latencies[static_cast<size_t>(i)];
            while (Clock::now() < end) {
                const auto t0 = Clock::now();
                if (!call())
                    ++failures;
                mine.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
            }
        });
    }
    for (auto& t : threads)
        t.join();
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    std::vector<double> all;
    for (auto& v : latencies)
        all.insert(all.end(), v.begin(), v.end());
    std::sort(all.begin(), all.end());
    Result r;
    r.failures = failures;
    if (all.empty())
        return r;
    r.callsPerSecond = static_cast<double>(all.size()) / elapsed;
    r.medianUs = all[all.size() / 2];
    r.p99Us = all[std::min(all.size() - 1, all.size() * 99 / 100)];
    return r;
}

void printRow(const char* what, int callers, const Result& r)
{
    printf("%-10s %7d %12.0f %12.1f %12.1f %9ld\n", what, callers, r.callsPerSecond, r.medianUs, r.p99Us,
           r.failures);
}

}  // namespace

int main(int argc, char** argv)
{
    const double seconds = argc > 1 ? std::max(0.1, atof(argv[1])) : 1.0;
    const std::string pid = std::to_string(getpid());
    const std::string busAddress = "@orvex-bus-bench-" + pid;
    const std::string rawAddress = "@orvex-bus-bench-raw-" + pid;

    zs* bus = zs_create(busAddress.c_str(), 4, 1, replyAtOnce);
    if (!bus) {
        fprintf(stderr, "bus_bench: cannot listen at %s\n", busAddress.c_str());
        return 1;
    }
    std::thread loop([bus] { zs_start(bus); });

    socklen_t length;
    const sockaddr_un sa = abstractAddress(rawAddress, length);
    const int rawFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(rawFd, reinterpret_cast<const sockaddr*>(&sa), length) != 0 || listen(rawFd, SOMAXCONN) != 0) {
        fprintf(stderr, "bus_bench: cannot listen at %s\n", rawAddress.c_str());
        return 1;
    }
    std::atomic<bool> stopRaw{false};
    std::thread raw([&] { echoServer(rawFd, stopRaw); });

    printf("one connection per call, %zu-byte request, %.1f s per run\n\n", requestBytes().size(), seconds);
    printf("%-10s %7s %12s %12s %12s %9s\n", "server", "callers", "calls/s", "median us", "p99 us", "failures");
    const auto busFn = [&] { return busCall(busAddress); };
    const auto rawFn = [&] { return rawCall(rawAddress); };
    measure(busFn, 1, 0.1);  // warm-up
    for (int callers : {1, 8}) {
        const Result b = measure(busFn, callers, seconds);
        const Result r = measure(rawFn, callers, seconds);
        printRow("bus", callers, b);
        printRow("raw echo", callers, r);
        printf("%-10s %7d %11.2fx %11.2fx %11.2fx\n\n", "bus/raw", callers,
               r.callsPerSecond > 0 ? b.callsPerSecond / r.callsPerSecond : 0.0,
               r.medianUs > 0 ? b.medianUs / r.medianUs : 0.0, r.p99Us > 0 ? b.p99Us / r.p99Us : 0.0);
    }

    stopRaw = true;
    rawCall(rawAddress);  // wakes the blocking accept
    raw.join();
    close(rawFd);
    zs_stop(bus);
    loop.join();
    zs_free(bus);
    return 0;
}
