// Who may do what: logins with hashed passwords and permissions.
//
// Passwords are stored as PBKDF2 hashes with HMAC-SHA-256, so that accounts.json does not reveal
// them. The random salt makes the hashes of equal passwords differ, and precomputed tables useless;
// the iterations make each guess of a password cost 100,000 HMACs.
//
// Checking a login costs the same, and a session sends its Authorization header with each request.
// Therefore the verdicts on the newest headers are cached under a digest of the header: a known
// header costs one SHA-256. The digest is keyed with random bytes of this process. A leaked unkeyed
// digest would allow fast guesses and make the iterations useless; a keyed one is worthless without
// the key. The header itself, which contains the password, is not kept. Because of the key, digests
// may be compared in an ordinary map: the time of a comparison reveals nothing about a password.
//
// Thread rule: check() may be called by any thread, once the accounts are added; all other
// functions by one thread at a time.
//
// Invariants:
//  1. Every cached verdict is a result of check(). NULL is a refusal.
//  2. Accounts are only added, and only before the server starts, so verdicts never become invalid.
//  3. `verdicts_` has at most 1,000 headers, each once in `order_`, the newest at the end.
#ifndef SANDBOX_ACCOUNTS_H
#define SANDBOX_ACCOUNTS_H

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "sandbox/sandbox.h"

namespace sandbox {

/// The contents of accounts.json, with a new salt for each account. Throws std::runtime_error.
std::string accountsText(const std::vector<Account>& accounts);

/// A new password of 24 random characters. Throws std::runtime_error.
std::string randomPassword();

class Accounts {
  public:
    using Digest = std::array<uint8_t, 32>;

    struct Entry {
        std::string login;
        uint32_t permissions = 0;  ///< a bit for each of "read", "write", "delete"
        std::vector<uint8_t> salt;
        int iterations = 0;
        Digest hash{};
    };

    Accounts();
    /// Adds the accounts of a file, or text, as accountsText() writes it. Throw std::exception.
    void addFile(const std::string& file);
    void addText(const std::string& text);

    bool empty() const { return entries_.empty(); }
    /// The cached verdict on an Authorization header; nullopt if the header has to be checked.
    std::optional<const Entry*> verdict(const std::string& header) const;
    /// The account whose login and password the header holds, or NULL. Takes some 30 ms. REQUIRES:
    /// there is an account.
    const Entry* check(const std::string& header) const;
    void remember(const std::string& header, const Entry* account);
    /// NULL is the permission that every account has.
    static bool may(const Entry& account, const char* permission);

  private:
    Digest headerDigest(const std::string& header) const;

    std::vector<Entry> entries_;
    std::map<Digest, const Entry*> verdicts_;
    std::deque<Digest> order_;
    std::array<uint8_t, 32> key_{};  ///< random, of this process
};

}  // namespace sandbox

#endif
