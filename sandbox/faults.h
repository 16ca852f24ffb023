// Faults to order: what goes wrong with the next requests.
#ifndef SANDBOX_FAULTS_H
#define SANDBOX_FAULTS_H

#include <cstdint>
#include <deque>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <string>

#include "sandbox/request.h"

namespace sandbox {

/// How an answer goes out.
enum class Delivery {
    kPlain,
    kReset,      ///< the connection is reset, nothing is answered
    kClose,      ///< the connection is closed, nothing is answered
    kGarbage,    ///< bytes that are not HTTP, then closed
    kCut,        ///< the head, a part of the body, then closed
    kStall,      ///< the head, then nothing for some time
    kOversize,   ///< a body of any length, made while it is sent
    kUnbounded,  ///< the body ends where the connection does
    kChunked,
};

struct Fault;

struct FaultKind {
    const char* name;
    bool carriedOut;  ///< the request is carried out, and its answer is what goes wrong
    bool refuses;     ///< the answer says so, which must not be told of what was carried out
    Delivery delivery;
    /// Makes the answer another: that of the request, or an empty one.
    void (*change)(const Fault& fault, const nlohmann::json& reporter, Answer& answer);
    const char* members;  ///< further ones, each followed by a blank
};

struct Fault {
    const FaultKind* kind = nullptr;
    nlohmann::json members;
    uint64_t timesLeft = 1;
    double chance = 1;
    std::mt19937_64 random;

    uint64_t number(const char* member, uint64_t otherwise) const {
        return members.value(member, otherwise);
    }
    std::string text(const char* member, const std::string& otherwise) const {
        return members.value(member, otherwise);
    }
    /// Before anything is done.
    uint64_t delay() const;
};

/// The faults that are still to come. One thread at a time.
class Faults {
  public:
    /// Adds all of a JSON array or none. Throws std::exception.
    void add(const nlohmann::json& list);
    void clear();
    /// The first fault that is for this action and whose chance comes up.
    std::optional<Fault> take(const std::string& action);
    nlohmann::ordered_json report() const;

  private:
    std::deque<Fault> faults_;
    uint64_t taken_ = 0;
};

}  // namespace sandbox

#endif
