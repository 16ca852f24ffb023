// What the two files of the scripted platform share.
#ifndef TESTS_SCRIPTED_POOL_H
#define TESTS_SCRIPTED_POOL_H

#include <string>

namespace scripted {

/// The offsets of two names in their tables.
std::string nameOffsets(const char* section, const char* entry);

void forgetReplies();

}  // namespace scripted

#endif
