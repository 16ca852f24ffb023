// A condition without which a program of its own cannot go on. Test programs of the framework have
// its macros.
#ifndef TESTS_MUST_H
#define TESTS_MUST_H

#include <cstdio>
#include <cstdlib>

#define MUST(condition) ((condition) ? void() : brokenCondition(#condition, __FILE__, __LINE__))

[[noreturn]] inline void brokenCondition(const char* condition, const char* file, int line) {
    fprintf(stderr, "%s:%d: %s does not hold\n", file, line, condition);
    abort();
}

#endif
