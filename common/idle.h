// The idle limit of a session process: the keep-alive ends a session that nobody called
// for longer than this. A device set up with orvexctl enable may have its own (0: never).
#pragma once

namespace Orvex {
namespace Idle {

constexpr long kDefaultSeconds = 600;
constexpr long kMaxSeconds = 365L * 24 * 3600;

}  // namespace Idle
}  // namespace Orvex
