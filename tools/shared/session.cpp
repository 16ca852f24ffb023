#include "tools/shared/session.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <iterator>
#include <vector>

#include "common/owned.h"
#include "ks.h"
#include "platform/events.h"
#include "platform/status.h"
#include "platform/ws.h"
#include "tools/shared/failure.h"
#include "tools/shared/secret.h"
#include "tools/shared/text.h"

namespace tool {
namespace {

constexpr char kNotConfigured[] =
    "not configured: there is no file $KSPOOL_AGENT_CONFIG, $XDG_CONFIG_HOME/kspool/agent.cfg or "
    "/etc/kspool/agent.cfg; give --config FILE";

constexpr char kRetry[] = "--retry SECONDS";
constexpr char kPerhapsDone[] = "if it was a change, it may have been made";
constexpr char kPerhapsDoneOrNoPool[] =
    "if it was a change, it may have been made; is it a pool server?";

struct Hint {
    uint32_t status;
    const char* text;
};

/// A hint for a status, and whether retries could help.
struct Advice {
    uint32_t status;
    bool retry;
    const char* text;
};

constexpr Advice kAdvice[] = {
    {WS_STATUS_FAILED, false, kPerhapsDone},
    {WS_STATUS_NO_SERVER, false, "a server is http://HOST[:PORT] or https://HOST[:PORT]"},
    {WS_STATUS_PLAINTEXT, false, "use https, or set KSPOOL_ALLOW_PLAINTEXT=1"},
    {WS_STATUS_NO_CONNECT, true, "is it running there?"},
    {WS_STATUS_CONNECT_TIMED_OUT, true, "is it running there?"},
    {WS_STATUS_ABORTED, false, kPerhapsDone},
    {WS_STATUS_TIMED_OUT, false, kPerhapsDone},
    {WS_STATUS_CUT, false, kPerhapsDone},
    {WS_STATUS_BAD_ANSWER, false, kPerhapsDoneOrNoPool},
    {WS_STATUS_TOO_LARGE, false, kPerhapsDone},
};

/// The answers after which the transport retries until the reconnect time-out has passed.
constexpr Hint kPatience[] = {
    {429, "the server wants fewer requests"},
    {502, "the server's gateway got no valid answer"},
    {503, "the server is overloaded or in maintenance"},
    {504, "the server's gateway got no answer in time"},
};

/// Why a query may be refused, by event.
constexpr Hint kReasons[] = {
    {POOL_EVENT_UNKNOWN_LOGIN, "Permission denied: unknown login or wrong password"},
    {POOL_EVENT_NO_PERMISSION, "Permission denied: the login may not read"},
    {POOL_EVENT_NO_SELECTION, "no such data selection"},
};

/// The row of a status, or nullptr.
template <typename Row, size_t rows>
const Row* find(const Row (&table)[rows], uint32_t status) {
    const Row* row =
        std::find_if(table, table + rows, [=](const Row& r) { return r.status == status; });
    return row != table + rows ? row : nullptr;
}

const Hint* patience(uint32_t status, uint32_t httpStatus) {
    return status == WS_STATUS_BAD_ANSWER ? find(kPatience, httpStatus) : nullptr;
}

/// The URL without user name and password, which a user may have put into it.
std::string shownUrl(const std::string& url) {
    const size_t scheme = url.find("://");
    const size_t host = scheme == std::string::npos ? 0 : scheme + 3;
    const size_t at = url.rfind('@', url.find_first_of("/?#", host));
    if (at == std::string::npos || at < host) return printable(url);
    return printable(url.substr(0, host) + url.substr(at + 1));
}

/// The path of a URL, without slashes at its end.
std::string pathOf(const std::string& url) {
    const size_t scheme = url.find("://");
    const size_t path = url.find('/', scheme == std::string::npos ? 0 : scheme + 3);
    if (path == std::string::npos) return {};
    return printable(url.substr(path, url.find_last_not_of('/') + 1 - path));
}

/// All zero if the library knows of no request.
MBEvent lastEvent(const MBSession* session) {
    MBEvent last{};
    last.size = sizeof last;
    if (MBLastEvent(session, &last) != CR_STATUS_OK) last = {};
    return last;
}

ExitCode exitCode(uint32_t status, uint32_t event) {
    if (status == WS_STATUS_NO_SERVER || status == WS_STATUS_PLAINTEXT) return ExitCode::kUsage;
    if (status == CR_STATUS_PERMISSION_DENIED) return ExitCode::kPermission;
    const bool nothing = event == POOL_EVENT_NO_ENTRY || event == POOL_EVENT_NO_SELECTION ||
                         event == POOL_EVENT_NO_IMAGE;
    if (status == CR_STATUS_REMOTE_ERROR && nothing) return ExitCode::kNothing;
    return isTransport(status) ? ExitCode::kNetwork : ExitCode::kFailed;
}

KSOption textOption(uint32_t code, const char* text) {
    return {.code = code, .value = {.text = text}};
}

}  // namespace

Session::Session(const SessionOptions& options)
    : messages_(options.verbose), login_(options.login) {
    readConfiguration(options);
    // After a read error the library goes on with defaults, which the user did not ask for.
    if (const uint32_t reason = messages_.notRead(); reason != 0) {
        throw Failure(ExitCode::kUsage,
                      configFile_ + ": could not be read as a whole: " + CRStatusToStringA(reason));
    }
    const std::string url = options.server.empty() ? configUrl_ : options.server;
    if (url.empty()) {
        throw Failure(ExitCode::kUsage,
                      configFile_ + ": names no Metabase server; give --server URL");
    }
    server_ = shownUrl(url);
    path_ = pathOf(url);
    hasLoginInUrl_ = server_ != printable(url);
    create(options, url);
    enableRetries(options);
    messages_.beforeEach([this] { showRequest(); });
}

/// MBShutdown() may write messages, but there is no session left whose requests could be shown.
Session::~Session() {
    messages_.beforeEach({});
}

/// A missing configuration is a failure only if no server is given either. With a server, the
/// library decides whether the server alone is enough.
void Session::readConfiguration(const SessionOptions& options) {
    const auto config = std::make_unique<KSConfig>();
    const char* path = options.config.empty() ? nullptr : options.config.c_str();
    uint32_t& slot = *__cr_errno_location();
    slot = CR_STATUS_OK;
    KSConfigInitWithAgentCfg(config.get(), path);
    const uint32_t reason = slot;
    if (reason != CR_STATUS_OK) {
        std::array<char, 4096> found{};
        if (path == nullptr) path = CRConfigLocate("Agent", found.data(), found.size());
        if (path != nullptr) {
            throw Failure(ExitCode::kUsage, printable(path) + ": " + CRStatusToStringA(reason));
        }
        if (options.server.empty()) throw Failure(ExitCode::kUsage, kNotConfigured);
        return;
    }
    configFile_ = printable(options.config.empty() ? config->configFile : options.config);
    if ((config->flags & KS_CFG_MBS_URL) != 0) configUrl_ = config->mbsUrl;
    if ((config->flags & KS_CFG_SSL_KEY) != 0) keyLocation_ = printable(config->sslKeyLocation);
    reconnectTimeout_ = config->reconnectTimeout;
    if ((config->flags & KS_CFG_STORAGE_POOL_ID) != 0) poolId_ = config->storagePoolId;
}

void Session::create(const SessionOptions& options, const std::string& url) {
    Secret secret;
    takePassword(options.passwordFile, secret);
    hasPassword_ = !secret.empty();
    // Pass even the configuration's URL as an option: the transport gets its server only that way.
    std::vector<KSOption> list = {textOption(KS_OPT_MBS_URL, url.c_str())};
    if (!login_.empty()) list.push_back(textOption(KS_OPT_LOGIN, login_.c_str()));
    if (hasPassword_) list.push_back(textOption(KS_OPT_PASSWORD, secret.text()));
    session_.reset(MBCreateWithAgentCfg(0, list.data(), static_cast<uint32_t>(list.size()),
                                        options.config.empty() ? nullptr : options.config.c_str()));
    if (session_ != nullptr) return;
    if (configFile_.empty()) throw Failure(ExitCode::kUsage, kNotConfigured);
    const uint32_t reason = *__cr_errno_location();
    throw Failure(exitCode(reason, 0),
                  std::string("no session could be made: ") + CRStatusToStringA(reason));
}

void Session::enableRetries(const SessionOptions& options) {
    retries_ = options.retry != 0 || reconnectTimeout_ != 0;
    if (options.retry == 0) return;
    const uint32_t status = MBEnableResiliency(session_.get(), options.retry);
    if (reconnectTimeout_ == 0) {
        if (status == CR_STATUS_OK) return;
        throw Failure(exitCode(status, 0), std::string("--retry: ") + CRStatusToStringA(status));
    }
    if (!options.quiet && reconnectTimeout_ != options.retry) {
        complain("note: --retry changes nothing, because the configuration says " +
                 std::to_string(reconnectTimeout_) + " s");
    }
}

void Session::attempt(const std::string& subject, const std::function<uint32_t(MBSession*)>& call,
                      const char* service) {
    messages_.forget();
    reason_.clear();
    service_ = service;
    const uint32_t status = call(session_.get());
    if (messages_.shown()) showRequest();
    if (status == CR_STATUS_OK) return;
    const std::string text = explain(status);
    throw Failure(exitCode(status, messages_.event()),
                  subject.empty() ? text : subject + ": " + text);
}

/// Shows the last request, unless it was shown already. A call may make several requests; the
/// library writes a trace after each of them but the last.
void Session::showRequest() {
    MBStatistics so{};
    so.size = sizeof so;
    if (MBGetStatistics(session_.get(), &so) != CR_STATUS_OK || so.requests == requests_) return;
    const MBEvent last = lastEvent(session_.get());
    std::string text = "request: POST " + path_ + "/ws/" + service_ + ", ";
    text += last.httpStatus != 0 ? "HTTP status " + std::to_string(last.httpStatus) : "no answer";
    text += std::string(", id ") + (last.requestId != nullptr ? last.requestId : "unknown");
    text += ", " + humanSeconds(static_cast<double>(so.microseconds - microseconds_) / 1e6);
    if (last.attempts > 1) text += ", " + std::to_string(last.attempts) + " attempts";
    requests_ = so.requests;
    microseconds_ = so.microseconds;
    complain(text);
}

/// The status for the result of a call that may return the server's event code.
uint32_t Session::statusOfEvent(uint32_t result) {
    if (result < CR_STATUS_SYSTEM_BASE || isTransport(result)) return result;
    messages_.noteEvent(result);
    const bool permission =
        result == POOL_EVENT_UNKNOWN_LOGIN || result == POOL_EVENT_NO_PERMISSION;
    return permission ? CR_STATUS_PERMISSION_DENIED : CR_STATUS_REMOTE_ERROR;
}

void Session::attemptEvent(const std::string& subject,
                           const std::function<uint32_t(MBSession*)>& call, const char* service) {
    attempt(
        subject, [&](MBSession* session) { return statusOfEvent(call(session)); }, service);
}

void Session::attemptQuery(uint32_t dataselection,
                           const std::function<uint32_t(MBSession*)>& call) {
    attempt("query", [&](MBSession* session) -> uint32_t {
        const uint32_t status = call(session);
        if (status == CR_STATUS_NOT_FOUND) return CR_STATUS_OK;
        if (status != CR_STATUS_REMOTE_ERROR && status != CR_STATUS_BAD_HANDLE) return status;
        if (messages_.shown()) showRequest();
        // What is refused for a query (the login, the data selection) is refused for images as
        // well.
        char* images = nullptr;
        const uint32_t event =
            MBGetLastImages(session, dataselection, nullptr, nullptr, -1, INT64_MAX, &images);
        const kspool::OwnedText owned(images);
        const Hint* known = find(kReasons, event);
        if (known == nullptr) return status;
        reason_ = known->text;
        return statusOfEvent(event);
    });
}

/// The text of a failure: what happened, at which server, and what to do next if that is known.
std::string Session::explain(uint32_t status) const {
    const bool permission = status == CR_STATUS_PERMISSION_DENIED;
    const bool remote = permission || status == CR_STATUS_REMOTE_ERROR;
    const uint32_t httpStatus = isTransport(status) ? lastEvent(session_.get()).httpStatus : 0;
    std::string text = whatHappened(status, httpStatus) + " (";
    if (remote && messages_.event() != 0) {
        text += "event " + std::to_string(messages_.event()) + ", ";
    }
    if (httpStatus != 0) text += "HTTP status " + std::to_string(httpStatus) + ", ";
    text += "server " + server_;
    if (permission) {
        text += login_.empty() ? ", no login" : ", login " + printable(login_);
        if (!hasPassword_) text += ", no password";
    }
    const std::string next = advice(status, httpStatus);
    return text + (next.empty() ? ")" : "); " + next);
}

std::string Session::whatHappened(uint32_t status, uint32_t httpStatus) const {
    if (const Hint* row = patience(status, httpStatus)) return row->text;
    std::string text = CRStatusToStringA(status);
    if (status == CR_STATUS_PERMISSION_DENIED || status == CR_STATUS_REMOTE_ERROR) {
        const std::string said = reason_.empty() ? messages_.description() : reason_;
        return said.empty() ? text : said;
    }
    const bool unconnected = status == WS_STATUS_TLS || status == WS_STATUS_NO_CONNECT ||
                             status == WS_STATUS_CONNECT_TIMED_OUT || status == WS_STATUS_FAILED;
    const std::string why = unconnected ? messages_.reason() : "";
    return why.empty() || why == text ? text : text + ": " + why;
}

/// What to do next; leaves out what has been done already.
std::string Session::advice(uint32_t status, uint32_t httpStatus) const {
    if (status == CR_STATUS_PERMISSION_DENIED) {
        if (login_.empty() && !hasPassword_) return "give --login NAME and --password-file FILE";
        return login_.empty() ? "give --login NAME"
               : hasPassword_ ? ""
                              : "give --password-file FILE";
    }
    if (status == WS_STATUS_TLS) {
        return "the configuration's SSL key location is " +
               (keyLocation_.empty() ? "not set" : keyLocation_);
    }
    if (status == WS_STATUS_NO_SERVER && hasLoginInUrl_) {
        return "give --login NAME and --password-file FILE instead of a login in the URL";
    }
    if (patience(status, httpStatus) != nullptr) {
        return (retries_ ? std::string() : std::string(kRetry) + " tries again; ") + kPerhapsDone;
    }
    const Advice* row = find(kAdvice, status);
    if (row == nullptr) return {};
    const char* proxy = getenv("KSPOOL_PROXY");
    if (status == WS_STATUS_NO_SERVER && proxy != nullptr && *proxy != '\0') {
        return std::string(row->text) + ", and so must $KSPOOL_PROXY be";
    }
    return row->text + (row->retry && !retries_ ? std::string(" ") + kRetry + " waits for it" : "");
}

}  // namespace tool
