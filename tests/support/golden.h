// The commands of transcripts: calls of the libraries, and preparations.
#ifndef TESTS_GOLDEN_H
#define TESTS_GOLDEN_H

#include "tests/support/operations.h"

namespace golden {

using operations::Objects;
using operations::Operation;
using operations::Operations;
using operations::Words;

/// A command that prepares something and says nothing.
inline Operation quietly(void (*prepare)(Objects&, const Words&)) {
    return {[=](Objects& objects, const Words& words) {
        prepare(objects, words);
        return std::string();
    }};
}

const Operations& cacheCommands();
const Operations& sessionCommands();

}  // namespace golden

#endif
