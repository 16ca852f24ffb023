// The server without HTTP: turns a request into an answer.
//
// Thread rule: one thread at a time. The HTTP side holds State::mutex during each call.
//
// Invariants:
//  1. A request that changes something is one transaction: it looks up the Request-Id, applies the
//     effect and stores the answer under the id. A server that is killed has done all of this or
//     nothing. If only the effect were stored, the client's next attempt would be carried out a
//     second time; if only the answer were stored, that attempt would be told of an effect that
//     does not exist.
//  2. A change that is refused (Event) is rolled back, and its answer is stored in a transaction of
//     its own: the next attempt gets the same refusal, even if the change could succeed by then.
//  3. Only these answers are stored. Requests that only read are idempotent anyway. A request that
//     is refused before its handler runs (login, permission, parameters), or that fails as a whole
//     (POOL_EVENT_SERVER_FAILED), changes nothing, and the next attempt is handled as a new
//     request.
//  4. An id belongs to one digest of login and content; the newest 10,000 ids are kept.
//  5. An event promises that no transmission with its id was carried out, and that none which has
//     begun to arrive will be. Every refusal therefore calls mayBeDone(), and has no event code if
//     the result is true. Only a refusal by the handler does not: its transaction has looked up the
//     id.
//  6. `open_` holds the id of each transmission whose head was read and which is not decided yet.
//     Otherwise an event for the same id would promise that this transmission is not carried out.
#ifndef SANDBOX_CORE_H
#define SANDBOX_CORE_H

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>

#include "sandbox/accounts.h"
#include "sandbox/actions.h"
#include "sandbox/log.h"
#include "sandbox/request.h"
#include "sandbox/sandbox.h"
#include "sandbox/store/database.h"
#include "sandbox/store/event.h"
#include "sandbox/store/images.h"
#include "sandbox/store/names.h"
#include "sandbox/store/pos.h"
#include "sandbox/store/schema.h"
#include "sandbox/store/selections.h"

namespace sandbox {

class Core {
  public:
    /// Opens the database and reads the accounts. Throws std::exception.
    explicit Core(const Settings& settings);

    /// Carries out a request under /ws/ for an account (NULL: the login was refused). A failure
    /// becomes an event's answer, without the event code if a transmission with this id may have
    /// been carried out. Records in `log` the login, the event and whether the answer was stored.
    Answer answer(const Request& request, const Accounts::Entry* account, LogEntry& log);
    /// False only if no transmission with this id was carried out, and none is open.
    bool mayBeDone(const std::string& id) noexcept;
    /// A transmission with this id has begun to arrive. decide() must be called once afterwards.
    void open(const std::string& id) { open_.insert(id); }
    /// The transmission is carried out or refused now, or has ended.
    void decide(const std::string& id) { open_.extract(id); }
    /// Records in `log` the id, service, action and parameters, as far as they can be parsed. Uses
    /// only the request, because a fault may prevent the request from being carried out.
    static void describe(const Request& request, LogEntry& log);

    Accounts& accounts() { return accounts_; }
    void setServerAddress(const std::string& address) { serverAddress_ = address; }
    /// Stops the clock at this time; nullopt: the clock of the machine is used.
    void setClock(std::optional<int64_t> fixed) {
        fixedClock_ = fixed;
        clockOffset_ = 0;
    }
    std::optional<int64_t> fixedClock() const { return fixedClock_; }
    /// Moves the clock, stopped or not; setClock() undoes the move.
    void moveClock(int64_t seconds) {
        clockOffset_ = static_cast<int64_t>(static_cast<uint64_t>(clockOffset_) +
                                            static_cast<uint64_t>(seconds));
    }
    /// Seconds since 1970.
    int64_t now() const;
    /// Places the files of an array of {path, size, mtime} objects, all or none. Throws
    /// std::exception, an Event for an invalid path.
    void place(const nlohmann::json& files);
    /// Places the entries of a real folder; returns the number of those that are left out. Throws
    /// std::exception.
    uint64_t placeFolder(const std::string& folder);
    /// Adds the data selections of an array of {number, tag} objects, all or none. Once one was
    /// added, all other numbers are invalid. Throws std::exception.
    void select(const nlohmann::json& selections);
    /// Deletes names, POs, data selections, images and stored answers, and resets the clock.
    /// Accounts stay. Throws DatabaseError.
    void reset();
    // The data for display, one page per call: {"rows": [...], "next": where the next page begins,
    // or null}. Numbers that JavaScript cannot represent exactly are texts. Throw std::exception.

    nlohmann::ordered_json imagePage(const std::string& after);
    nlohmann::ordered_json selectionPage(const std::string& after);
    nlohmann::ordered_json namePage(const std::string& path, const std::string& after);
    /// The members of an event that name the server and the program.
    nlohmann::ordered_json reporter() const;

  private:
    Answer eventAnswer(const Event& event, bool promises = true) const;
    Answer refusal(const Request& request, const Event& event);
    Answer carryOut(const Request& request, const Accounts::Entry* account, LogEntry& log);
    Answer change(const Request& request, const Action& action, const Parameters& parameters,
                  LogEntry& log);
    std::optional<Answer> storedAnswer(const Request& request, const std::string& digest);
    void storeAnswer(const Request& request, const std::string& digest, const Answer& answer);

    // The stores refer to the database, so it is declared first and destroyed last. The stores
    // create their tables within the upgrade.
    Database database_;
    Upgrade upgrade_;
    NameSpace names_;
    POStore pos_;
    Selections selections_;
    ImageStore images_;
    Accounts accounts_;
    uint32_t architectureMode_;
    std::string serverAddress_;
    std::optional<int64_t> fixedClock_;
    int64_t clockOffset_ = 0;
    std::multiset<std::string> open_;
};

}  // namespace sandbox

#endif
