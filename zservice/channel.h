// C++ owner of a zs_io channel (freed once with zs_io_free).
#pragma once

#include "zservice/zservice.h"

#include <memory>

namespace Orvex {

struct ZsIoFree {
    void operator()(zs_io* io) const noexcept { zs_io_free(io); }
};
using ZsIoPtr = std::unique_ptr<zs_io, ZsIoFree>;

inline ZsIoPtr makeZsIo() { return ZsIoPtr(zs_io_create()); }

// The caller's connection of a call's channel; -1 for a scratch buffer or NULL.
int channelSocket(zs_io* io);

}  // namespace Orvex
