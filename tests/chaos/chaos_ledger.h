// What a client was told of its requests, to be compared with what a server did.
#ifndef TESTS_CHAOS_CHAOS_LEDGER_H
#define TESTS_CHAOS_CHAOS_LEDGER_H

#include <array>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace chaos {

/// What a caller may conclude of a request.
enum Outcome { kConfirmed, kRefused, kUnknown, kOutcomes };

/// One client's own things. A thing is "KIND PATH", a change of it "+KIND PATH", "-KIND PATH" or
/// "~KIND PATH NUMBER". Every thing is new when it is made, and each number is used once: no change
/// can rightly happen twice.
class Ledger {
  public:
    void had(const std::string& thing) { states_[thing] = kPresent; }
    void make(const std::string& thing, Outcome outcome) {
        change("+" + thing, outcome);
        State& state = states_.emplace(thing, kAbsent).first->second;
        if (outcome == kConfirmed) state = kPresent;
        if (outcome == kUnknown && state == kAbsent) state = kMaybe;
    }
    void remove(const std::string& thing, Outcome outcome) {
        change("-" + thing, outcome);
        State& state = states_.emplace(thing, kAbsent).first->second;
        if (outcome == kConfirmed) state = kAbsent;
        if (outcome == kUnknown && state == kPresent) state = kMaybe;
    }
    void change(const std::string& what, Outcome outcome) { ++changes_[what][outcome]; }

    /// What a listing of all things that begin with `prefix` shows, against what it must.
    void compare(const std::string& prefix, const std::set<std::string>& listed,
                 std::vector<std::string>& differences) const {
        for (auto at = states_.lower_bound(prefix);
             at != states_.end() && at->first.starts_with(prefix); ++at) {
            const bool there = listed.contains(at->first);
            if (at->second == kPresent && !there) differences.push_back("lost: " + at->first);
            if (at->second == kAbsent && there) differences.push_back("not asked: " + at->first);
        }
        for (const std::string& thing : listed) {
            if (!states_.contains(thing)) differences.push_back("of nobody: " + thing);
        }
    }

    /// How often the server made each change, against what was told. Takes its own out of `made`.
    void compare(std::map<std::string, uint64_t>& made,
                 std::vector<std::string>& differences) const {
        for (const auto& [what, told] : changes_) {
            const auto found = made.find(what);
            const uint64_t times = found != made.end() ? found->second : 0;
            const uint64_t most = told[kConfirmed] + told[kUnknown] > 0 ? 1 : 0;
            if (times < told[kConfirmed] || times > most) {
                differences.push_back(what + ": made " + std::to_string(times) + " times, told " +
                                      std::to_string(told[kConfirmed]) + " times that it was");
            }
            if (found != made.end()) made.erase(found);
        }
    }

  private:
    enum State { kAbsent, kPresent, kMaybe };
    std::map<std::string, std::array<uint64_t, kOutcomes>> changes_;  ///< how often each was told
    std::map<std::string, State> states_;
};

}  // namespace chaos

#endif
