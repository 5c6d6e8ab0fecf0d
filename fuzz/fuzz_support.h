// The fuzz targets' own check, which aborts (libFuzzer and the replay runner both treat
// that as a finding). Sockets, services and frames come from the shared test harness
// (tests/support/bus.h).
#pragma once

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
