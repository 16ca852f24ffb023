#include "tools/mb/filter.h"

#include <charconv>
#include <cstring>

namespace mb {
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
    {"dsid", K::kNumber, FIELD(1)},          {"kind", K::kNumber, FIELD(2)},
    {"origin", K::kHeldText, FIELD(3)},      {"owner", K::kNumber, FIELD(4)},
    {"group", K::kNumber, FIELD(5)},         {"client", K::kText, FIELD(6)},
    {"policy", K::kText, FIELD(7)},          {"image", K::kText, FIELD(8)},
    {"folder", K::kText, FIELD(9)},          {"name", K::kText, FIELD(10)},
    {"digest", K::kText, FIELD(11)},         {"type", K::kCharacter, FIELD(12)},
    {"format", K::kText, FIELD(13)},         {"label", K::kText, FIELD(14)},
    {"application", K::kHeldText, FIELD(15)}, {"size", K::kLongNumber, FIELD(16)},
    {"mtime", K::kLongNumber, FIELD(17)},    {"ctime", K::kLongNumber, FIELD(18)},
    {"backuptime", K::kLongNumber, FIELD(19)}, {"expires", K::kLongNumber, FIELD(20)},
    {"segments", K::kLongNumber, FIELD(21)}, {"newsegments", K::kLongNumber, FIELD(22)},
    {"dcid", K::kLongNumber, FIELD(23)},     {"mode", K::kNumber, FIELD(24)},
    {"flags", K::kNumber, FIELD(25)},        {"comment", K::kText, FIELD(26)},
}};
// clang-format on
#undef FIELD

std::optional<std::string> criterionProblem(const Criterion& row, const std::string& value) {
    int32_t number = 0;
    int64_t wide = 0;
    if (row.kind == K::kNumber && !parse(value, number)) return "is no 32-bit number";
    if (row.kind == K::kLongNumber && !parse(value, wide)) return "is no number";
    if (row.kind == K::kCharacter && value.size() != 1) return "is not one character";
    if (row.kind == K::kHeldText && value.size() >= row.capacity) return "is too long";
    if (value.find('|') != std::string::npos) return "may not hold |";
    if (value.empty()) return "may not be empty";
    return {};
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
            case K::kNumber:
                parse(value, number);
                put(filter, row, number);
                break;
            case K::kLongNumber:
                parse(value, wide);
                put(filter, row, wide);
                break;
            case K::kText:
                put(filter, row, value.c_str());
                break;
            case K::kHeldText:
                strncpy(reinterpret_cast<char*>(&filter) + row.offset, value.c_str(),
                        row.capacity - 1);
                break;
            case K::kCharacter:
                put(filter, row, value[0]);
                break;
        }
    }
}

}  // namespace mb
