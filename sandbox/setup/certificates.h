// Keys and certificates for a setup with TLS.
#ifndef SANDBOX_SETUP_CERTIFICATES_H
#define SANDBOX_SETUP_CERTIFICATES_H

#include <string>

namespace sandbox {

/// PEM texts.
struct KeyPair {
    std::string certificate;
    std::string key;
};

struct CertificateSet {
    std::string authority;  ///< its key is forgotten: nothing more can be signed
    KeyPair server;
    KeyPair client;
};

/// A new authority with a certificate for a server of that host name or address (and for this
/// machine's own names), and one for its client. Throws std::runtime_error.
CertificateSet makeCertificates(const std::string& host);

}  // namespace sandbox

#endif
