// For tests that drive the device session in process (header-only: they link the session
// library themselves): sign-in records and calls for a simulator.
#pragma once

#include "common/raii.h"
#include "option/option.h"
#include "session/session.h"
#include "tests/support/devsim.h"
#include "tests/support/log.h"
#include "tests/support/process.h"


#include <gtest/gtest.h>
#include <jansson.h>

#include <chrono>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace Orvex::Test {

inline SigninOption signinOption(int port, bool secure, const std::string& pass = "secret",
                                 const std::string& user = "admin", const std::string& ip = "127.0.0.1")
{
    JsonRef args = JsonRef::adopt(json_pack("{sssisssssb}", "ip", ip.c_str(), "port", port, "user", user.c_str(),
                                            "pass", pass.c_str(), "secure", secure));
    return SigninOption(args.get());
}

inline SigninOption signinOption(const Devsim& device) { return signinOption(device.port(), device.tls()); }

// Signs the singleton in (from a clean state) and returns the reply object.
inline JsonRef signin(const Devsim& device, const std::string& user = "admin", const std::string& pass = "secret")
{
    Session& session = Session::getInstance();
    session.reset();
    SigninOption option = signinOption(device.port(), device.tls(), pass, user);
    json_t* out = json_object();
    JsonRef owner = JsonRef::adopt(out);
    session.signin(out, option);
    return owner;
}

// A sign-in from a clean state that must fail with "signin fail": the seconds it took and
// the failure cause the status names.
inline std::pair<double, std::string> failedSignin(int port, bool secure = false, const std::string& pass = "secret")
{
    Session& session = Session::getInstance();
    session.reset();
    SigninOption option = signinOption(port, secure, pass);
    JsonRef out = JsonRef::adopt(json_object());
    json_t* reply = out.get();
    auto begin = std::chrono::steady_clock::now();
    try {
        session.signin(reply, option);
        ADD_FAILURE() << "sign-in succeeded";
    } catch (const SessionException& e) {
        EXPECT_EQ(e.message(), "signin fail");
    }
    return {std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count(), session.status().failure};
}

// "<message> <code>" of the SessionException that fn throws, "" when it throws none.
inline std::string sessionFailure(const std::function<void()>& fn)
{
    try {
        fn();
    } catch (const SessionException& e) {
        return e.message() + " " + std::to_string(e.code());
    }
    return "";
}

}  // namespace Orvex::Test
