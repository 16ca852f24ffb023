// The criteria of a query, as options of the command line.
#ifndef TOOLS_MB_FILTER_H
#define TOOLS_MB_FILTER_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "mb.h"

namespace mb {

/// How a filter stores a criterion. kText is a pointer to the caller's text; kHeldText is an array
/// in the filter itself.
enum class CriterionKind : uint8_t { kNumber, kLongNumber, kText, kHeldText, kCharacter };

/// Criterion k of a filter, for field k of a PO.
struct Criterion {
    const char* name;  ///< of the field
    CriterionKind kind;
    size_t offset;    ///< in the filter
    size_t capacity;  ///< of the filter's member: for kHeldText, bytes with the NUL
};

inline constexpr size_t kCriteria = 26;
extern const std::array<Criterion, kCriteria> kCriterionRows;

/// Values by criterion; an empty value means that the criterion is not set.
using CriterionValues = std::array<std::string, kCriteria>;

/// Why a value is invalid for a criterion; nullopt if it is valid.
std::optional<std::string> criterionProblem(const Criterion& row, const std::string& value);

/// Sets a filter, which points into the values: they must outlive it. Each value must have passed
/// criterionProblem().
void setFilter(MBPOFilter& filter, const CriterionValues& values);

}  // namespace mb

#endif
