// The commands of transcripts about agent configurations and sessions.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <set>
#include <utility>

#include "ks.h"
#include "mb.h"
#include "mb/mb_int.h"
#include "tests/support/golden.h"
#include "tests/support/scripted_platform.h"
#include "tests/support/system_calls.h"

namespace golden {

Text::Text(const std::string& word) : isNull(word == "null") {
    if (word.size() > 2 && word[1] == '*') {
        text.assign(std::stoul(word.substr(2)), word[0]);
    } else if (word != "empty") {
        for (const char c : word)
            text += c == '_' ? ' ' : c == '~' ? '\n' : c == '^' ? '\r' : c;
    }
}

namespace {

/// Option records from words "CODE=VALUE".
class Options {
  public:
    Options(const Words& words, size_t from) {
        const std::set<uint32_t> texts = {129, 130, 132, 134, 137, 138};
        texts_.reserve(words.size());
        for (size_t i = from; i < words.size() && !words[i].empty(); ++i) {
            const size_t equals = words[i].find('=');
            const size_t cross = words[i].find('#');  // CODE=VALUE#TIMES
            KSOption option{number(words[i].substr(0, equals)), {}};
            const std::string value = words[i].substr(equals + 1, cross - equals - 1);
            if (texts.count(option.code) != 0) {
                option.value.text = texts_.emplace_back(value).get();
            } else {
                option.value.number = static_cast<uint64_t>(std::stoll(value));
            }
            records.insert(records.end(),
                           cross == std::string::npos ? 1 : number(words[i].substr(cross + 1)),
                           option);
        }
    }
    uint32_t count() const { return static_cast<uint32_t>(records.size()); }
    std::vector<KSOption> records;

  private:
    std::vector<Text> texts_;
};

std::string shown(const KSConfig& config) {
    const struct {
        const char* name;
        const char* text;
    } texts[] = {{"vendor", config.vendorName},
                 {"label", config.programLabel},
                 {"application", config.applicationName},
                 {"login", config.login},
                 {"password", config.password},
                 {"spa", config.spaUrl},
                 {"mbs", config.mbsUrl},
                 {"file", config.configFile},
                 {"recommended", config.recommendedRouteTable},
                 {"current", config.currentRouteTable},
                 {"key", config.sslKeyLocation}};
    char head[100];
    snprintf(head, sizeof head, "flags %#x, pool %u, agent %u, fp %u, do %u, reconnect %ld",
             config.flags, config.storagePoolId, config.agentId, config.fingerprintType,
             config.doType, static_cast<long>(config.reconnectTimeout));
    std::string out = head;
    for (const auto& [name, text] : texts) {
        if (*text != '\0') out += std::string(", ") + name + " " + scripted::quoted(text);
    }
    return out;
}

class SessionScene : public Scene {
  public:
    SessionScene();
    ~SessionScene() override {
        MBShutdown(session_);
        for (const std::string& file : files_)
            remove(file.c_str());
    }
    SessionScene(const SessionScene&) = delete;
    SessionScene& operator=(const SessionScene&) = delete;

  private:
    MBSession* handle() { return without_ ? nullptr : session_; }

    std::string made(MBSession* session) {
        session_ = session;
        if (session == nullptr) {
            return withSlot("no session, " + std::to_string(calls::live()) + " left");
        }
        return withSlot("session " + std::to_string(session->callerWord));
    }
    void close() { MBShutdown(std::exchange(session_, nullptr)); }

    /// Runs a call that either succeeds or leaves the object as it was.
    template <typename Object, typename Call>
    std::string allOrNothing(Object* object, Call call) {
        std::vector<char> before(sizeof(Object));
        if (object != nullptr) memcpy(before.data(), object, sizeof(Object));
        const uint32_t result = call();
        const bool same = object == nullptr || memcmp(before.data(), object, sizeof(Object)) == 0;
        return status(result) + (same ? ", unchanged" : ", changed");
    }

