// Who may do what: logins with hashed passwords and permissions.
//
// A password is stored as its PBKDF2 with HMAC-SHA-256, so that accounts.json does not show it. The
// random salt makes the hashes of equal passwords differ, and tables of hashes computed in advance
// useless; the iterations make each guess of a password cost 100,000 HMACs.
//
// A login costs as much, and a session sends its header with each request. Therefore an account
// keeps the digest of the last header that was verified for it: an equal header costs one SHA-256.
// The digest is keyed with random bytes of this process. An unkeyed digest that leaks would allow
// fast guesses, and the iterations would be in vain; a leaked keyed digest is of no use without the
// key, and the header itself, which holds the password, is not kept at all.
//
// Thread rule: one thread at a time.
//
// Invariants:
//  1. `lastHeader` is valid if and only if `seen`, and was verified against `hash` in full.
//  2. Entries are only added, before the server starts: a verified header never becomes invalid.
#ifndef SANDBOX_ACCOUNTS_H
#define SANDBOX_ACCOUNTS_H

#include <array>
#include <cstdint>
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
        bool seen = false;    ///< a header was verified for this account
        Digest lastHeader{};  ///< keyed digest of that header
    };

    Accounts();
    /// Adds the accounts of a file, or text, as accountsText() writes it. Throw std::exception.
    void addFile(const std::string& file);
    void addText(const std::string& text);

    bool empty() const { return entries_.empty(); }
    /// The account whose login and password an Authorization header holds, or NULL.
    const Entry* verify(const std::string& header);
    /// NULL is the permission that every account has.
    static bool may(const Entry& account, const char* permission);

  private:
    Digest headerDigest(const std::string& header) const;
    Entry* verifyPassword(const std::string& header);

    std::vector<Entry> entries_;
    std::array<uint8_t, 32> key_{};  ///< random, of this process
};

}  // namespace sandbox

#endif
