// For tests of the option records: a record built from JSON text, or the message of the
// OptionException its rules throw (which must carry 400).
#pragma once

#include "common/raii.h"
#include "option/option.h"
#include "tests/support/process.h"

#include <gtest/gtest.h>

#include <string>

namespace Orvex::Test {

// "" when the record builds, else the message of its OptionException (which must carry 400).
template <class Record, class... Extra>
std::string outcome(const std::string& args, Extra... extra)
{
    JsonRef json = parseJson(args);
    EXPECT_TRUE(json) << args;
    try {
        Record record(json.get(), extra...);
        return "";
    } catch (const OptionException& e) {
        EXPECT_EQ(e.code(), 400) << args;
        return e.message();
    }
}

template <class Record, class... Extra>
Record build(const std::string& args, Extra... extra)
{
    JsonRef json = parseJson(args);
    EXPECT_TRUE(json) << args;
    return Record(json.get(), extra...);
}

}  // namespace Orvex::Test
