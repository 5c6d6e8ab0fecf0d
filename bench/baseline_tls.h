// The bare POCO clients' TLS context, the baseline for the daemon's device calls: the
// settings the daemon's session uses. The full-handshake baseline keeps POCO's default
// groups and no session cache, as a context made per request would.
#pragma once

#include <Poco/Net/Context.h>

#include <openssl/ssl.h>

namespace Orvex {
namespace bench {

inline Poco::Net::Context::Ptr baselineContext(bool resumable)
{
    using Poco::Net::Context;
    Context::Ptr context = new Context(Context::TLSV1_CLIENT_USE, "", "", "", Context::VERIFY_NONE, 9, false,
                                       "ALL:!ADH:!LOW:!EXP:!MD5:@STRENGTH");
    context->disableProtocols(Context::PROTO_SSLV2 | Context::PROTO_SSLV3 | Context::PROTO_TLSV1);
    context->enableSessionCache(resumable);
    if (resumable)
        SSL_CTX_set1_groups_list(context->sslContext(), "X25519:P-256:X448:P-384:P-521");
    return context;
}

}  // namespace bench
}  // namespace Orvex
