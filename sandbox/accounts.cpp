#include "sandbox/accounts.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/sha.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string_view>

#include "sandbox/store/characters.h"

namespace sandbox {
namespace {

constexpr int kIterations = 100'000;
/// A file with more iterations is refused: each check of a password would take many seconds.
constexpr int kMostIterations = 10'000'000;
constexpr size_t kSaltSize = 16;
constexpr size_t kPasswordLength = 24;
constexpr const char* kPermissions[] = {"read", "write", "delete"};

using Json = nlohmann::json;

uint32_t permissionBit(const std::string& name) {
    for (size_t i = 0; i < std::size(kPermissions); ++i) {
        if (name == kPermissions[i]) return 1U << i;
    }
    throw std::runtime_error("no permission has the name '" + name + "'");
}

void randomBytes(uint8_t* bytes, size_t size) {
    if (RAND_bytes(bytes, static_cast<int>(size)) != 1)
        throw std::runtime_error("no random bytes to be had");
}

Accounts::Digest hashPassword(const std::string& password, const std::vector<uint8_t>& salt,
                              int iterations) {
    Accounts::Digest hash;
    if (PKCS5_PBKDF2_HMAC(password.data(), static_cast<int>(password.size()), salt.data(),
                          static_cast<int>(salt.size()), iterations, EVP_sha256(),
                          static_cast<int>(hash.size()), hash.data()) != 1) {
        throw std::runtime_error("a password could not be hashed");
    }
    return hash;
}

template <typename Bytes>
std::string toHex(const Bytes& bytes) {
    std::string text;
    for (const uint8_t byte : bytes)
        appendHex(text, byte, kSmallHex);
    return text;
}

std::vector<uint8_t> fromHex(const std::string& text) {
    std::vector<uint8_t> bytes(text.size() / 2);
    size_t length = 0;
    if (OPENSSL_hexstr2buf_ex(bytes.data(), bytes.size(), &length, text.c_str(), '\0') != 1)
        throw std::runtime_error("a salt or hash is not hexadecimal");
    return bytes;
}

/// Empty for invalid base64.
std::string fromBase64(std::string_view text) {
    if (text.empty() || text.size() % 4 != 0) return {};
    std::string decoded(text.size() / 4 * 3, '\0');
    const int length = EVP_DecodeBlock(reinterpret_cast<uint8_t*>(decoded.data()),
                                       reinterpret_cast<const uint8_t*>(text.data()),
                                       static_cast<int>(text.size()));
    if (length < 0) return {};
    const size_t padding = text.ends_with("==") ? 2 : text.ends_with('=') ? 1 : 0;
    decoded.resize(static_cast<size_t>(length) - padding);
    return decoded;
}

/// The destructor wipes the password, which otherwise would remain in freed memory.
struct Credentials {
    std::string login;
    std::string password;

    Credentials() = default;
    Credentials(const Credentials&) = delete;
    Credentials& operator=(const Credentials&) = delete;
    ~Credentials() { OPENSSL_cleanse(password.data(), password.size()); }
};

/// False unless the header is HTTP Basic authentication.
bool parseHeader(std::string_view header, Credentials& credentials) {
    constexpr std::string_view kScheme = "Basic ";
    constexpr size_t kLongest = 8192;
    if (!header.starts_with(kScheme) || header.size() > kLongest) return false;
    std::string pair = fromBase64(header.substr(kScheme.size()));
    const size_t colon = pair.find(':');
    if (colon != std::string::npos) {
        credentials.login = pair.substr(0, colon);
        credentials.password = pair.substr(colon + 1);
    }
    OPENSSL_cleanse(pair.data(), pair.size());
    return colon != std::string::npos;
}

Accounts::Entry entryOf(const Json& json) {
    Accounts::Entry entry;
    entry.login = json.at("login").get<std::string>();
    entry.salt = fromHex(json.at("salt").get<std::string>());
    entry.iterations = json.at("iterations").get<int>();
    const std::vector<uint8_t> hash = fromHex(json.at("hash").get<std::string>());
    if (entry.iterations < 1 || entry.iterations > kMostIterations || entry.salt.empty() ||
        hash.size() != entry.hash.size()) {
        throw std::runtime_error("the hash of account '" + entry.login + "' cannot be used");
    }
    std::copy(hash.begin(), hash.end(), entry.hash.begin());
    for (const Json& permission : json.at("permissions"))
        entry.permissions |= permissionBit(permission.get<std::string>());
    return entry;
}

}  // namespace

std::string accountsText(const std::vector<Account>& accounts) {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const Account& account : accounts) {
        std::vector<uint8_t> salt(kSaltSize);
        randomBytes(salt.data(), salt.size());
        const Accounts::Digest hash = hashPassword(account.password, salt, kIterations);
        list.push_back({{"login", account.login},
                        {"permissions", account.permissions},
                        {"iterations", kIterations},
                        {"salt", toHex(salt)},
                        {"hash", toHex(hash)}});
    }
    const nlohmann::ordered_json file = {{"hashes", "PBKDF2 with HMAC-SHA-256"},
                                         {"accounts", list}};
    return file.dump(2) + "\n";
}

