// Sign-in against a device whose every answer is the input: the harness's scripted server on
// loopback replies with the input as the body to each request, so the same
// bytes meet the legacy XML parsing, the token JSON unpacking and, once signed in, the
// merge of a syslog answer into a reply. Sign-in either succeeds and reports the four
// identity strings, or fails with "signin fail"; nothing else may escape.
#include "common/raii.h"
#include "fuzz/fuzz_support.h"
#include "option/option.h"
#include "session/session.h"
#include "tests/support/hostile.h"
#include "tests/support/session.h"

#include <jansson.h>

#include <cstdint>
#include <string>
#include <vector>

using namespace Orvex;

namespace {

bool signin(Session& session, int port)
{
    SigninOption option = Test::signinOption(port, false);
    JsonRef out = JsonRef::adopt(json_object());
    json_t* raw = out.get();
    try {
        FUZZ_CHECK(session.signin(raw, option), "signin reports success by returning");
    } catch (const SessionException& e) {
        FUZZ_CHECK(e.code() == 403 && e.message() == "signin fail", e.message().c_str());
        return false;
    }
    for (const char* key : {"model", "serial", "firmware", "hostname"})
        FUZZ_CHECK(json_is_string(json_object_get(raw, key)), key);
    FUZZ_CHECK(session.getFamily() != None, "a signed-in session knows its family");
    return true;
}

// The syslog answer replaces the reply's content.
void readSyslogConfig(Session& session, const uint8_t* data, size_t size)
{
    JsonRef reply = JsonRef::adopt(json_pack("{s:s}", "stale", "member"));
    json_t* raw = reply.get();
    session.getRsyslogConfig(raw);
    checkMerged(raw, JsonRef::adopt(json_loadb(reinterpret_cast<const char*>(data), size, 0, nullptr)).get());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::vector<Test::Hostile::Piece> script{{Test::Hostile::answer(std::string(reinterpret_cast<const char*>(data), size))}};
    Test::Hostile device(script);
    Session& session = Session::getInstance();
    session.reset();
    if (!signin(session, device.port()))
        return 0;
    readSyslogConfig(session, data, size);
    try {
        session.signout();
    } catch (const SessionException& e) {
        FUZZ_CHECK(e.code() == 400, e.message().c_str());
    }
    return 0;
}
