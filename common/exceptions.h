// The system's failures: plain Poco::Exception subclasses with nothing overridden, so
// name() reports the base class. They exist only as distinct types for catch clauses;
// the message and the HTTP-like code are given at each throw site.
#pragma once

#include <Poco/Exception.h>

namespace Orvex {

#define ORVEX_PLAIN_EXCEPTION(Name)                  \
    class Name : public Poco::Exception {            \
    public:                                          \
        using Poco::Exception::Exception;            \
    }

ORVEX_PLAIN_EXCEPTION(OptionException);
ORVEX_PLAIN_EXCEPTION(SessionException);
ORVEX_PLAIN_EXCEPTION(SessionNotFound);
ORVEX_PLAIN_EXCEPTION(SyslogException);
ORVEX_PLAIN_EXCEPTION(ResourceException);

namespace MySQL {
ORVEX_PLAIN_EXCEPTION(Exception);
}
namespace Database {
ORVEX_PLAIN_EXCEPTION(Exception);
}
namespace OnlineUser {
ORVEX_PLAIN_EXCEPTION(Exception);
}

#undef ORVEX_PLAIN_EXCEPTION

}  // namespace Orvex
