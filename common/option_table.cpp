// The table of the option codes, and the proof that it is complete.
#include "common/option_table.h"

#include <algorithm>
#include <iterator>

#include "platform/ws.h"

namespace kspool {
namespace {

constexpr uint32_t kNoCode = 0;
constexpr uint32_t kCodeEnd = UINT32_MAX;

using V = VaValue;
using S = SessionUse;
using F = ConfigField;
using T = ConfigText;

// clang-format off
constexpr OptionRow kRows[] = {
    // codes                                           variadic      session        refresh transport  field                text              below
    {0, 0,                                             V::kEndsList, S::kCrOnly,    false, kNoCode,    F::kNone,            T::kNotText,         0},
    {1, 127,                                           V::kRefused,  S::kCrOnly,    false, kNoCode,    F::kNone,            T::kNotText,         0},
    {128, 128,                                         V::kRefused,  S::kIgnored,   false, kNoCode,    F::kNone,            T::kNotText,         0},
    {KS_OPT_LOGIN, KS_OPT_LOGIN,                       V::kWord64,   S::kForwarded, true,  kNoCode,    F::kLogin,           T::kMayBeEmpty,    256},
    {KS_OPT_PASSWORD, KS_OPT_PASSWORD,                 V::kWord64,   S::kForwarded, true,  kNoCode,    F::kPassword,        T::kMayBeEmpty,    256},
    {131, 131,                                         V::kWord64,   S::kSpOnly,    false, kNoCode,    F::kNone,            T::kNotText,         0},
    {KS_OPT_APPLICATION, KS_OPT_APPLICATION,           V::kWord64,   S::kForwarded, false, kNoCode,    F::kApplicationName, T::kNonEmpty,      256},
    {KS_OPT_133, KS_OPT_133,                           V::kWord64,   S::kRecorded,  false, kNoCode,    F::kNone,            T::kNotText,         0},
    {KS_OPT_ROUTE_TABLE_DIR, KS_OPT_ROUTE_TABLE_DIR,   V::kWord64,   S::kForwarded, false, kNoCode,    F::kRouteTableDir,   T::kClearsIfNone, 4064},
    {135, 136,                                         V::kWord32,   S::kSpOnly,    false, kNoCode,    F::kNone,            T::kNotText,         0},
    {KS_OPT_SPA_URL, KS_OPT_SPA_URL,                   V::kWord64,   S::kForwarded, false, kNoCode,    F::kSpaUrl,          T::kNonEmpty,     1024},
    {KS_OPT_MBS_URL, KS_OPT_MBS_URL,                   V::kWord64,   S::kForwarded, true,  kNoCode,    F::kMbsUrl,          T::kMayBeEmpty,   1024},
    {139, 140,                                         V::kWord64,   S::kSpOnly,    false, kNoCode,    F::kNone,            T::kNotText,         0},
    {141, 143,                                         V::kRefused,  S::kForwarded, false, kNoCode,    F::kNone,            T::kNotText,         0},
    {KS_OPT_WS_7, KS_OPT_WS_7,                         V::kWord32,   S::kTransport, true,  WS_OPT_7,   F::kNone,            T::kNotText,         0},
    {KS_OPT_WS_8, KS_OPT_WS_8,                         V::kWord32,   S::kTransport, true,  WS_OPT_8,   F::kNone,            T::kNotText,         0},
    {146, 146,                                         V::kWord64,   S::kSpOnly,    false, kNoCode,    F::kNone,            T::kNotText,         0},
    {147, 147,                                         V::kWord32,   S::kSpOnly,    false, kNoCode,    F::kNone,            T::kNotText,         0},
    {KS_OPT_FP_TYPE, KS_OPT_FP_TYPE,                   V::kWord32,   S::kSpOnly,    false, kNoCode,    F::kFingerprintType, T::kNotText,         0},
    {KS_OPT_DO_TYPE, KS_OPT_DO_TYPE,                   V::kWord32,   S::kSpOnly,    false, kNoCode,    F::kDoType,          T::kNotText,         0},
    {KS_OPT_LAST, KS_OPT_LAST,                         V::kRefused,  S::kIgnored,   false, kNoCode,    F::kNone,            T::kNotText,         0},
    {KS_OPT_LAST + 1, kCodeEnd,                        V::kRefused,  S::kRejected,  false, kNoCode,    F::kNone,            T::kNotText,         0},
};
// clang-format on

constexpr bool coversEveryCodeOnce() {
    for (size_t i = 0; i < std::size(kRows); ++i) {
        if (kRows[i].first > kRows[i].last) return false;
        if (kRows[i].first != (i == 0 ? 0 : kRows[i - 1].last + 1)) return false;
    }
    return kRows[std::size(kRows) - 1].last == kCodeEnd;
}
static_assert(coversEveryCodeOnce());

}  // namespace

const OptionRow& optionRow(uint32_t code) noexcept {
    return *std::find_if(std::begin(kRows), std::end(kRows),
                         [=](const OptionRow& row) { return code <= row.last; });
}

}  // namespace kspool
