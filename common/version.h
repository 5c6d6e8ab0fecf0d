// The project version, set once in the top-level CMake project() call.
#pragma once

namespace Orvex {

// "MAJOR.MINOR.PATCH"
const char* version();

}  // namespace Orvex
