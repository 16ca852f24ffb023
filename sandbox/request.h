// A request as it came, its parameters taken apart, and an answer.
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

struct Request {
    std::string method;
    std::string path;   ///< as it came, without the server's prefix
    std::string query;  ///< what follows the '?'
    std::string body;
    std::string contentType;
    std::string authorization;
    std::string id;
    std::string service;  ///< the last part of /ws/...
    bool tooLarge = false;
};

struct Answer {
    unsigned status = 200;
    std::string type = "text/plain";
    std::string body{};
    std::vector<std::pair<const char*, std::string>> headers{};
    /// What comes after `body`, a block at a time while the answer is sent; empty at the end.
    std::function<std::string()> more{};
};

/// A problem document. A member that is null is left out.
Answer problem(unsigned status, const nlohmann::ordered_json& members);

using Pairs = std::vector<std::pair<std::string, std::string>>;

/// Takes name=value&... apart, strictly as the wire protocol writes it. Throws Event.
Pairs decodePairs(std::string_view text);

enum class Type { kText, kUint32, kInt32, kUint64, kInt64 };

struct Parameter {
    const char* name;
    Type type;
    bool optional = false;
};

/// Parameters that fit their rows: texts as they are, numbers checked.
class Parameters {
  public:
    void set(std::string name, std::string value) { values_[std::move(name)] = std::move(value); }
    bool has(const char* name) const { return values_.contains(name); }
    const std::string& text(const char* name) const { return values_.at(name); }
    /// uint64_t is had by a cast.
    int64_t number(const char* name) const;
    bool flag(const char* name) const { return number(name) != 0; }

  private:
    std::map<std::string, std::string, std::less<>> values_;
};

/// Throws Event when `value` is none of the type.
void checkValue(const Parameter& row, const std::string& value);

/// Throws Event unless it is 32 hexadecimal digits.
void checkRequestId(const std::string& id);

}  // namespace sandbox

#endif
