// The option table against the sets that its consumers are described by.
#include <gtest/gtest.h>

#include <set>

#include "common/option_table.h"
#include "platform/ws.h"

using namespace kspool;

namespace {

using Codes = std::set<uint32_t>;

template <typename Wanted>
Codes codesThat(Wanted wanted) {
    Codes codes;
    for (uint32_t code = 0; code <= 160; ++code) {
        const OptionRow& row = optionRow(code);
        EXPECT_TRUE(row.first <= code && code <= row.last) << code;
        if (wanted(row)) codes.insert(code);
    }
    return codes;
}

Codes range(uint32_t first, uint32_t last, const Codes& without = {}) {
    Codes codes;
    for (uint32_t code = first; code <= last; ++code) {
        if (without.count(code) == 0) codes.insert(code);
    }
    return codes;
}

TEST(OptionTable, VariadicLists) {
    const auto read = [](VaValue value) {
        return codesThat([=](const OptionRow& row) { return row.vaValue == value; });
    };
    EXPECT_EQ(read(VaValue::EndsList), (Codes{0}));
    EXPECT_EQ(read(VaValue::Word32), (Codes{135, 136, 144, 145, 147, 148, 149}));
    EXPECT_EQ(read(VaValue::Word64), range(129, 146, {135, 136, 141, 142, 143, 144, 145}));
}

TEST(OptionTable, SessionOptions) {
    const auto used = [](SessionUse use) {
        return codesThat([=](const OptionRow& row) { return row.session == use; });
    };
    EXPECT_EQ(used(SessionUse::CrOnly), range(0, 127));
    EXPECT_EQ(used(SessionUse::SpOnly), (Codes{131, 135, 136, 139, 140, 146, 147, 148, 149}));
    EXPECT_EQ(used(SessionUse::Forwarded), (Codes{129, 130, 132, 134, 137, 138, 141, 142, 143}));
    EXPECT_EQ(used(SessionUse::Recorded), (Codes{133}));
    EXPECT_EQ(used(SessionUse::Ignored), (Codes{128, 150}));
    EXPECT_EQ(used(SessionUse::Rejected), range(151, 160));
    EXPECT_EQ(codesThat([](const OptionRow& row) { return row.refreshesTransport; }),
              (Codes{129, 130, 138, 144, 145}));
    for (const auto& [code, transport] : {std::pair{144U, 7U}, {145U, 8U}}) {
        EXPECT_EQ(optionRow(code).session, SessionUse::Transport);
        EXPECT_EQ(optionRow(code).transportCode, transport);
    }
    EXPECT_EQ(optionRow(UINT32_MAX).session, SessionUse::Rejected);
}

TEST(OptionTable, ConfigurationOptions) {
    struct {
        uint32_t code;
        ConfigField field;
        ConfigText text;
        uint32_t below;
    } const kCases[] = {
        {129, ConfigField::Login, ConfigText::MayBeEmpty, 256},
        {130, ConfigField::Password, ConfigText::MayBeEmpty, 256},
        {132, ConfigField::ApplicationName, ConfigText::NonEmpty, 256},
        {134, ConfigField::RouteTableDir, ConfigText::ClearsIfNone, 4064},
        {137, ConfigField::SpaUrl, ConfigText::NonEmpty, 1024},
        {138, ConfigField::MbsUrl, ConfigText::MayBeEmpty, 1024},
        {148, ConfigField::FingerprintType, ConfigText::NotText, 0},
        {149, ConfigField::DoType, ConfigText::NotText, 0},
    };
    Codes codes;
    for (const auto& c : kCases) {
        const OptionRow& row = optionRow(c.code);
        EXPECT_TRUE(row.field == c.field && row.text == c.text && row.capacity == c.below)
            << c.code;
        codes.insert(c.code);
    }
    EXPECT_EQ(codesThat([](const OptionRow& row) { return row.field != ConfigField::None; }),
              codes);
}

}  // namespace
