// The PO library's stand-in. A PO is a copy of its line; POGetField() searches for a field.
// Thread rule: one thread at a time per PO.
#include <cstdlib>
#include <cstring>

#include "cr_status.h"
#include "platform/po.h"
#include "platform/status.h"

namespace {

constexpr char kSeparator = '|';

int fail(uint32_t status) {
    *__cr_errno_location() = status;
    return -1;
}

}  // namespace

void POReset(PO* po) noexcept {
    free(po->text);
    po->text = nullptr;
}

void POSetStype(PO* po, uint32_t stype) noexcept {
    po->stype = stype;
}

int POSetFromNonConstString(PO* po, char* line) noexcept {
    POReset(po);
    if (strchr(line, kSeparator) == nullptr) return fail(CR_STATUS_BAD_HANDLE);
    po->text = strdup(line);
    return po->text != nullptr ? 0 : fail(CR_STATUS_NO_MEMORY);
}

const char* POGetField(const PO* po, uint32_t index, size_t* length) noexcept {
    const char* field = po->text;
    for (; field != nullptr && index > 0; --index) {
        field = strchr(field, kSeparator);
        if (field != nullptr) ++field;
    }
    if (field != nullptr) *length = static_cast<size_t>(strchrnul(field, kSeparator) - field);
    return field;
}
