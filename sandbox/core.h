// The server without HTTP: requests in, answers out. One thread at a time.
#ifndef SANDBOX_CORE_H
#define SANDBOX_CORE_H

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "sandbox/accounts.h"
#include "sandbox/actions.h"
#include "sandbox/log.h"
#include "sandbox/request.h"
#include "sandbox/sandbox.h"
#include "sandbox/store/database.h"
#include "sandbox/store/event.h"
#include "sandbox/store/names.h"
#include "sandbox/store/pos.h"
#include "sandbox/store/selections.h"

namespace sandbox {

class Core {
  public:
    /// Throws std::exception.
    explicit Core(const Settings& settings);

    /// Carries a request under /ws/ out, and notes in `log` what it was.
    Answer answer(const Request& request, LogEntry& log);
    /// Whether a request with this id was answered before.
    bool knows(const std::string& id);
    /// Fills in what can be told of a request that is not carried out.
    static void describe(const Request& request, LogEntry& log);

    void setServerAddress(const std::string& address) { serverAddress_ = address; }
    void setClock(std::optional<int64_t> fixed) { fixedClock_ = fixed; }
    std::optional<int64_t> fixedClock() const { return fixedClock_; }
    int64_t now() const;
    /// The entries of {path, size, mtime} objects. Throws Event or an exception.
    void place(const nlohmann::json& files);
    /// Takes names, sizes and times of a real folder; returns how many had to be left out.
    uint64_t placeFolder(const std::string& folder);
    /// From now on there are these data selections only. {number, tag} objects.
    void select(const nlohmann::json& selections);
    /// Names, POs, images, remembered answers and the clock, as new.
    void reset();
    /// The members that say who reports an event.
    nlohmann::ordered_json reporter() const;

  private:
    Answer eventAnswer(const Event& event) const;
    Answer carryOut(const Request& request, LogEntry& log);
    Answer change(const Request& request, const Action& action, const Parameters& parameters,
                  LogEntry& log);
    std::optional<Answer> remembered(const Request& request, const std::string& digest);
    void remember(const Request& request, const std::string& digest, const Answer& answer);

    Database database_;
    NameSpace names_;
    POStore pos_;
    Selections selections_;
    ImageStore images_;
    Accounts accounts_;
    uint32_t architectureMode_;
    std::string serverAddress_;
    std::optional<int64_t> fixedClock_;
};

}  // namespace sandbox

#endif
