// Server-side TLS for the simulator. Throws std::runtime_error (or a Poco exception from
// the context) when the certificate cannot be made or loaded.
#pragma once

#include <Poco/Net/Context.h>

#include "tools/devsim/options.h"

namespace Orvex::Devsim {

// TLS 1.1-1.3 (1.0 only with --tls10-only, 1.1 only with --tls11-only), the certificate
// from --cert/--key or a fresh self-signed one for CN=<hostname>, session cache and
// tickets on.
Poco::Net::Context::Ptr makeServerContext(const Config& config);

}  // namespace Orvex::Devsim
