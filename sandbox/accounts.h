// Who may do what: logins with hashed passwords.
#ifndef SANDBOX_ACCOUNTS_H
#define SANDBOX_ACCOUNTS_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "sandbox/sandbox.h"

namespace sandbox {

/// The contents of accounts.json.
std::string accountsText(const std::vector<Account>& accounts);

/// Random letters and digits for a password.
std::string randomPassword();

class Accounts {
  public:
    using Digest = std::array<uint8_t, 32>;

    struct Entry {
        std::string login;
        uint32_t permissions = 0;
        std::vector<uint8_t> salt;
        int iterations = 0;
        Digest hash{};
        bool seen = false;    ///< a header for it was verified
        Digest lastHeader{};  ///< that header, hashed with a key of this process
    };

    Accounts();
    /// Throw std::runtime_error.
    void addFile(const std::string& file);
    void addText(const std::string& text);

    bool empty() const { return entries_.empty(); }
    /// The account that an Authorization header belongs to, or NULL.
    const Entry* verify(const std::string& header);
    static bool may(const Entry& account, const char* permission);

  private:
    Digest headerDigest(const std::string& header) const;
    Entry* verifyPassword(const std::string& header);

    std::vector<Entry> entries_;
    std::array<uint8_t, 32> key_{};
};

}  // namespace sandbox

#endif
