/* Which files are the same? Reads the output of sha256sum; the cache is its only table.
 *
 *     cc cache.c $(pkg-config --cflags --libs kspool) -o cache
 *     find /usr/share -type f -exec sha256sum {} + | ./cache
 */
#include <stdio.h>
#include <string.h>

#include "kscache.h"

int main(void) {
    char line[4096];
    unsigned long number = 0, same = 0;
    KSCache* cache = KSCacheCreate(KSCacheAreaFor(1000000), KSCacheBitsFor(1000000), 0, NULL, NULL);
    if (cache == NULL) return 1;
    while (fgets(line, sizeof line, stdin) != NULL) {
        unsigned char digest[32];
        uint64_t first = 0;
        int i = 0;
        if (strlen(line) < 67) continue; /* a digest, two blanks, a name */
        while (i < 32 && sscanf(line + 2 * i, "%2hhx", &digest[i]) == 1)
            ++i;
        if (i < 32) continue; /* not a digest */
        ++number;
        if (KSCacheExists(cache, digest, 3, &first) == CR_STATUS_OK) {
            printf("line %lu is line %lu again: %s", number, (unsigned long)first, line + 66);
            ++same;
        } else if (KSCacheAdd(cache, digest, 3, number, NULL) != CR_STATUS_OK) {
            return 1;
        }
    }
    printf("%lu files, %lu of them again\n", number, same);
    KSCacheDestroy(cache);
    return 0;
}
