// The PO library's stand-in.
#include <cstdlib>

#include "platform/po.h"

void POReset(PO* po) noexcept {
    free(po->text);
    po->text = nullptr;
}