std::string randomPassword() {
    constexpr char kLetters[] = "ABCDEFGHJKLMNPQRSTUVWXYZabcdefghijkmnopqrstuvwxyz23456789-_~.+!=";
    static_assert(sizeof kLetters - 1 == 64, "a byte's low bits choose evenly");
    std::string password(kPasswordLength, '\0');
    randomBytes(reinterpret_cast<uint8_t*>(password.data()), password.size());
    for (char& c : password)
        c = kLetters[static_cast<uint8_t>(c) % 64];
    return password;
}

Accounts::Accounts() {
    randomBytes(key_.data(), key_.size());
}

void Accounts::addFile(const std::string& file) {
    std::ifstream stream(file, std::ios::binary);
    if (!stream) throw std::runtime_error(file + ": " + strerror(errno));
    try {
        addText({std::istreambuf_iterator<char>(stream), {}});
    } catch (const std::exception& error) {
        throw std::runtime_error(file + ": " + error.what());
    }
}

void Accounts::addText(const std::string& text) {
    const Json file = Json::parse(text);
    for (const Json& account : file.at("accounts"))
        entries_.push_back(entryOf(account));
}

Accounts::Digest Accounts::headerDigest(const std::string& header) const {
    Digest digest;
    std::vector<uint8_t> keyed(key_.begin(), key_.end());
    keyed.insert(keyed.end(), header.begin(), header.end());
    SHA256(keyed.data(), keyed.size(), digest.data());
    OPENSSL_cleanse(keyed.data(), keyed.size());
    return digest;
}

std::optional<const Accounts::Entry*> Accounts::verdict(const std::string& header) const {
    if (header.empty()) return nullptr;
    const auto known = verdicts_.find(headerDigest(header));
    return known != verdicts_.end() ? std::optional(known->second) : std::nullopt;
}

/// For an unknown login, hashes the password with the first account's salt: otherwise the time of
/// an answer would reveal which logins exist. Of equal logins the one added last counts.
const Accounts::Entry* Accounts::check(const std::string& header) const {
    Credentials credentials;
    if (!parseHeader(header, credentials)) return nullptr;
    const Entry* found = nullptr;
    for (const Entry& entry : entries_) {
        if (entry.login == credentials.login) found = &entry;
    }
    const Entry& against = found != nullptr ? *found : entries_.front();
    const Digest hash = hashPassword(credentials.password, against.salt, against.iterations);
    // In constant time: an early exit would reveal how many bytes of a guess are right.
    const bool same = CRYPTO_memcmp(hash.data(), against.hash.data(), hash.size()) == 0;
    return same ? found : nullptr;
}

void Accounts::remember(const std::string& header, const Entry* account) {
    constexpr size_t kMostVerdicts = 1000;
    const Digest digest = headerDigest(header);
    if (!verdicts_.emplace(digest, account).second) return;
    order_.push_back(digest);
    if (order_.size() <= kMostVerdicts) return;
    verdicts_.erase(order_.front());
    order_.pop_front();
}

bool Accounts::may(const Entry& account, const char* permission) {
    return permission == nullptr || (account.permissions & permissionBit(permission)) != 0;
}

}  // namespace sandbox
