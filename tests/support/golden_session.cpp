// The commands of transcripts about agent configurations and sessions.
#include <cstdio>
#include <optional>

#include "tests/support/golden.h"
#include "tests/support/scripted_platform.h"

using namespace golden;
using operations::number;
using operations::quoted;
using operations::Text;
using operations::withSlot;

namespace {

void ini(Objects&, const Words& w) {
    scripted::recordConfiguration(w[1] != "quiet");
    if (w[1] == "quiet") return;
    scripted::configValue(std::stoi(w[1]), std::stoi(w[2]), Text(w[3]).text);
}

void reply(Objects&, const Words& w) {
    scripted::Reply reply;
    reply.status = static_cast<uint32_t>(number(w[2]));
    reply.eventCode = static_cast<uint32_t>(number(w[3]));
    std::optional<std::string>* texts[] = {&reply.data, &reply.description, &reply.severity,
                                           &reply.serverAddress, &reply.sourceApplication};
    for (size_t i = 4; i < w.size(); ++i) {
        const Text text(w[i]);
        if (!text.isNull) *texts[i - 4] = text.text;
    }
    scripted::queued(w[1]).push_back(reply);
}

/// "meanwhile CALL MBSetRetryCount N" happens during the call whose reply was given last.
void meanwhile(Objects& objects, const Words& w) {
    scripted::queued(w[1]).back().meanwhile = [&objects, line = w[2] + " " + w[3]] {
        operations::run(objects, line);
    };
}

std::string show(Objects& objects, const Words&) {
    const KSConfig& config = objects.session != nullptr ? objects.session->config : objects.config;
    char head[100];
    snprintf(head, sizeof head, "flags %#x, pool %u, agent %u, fp %u, do %u, reconnect %ld",
             config.flags, config.storagePoolId, config.agentId, config.fingerprintType,
             config.doType, static_cast<long>(config.reconnectTimeout));
    std::string out = head;
    for (const auto& [name, text] : operations::textsOf(config)) {
        if (text[0] != '\0') out += std::string(", ") + name + " " + quoted(text.data());
    }
    return out;
}

std::string configure(Objects& objects, const Words& w) {
    memset(&objects.config, 0x55, sizeof objects.config);
    operations::client().at("KSConfigInitWithAgentCfg").run(objects, w);
    KSConfig failed{};
    failed.flags = KS_CFG_APPLICATION;
    const bool isEmpty = memcmp(&objects.config, &failed, sizeof failed) == 0;
    return withSlot(w[1] == "null" ? "nothing" : isEmpty ? "empty" : show(objects, w));
}

template <size_t... Index>
MBSession* createWithMany(uint32_t callerWord, std::index_sequence<Index...>) {
    return MBCreateVa(callerWord, (Index % 2 == 1 ? 1 : Index < 4 ? 144 : 147)..., 0);
}

/// Up to two options, or so many that there is just room for them, or not.
std::string createVariadic(Objects& objects, const Words& w) {
    using Made = operations::Returned<MBSession*>;
    const auto word = static_cast<uint32_t>(number(w[1]));
    const operations::Options options(w[2]);
    const auto& r = options.records;
    Made::release(objects);
    MBSession* session = r.empty()       ? MBCreateVa(word, 0)
                         : r.size() == 1 ? MBCreateVa(word, r[0].code, r[0].value.text, 0)
                         : r.size() == 2 ? MBCreateVa(word, r[0].code, r[0].value.text, r[1].code,
                                                      static_cast<uint32_t>(r[1].value.number), 0)
                         : r.size() < 33
                             ? createWithMany(word, std::make_index_sequence<size_t{2} * 32>())
                             : createWithMany(word, std::make_index_sequence<size_t{2} * 33>());
    return Made::keep(objects, session);
}

/// Fills the filter in, and shows its form on the wire.
std::string filter(Objects& objects, const Words& w) {
    char text[1024] = "";
    const std::string out = operations::client().at("filter").run(objects, w);
    if (objects.filter.size == sizeof objects.filter && w[1] != "null")
        kspool::_mbFilterToStringPrint(text, sizeof text, &objects.filter);
    return out + (*text != '\0' ? ", " + std::string(text) : "");
}

}  // namespace

const Operations& golden::sessionCommands() {
    static const Operations kRows = {
        {"ini", quietly(ini)},
        {"reply", quietly(reply)},
        {"meanwhile", quietly(meanwhile)},
        {"show", {show}},
        {"word133", {[](Objects& objects, const Words&) {
             return std::to_string(objects.session->opt133Value);
         }}},
        {"filter", {filter}},
        {"KSConfigInitWithAgentCfg", {configure}},
        {"MBCreateVa", {createVariadic}},
    };
    return kRows;
}
