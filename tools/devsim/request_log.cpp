#include "tools/devsim/request_log.h"

#include <Poco/Net/HTTPServerRequest.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <sys/time.h>

#include "common/raii.h"

namespace Orvex::Devsim {

namespace {

// jansson refuses invalid UTF-8; such bytes are logged as Latin-1 so nothing is lost.
json_t* textValue(const std::string& text)
{
    if (json_t* value = json_stringn(text.data(), text.size()))
        return value;
    std::string utf8;
    for (unsigned char c : text) {
        if (c < 0x80) {
            utf8 += static_cast<char>(c);
        } else {
            utf8 += static_cast<char>(0xC0 | (c >> 6));
            utf8 += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return json_stringn(utf8.data(), utf8.size());
}

json_t* headerObject(const Poco::Net::HTTPServerRequest& request)
{
    json_t* headers = json_object();
    for (const auto& header : request) {
        json_t* previous = json_object_get(headers, header.first.c_str());
        std::string value = header.second;
        if (previous)
            value = std::string(json_string_value(previous)) + ", " + value;
        json_object_set_new(headers, header.first.c_str(), textValue(value));
    }
    return headers;
}

double now()
{
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<double>(tv.tv_sec) + tv.tv_usec / 1e6;
}

}  // namespace

RequestLog::RequestLog(const std::string& path)
{
    if (path.empty())
        return;
    file_.reset(fopen(path.c_str(), "a"));
    if (!file_)
        throw std::runtime_error("request log " + path + ": " + strerror(errno));
}

void RequestLog::write(const Poco::Net::HTTPServerRequest& request, const std::string& body)
{
    if (!file_)
        return;
    JsonRef line = JsonRef::adopt(json_object());
    json_object_set_new(line.get(), "time", json_real(now()));
    json_object_set_new(line.get(), "method", textValue(request.getMethod()));
    json_object_set_new(line.get(), "target", textValue(request.getURI()));
    json_object_set_new(line.get(), "headers", headerObject(request));
    json_object_set_new(line.get(), "body", textValue(body));
    char* text = json_dumps(line.get(), JSON_COMPACT);
    if (!text)
        return;
    std::lock_guard<std::mutex> lock(mutex_);
    fputs(text, file_.get());
    fputc('\n', file_.get());
    fflush(file_.get());
    free(text);
}

}  // namespace Orvex::Devsim
