// What a query looks for, as the command line names it.
#ifndef TOOLS_MB_FILTER_H
#define TOOLS_MB_FILTER_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "mb.h"

namespace pool {

enum class CriterionKind : uint8_t { Number, LongNumber, Text, HeldText, Character };

/// Criterion k of a filter, for field k of a PO.
struct Criterion {
    const char* name;  ///< of the field
    CriterionKind kind;
    size_t offset;    ///< in the filter
    size_t capacity;  ///< of a text held in it
};

inline constexpr size_t kCriteria = 26;
extern const std::array<Criterion, kCriteria> kCriterionRows;

/// Values by criterion; empty ones are not given.
using CriterionValues = std::array<std::string, kCriteria>;

/// Whether a value can be one of the criterion: what is wrong with it, else empty.
std::string criterionProblem(const Criterion& row, const std::string& value);

/// Sets a filter, which points into the values.
void setFilter(MBPOFilter& filter, const CriterionValues& values);

}  // namespace pool

#endif
