/*
 * The web-service transport: the option records it takes. Its texts are copied when they are set.
 */
#ifndef PLATFORM_WS_H
#define PLATFORM_WS_H

#include <stdint.h>

typedef struct WSOption {
    uint32_t code; /* WS_OPT_... */
    union {
        int64_t number;
        const char* text;
    } value;
} WSOption;

enum WSOptionCode {
    WS_OPT_SERVER_URL = 0,         /* text; a list of pairs ends with 0, so only by array */
    WS_OPT_LOGIN = 1,              /* text */
    WS_OPT_PASSWORD = 2,           /* text */
    WS_OPT_7 = 7,                  /* integer */
    WS_OPT_8 = 8,                  /* integer */
    WS_OPT_RESPONSE_TIMEOUT = 9,   /* integer, seconds for one request; 0 or less: no limit */
    WS_OPT_SSL_KEY_LOCATION = 11,  /* text */
    WS_OPT_RECONNECT_TIMEOUT = 12, /* integer, seconds */
    WS_OPT_LAST = 12
};

#endif
