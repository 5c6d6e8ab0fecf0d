// The session benchmark's name for the shared simulator harness (tests/support/devsim.h).
#pragma once

#include "tests/support/devsim.h"

namespace Orvex::Harness {
using Test::Devsim;
using Test::Logged;
}  // namespace Orvex::Harness
