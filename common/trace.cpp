#include "common/trace.h"

#include "common/misc.h"

#include <cstdarg>
#include <cstdio>
#include <string>

namespace Orvex {
namespace trace {

namespace {

void emit(const std::string& text) noexcept
{
    try {
        Poco::Logger& root = rootLogger();
        Poco::Channel::Ptr channel = root.getChannel();
        if (!channel)
            return;
        channel->log(Poco::Message(root.name(), text, Poco::Message::PRIO_TRACE));
    } catch (...) {
        // A trace line never changes the outcome of the traced function.
    }
}

}  // namespace

void write(const char* file, int line, const char* function, const char* text) noexcept
{
    try {
        emit(strformat("%s:%d, %s %s", file, line, function, text));
    } catch (...) {
    }
}

void writef(const char* file, int line, const char* function, const char* format, ...) noexcept
{
    try {
        va_list args;
        va_start(args, format);
        va_list measure;
        va_copy(measure, args);
        int size = std::vsnprintf(nullptr, 0, format, measure);
        va_end(measure);
        std::string text;
        if (size > 0) {
            text.resize(static_cast<size_t>(size) + 1);
            std::vsnprintf(&text[0], text.size(), format, args);
            text.resize(static_cast<size_t>(size));
        }
        va_end(args);
        emit(strformat("%s:%d, %s ", file, line, function) + text);
    } catch (...) {
    }
}

}  // namespace trace
}  // namespace Orvex
