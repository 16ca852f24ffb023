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
    const auto codes = [](ConfigText text, uint32_t capacity) {
        return codesThat([=](const OptionRow& row) {
            return row.field != ConfigField::None && row.text == text && row.capacity == capacity;
        });
    };
    EXPECT_EQ(codes(ConfigText::MayBeEmpty, 256), (Codes{129, 130}));
    EXPECT_EQ(codes(ConfigText::MayBeEmpty, 1024), (Codes{138}));
    EXPECT_EQ(codes(ConfigText::NonEmpty, 256), (Codes{132}));
    EXPECT_EQ(codes(ConfigText::NonEmpty, 1024), (Codes{137}));
    EXPECT_EQ(codes(ConfigText::ClearsIfNone, 4064), (Codes{134}));
    EXPECT_EQ(codes(ConfigText::NotText, 0), (Codes{148, 149}));
}

}  // namespace
