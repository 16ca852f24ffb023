// Keys and certificates for a setup with TLS.
#ifndef SANDBOX_SETUP_CERTIFICATES_H
#define SANDBOX_SETUP_CERTIFICATES_H

#include <string>

namespace sandbox {

/// A certificate and its private key, as PEM texts.
struct KeyPair {
    std::string certificate;
    std::string key;
};

struct CertificateSet {
    std::string authority;  ///< certificate; its key is not kept, so nothing else can be signed
    KeyPair server;
    KeyPair client;
};

/// Makes an authority, and two certificates signed by it: one for a server with this host name or
/// IPv4 address, which also names localhost, 127.0.0.1 and ::1, and one for a client. Throws
/// std::runtime_error.
CertificateSet makeCertificates(const std::string& host);

}  // namespace sandbox

#endif
