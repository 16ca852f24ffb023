// A configuration file of any bytes, in any locale, beside a plain reading of it; and options on
// top of it. Every text of the record ends in its field, and options are applied whole or not at
// all.
#include <charconv>
#include <clocale>
#include <cstring>
#include <iterator>
#include <map>

#include "common/ascii.h"
#include "ks.h"
#include "platform/ini.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/operations.h"

/// The system keeps the place of locales that an environment names, and loses it.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions() {
    return "leak:argz_add_sep";
}

namespace {

void check(const KSConfig& config) {
    for (const auto& [name, text] : operations::textsOf(config))
        MUST(memchr(text.data(), '\0', text.size()) != nullptr);
    MUST(config.reconnectTimeout >= 0 && config.reconnectTimeout <= 3600);
    MUST((config.flags & ~0x7ffU) == 0);
    _ksDump(&config);
}

std::string bare(std::string text) {
    constexpr char kBlank[] = " \t\v\f\r";
    text.erase(0, text.find_first_not_of(kBlank));
    return text.substr(0, text.find_last_not_of(kBlank) + 1);
}

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), kspool::asciiLower);
    return bare(text);
}

/// The values by "section\nentry".
std::map<std::string, std::string> plainly(std::string bytes) {
    static const std::string kPassedOver(" \t\v\f\r\0\xef\xbb\xbf", 9);
    std::map<std::string, std::string> values;
    std::string section;
    if (bytes.starts_with("\xef\xbb\xbf")) bytes.erase(0, 3);
    for (size_t at = 0, end = 0; at < bytes.size(); at = end + 1) {
        end = std::min(bytes.find('\n', at), bytes.size());
        const std::string text = bare(bytes.substr(at, end - at));
        const size_t close = text.find(']'), equals = text.find('='), size = text.size();
        const std::string behind = close < size ? bare(text.substr(close + 1)) : "x";
        const bool isHeader = text.starts_with('[');
        const bool isLine = end - at <= 65536 && text.find('\0') >= size && text.find('\r') >= size;
        if (isLine && (text.empty() || strchr("#;", text[0]) != nullptr)) continue;
        if (isLine && isHeader && strchr("#;", behind.c_str()[0]) != nullptr) {
            section = lower(text.substr(1, close - 1)) + "\n";
        } else if (isLine && !isHeader && equals < size) {
            std::string value = bare(text.substr(equals + 1));
            if (value.size() > 1 && value.front() == '"' && value.back() == '"')
                value = value.substr(1, value.size() - 2);
            values.emplace(section + lower(text.substr(0, equals)), value);
        } else if (const size_t first = text.find_first_not_of(kPassedOver); first < size) {
            // What may be meant as a header, or hides one, ends the section.
            if (text[first] == '[' || text.back() == ']' || text.find('\r') < size) section = "\r";
        }
    }
    return values;
}

/// What a directive has is what the plain reading has.
void compare(const std::map<std::string, std::string>& plain, const char* file) {
    static constexpr int kDirectives[][2] = {{INI_SECTION_PRODUCT, INI_ENTRY_LABEL},
                                             {INI_SECTION_SPA, INI_ENTRY_URL},
                                             {INI_SECTION_POOL, INI_ENTRY_POOL_ID},
                                             {INI_SECTION_FINGERPRINTS, INI_ENTRY_TYPE}};
    for (const auto& [sectionAt, entryAt] : kDirectives) {
        const char* section = _qlx_config_section_string_table_ + sectionAt;
        const char* entry = _qlx_config_entry_string_table_ + entryAt;
        const auto found = plain.find(section + ("\n" + std::string(entry)));
        std::string wanted = found != plain.end() ? found->second : "";
        char value[1024];
        InifileGetValueA(section, entry, value, sizeof value - 1, "", file);
        MUST(value == wanted.substr(0, sizeof value - 1));
        wanted = bare(wanted);
        const bool isPlus = wanted.starts_with('+') && isdigit(wanted.c_str()[1]) != 0;
        int64_t number = 0, most = wanted.starts_with('-') ? INT64_MIN : INT64_MAX;
        const auto [end, error] =
            std::from_chars(wanted.data() + isPlus, wanted.data() + wanted.size(), most);
        const bool isGiven = InifileGetLongLongA(section, entry, &number, 0, file) != 0;
        MUST(isGiven == (error != std::errc::invalid_argument) && (!isGiven || number == most));
    }
}

/// C, and where the system has them: one whose I is no capital of i, and one with decimal commas.
void enterLocale(size_t which) {
    static locale_t locales[3];
    if (locales[0] == nullptr) {
        const char* const names[] = {"C", "tr_TR.UTF-8", "de_DE.UTF-8"};
        for (size_t i = 0; i < std::size(names); ++i)
            locales[i] = newlocale(LC_ALL_MASK, names[i], nullptr);
    }
    uselocale(locales[which] != nullptr ? locales[which] : locales[0]);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    static constexpr uint32_t kTexts[] = {KS_OPT_LOGIN,       KS_OPT_PASSWORD,
                                          KS_OPT_APPLICATION, KS_OPT_ROUTE_TABLE_DIR,
                                          KS_OPT_SPA_URL,     KS_OPT_MBS_URL};
    static const fuzz::ScratchFile file("kspool-fuzz-configuration");
    fuzz::discardMessages();
    enterLocale(size % 3);
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
    std::string contents = input.all();
    // A byte that stands for most of a line of the longest length.
    const size_t stretched = contents.find('\x1a');
    if (stretched < contents.size()) contents.replace(stretched, 1, 65520, 'x');
    file.hold(contents);
    compare(plainly(contents), file.path());
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
