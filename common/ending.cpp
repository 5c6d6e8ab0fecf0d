#include "common/ending.h"

#include <atomic>

namespace Orvex {
namespace Ending {

namespace {

std::atomic<Hook> installed{nullptr};

}  // namespace

void install(Hook hook)
{
    installed.store(hook);
}

void aboutToEnd(Why why, const std::string& detail) noexcept
{
    Hook hook = installed.load();
    if (hook == nullptr)
        return;
    try {
        hook(why, detail);
    } catch (...) {
        // The process ends in a moment whatever the record says.
    }
}

}  // namespace Ending
}  // namespace Orvex
