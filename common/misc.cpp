#include "common/misc.h"

#include "common/trace.h"

#include <Poco/Base64Decoder.h>
#include <Poco/Base64Encoder.h>
#include <Poco/String.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace Orvex {

namespace {

std::string vformat(const char* format, va_list args)
{
    va_list measure;
    va_copy(measure, args);
    int size = std::vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    if (size <= 0)
        return std::string();
    std::string text(static_cast<size_t>(size) + 1, '\0');
    std::vsnprintf(&text[0], text.size(), format, args);
    text.resize(static_cast<size_t>(size));
    return text;
}

// Copies a whole stream through a fixed buffer.
std::string drain(std::istream& in)
{
    std::string out;
    char buffer[8192];
    while (in.read(buffer, sizeof buffer) || in.gcount() > 0)
        out.append(buffer, static_cast<size_t>(in.gcount()));
    return out;
}

}  // namespace

std::string strformat(const char* format, ...)
{
    // No trace here: the tracing itself formats through this function.
    va_list args;
    va_start(args, format);
    std::string text = vformat(format, args);
    va_end(args);
    return text;
}

void fdprintf(int fd, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    ::vdprintf(fd, format, args);
    va_end(args);
}

int create_temp_file(char* path)
{
    ORVEX_TRACE();
    if (path == nullptr)
        return -1;
    return ::mkstemp(path);
}

std::string get_file_context(const char* path)
{
    ORVEX_TRACE();
    if (path == nullptr)
        return std::string();
    std::ifstream in(path, std::ios::in | std::ios::binary);
    if (!in.is_open())
        return std::string();
    return drain(in);
}

std::string btoa(const std::string& data)
{
    ORVEX_TRACE();
    std::ostringstream out;
    {
        Poco::Base64Encoder encoder(out);
        std::istringstream in(data);
        char buffer[8192];
        while (in.read(buffer, sizeof buffer) || in.gcount() > 0)
            encoder.write(buffer, in.gcount());
        encoder.close();
    }
    std::string text = out.str();
    Poco::replaceInPlace(text, std::string("\r\n"), std::string());
    return text;
}

std::string atob(const std::string& data)
{
    ORVEX_TRACE();
    std::istringstream in(data);
    Poco::Base64Decoder decoder(in);
    return drain(decoder);
}

}  // namespace Orvex
