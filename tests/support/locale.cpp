// Gives a test program the locale that KSPOOL_TEST_LOCALE names, before anything else runs: nothing
// that the library decides, sends or reads may depend on it.
#include <clocale>
#include <cstdlib>

#include "tests/support/must.h"

[[gnu::constructor]] static void enterLocale() {
    const char* name = getenv("KSPOOL_TEST_LOCALE");
    MUST(name == nullptr || setlocale(LC_ALL, name) != nullptr);
}
