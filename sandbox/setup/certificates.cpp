#include "sandbox/setup/certificates.h"

#include <arpa/inet.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

namespace sandbox {
namespace {

constexpr long kDay = 24L * 60 * 60;  // seconds
constexpr long kLifetime = 3650 * kDay;

template <auto Free>
struct Deleter {
    template <typename Object>
    void operator()(Object* object) const {
        Free(object);
    }
};
using Key = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, Deleter<X509_free>>;
using Extension = std::unique_ptr<X509_EXTENSION, Deleter<X509_EXTENSION_free>>;
using Serial = std::unique_ptr<BIGNUM, Deleter<BN_free>>;
using Memory = std::unique_ptr<BIO, Deleter<BIO_free>>;

void need(bool done) {
    if (!done) throw std::runtime_error("keys or certificates could not be made");
}

using Extensions = std::vector<std::pair<int, std::string>>;

/// Makes a certificate, signed by `issuer` with its key, or self-signed if they are NULL. It is
/// valid from the day before, since the clocks of two machines may differ. The serial number is
/// random, because clients may refuse two certificates of one issuer with the same serial number.
Certificate certify(EVP_PKEY* key, const char* name, const Extensions& extensions, X509* issuer,
                    EVP_PKEY* issuerKey) {
    Certificate certificate(X509_new());
    const Serial serial(BN_new());
    need(certificate != nullptr && serial != nullptr);
    X509* made = certificate.get();
    X509* signer = issuer != nullptr ? issuer : made;
    const auto* text = reinterpret_cast<const unsigned char*>(name);
    need(X509_set_version(made, X509_VERSION_3) == 1 &&
         BN_rand(serial.get(), 127, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ANY) == 1 &&
         BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(made)) != nullptr &&
         X509_gmtime_adj(X509_getm_notBefore(made), -kDay) != nullptr &&
         X509_gmtime_adj(X509_getm_notAfter(made), kLifetime) != nullptr &&
         X509_NAME_add_entry_by_txt(X509_get_subject_name(made), "CN", MBSTRING_UTF8, text, -1, -1,
                                    0) == 1 &&
         X509_set_issuer_name(made, X509_get_subject_name(signer)) == 1 &&
         X509_set_pubkey(made, key) == 1);

    X509V3_CTX context;
    X509V3_set_ctx(&context, signer, made, nullptr, nullptr, 0);
    X509V3_set_ctx_nodb(&context);
    for (const auto& [kind, value] : extensions) {
        const Extension extension(X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str()));
        need(extension != nullptr && X509_add_ext(made, extension.get(), -1) == 1);
    }
    need(X509_sign(made, issuerKey != nullptr ? issuerKey : key, EVP_sha256()) != 0);
    return certificate;
}

template <typename Write>
std::string pem(Write write) {
    const Memory memory(BIO_new(BIO_s_mem()));
    need(memory != nullptr && write(memory.get()) == 1);
    char* data = nullptr;
    const long length = BIO_get_mem_data(memory.get(), &data);
    return {data, static_cast<size_t>(length)};
}

std::string pem(X509* certificate) {
    return pem([&](BIO* out) { return PEM_write_bio_X509(out, certificate); });
}

std::string pem(EVP_PKEY* key) {
    return pem([&](BIO* out) {
        return PEM_write_bio_PKCS8PrivateKey(out, key, nullptr, nullptr, 0, nullptr, nullptr);
    });
}

Key makeKey() {
    Key key(EVP_EC_gen("P-256"));
    need(key != nullptr);
    return key;
}

std::string alternativeNames(const std::string& host) {
    std::string names = "DNS:localhost,IP:127.0.0.1,IP:::1";
    in_addr address{};
    if (inet_pton(AF_INET, host.c_str(), &address) == 1) return "IP:" + host + "," + names;
    return "DNS:" + host + "," + names;
}

}  // namespace

CertificateSet makeCertificates(const std::string& host) {
    const Key authorityKey = makeKey();
    const Certificate authority = certify(authorityKey.get(), "kspool sandbox authority",
                                          {{NID_basic_constraints, "critical,CA:TRUE,pathlen:0"},
                                           {NID_key_usage, "critical,keyCertSign,cRLSign"},
                                           {NID_subject_key_identifier, "hash"}},
                                          nullptr, nullptr);
    const auto issue = [&](const char* name, Extensions extensions) {
        extensions.insert(extensions.end(), {{NID_basic_constraints, "critical,CA:FALSE"},
                                             {NID_key_usage, "critical,digitalSignature"},
                                             {NID_subject_key_identifier, "hash"},
                                             {NID_authority_key_identifier, "keyid:always"}});
        const Key key = makeKey();
        const Certificate certificate =
            certify(key.get(), name, extensions, authority.get(), authorityKey.get());
        return KeyPair{pem(certificate.get()), pem(key.get())};
    };
    return {pem(authority.get()),
            issue("kspool sandbox server", {{NID_ext_key_usage, "serverAuth"},
                                            {NID_subject_alt_name, alternativeNames(host)}}),
            issue("kspool sandbox client", {{NID_ext_key_usage, "clientAuth"}})};
}

}  // namespace sandbox
