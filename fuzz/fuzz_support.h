// The fuzz targets' own check, which aborts (libFuzzer and the replay runner both treat
// that as a finding), and the check of a device answer merged into a reply. Sockets,
// services and frames come from the shared test harness (tests/support/bus.h).
#pragma once

#include <jansson.h>

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(condition, what)                                                          \
    do {                                                                                     \
        if (!(condition)) {                                                                  \
            std::fprintf(stderr, "%s:%d: check failed: %s (%s)\n", __FILE__, __LINE__,       \
                         #condition, what);                                                  \
            std::abort();                                                                    \
        }                                                                                    \
    } while (0)

// A merged reply is the answer when that parsed as an object, else empty.
inline void checkMerged(json_t* reply, json_t* parsed)
{
    FUZZ_CHECK(json_is_object(reply), "the reply stays an object");
    if (json_is_object(parsed))
        FUZZ_CHECK(json_equal(reply, parsed), "object answer becomes the reply");
    else
        FUZZ_CHECK(json_object_size(reply) == 0, "other answers leave the reply empty");
}
