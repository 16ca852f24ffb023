// The filter of a query: its defaults, which match everything, and its form on the wire.
#include <cstdio>
#include <initializer_list>

#include "mb/mb_int.h"

namespace kspool {
namespace {

constexpr char kAny[] = "*";

MBPOFilter defaultFilter() {
    MBPOFilter filter{};
    filter.size = sizeof filter;
    for (const char** text :
         {&filter.criterion0, &filter.criterion6, &filter.criterion7, &filter.criterion8,
          &filter.criterion9, &filter.criterion10, &filter.criterion11, &filter.criterion13,
          &filter.criterion14, &filter.criterion26}) {
        *text = kAny;
    }
    for (int64_t* number :
         {&filter.criterion16, &filter.criterion17, &filter.criterion18, &filter.criterion19,
          &filter.criterion20, &filter.criterion21, &filter.criterion22, &filter.criterion23}) {
        *number = -1;
    }
    for (int32_t* number :
         {&filter.criterion4, &filter.criterion5, &filter.criterion24, &filter.criterion25}) {
        *number = -1;
    }
    filter.criterion12 = kAny[0];
    filter.criterion15[0] = kAny[0];
    return filter;
}

}  // namespace

int _mbFilterToStringPrint(char* buffer, size_t size, const MBPOFilter* filter) noexcept {
    const MBPOFilter& f = *filter;
    const auto wide = [](int64_t number) { return static_cast<long>(number); };
    const int length = snprintf(
        buffer, size,
        "%i|%i|%s|%i|%i|%s|%s|%s|%s|%s|%s|%c|%s|%s|%s|%li|%li|%li|%li|%li|%li|%li|%li|%i|%i|%s",
        f.criterion1, f.criterion2, f.criterion3, f.criterion4, f.criterion5, f.criterion6,
        f.criterion7, f.criterion8, f.criterion9, f.criterion10, f.criterion11, f.criterion12,
        f.criterion13, f.criterion14, f.criterion15, wide(f.criterion16), wide(f.criterion17),
        wide(f.criterion18), wide(f.criterion19), wide(f.criterion20), wide(f.criterion21),
        wide(f.criterion22), wide(f.criterion23), f.criterion24, f.criterion25, f.criterion26);
    if (length < 0) storeSystemError("_mbFilterToStringPrint", kMbSource);
    return length;
}

}  // namespace kspool

using namespace kspool;

uint32_t MBPOFilterInit(MBPOFilter* filter) noexcept {
    if (filter == nullptr || filter->size != sizeof *filter) return CR_STATUS_INVALID_PARAMETER;
    *filter = defaultFilter();
    return CR_STATUS_OK;
}
