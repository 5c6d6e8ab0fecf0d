#include "methods/service_session.h"

#include <unistd.h>

#include <atomic>

#include "common/ending.h"
#include "common/trace.h"
#include "option/option.h"
#include "service/misc.h"
#include "session/session.h"

namespace Orvex {

namespace {

// Every text opens with the same usage block; the registry fills in the placeholders.
#define ORVEX_HELP_USAGE "Usage: [General]\n\n[General]:\n   %SERVICE%.%GENERAL%\n\n"
#define ORVEX_HELP_OPTIONS "[Options]:\n"

constexpr char T0[] = ORVEX_HELP_USAGE;

constexpr char T1[] = ORVEX_HELP_USAGE ORVEX_HELP_OPTIONS
    "   id=(int)                config id\n";

constexpr char T2[] = ORVEX_HELP_USAGE ORVEX_HELP_OPTIONS
    "   mode=(int)              1: TCP, 2: TLS, 3: UDP (default TLS)\n"
    "   address=(str)           remote server address\n"
    "   port=(int)              remote server port (default 1514)\n"
    "   bsd=(bool)              enable BSD log format (default false)\n";

// The adding text states no port default; the others do.
constexpr char T3[] = ORVEX_HELP_USAGE ORVEX_HELP_OPTIONS
    "   mode=(int)              1: TCP, 2: TLS, 3: UDP (default TLS)\n"
    "   address=(str)           remote server address\n"
    "   port=(int)              remote server port\n"
    "   bsd=(bool)              enable BSD log format (default false)\n"
    "   event=(bool)            enable event log send to remote (default false)\n"
    "   access=(bool)           enable access log send to remote (default false)\n"
    "   enable=(bool)           enable log remote evnet (default false)\n";

constexpr char T4[] = ORVEX_HELP_USAGE ORVEX_HELP_OPTIONS
    "   id=(int)                config id\n"
    "   mode=(int)              1: TCP, 2: TLS, 3: UDP (default TLS)\n"
    "   address=(str)           remote server address\n"
    "   port=(int)              remote server port (default 1514)\n"
    "   bsd=(bool)              enable BSD log format (default false)\n"
    "   event=(bool)            enable event log send to remote (default false)\n"
    "   access=(bool)           enable access log send to remote (default false)\n"
    "   enable=(bool)           enable log remote evnet (default false)\n";

constexpr char T5[] = ORVEX_HELP_USAGE ORVEX_HELP_OPTIONS
    "   tcp_port=(int)          listen port (default 1514)\n"
    "   udp_port=(int)          listen port (default 1514)\n"
    "   enable=(bool)           enable rsyslog server (default false)\n"
    "   tcp_enable=(bool)       enable tcp rsyslog server (default false)\n"
    "   tls_enable=(bool)       enable tls mode (default true)\n"
    "   udp_enable=(bool)       enable udo rsyslog server (default false)\n";

constexpr char T6[] = ORVEX_HELP_USAGE ORVEX_HELP_OPTIONS
    "   bsd=(bool)              enable BSD client (default false)\n"
    "   orvex=(bool)            enable orvex client (default false)\n";

#undef ORVEX_HELP_USAGE
#undef ORVEX_HELP_OPTIONS

// Callers compare these texts byte for byte; a stray blank changes the length.
static_assert(sizeof(T0) - 1 == 53, "help text T0");
static_assert(sizeof(T1) - 1 == 101, "help text T1");
static_assert(sizeof(T2) - 1 == 303, "help text T2");
static_assert(sizeof(T3) - 1 == 506, "help text T3");
static_assert(sizeof(T4) - 1 == 558, "help text T4");
static_assert(sizeof(T5) - 1 == 433, "help text T5");
static_assert(sizeof(T6) - 1 == 188, "help text T6");

// Each handler: option record from the arguments (may throw), then the arguments object
// becomes the reply object, the session fills it, and the reply goes out. Exceptions pass
// through untouched; the worker replies for them.
template <class Record, class Result, class... Extra>
void answer(zs_io* io, json_t*& json, int& fd, Result (Session::*operation)(json_t*&, Record&), Extra... extra)
{
    Record option(json, extra...);
    json_object_clear(json);
    (Session::getInstance().*operation)(json, option);
    zs_reply_forward(io, fd, json);
}

// The reading methods take no options.
void answer(zs_io* io, json_t*& json, int& fd, void (Session::*operation)(json_t*&))
{
    json_object_clear(json);
    (Session::getInstance().*operation)(json);
    zs_reply_forward(io, fd, json);
}

}  // namespace

// A method whose handler is one answer step: its help text, then the Session operation
// and what the option record's constructor takes besides the arguments (the id-required
// flag). Each expansion is a function of its own, so the trace names the method's handler.
#define ORVEX_ANSWERING_METHOD(method, help, ...)     \
    const char* __##method##__ = help;              \
    void method(zs_io* io, json_t*& json, int& fd)  \
    {                                               \
        ORVEX_TRACE();                              \
        answer(io, json, fd, __VA_ARGS__);          \
    }

// signin's own options are not listed: its help is the plain usage text by design.
ORVEX_ANSWERING_METHOD(signin, T0, &Session::signin)
ORVEX_ANSWERING_METHOD(get_device_system_info, T0, &Session::getSystemInfo)
ORVEX_ANSWERING_METHOD(get_device_rsyslog_config, T0, &Session::getRsyslogConfig)
ORVEX_ANSWERING_METHOD(set_device_rsyslog_server_config, T5, &Session::setRsyslogServerConfig)
ORVEX_ANSWERING_METHOD(set_device_rsyslog_client_config, T6, &Session::setRsyslogClientConfig)
ORVEX_ANSWERING_METHOD(get_device_rsyslog_client, T0, &Session::getRsyslogClient)
ORVEX_ANSWERING_METHOD(set_device_rsyslog_client, T4, &Session::setRsyslogClient, true)
ORVEX_ANSWERING_METHOD(add_device_rsyslog_client, T3, &Session::addRsyslogClient, false)
ORVEX_ANSWERING_METHOD(del_device_rsyslog_client, T1, &Session::delRsyslogClient, true)
ORVEX_ANSWERING_METHOD(add_device_rsyslog_client_test, T2, &Session::addRsyslogClientTest, false)
ORVEX_ANSWERING_METHOD(set_device_rsyslog_client_enable, T1, &Session::setRsyslogClientEnable, true)
ORVEX_ANSWERING_METHOD(set_device_rsyslog_client_disable, T1, &Session::setRsyslogClientDisable, true)

#undef ORVEX_ANSWERING_METHOD

const char* __signout__ = T0;

namespace {
std::atomic<int> signoutExitStatus{0};
}  // namespace

void setSignoutExitStatus(int status)
{
    signoutExitStatus.store(status);
}

void signout(zs_io* io, json_t*& json, int& fd)
{
    {
        ORVEX_TRACE();
        json_object_clear(json);
        Session::getInstance().signout();
        zs_reply_forward(io, fd, json);
    }
    // The process serves one device session: once it is signed out there is nothing left
    // to serve, so leave at once without the orderly shutdown (no second sign-out).
    Ending::aboutToEnd(Ending::Why::Signout);
    _exit(signoutExitStatus.load());
}

}  // namespace Orvex
