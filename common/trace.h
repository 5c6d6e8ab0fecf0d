// Entry/exit trace lines "%s:%d, %s :enter" / ":leave" (file base name, line, the
// compiler's full signature) at trace priority, straight to the root logger's channel.
// Below trace level a trace point costs one comparison and formats nothing; a failure
// while tracing is swallowed.
//
//   void f() { ORVEX_TRACE(); ... }          // enter now, leave on every return/unwind
//   ORVEX_TRACE_POINT(":leave");             // one line at this spot
//   ORVEX_TRACE_TEXT("[Session] %s", body);  // "%s:%d, %s " + formatted text
#pragma once

#include <Poco/Logger.h>
#include <Poco/Message.h>

namespace Orvex {
namespace trace {

// The root logger, looked up once: Logger::root() takes the registry's lock on every
// call, and a trace point below trace level must cost only the level comparison. The
// extra reference keeps the object valid even after Logger::shutdown().
inline Poco::Logger& rootLogger() noexcept
{
    static Poco::Logger* const root = [] {
        Poco::Logger* logger = &Poco::Logger::root();
        logger->duplicate();
        return logger;
    }();
    return *root;
}

inline bool enabled() noexcept
{
    return rootLogger().getLevel() >= Poco::Message::PRIO_TRACE;
}

constexpr const char* baseName(const char* path)
{
    const char* base = path;
    for (const char* p = path; *p; ++p)
        if (*p == '/')
            base = p + 1;
    return base;
}

// Writes "<file>:<line>, <function> <text>"; never throws.
void write(const char* file, int line, const char* function, const char* text) noexcept;
// Same with a printf-style text after the location.
void writef(const char* file, int line, const char* function, const char* format, ...) noexcept
    __attribute__((format(printf, 4, 5)));

class Scope {
public:
    Scope(const char* file, int line, const char* function) noexcept
        : file_(file), line_(line), function_(function)
    {
        if (enabled())
            write(file_, line_, function_, ":enter");
    }
    ~Scope()
    {
        if (enabled())
            write(file_, line_, function_, ":leave");
    }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

private:
    const char* file_;
    int line_;
    const char* function_;
};

}  // namespace trace
}  // namespace Orvex

#define ORVEX_TRACE_CAT2(a, b) a##b
#define ORVEX_TRACE_CAT(a, b) ORVEX_TRACE_CAT2(a, b)
#define ORVEX_TRACE() \
    ::Orvex::trace::Scope ORVEX_TRACE_CAT(orvexTrace_, __LINE__)(::Orvex::trace::baseName(__FILE__), __LINE__, __PRETTY_FUNCTION__)
#define ORVEX_TRACE_POINT(text)                                                                    \
    do {                                                                                           \
        if (::Orvex::trace::enabled())                                                             \
            ::Orvex::trace::write(::Orvex::trace::baseName(__FILE__), __LINE__, __PRETTY_FUNCTION__, text); \
    } while (0)
#define ORVEX_TRACE_TEXT(...)                                                                      \
    do {                                                                                           \
        if (::Orvex::trace::enabled())                                                             \
            ::Orvex::trace::writef(::Orvex::trace::baseName(__FILE__), __LINE__, __PRETTY_FUNCTION__, __VA_ARGS__); \
    } while (0)
