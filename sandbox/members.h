// Members of JSON objects that a person wrote: errors say in words which part is wrong.
#ifndef SANDBOX_MEMBERS_H
#define SANDBOX_MEMBERS_H

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace sandbox {

/// All functions throw std::runtime_error.
class Members {
  public:
    /// `owner` names such an object in error messages: "a file".
    explicit Members(const char* owner) : owner_(owner) {}

    /// A member; if it is missing, `otherwise`; throws if there is no `otherwise`.
    std::string text(const nlohmann::json& object, const char* name,
                     const std::optional<std::string>& otherwise = {}) const;
    int64_t number(const nlohmann::json& object, const char* name,
                   const std::optional<int64_t>& otherwise, int64_t least = INT64_MIN,
                   int64_t most = INT64_MAX) const;

  private:
    /// NULL if the member is missing and not `needed`.
    const nlohmann::json* find(const nlohmann::json& object, const char* name, bool needed) const;
    [[noreturn]] void refuse(const char* name, const std::string& wanted,
                             const nlohmann::json& given) const;

    const char* owner_;
};

/// The value of a JSON text, up to 100 levels deep; null for an empty one. Throws
/// std::runtime_error.
nlohmann::json parseJson(const std::string& text);

}  // namespace sandbox

#endif
