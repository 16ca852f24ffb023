// Files, directories and the server's clock: one request each. No state beyond the session's.
#include <cstring>

#include "mb/mb_request.h"

namespace kspool {
namespace {

uint32_t fromTo(MBSession* session, Op op, const char* source, const char* destination,
                uint32_t recursive) {
    if (const uint32_t bad = checkArguments(session, source, destination)) return bad;
    Answer answer;
    return carryOut(*session, op, answer, "source", source, "destination", destination, "recursive",
                    recursive);
}

}  // namespace
}  // namespace kspool

using namespace kspool;

uint32_t MBDirCreate(MBSession* session, const char* path) noexcept {
    if (const uint32_t bad = checkArguments(session, path)) return bad;
    Answer answer;
    return carryOut(*session, Op::kDirCreate, answer, "path", path);
}

uint32_t MBFileCopy(MBSession* session, const char* source, const char* destination,
                    uint32_t recursive) noexcept {
    return fromTo(session, Op::kFileCopy, source, destination, recursive);
}

uint32_t MBFileMove(MBSession* session, const char* source, const char* destination,
                    uint32_t recursive) noexcept {
    return fromTo(session, Op::kFileMove, source, destination, recursive);
}

uint32_t MBFileDelete(MBSession* session, const char* path, uint32_t recursive) noexcept {
    if (const uint32_t bad = checkArguments(session, path)) return bad;
    Answer answer;
    return carryOut(*session, Op::kFileDelete, answer, "path", path, "recursive", recursive);
}

uint32_t MBDirList(MBSession* session, const char* path, char** listing, size_t* length,
                   uint32_t recursive) noexcept {
    if (const uint32_t bad = checkArguments(session, listing, path)) return bad;
    *listing = nullptr;
    if (length != nullptr) *length = 0;
    Answer answer;
    const uint32_t status =
        carryOut(*session, Op::kDirList, answer, "path", path, "recursive", recursive);
    if (status != CR_STATUS_OK) return status;
    *listing = answer.takeData();
    if (length != nullptr && *listing != nullptr) *length = strlen(*listing) + 1;
    return CR_STATUS_OK;
}

uint32_t MBGetTime(MBSession* session, uint32_t* serverTime) noexcept {
    if (const uint32_t bad = checkArguments(session, serverTime)) return bad;
    *serverTime = 0;
    Answer answer;
    const uint32_t status = carryOut(*session, Op::kGetTime, answer);
    if (status == CR_STATUS_OK && answer.data != nullptr) {
        *serverTime = static_cast<uint32_t>(leadingNumber(answer.data));
    }
    return status;
}
