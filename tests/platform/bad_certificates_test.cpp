// Servers with certificates that must not be trusted: no request reaches them.
#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "platform/ws.h"
#include "tests/support/loopback.h"

namespace {

constexpr long kDay = 24L * 60 * 60;

struct Free {
    void operator()(X509* one) const { X509_free(one); }
    void operator()(EVP_PKEY* one) const { EVP_PKEY_free(one); }
    void operator()(SSL_CTX* one) const { SSL_CTX_free(one); }
    void operator()(SSL* one) const { SSL_free(one); }
};
template <typename Object>
using Owned = std::unique_ptr<Object, Free>;

Owned<EVP_PKEY> ecKey() {
    return Owned<EVP_PKEY>(EVP_EC_gen("P-256"));
}

/// What stands in a certificate.
struct Contents {
    const char* name = "server";
    const char* addresses = "IP:127.0.0.1";
    const char* purpose = "serverAuth";
    const char* constraints = "critical,CA:FALSE";
    long from = -kDay, to = kDay;
    const EVP_MD* digest = EVP_sha256();
};

Owned<X509> certify(EVP_PKEY* key, const Contents& contents, X509* issuer, EVP_PKEY* issuerKey) {
    Owned<X509> made(X509_new());
    X509_set_version(made.get(), X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(made.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(made.get()), contents.from);
    X509_gmtime_adj(X509_getm_notAfter(made.get()), contents.to);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(made.get()), "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(contents.name), -1, -1, 0);
    X509_set_issuer_name(made.get(),
                         X509_get_subject_name(issuer != nullptr ? issuer : made.get()));
    X509_set_pubkey(made.get(), key);
    const std::pair<int, const char*> extensions[] = {{NID_basic_constraints, contents.constraints},
                                                      {NID_subject_alt_name, contents.addresses},
                                                      {NID_ext_key_usage, contents.purpose}};
    for (const auto& [kind, value] : extensions) {
        if (value == nullptr) continue;
        X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, nullptr, kind, value);
        X509_add_ext(made.get(), extension, -1);
        X509_EXTENSION_free(extension);
    }
    EXPECT_GT(X509_sign(made.get(), issuerKey, contents.digest), 0);
    return made;
}

/// What a server shows: its certificate, others with it, and the protocol it speaks at most.
struct Identity {
    Owned<EVP_PKEY> key = ecKey();
    Owned<X509> certificate;
    Owned<X509> another;
    int mostProtocol = TLS1_3_VERSION;
};

/// An authority that is trusted, in a folder of keys as the transport wants it.
class Authority {
  public:
    explicit Authority(const char* name) : key_(ecKey()) {
        char made[] = "/tmp/kspool-authority-XXXXXX";
        folder = mkdtemp(made);
        const Contents contents{.name = name,
                                .addresses = nullptr,
                                .purpose = nullptr,
                                .constraints = "critical,CA:TRUE"};
        certificate_ = certify(key_.get(), contents, nullptr, key_.get());
        write("ca.pem", [&](FILE* out) { PEM_write_X509(out, certificate_.get()); });
        const Owned<EVP_PKEY> client = ecKey();
        const Owned<X509> mine = sign(client.get(), {.name = "client", .purpose = "clientAuth"});
        write("cert.pem", [&](FILE* out) { PEM_write_X509(out, mine.get()); });
        write("key.pem", [&](FILE* out) {
            PEM_write_PrivateKey(out, client.get(), nullptr, nullptr, 0, nullptr, nullptr);
        });
    }
    ~Authority() { std::filesystem::remove_all(folder); }

    Owned<X509> sign(EVP_PKEY* key, const Contents& contents) const {
        return certify(key, contents, certificate_.get(), key_.get());
    }
    X509* certificate() const { return certificate_.get(); }

    std::string folder;

  private:
    template <typename Write>
    void write(const std::string& name, Write write) const {
        FILE* out = fopen((folder + "/" + name).c_str(), "w");
        write(out);
        fclose(out);
    }

    Owned<EVP_PKEY> key_;
    Owned<X509> certificate_;
};

/// Serves one connection, and counts what it is told once the connection is secure.
class TlsServer {
  public:
    explicit TlsServer(const Identity& identity) : context_(SSL_CTX_new(TLS_server_method())) {
        SSL_CTX_set_security_level(context_.get(), 0);
        SSL_CTX_set_min_proto_version(context_.get(), TLS1_VERSION);
        SSL_CTX_set_max_proto_version(context_.get(), identity.mostProtocol);
        SSL_CTX_use_certificate(context_.get(), identity.certificate.get());
        SSL_CTX_use_PrivateKey(context_.get(), identity.key.get());
        if (identity.another != nullptr)
            SSL_CTX_add1_chain_cert(context_.get(), identity.another.get());
        uint16_t port = 0;
        listener_ = loopback::listenOn(port, 1);
        url = "https://127.0.0.1:" + std::to_string(port);
        worker_ = std::thread([this] { serve(); });
    }
    ~TlsServer() {
        shutdown(listener_, SHUT_RDWR);
        worker_.join();
        close(listener_);
    }

