// A configuration file of any bytes, and options on top of it. Every text of the record ends in its
// field, and options are applied whole or not at all.
#include <cstring>
#include <iterator>

#include "ks.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/operations.h"

namespace {

void check(const KSConfig& config) {
    for (const auto& [name, text] : operations::textsOf(config))
        MUST(memchr(text.data(), '\0', text.size()) != nullptr);
    MUST(config.reconnectTimeout >= 0 && config.reconnectTimeout <= 3600);
    MUST((config.flags & ~0x7ffU) == 0);
    _ksDump(&config);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    static constexpr uint32_t kTexts[] = {KS_OPT_LOGIN,       KS_OPT_PASSWORD,
                                          KS_OPT_APPLICATION, KS_OPT_ROUTE_TABLE_DIR,
                                          KS_OPT_SPA_URL,     KS_OPT_MBS_URL};
    static const fuzz::ScratchFile file("kspool-fuzz-configuration");
    fuzz::discardMessages();
    fuzz::Input input(bytes, size);
    KSOption options[4] = {};
    std::string texts[std::size(options)];
    const uint32_t count = input.below(std::size(options) + 1);
    for (uint32_t i = 0; i < count; ++i) {
        const bool isText = input.below(3) != 0;
        texts[i] = isText ? std::string(input.byte() * 17U, 'x') + input.text() : "";
        options[i].code = isText ? kTexts[input.below(std::size(kTexts))] : input.byte();
        options[i].value.text = isText ? texts[i].c_str() : nullptr;
    }
    file.hold(input.all());
    KSConfig config;
    KSConfigInitWithAgentCfg(&config, file.path());
    check(config);
    const KSConfig before = config;
    if (KSConfigSet(&config, options, count) != 0) {
        MUST(memcmp(&before, &config, sizeof config) == 0);
    }
    check(config);
    return 0;
}
