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
    // codes                                           variadic     session       refresh transport  field               text             below
    {0, 0,                                             V::EndsList, S::CrOnly,    false, kNoCode,    F::None,            T::NotText,         0},
    {1, 127,                                           V::Refused,  S::CrOnly,    false, kNoCode,    F::None,            T::NotText,         0},
    {128, 128,                                         V::Refused,  S::Ignored,   false, kNoCode,    F::None,            T::NotText,         0},
    {KS_OPT_LOGIN, KS_OPT_LOGIN,                       V::Word64,   S::Forwarded, true,  kNoCode,    F::Login,           T::MayBeEmpty,    256},
    {KS_OPT_PASSWORD, KS_OPT_PASSWORD,                 V::Word64,   S::Forwarded, true,  kNoCode,    F::Password,        T::MayBeEmpty,    256},
    {131, 131,                                         V::Word64,   S::SpOnly,    false, kNoCode,    F::None,            T::NotText,         0},
    {KS_OPT_APPLICATION, KS_OPT_APPLICATION,           V::Word64,   S::Forwarded, false, kNoCode,    F::ApplicationName, T::NonEmpty,      256},
    {KS_OPT_133, KS_OPT_133,                           V::Word64,   S::Recorded,  false, kNoCode,    F::None,            T::NotText,         0},
    {KS_OPT_ROUTE_TABLE_DIR, KS_OPT_ROUTE_TABLE_DIR,   V::Word64,   S::Forwarded, false, kNoCode,    F::RouteTableDir,   T::ClearsIfNone, 4064},
    {135, 136,                                         V::Word32,   S::SpOnly,    false, kNoCode,    F::None,            T::NotText,         0},
    {KS_OPT_SPA_URL, KS_OPT_SPA_URL,                   V::Word64,   S::Forwarded, false, kNoCode,    F::SpaUrl,          T::NonEmpty,     1024},
    {KS_OPT_MBS_URL, KS_OPT_MBS_URL,                   V::Word64,   S::Forwarded, true,  kNoCode,    F::MbsUrl,          T::MayBeEmpty,   1024},
    {139, 140,                                         V::Word64,   S::SpOnly,    false, kNoCode,    F::None,            T::NotText,         0},
    {141, 143,                                         V::Refused,  S::Forwarded, false, kNoCode,    F::None,            T::NotText,         0},
    {KS_OPT_WS_7, KS_OPT_WS_7,                         V::Word32,   S::Transport, true,  WS_OPT_7,   F::None,            T::NotText,         0},
    {KS_OPT_WS_8, KS_OPT_WS_8,                         V::Word32,   S::Transport, true,  WS_OPT_8,   F::None,            T::NotText,         0},
    {146, 146,                                         V::Word64,   S::SpOnly,    false, kNoCode,    F::None,            T::NotText,         0},
    {147, 147,                                         V::Word32,   S::SpOnly,    false, kNoCode,    F::None,            T::NotText,         0},
    {KS_OPT_FP_TYPE, KS_OPT_FP_TYPE,                   V::Word32,   S::SpOnly,    false, kNoCode,    F::FingerprintType, T::NotText,         0},
    {KS_OPT_DO_TYPE, KS_OPT_DO_TYPE,                   V::Word32,   S::SpOnly,    false, kNoCode,    F::DoType,          T::NotText,         0},
    {KS_OPT_LAST, KS_OPT_LAST,                         V::Refused,  S::Ignored,   false, kNoCode,    F::None,            T::NotText,         0},
    {KS_OPT_LAST + 1, kCodeEnd,                        V::Refused,  S::Rejected,  false, kNoCode,    F::None,            T::NotText,         0},
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
