#include "tools/mb/filter.h"

#include <charconv>
#include <cstring>

namespace pool {
namespace {

using K = CriterionKind;

template <typename Number>
bool parse(const std::string& text, Number& number) {
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    return result.ec == std::errc() && result.ptr == end;
}

template <typename Value>
void put(MBPOFilter& filter, const Criterion& row, Value value) {
    memcpy(reinterpret_cast<char*>(&filter) + row.offset, &value, sizeof value);
}

}  // namespace

#define FIELD(k) offsetof(MBPOFilter, criterion##k), sizeof(MBPOFilter::criterion##k)

// clang-format off
const std::array<Criterion, kCriteria> kCriterionRows = {{
    {"dsid", K::Number, FIELD(1)},          {"kind", K::Number, FIELD(2)},
    {"origin", K::HeldText, FIELD(3)},      {"owner", K::Number, FIELD(4)},
    {"group", K::Number, FIELD(5)},         {"client", K::Text, FIELD(6)},
    {"policy", K::Text, FIELD(7)},          {"image", K::Text, FIELD(8)},
    {"folder", K::Text, FIELD(9)},          {"name", K::Text, FIELD(10)},
    {"digest", K::Text, FIELD(11)},         {"type", K::Character, FIELD(12)},
    {"format", K::Text, FIELD(13)},         {"label", K::Text, FIELD(14)},
    {"application", K::HeldText, FIELD(15)}, {"size", K::LongNumber, FIELD(16)},
    {"mtime", K::LongNumber, FIELD(17)},    {"ctime", K::LongNumber, FIELD(18)},
    {"backuptime", K::LongNumber, FIELD(19)}, {"expires", K::LongNumber, FIELD(20)},
    {"segments", K::LongNumber, FIELD(21)}, {"newsegments", K::LongNumber, FIELD(22)},
    {"dcid", K::LongNumber, FIELD(23)},     {"mode", K::Number, FIELD(24)},
    {"flags", K::Number, FIELD(25)},        {"comment", K::Text, FIELD(26)},
}};
// clang-format on
#undef FIELD

std::string criterionProblem(const Criterion& row, const std::string& value) {
    int32_t number = 0;
    int64_t wide = 0;
    if (row.kind == K::Number && !parse(value, number)) return "is no 32-bit number";
    if (row.kind == K::LongNumber && !parse(value, wide)) return "is no number";
    if (row.kind == K::Character && value.size() != 1) return "is not one character";
    if (row.kind == K::HeldText && value.size() >= row.capacity) return "is too long";
    if (value.find('|') != std::string::npos) return "may not hold |";
    return value.empty() ? "may not be empty" : "";
}

void setFilter(MBPOFilter& filter, const CriterionValues& values) {
    filter.size = sizeof filter;
    MBPOFilterInit(&filter);
    for (size_t i = 0; i < kCriteria; ++i) {
        const Criterion& row = kCriterionRows[i];
        const std::string& value = values[i];
        if (value.empty()) continue;
        int32_t number = 0;
        int64_t wide = 0;
        switch (row.kind) {
            case K::Number:
                parse(value, number);
                put(filter, row, number);
                break;
            case K::LongNumber:
                parse(value, wide);
                put(filter, row, wide);
                break;
            case K::Text:
                put(filter, row, value.c_str());
                break;
            case K::HeldText:
                strncpy(reinterpret_cast<char*>(&filter) + row.offset, value.c_str(),
                        row.capacity - 1);
                break;
            case K::Character:
                put(filter, row, value[0]);
                break;
        }
    }
}

}  // namespace pool