    std::string reply(const Words& w) {
        scripted::Reply reply;
        reply.status = number(w[2]);
        reply.eventCode = number(w[3]);
        std::optional<std::string>* texts[] = {&reply.data, &reply.description, &reply.severity,
                                               &reply.serverAddress, &reply.sourceApplication};
        for (size_t i = 4; i < w.size() && i - 4 < std::size(texts); ++i) {
            const Text text(w[i]);
            if (!text.isNull && !w[i].empty()) *texts[i - 4] = text.text;
        }
        // "meanwhile retries=1": a setting changes while the call is under way.
        if (!then_.empty()) {
            const int32_t value = std::stoi(then_.substr(then_.find('=') + 1));
            const auto set = then_[0] == 'r' ? MBSetRetryCount : MBSetTimeOut;
            reply.meanwhile = [=] { set(value); };
            then_.clear();
        }
        scripted::queueReply(w[1], reply);
        return {};
    }

    std::string variadic(const Words& w) {
        const Options o(w, 2);
        const auto& r = o.records;
        const auto text = [&](size_t i) { return r[i].value.text; };
        close();
        switch (r.size()) {
            case 0:
                return made(MBCreateVa(number(w[1]), 0));
            case 1:
                return made(MBCreateVa(number(w[1]), r[0].code, text(0), 0));
            case 2:
                return made(MBCreateVa(number(w[1]), r[0].code, text(0), r[1].code,
                                       static_cast<uint32_t>(r[1].value.number), 0));
            default:  // one option, 32 or 33 times
                return made(MBCreateVa(number(w[1]), 144, 1, 144, 1, 147, 1, 147, 1, 147, 1, 147, 1,
                                       147, 1, 147, 1, 147, 1, 147, 1, 147, 1, 147, 1, 147, 1, 147,
                                       1, 147, 1, 147, 1, 147, 1, 147, 1, 147, 1, 147, 1, 147, 1,
                                       147, 1, 147, 1, 147, 1, 147, 1, 147, 1, 147, 1, 147, 1, 147,
                                       1, 147, 1, 147, 1, 147, 1, r.size() == 33 ? 147 : 0, 1, 0));
        }
    }

    std::string list(const Words& w) {
        char* listing = const_cast<char*>("untouched");
        size_t length = 99;
        const Text path(w[1]);
        const bool noOutput = w[3] == "nolisting";
        const uint32_t result = MBDirList(handle(), path.get(), noOutput ? nullptr : &listing,
                                          w[3] == "nolength" ? nullptr : &length, number(w[2]));
        const std::string out = status(result) + ", listing " + scripted::quoted(listing) +
                                ", length " + std::to_string(length);
        if (listing != nullptr && strcmp(listing, "untouched") != 0) free(listing);
        return out;
    }

