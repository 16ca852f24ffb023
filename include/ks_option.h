/*
 * Option records, option codes and configuration flags.
 *
 * 1. Options are given as an array of KSOption records with a count, or as code and value pairs in
 *    a variadic list that ends with code 0. A call applies all of its records or none.
 * 2. Records are copied whole. A text is read during the call only and stays the caller's.
 * 3. The code space, 0 to 150, is shared with other components of the pool: codes below 128 and
 *    the codes without a name here belong to those components and are ignored where they may
 *    appear.
 */
#ifndef KS_OPTION_H
#define KS_OPTION_H

#include <stdint.h>

/* One option with its value. */
typedef struct KSOption {
    uint32_t code; /* KS_OPT_... */
    union {
        uint64_t number;  /* integer options */
        const char* text; /* text options, NUL-terminated */
    } value;              /* the member that the code uses */
} KSOption;

/* The codes that the library knows. */
enum KSOptionCode {
    KS_OPT_LOGIN = 129,           /* text, up to 255 characters: login for SPA and MBS */
    KS_OPT_PASSWORD = 130,        /* text, up to 255 characters: password for SPA and MBS */
    KS_OPT_APPLICATION = 132,     /* text, 1 to 255 characters: name of the calling application */
    KS_OPT_133 = 133,             /* 64-bit integer, recorded in a session */
    KS_OPT_ROUTE_TABLE_DIR = 134, /* text, up to 4063 characters: folder of the route tables */
    KS_OPT_SPA_URL = 137,         /* text, 1 to 1023 characters: URL of the SPA server */
    KS_OPT_MBS_URL = 138,         /* text, up to 1023 characters: URL of the Metabase server */
    KS_OPT_WS_7 = 144,            /* 32-bit integer, passed on as transport option 7 */
    KS_OPT_WS_8 = 145,            /* 32-bit integer, passed on as transport option 8 */
    KS_OPT_FP_TYPE = 148,         /* 32-bit integer: fingerprint type */
    KS_OPT_DO_TYPE = 149,         /* 32-bit integer: DO type */
    KS_OPT_LAST = 150             /* highest code of the shared space */
};

/* Which fields of an agent configuration hold a value. */
enum KSConfigFlag {
    KS_CFG_STORAGE_POOL_ID = 0x1,
    KS_CFG_APPLICATION = 0x2,
    KS_CFG_AGENT_ID = 0x4,
    KS_CFG_LOGIN = 0x8,
    KS_CFG_PASSWORD = 0x10,
    KS_CFG_SPA_URL = 0x20,
    KS_CFG_MBS_URL = 0x40,
    KS_CFG_ROUTE_TABLES = 0x80,
    KS_CFG_CONFIG_FILE = 0x100,
    KS_CFG_FP_TYPE = 0x200,
    KS_CFG_SSL_KEY = 0x400
};

#endif
