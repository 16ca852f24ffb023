// Who may do what: logins with hashed passwords and permissions.
//
// A password is stored as its PBKDF2 with HMAC-SHA-256, so that accounts.json does not show it. The
// random salt makes the hashes of equal passwords differ, and tables of hashes computed in advance
// useless; the iterations make each guess of a password cost 100,000 HMACs.
//
// A login costs as much, and a session sends its header with each request. Therefore the verdict on
// each of the newest headers is remembered, under a digest of the header: an equal header costs one
// SHA-256. The digest is keyed with random bytes of this process. An unkeyed digest that leaks
// would allow fast guesses, and the iterations would be in vain; a leaked keyed digest is of no use
// without the key, and the header itself, which holds the password, is not kept at all. The key is
// also why an ordinary map may compare digests: the time of a comparison tells a guesser nothing.
//
// Thread rule: check() may be called by any thread, once the accounts are added; all other
// functions by one thread at a time.
//
// Invariants:
//  1. A verdict was given by check() in full. NULL is a refusal.
//  2. Accounts are only added, before the server starts: a verdict never becomes invalid.
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
    /// The remembered verdict on an Authorization header; nothing when it has to be checked.
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