    std::string url;
    std::atomic<int> told = 0;

  private:
    void serve() {
        const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        const Owned<SSL> ssl(SSL_new(context_.get()));
        SSL_set_fd(ssl.get(), fd);
        char request[4096];
        if (SSL_accept(ssl.get()) == 1) {
            told = std::max(0, SSL_read(ssl.get(), request, sizeof request));
            constexpr char kAnswer[] =
                "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 2\r\n\r\nok";
            if (told > 0) SSL_write(ssl.get(), kAnswer, sizeof kAnswer - 1);
        }
        close(fd);
    }

    Owned<SSL_CTX> context_;
    int listener_ = -1;
    std::thread worker_;
};

Identity signedBy(const Authority& authority, const Contents& contents) {
    Identity identity;
    identity.certificate = authority.sign(identity.key.get(), contents);
    return identity;
}

TEST(BadCertificates, AreToldNothing) {
    signal(SIGPIPE, SIG_IGN);
    const Authority ours("an authority"), stranger("another authority");
    const struct {
        const char* name;
        Identity (*make)(const Authority& ours, const Authority& stranger);
        uint32_t status = WS_STATUS_TLS;
    } table[] = {
        {"right", [](auto& a, auto&) { return signedBy(a, {}); }, 0},
        {"of an unknown authority", [](auto&, auto& b) { return signedBy(b, {}); }},
        {"of itself",
         [](auto&, auto&) {
             Identity made;
             made.certificate = certify(made.key.get(), {}, nullptr, made.key.get());
             return made;
         }},
        {"expired", [](auto& a, auto&) { return signedBy(a, {.from = -2 * kDay, .to = -kDay}); }},
        {"not valid yet",
         [](auto& a, auto&) { return signedBy(a, {.from = kDay, .to = 2 * kDay}); }},
        {"for another address",
         [](auto& a, auto&) { return signedBy(a, {.addresses = "IP:127.0.0.2"}); }},
        {"for a name", [](auto& a, auto&) { return signedBy(a, {.addresses = "DNS:127.0.0.1"}); }},
        {"for clients", [](auto& a, auto&) { return signedBy(a, {.purpose = "clientAuth"}); }},
        {"of one that may not sign",
         [](auto& a, auto&) {
             Identity made;
             const Owned<EVP_PKEY> key = ecKey();
             made.another = a.sign(key.get(), {.name = "no authority"});
             made.certificate = certify(made.key.get(), {}, made.another.get(), key.get());
             return made;
         }},
        {"in the name of an authority that did not sign it",
         [](auto& a, auto&) {
             Identity made;
             const Owned<EVP_PKEY> key = ecKey();
             made.certificate = certify(made.key.get(), {}, a.certificate(), key.get());
             return made;
         }},
        {"with a short key",
         [](auto& a, auto&) {
             Identity made;
             made.key.reset(EVP_RSA_gen(1024));
             made.certificate = a.sign(made.key.get(), {});
             return made;
         }},
        {"with an old digest", [](auto& a, auto&) { return signedBy(a, {.digest = EVP_sha1()}); }},
        {"over an old protocol",
         [](auto& a, auto&) {
             Identity made = signedBy(a, {});
             made.mostProtocol = TLS1_1_VERSION;
             return made;
         }},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.name);
        TlsServer server(row.make(ours, stranger));
        WSTransport* transport = WSInit(0, 0, 0, 0, 0);
        const std::pair<uint32_t, const char*> texts[] = {
            {WS_OPT_SERVER_URL, server.url.c_str()},
            {WS_OPT_SSL_KEY_LOCATION, ours.folder.c_str()},
            {WS_OPT_LOGIN, "me"},
            {WS_OPT_PASSWORD, "secret"}};
        for (const auto& [code, text] : texts) {
            WSOption option{code, {}};
            option.value.text = text;
            EXPECT_EQ(WSSetOpt(transport, &option, 1), 0U);
        }
        WSResult result{};
        EXPECT_EQ(WSRequestExt(transport, WS_SERVICE_METABASE, &result, "action", "gettime",
                               static_cast<char*>(nullptr)),
                  row.status);
        free(result.data);
        WSShutdown(transport);
        EXPECT_EQ(server.told > 0, row.status == 0);
    }
}

}  // namespace
