#include "tools/devsim/tls.h"

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <memory>
#include <stdexcept>

namespace Orvex::Devsim {

namespace {

struct PkeyFree { void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); } };
struct X509Free { void operator()(X509* p) const { X509_free(p); } };
using PkeyPtr = std::unique_ptr<EVP_PKEY, PkeyFree>;
using X509Ptr = std::unique_ptr<X509, X509Free>;

// The clients of this simulator accept any server certificate, so the key only needs
// to be quick to make: P-256.
PkeyPtr makeKey()
{
    PkeyPtr key(EVP_EC_gen("P-256"));
    if (!key)
        throw std::runtime_error("TLS: cannot generate a P-256 key");
    return key;
}

X509Ptr makeCertificate(EVP_PKEY* key, const std::string& commonName)
{
    X509Ptr cert(X509_new());
    if (!cert)
        throw std::runtime_error("TLS: cannot allocate a certificate");
    X509_set_version(cert.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), static_cast<long>(time(nullptr)));
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), 3650L * 24 * 3600);
    X509_set_pubkey(cert.get(), key);
    X509_NAME* name = X509_get_subject_name(cert.get());
    X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("orvex-devsim"), -1, -1, 0);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(commonName.c_str()), -1, -1, 0);
    X509_set_issuer_name(cert.get(), name);
    if (X509_sign(cert.get(), key, EVP_sha256()) == 0)
        throw std::runtime_error("TLS: cannot sign the self-signed certificate");
    return cert;
}

void useSelfSigned(SSL_CTX* ctx, const std::string& commonName)
{
    PkeyPtr key = makeKey();
    X509Ptr cert = makeCertificate(key.get(), commonName);
    if (SSL_CTX_use_certificate(ctx, cert.get()) != 1 || SSL_CTX_use_PrivateKey(ctx, key.get()) != 1)
        throw std::runtime_error("TLS: cannot install the self-signed certificate");
}

void setVersions(SSL_CTX* ctx, const Faults& faults)
{
    int min = faults.tls10Only ? TLS1_VERSION : TLS1_1_VERSION;
    int max = faults.tls10Only ? TLS1_VERSION : faults.tls11Only ? TLS1_1_VERSION : TLS1_3_VERSION;
    if (SSL_CTX_set_min_proto_version(ctx, min) != 1 || SSL_CTX_set_max_proto_version(ctx, max) != 1)
        throw std::runtime_error("TLS: cannot set the protocol range");
}

}  // namespace

Poco::Net::Context::Ptr makeServerContext(const Config& config)
{
    Poco::Net::Context::Params params;
    params.privateKeyFile = config.key;
    params.certificateFile = config.cert;
    params.verificationMode = Poco::Net::Context::VERIFY_NONE;
    params.loadDefaultCAs = false;
    // OpenSSL 3 refuses TLS 1.0/1.1 above security level 0; the device must still offer
    // them so that clients can be seen refusing TLS 1.0 and accepting TLS 1.1.
    params.cipherList = "ALL:!ADH:!LOW:!EXP:!MD5:@STRENGTH:@SECLEVEL=0";
    Poco::Net::Context::Ptr context = new Poco::Net::Context(Poco::Net::Context::TLS_SERVER_USE, params);
    SSL_CTX* ctx = context->sslContext();
    if (config.cert.empty())
        useSelfSigned(ctx, config.identity.hostname);
    setVersions(ctx, config.faults);
    // Resumed handshakes are measured by a benchmark: keep both the id cache and tickets.
    context->enableSessionCache(true, "orvex-devsim");
    SSL_CTX_clear_options(ctx, SSL_OP_NO_TICKET);
    return context;
}

}  // namespace Orvex::Devsim