    KSConfig config_{};
    MBSession* session_ = nullptr;
    bool without_ = false;
    std::vector<std::string> files_;
    std::string then_;
    std::unique_ptr<Scene> pos_ = poScene([this] { return handle(); });
};

SessionScene::SessionScene() {
    const auto twoTexts = [this](auto call) {
        return [this, call](const Words& w) {
            const Text source(w[1]), destination(w[2]);
            return status(call(handle(), source.get(), destination.get(), number(w[3])));
        };
    };
    const auto tunable = [](auto set, auto get) {
        return [set, get](const Words& w) {
            const int32_t before = get();
            if (!w[1].empty()) set(std::stoi(w[1]));
            return withSlot(std::to_string(before));
        };
    };
    verbs = {
        {"ini",
         [](const Words& w) {
             scripted::recordConfiguration(w[1] != "quiet");
             if (w[1] == "quiet") return std::string();
             scripted::configValue(std::stoi(w[1]), std::stoi(w[2]), Text(w[3]).text);
             return std::string();
         }},
        {"reply", [this](const Words& w) { return reply(w); }},
        {"meanwhile",
         [this](const Words& w) {
             then_ = w[1];
             return std::string();
         }},
        {"config",
         [this](const Words& w) {
             memset(&config_, 0x55, sizeof config_);
             KSConfigInitWithAgentCfg(w[1] == "norecord" ? nullptr : &config_, Text(w[1]).get());
             return withSlot(w[1] == "norecord" ? "nothing" : shown(config_));
         }},
        {"set",
         [this](const Words& w) {
             const Options o(w, 1);
             return allOrNothing(
                 &config_, [&] { return KSConfigSet(&config_, o.records.data(), o.count()); });
         }},
        {"setNull",
         [this](const Words&) {
             return status(KSConfigSet(nullptr, nullptr, 0)) + " and " +
                    status(KSConfigSet(&config_, nullptr, 1));
         }},
        {"touch",
         [this](const Words& w) {
             files_.push_back(w[1]);
             std::ofstream(w[1]) << "";
             return std::string();
         }},
        {"show", [this](const Words&) { return shown(session_ ? session_->config : config_); }},
        {"session",
         [this](const Words& w) {
             close();
             const Options o(w, 3);
             return made(
                 MBCreateWithAgentCfg(number(w[1]), o.records.data(), o.count(), Text(w[2]).get()));
         }},
        {"init",
         [this](const Words& w) {
             close();
             const Text url(w[2]), login(w[3]), password(w[4]);
             return made(MBInit(url.get(), number(w[1]), login.get(), password.get()));
         }},
        {"va", [this](const Words& w) { return variadic(w); }},
        {"without",
         [this](const Words& w) {
             without_ = w[1] == "session";
             return std::string();
         }},
        {"options",
         [this](const Words& w) {
             const Options o(w, 1);
             return allOrNothing(
                 handle(), [&] { return MBOptionsSet(handle(), o.records.data(), o.count()); });
         }},
        {"nullOptions",
         [this](const Words&) {
             return allOrNothing(handle(), [&] { return MBOptionsSet(handle(), nullptr, 1); });
         }},
        {"word133", [this](const Words&) { return std::to_string(session_->opt133Value); }},
        {"login",
         [this](const Words& w) {
             const Text login(w[1]), password(w[2]);
             return allOrNothing(
                 handle(), [&] { return MBAuthenticate(handle(), login.get(), password.get()); });
         }},
        {"keepalive",
         [this](const Words& w) { return status(MBKeepAlive(handle(), std::stoi(w[1]))); }},
        {"resiliency",
         [this](const Words& w) { return status(MBEnableResiliency(handle(), std::stoi(w[1]))); }},
        {"shutdown",
         [this](const Words&) {
             close();
             return withSlot(std::to_string(calls::live()) + " left");
         }},
        {"timeoutStep", tunable(MBSetTimeOut, MBGetTimeOut)},
        {"retries", tunable(MBSetRetryCount, MBGetRetryCount)},
        {"mkdir",
         [this](const Words& w) { return status(MBDirCreate(handle(), Text(w[1]).get())); }},
        {"copy", twoTexts(MBFileCopy)},
        {"move", twoTexts(MBFileMove)},
        {"rm",
         [this](const Words& w) {
             return status(MBFileDelete(handle(), Text(w[1]).get(), number(w[2])));
         }},
        {"ls", [this](const Words& w) { return list(w); }},
        {"time",
         [this](const Words& w) {
             uint32_t time = 99;
             const uint32_t result = MBGetTime(handle(), w[1] == "nooutput" ? nullptr : &time);
             return status(result) + ", time " + std::to_string(time);
         }},
    };
    verbs.insert(pos_->verbs.begin(), pos_->verbs.end());
}

}  // namespace

std::unique_ptr<Scene> sessionScene() {
    return std::make_unique<SessionScene>();
}

}  // namespace golden
