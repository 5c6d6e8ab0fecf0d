// For tests of the service layer over a real bus (header-only: they link the service
// library themselves): the bus handler that hands every call to the Service singleton.
#pragma once

#include "service/service.h"

#include <atomic>

namespace Orvex::Test {

// Calls toService has handed over and seen return (a test may reset it).
inline std::atomic<int> dispatchedCalls{0};

inline void toService(const char* method, zs_io* io, int fd)
{
    Service::getInstance().dispatch(method, io, fd);
    ++dispatchedCalls;
}

}  // namespace Orvex::Test
