// Three ways to read the POs of an answer: as one text, PO by PO, line by line. The invariants of a
// cursor are in mb_int.h.
#include <cstdlib>
#include <cstring>

#include "mb/mb_int.h"

namespace kspool {
namespace {

constexpr uint32_t kNoArchMode = 0xFFFFFFFF;
constexpr uint32_t kLegacyStype = 1;

/// Checks the arguments that every query needs, and stores the status of a failure.
uint32_t checkQuery(const MBSession* session, const MBPOFilter* filter) {
    if (session == nullptr) return storeStatus(CR_STATUS_NULL_HANDLE);
    const bool usable = filter != nullptr && filter->size == sizeof *filter;
    return usable ? uint32_t{CR_STATUS_OK} : storeStatus(CR_STATUS_INVALID_PARAMETER);
}

/// A cursor with at least one PO left, or NULL with the status in the slot.
MBPOCursor* findSome(MBSession* session, uint32_t dataselection, const MBPOFilter* filter,
                     const void* output, uint32_t* count) {
    if (output == nullptr) {
        storeStatus(CR_STATUS_INVALID_PARAMETER);
        return nullptr;
    }
    if (checkQuery(session, filter) != CR_STATUS_OK) return nullptr;
    MBPOCursor* cursor = _mbFindFirst(session, dataselection, filter);
    if (cursor == nullptr) return nullptr;
    if (count != nullptr) *count = cursor->poCount;
    if (cursor->poCount > 0) return cursor;
    MBPOFindClose(cursor);
    storeStatus(CR_STATUS_NOT_FOUND);
    return nullptr;
}

/// The line at a cursor, and the start of the next one. When the answer ends without a line end,
/// `next` is the same line again, since a cursor never moves past the NUL.
struct Line {
    char* text;
    char* next;
};

Line cutLine(const MBPOCursor& cursor) {
    char* end = qlxstrpbrk(cursor.nextLine, "\r\n");
    if (end == nullptr) return {cursor.nextLine, cursor.nextLine};
    *end = '\0';
    return {cursor.nextLine, end + 1};
}

void advance(MBPOCursor& cursor, const Line& line) {
    cursor.nextLine = line.next;
    ++cursor.poIndex;
}

bool isAtEnd(const MBPOCursor& cursor) {
    return cursor.nextLine == nullptr || cursor.poIndex == cursor.poCount;
}

/// Converts a line to a PO. On failure logs it and returns false, with the status in the slot.
bool convert(const char* caller, const MBPOCursor& cursor, const Line& line, PO* po) {
    if (POSetFromNonConstString(po, line.text) == 0) return true;
    KS_LOG(statusSlot(), QLX_LEVEL_ERROR,
           "%s: PO conversion failed for result %u out of %u. Unprocessed remainder of PO string = "
           "%s",
           caller, cursor.poIndex, cursor.poCount, line.text);
    return false;
}

void traceRemaining(const char* caller, const MBPOCursor& cursor) {
    KS_TRACE("%s: %u out of %u PO's remaining", caller, cursor.poIndex, cursor.poCount);
}

/// Converts the first line. A legacy server (architecture mode 0) uses another serialization, which
/// the PO record remembers for later conversions. False with the status in the slot.
bool convertFirst(MBSession* session, const MBPOCursor& cursor, const Line& line, PO* po) {
    POReset(po);
    const uint32_t mode = WSArchMode(session->transport);
    if (mode == kNoArchMode) return false;
    if (mode == 0) {
        KS_LOG(CR_STATUS_OK, QLX_LEVEL_NOTE, "%s: Legacy PO, set serialize type to V0 for %s",
               "MBPOFindFirst", line.text);
        POSetStype(po, kLegacyStype);
    }
    return convert("MBPOFindFirst", cursor, line, po);
}

}  // namespace
}  // namespace kspool

using namespace kspool;

uint32_t MBPOFind(MBSession* session, uint32_t dataselection, const MBPOFilter* filter, char** text,
                  size_t* length, uint32_t* count) noexcept {
    if (text == nullptr) return storeStatus(CR_STATUS_NULL_OUTPUT);
    *text = nullptr;
    if (length != nullptr) *length = 0;
    if (count != nullptr) *count = 0;
    if (const uint32_t bad = checkQuery(session, filter)) return bad;
    MBPOCursor* cursor = _mbFindFirst(session, dataselection, filter);
    if (cursor == nullptr) return statusSlot();
    if (count != nullptr) *count = cursor->poCount;
    const bool found = cursor->poCount > 0;
    if (found) {
        *text = cursor->result.data;
        cursor->result.data = nullptr;
        if (length != nullptr) *length = strlen(*text) + 1;
    }
    MBPOFindClose(cursor);
    return found ? CR_STATUS_OK : CR_STATUS_NOT_FOUND;
}

MBPOCursor* MBPOFindFirst(MBSession* session, uint32_t dataselection, const MBPOFilter* filter,
                          PO* po, uint32_t* count) noexcept {
    MBPOCursor* cursor = findSome(session, dataselection, filter, po, count);
    if (cursor == nullptr) return nullptr;
    const Line line = cutLine(*cursor);
    if (!convertFirst(session, *cursor, line, po)) {
        MBPOFindClose(cursor);
        return nullptr;
    }
    advance(*cursor, line);
    return cursor;
}

uint32_t MBPOFindNext(MBPOCursor* cursor, PO* po) noexcept {
    if (cursor == nullptr || po == nullptr) return CR_STATUS_INVALID_PARAMETER;
    if (isAtEnd(*cursor)) return CR_STATUS_NOT_FOUND;
    const Line line = cutLine(*cursor);
    POReset(po);
    const uint32_t status =
        convert("MBPOFindNext", *cursor, line, po) ? uint32_t{CR_STATUS_OK} : statusSlot();
    advance(*cursor, line);
    traceRemaining("MBPOFindNext", *cursor);
    return status;
}

MBPOCursor* MBPOStringFindFirst(MBSession* session, uint32_t dataselection,
                                const MBPOFilter* filter, char** line, uint32_t* count) noexcept {
    MBPOCursor* cursor = findSome(session, dataselection, filter, line, count);
    if (cursor == nullptr) return nullptr;
    const Line first = cutLine(*cursor);
    *line = first.text;
    advance(*cursor, first);
    return cursor;
}

uint32_t MBPOStringFindNext(MBPOCursor* cursor, char** line) noexcept {
    if (cursor == nullptr || line == nullptr) return CR_STATUS_INVALID_PARAMETER;
    if (isAtEnd(*cursor)) return CR_STATUS_NOT_FOUND;
    const Line next = cutLine(*cursor);
    *line = next.text;
    advance(*cursor, next);
    traceRemaining("MBPOStringFindNext", *cursor);
    return CR_STATUS_OK;
}

void MBPOFindClose(MBPOCursor* cursor) noexcept {
    if (cursor == nullptr) return;
    free(cursor->result.data);
    free(cursor);
}
