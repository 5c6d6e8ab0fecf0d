// The --log file: one JSON object per request, written whole and flushed under a mutex so
// lines from concurrent connections never interleave. Safe from any thread.
#pragma once

#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

namespace Poco::Net { class HTTPServerRequest; }

namespace Orvex::Devsim {

class RequestLog {
public:
    // An empty path makes a log that writes nothing. Throws std::runtime_error when the
    // file cannot be opened for appending.
    explicit RequestLog(const std::string& path);

    void write(const Poco::Net::HTTPServerRequest& request, const std::string& body);

private:
    struct Closer { void operator()(FILE* f) const { if (f) fclose(f); } };
    std::mutex mutex_;
    std::unique_ptr<FILE, Closer> file_;
};

}  // namespace Orvex::Devsim
