// A request as received, its parameters after parsing, and an answer.
#ifndef SANDBOX_REQUEST_H
#define SANDBOX_REQUEST_H

#include <cstdint>
#include <functional>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace sandbox {

/// A request as received: every text may be empty or invalid.
struct Request {
    std::string method;
    std::string path;   ///< without the server's prefix; empty when the prefix is missing
    std::string query;  ///< the part after the '?', not decoded
    std::string body;   ///< empty if `tooLarge`
    std::string contentType;
    std::string authorization;
    std::string id;         ///< Request-Id
    std::string service;    ///< the part of `path` after /ws/
    bool tooLarge = false;  ///< the body exceeds Settings::bodyLimit
};

struct Answer {
    unsigned status = 200;
    std::string type = "text/plain";
    std::string body{};
    uint32_t event = 0;  ///< its event code, for the log; 0: none
    std::vector<std::pair<const char*, std::string>> headers{};
    /// Returns the next block after `body`, empty at the end. A long answer is generated while it
    /// is sent: otherwise it would fill the memory, and the client would get the first line only
    /// after the last one was made. Makes the blocks without a lock of the server. NULL: `body` is
    /// the complete answer.
    std::function<std::string()> more{};
};

/// True if a Content-Type header has this type, with or without parameters.
bool hasMediaType(const std::string& header, std::string_view type);

/// A problem document of RFC 9457. A member that is null is left out.
Answer problem(unsigned status, const nlohmann::ordered_json& members);

using Pairs = std::vector<std::pair<std::string, std::string>>;

/// Parses name=value&..., in the protocol's exact form only: a lenient server would hide mistakes
/// of a client. Throws Event.
Pairs decodePairs(std::string_view text);

enum class Type { kText, kUint32, kInt32, kUint64, kInt64 };

struct Parameter {
    const char* name;
    Type type;
    bool optional = false;
};

/// Parameters of an action after checkValue(): numbers are in the range of their types.
class Parameters {
  public:
    void set(std::string name, std::string value) { values_[std::move(name)] = std::move(value); }
    bool has(const char* name) const { return values_.contains(name); }
    /// REQUIRES of both: has(name).
    const std::string& text(const char* name) const { return values_.at(name); }
    /// A kUint64 above INT64_MAX is negative here; a cast to uint64_t restores it.
    int64_t number(const char* name) const;
    bool flag(const char* name) const { return number(name) != 0; }

  private:
    std::map<std::string, std::string, std::less<>> values_;
};

/// Throws Event when `value` is not of the row's type.
void checkValue(const Parameter& row, const std::string& value);

/// Throws Event unless the id is 32 hexadecimal digits.
void checkRequestId(const std::string& id);

}  // namespace sandbox

#endif
