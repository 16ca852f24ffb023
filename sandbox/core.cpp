#include "sandbox/core.h"

#include <openssl/evp.h>
#include <openssl/sha.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "sandbox/members.h"
#include "sandbox/store/folder.h"

namespace sandbox {
namespace {

constexpr char kSourceApplication[] = "kspool-sandbox";
/// Clients resend only within their reconnect time-out, so keeping the newest ids is enough.
constexpr int64_t kStoredAnswers = 10'000;

struct EventRow {
    PoolEvent code;
    unsigned status;
    const char* title;
};

constexpr EventRow kEvents[] = {
#define KSPOOL_EVENT_ROW(name, code, status, text) {POOL_EVENT_##name, (status), (text)},
    KSPOOL_EVENTS(KSPOOL_EVENT_ROW)
#undef KSPOOL_EVENT_ROW
};

/// Requests with the same id and equal digests are attempts of one request. Each part is hashed
/// after its length: otherwise moving a byte from the end of one part to the start of the next
/// would not change the digest.
std::string digestOf(const Request& request, const std::string& login) {
    std::string text;
    for (const std::string* part :
         {&login, &request.service, &request.query, &request.contentType, &request.body}) {
        text.append(std::to_string(part->size())).append(":").append(*part);
    }
    std::array<uint8_t, SHA256_DIGEST_LENGTH> digest{};
    SHA256(reinterpret_cast<const uint8_t*>(text.data()), text.size(), digest.data());
    std::string encoded((digest.size() + 2) / 3 * 4 + 1, '\0');
    const int length = EVP_EncodeBlock(reinterpret_cast<uint8_t*>(encoded.data()), digest.data(),
                                       static_cast<int>(digest.size()));
    encoded.resize(static_cast<size_t>(length));
    return encoded;
}

void checkMediaType(const Request& request, const char* type) {
    if (!hasMediaType(request.contentType, type))
        throw Event{POOL_EVENT_BAD_REQUEST, std::string("Content-Type is not ") + type};
}

/// A client's text for a description, truncated to keep the answer short.
std::string quoted(const std::string& text) {
    constexpr size_t kLongest = 100;
    return "'" + (text.size() > kLongest ? text.substr(0, kLongest) + "..." : text) + "'";
}

/// The parameters are in the query if there is one, with a text as the body; else in the body.
Pairs pairsOf(const Request& request) {
    return decodePairs(request.query.empty() ? request.body : request.query);
}

const Action& actionOf(const Request& request, const Pairs& pairs) {
    if (pairs.empty() || pairs[0].first != "action")
        throw Event{POOL_EVENT_BAD_REQUEST, "the first parameter is not 'action'"};
    const Action* action = findAction(request.service, pairs[0].second);
    if (action == nullptr) {
        throw Event{POOL_EVENT_BAD_REQUEST,
                    "unknown action " + quoted(pairs[0].second) + " of service " + request.service};
    }
    if (request.query.empty() != (action->bodyText == nullptr)) {
        throw Event{
            POOL_EVENT_BAD_REQUEST,
            std::string("the parameters of ") + action->name +
                (action->bodyText == nullptr ? " belong into the body of the request"
                                             : " belong into the URL, its text into the body")};
    }
    checkMediaType(
        request, action->bodyText == nullptr ? "application/x-www-form-urlencoded" : "text/plain");
    return *action;
}

/// Accepts each parameter of the action once, and no other parameter: otherwise a misspelt optional
/// one would go unnoticed.
Parameters parametersOf(const Action& action, const Pairs& pairs, const Request& request) {
    Parameters parameters;
    for (auto pair = pairs.begin() + 1; pair != pairs.end(); ++pair) {
        const auto row = std::find_if(
            action.parameters.begin(), action.parameters.end(),
            [&](const Parameter& one) { return one.name != nullptr && pair->first == one.name; });
        if (row == action.parameters.end()) {
            throw Event{POOL_EVENT_BAD_REQUEST,
                        std::string(action.name) + " has no parameter " + quoted(pair->first)};
        }
        const bool again = std::any_of(pairs.begin() + 1, pair, [&](const auto& earlier) {
            return earlier.first == pair->first;
        });
        if (again)
            throw Event{POOL_EVENT_BAD_REQUEST,
                        "parameter " + quoted(pair->first) + " is there twice"};
        checkValue(*row, pair->second);
        parameters.set(pair->first, pair->second);
    }
    for (const Parameter& row : action.parameters) {
        const auto named = [&](const auto& pair) { return pair.first == row.name; };
        if (row.name != nullptr && !row.optional &&
            std::none_of(pairs.begin() + 1, pairs.end(), named))
            throw Event{POOL_EVENT_BAD_REQUEST,
                        "parameter '" + std::string(row.name) + "' is missing"};
    }
    if (action.bodyText != nullptr) parameters.set(action.bodyText, request.body);
    return parameters;
}

}  // namespace

Core::Core(const Settings& settings)
    : database_(openPool(settings.database, settings.sync)),
      upgrade_(database_),
      names_(database_),
      pos_(database_),
      selections_(database_),
      images_(database_),
      architectureMode_(settings.architectureMode) {
    database_.script(
        "CREATE TABLE IF NOT EXISTS answers (number INTEGER PRIMARY KEY AUTOINCREMENT,"
        " id TEXT NOT NULL UNIQUE, digest TEXT NOT NULL, status INTEGER NOT NULL,"
        " type TEXT NOT NULL, body TEXT NOT NULL)");
    upgrade_.finish();
    if (!settings.accountsFile.empty()) accounts_.addFile(settings.accountsFile);
    if (!settings.accounts.empty()) accounts_.addText(accountsText(settings.accounts));
    if (accounts_.empty()) throw std::runtime_error("there is no account, so nobody could log in");
}

int64_t Core::now() const {
    const int64_t unmoved = fixedClock_ ? *fixedClock_ : static_cast<int64_t>(time(nullptr));
    // Unsigned, because a test may set a clock that overflows.
    return static_cast<int64_t>(static_cast<uint64_t>(unmoved) +
                                static_cast<uint64_t>(clockOffset_));
}

nlohmann::ordered_json Core::reporter() const {
    return {{"serverAddress", serverAddress_}, {"sourceApplication", kSourceApplication}};
}

/// `promises`: no transmission with this id was carried out. Only then the answer has an eventCode.
Answer Core::eventAnswer(const Event& event, bool promises) const {
    const EventRow& row =
        *std::find_if(std::begin(kEvents), std::end(kEvents),
                      [&](const EventRow& one) { return one.code == event.code(); });
    nlohmann::ordered_json members = {{"title", row.title},
                                      {"detail", event.text()},
                                      {"eventCode", nullptr},
                                      {"severity", "ERROR"}};
    if (promises) members["eventCode"] = static_cast<uint32_t>(event.code());
    members.update(reporter());
    Answer answer = problem(row.status, members);
    if (promises) answer.event = event.code();
    if (row.status == 401)
        answer.headers.emplace_back("WWW-Authenticate",
                                    "Basic realm=\"kspool\", charset=\"UTF-8\"");
    return answer;
}

Answer Core::answer(const Request& request, const Accounts::Entry* account, LogEntry& log) {
    try {
        return carryOut(request, account, log);
    } catch (const Event& event) {
        return refusal(request, event);
    } catch (const std::exception& error) {
        return refusal(request, {POOL_EVENT_SERVER_FAILED, error.what()});
    }
}

/// From a refusal without a code, another login can learn that the id is in use, but nothing about
/// the stored answer.
Answer Core::refusal(const Request& request, const Event& event) {
    return eventAnswer(event, !mayBeDone(request.id));
}

/// A stored answer other than 200 is a refusal by the handler, which changed nothing.
bool Core::mayBeDone(const std::string& id) noexcept {
    if (open_.contains(id)) return true;
    try {
        return database_.query("SELECT 1 FROM answers WHERE id = ? AND status = 200", id).step();
    } catch (const std::exception&) {
        return true;
    }
}

void Core::describe(const Request& request, LogEntry& log) {
    log.id = request.id;
    log.service = request.service;
    try {
        log.parameters = pairsOf(request);
    } catch (const Event&) {
        log.parameters.clear();
    }
    if (request.service == "arch") log.action = "arch";
    if (!log.parameters.empty() && log.parameters[0].first == "action") {
        log.action = log.parameters[0].second;
        log.parameters.erase(log.parameters.begin());
    }
}

Answer Core::carryOut(const Request& request, const Accounts::Entry* account, LogEntry& log) {
    if (account == nullptr)
        throw Event{POOL_EVENT_UNKNOWN_LOGIN, "Permission denied: unknown login or wrong password"};
    log.login = account->login;
    if (request.service == "arch") return {.body = std::to_string(architectureMode_)};
    checkRequestId(request.id);
    if (request.tooLarge)
        throw Event{POOL_EVENT_BAD_REQUEST, "the body of the request is too large"};

    const Pairs pairs = pairsOf(request);
    const Action& action = actionOf(request, pairs);
    if (!Accounts::may(*account, action.permission)) {
        throw Event{POOL_EVENT_NO_PERMISSION,
                    "Permission denied: " + account->login + " may not " + action.name};
    }
    const Parameters parameters = parametersOf(action, pairs, request);
    if (action.changes) return change(request, action, parameters, log);
    Context context{names_, pos_, selections_, images_, now()};
    Answer answer;
    answer.body = action.handle(context, parameters);
    answer.more = std::move(context.more);
    return answer;
}

Answer Core::change(const Request& request, const Action& action, const Parameters& parameters,
                    LogEntry& log) {
    const std::string digest = digestOf(request, log.login);
    auto transaction = std::make_unique<Transaction>(database_);
    if (auto earlier = storedAnswer(request, digest)) {
        log.replayed = true;
        return *earlier;
    }
    Answer answer;
    try {
        Context context{names_, pos_, selections_, images_, now()};
        answer.body = action.handle(context, parameters);
    } catch (const Event& event) {
        // The handler may have changed rows before it refused: roll the changes back, then store
        // the refusal in a transaction of its own.
        answer = eventAnswer(event);
        transaction.reset();
        transaction = std::make_unique<Transaction>(database_);
    }
    storeAnswer(request, digest, answer);
    transaction->commit();
    return answer;
}

std::optional<Answer> Core::storedAnswer(const Request& request, const std::string& digest) {
    Query row =
        database_.query("SELECT digest, status, type, body FROM answers WHERE id = ?", request.id);
    if (!row.step()) return std::nullopt;
    if (row.text(0) != digest)
        throw Event{POOL_EVENT_BAD_REQUEST, "Request-Id was used for another request"};
    Answer answer;
    answer.status = static_cast<unsigned>(row.number(1));
    answer.type = row.text(2);
    answer.body = row.text(3);
    if (answer.status != 200)
        answer.event = nlohmann::json::parse(answer.body).value("eventCode", uint32_t{0});
    return answer;
}

void Core::storeAnswer(const Request& request, const std::string& digest, const Answer& answer) {
    database_.run("INSERT INTO answers (id, digest, status, type, body) VALUES (?, ?, ?, ?, ?)",
                  request.id, digest, answer.status, answer.type, answer.body);
    database_.run("DELETE FROM answers WHERE number <= (SELECT max(number) FROM answers) - ?",
                  kStoredAnswers);
}

void Core::select(const nlohmann::json& selections) {
    const Members members("a data selection");
    Transaction transaction(database_);
    for (const auto& one : selections) {
        selections_.add(static_cast<uint32_t>(members.number(one, "number", {}, 0, UINT32_MAX)),
                        members.text(one, "tag", ""));
    }
    transaction.commit();
}

void Core::place(const nlohmann::json& files) {
    const Members members("a file");
    Transaction transaction(database_);
    for (const nlohmann::json& file : files) {
        names_.place(members.text(file, "path"), 'f', members.number(file, "size", 0),
                     members.number(file, "mtime", now()), now());
    }
    transaction.commit();
}

uint64_t Core::placeFolder(const std::string& folder) {
    Transaction transaction(database_);
    const uint64_t leftOut = sandbox::placeFolder(names_, folder, now());
    transaction.commit();
    return leftOut;
}

void Core::reset() {
    Transaction transaction(database_);
    names_.clear();
    pos_.clear();
    selections_.clear();
    images_.clear();
    database_.run("DELETE FROM answers");
    transaction.commit();
    setClock(std::nullopt);
}

}  // namespace sandbox
