/*
 * KSConfig: the configuration of a backup agent.
 *
 * A configuration holds the URLs, ids, login, fingerprint type and files with which an agent
 * reaches its storage pool. Conventions that hold for every function here:
 *
 * 1. Ownership. The record is the caller's, holds no pointer and may be copied as it stands. Texts
 *    given are read during the call only.
 * 2. Texts in the record are NUL-terminated. `flags` tells which fields hold a value.
 * 3. Secrets. The record holds the password in plain text; no function writes it to a log or trace.
 *    The owner of a record wipes it.
 * 4. Threads. No lock is taken: a record is used by one thread at a time.
 * 5. Status slot. *__cr_errno_location(), declared in platform/status.h. A function leaves the slot
 *    alone unless its comment says otherwise.
 * 6. Messages. The library reports failures on standard error. qlxSetSink()
 *    (platform/support.h) sends the messages elsewhere, or nowhere:
 *    docs/howto/redirect-messages.md.
 *
 * docs/agent-config.md describes the file.
 *
 * Arguments that mean the same everywhere:
 *
 *   config        the caller's record
 *   agentCfgPath  path of the configuration file; NULL: the one that CRConfigLocate() finds
 *   options       option records, read during the call only
 *   count         number of option records
 */
#ifndef KS_H
#define KS_H

#include <stdint.h>

#include "cr_status.h"
#include "ks_option.h"
#include "kspool_api.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * The configuration of an agent. KSConfigInitWithAgentCfg() zeroes the record and fills it;
 * KSConfigSet() changes it; everybody else reads it. An optional field holds a value when its flag,
 * named beside it, is set in `flags`.
 */
typedef struct KSConfig {
    uint32_t flags;                   /* KS_CFG_... bits: which fields hold a value */
    uint32_t storagePoolId;           /* KS_CFG_STORAGE_POOL_ID */
    uint32_t agentId;                 /* KS_CFG_AGENT_ID */
    uint8_t fingerprintType;          /* KS_CFG_FP_TYPE */
    uint8_t doType;                   /* 255 when not given */
    char vendorName[256];             /* "Norvale" unless configured */
    char programLabel[256];           /* the application's name unless configured */
    char applicationName[256];        /* KS_CFG_APPLICATION; empty after a failed initialisation */
    char login[256];                  /* KS_CFG_LOGIN: for SPA and MBS */
    char password[256];               /* KS_CFG_PASSWORD: for SPA and MBS */
    char spaUrl[1024];                /* KS_CFG_SPA_URL */
    char mbsUrl[1024];                /* KS_CFG_MBS_URL: the Metabase server */
    char configFile[4096];            /* KS_CFG_CONFIG_FILE: the file that was read */
    char recommendedRouteTable[4096]; /* KS_CFG_ROUTE_TABLES: path */
    char currentRouteTable[4096];     /* KS_CFG_ROUTE_TABLES: path */
    char sslKeyLocation[4096];        /* KS_CFG_SSL_KEY: path */
    int64_t reconnectTimeout;         /* seconds, 0 to 3600 */
} KSConfig;

/*
 * Zeroes `config` and fills it from the agent's configuration file: `agentCfgPath`, or, when that
 * is NULL, the file that CRConfigLocate() (platform/status.h) finds. `config` NULL: nothing
 * happens. Login and password are never in the file.
 *
 * Missing and invalid directives are reported to the log one by one and leave their flags clear. A
 * file that cannot be found or read is reported once; the record is then empty, its
 * `applicationName` included, and `flags` is KS_CFG_APPLICATION alone.
 *
 * Slot: the reason when the file cannot be found or read, otherwise left alone.
 */
KSPOOL_API void KSConfigInitWithAgentCfg(KSConfig* config,
                                         const char* agentCfgPath) KSPOOL_NOEXCEPT;

/*
 * Applies `count` options to the record, all of them or none. Codes without a field in the record
 * are ignored. `doType` becomes 255 unless an option of this call sets it. `options` may be NULL
 * when `count` is 0. KS_OPT_ROUTE_TABLE_DIR makes both paths from the folder and the storage pool
 * id; a NULL or empty folder clears them.
 *
 * Returns 0, or the status of the last invalid record: CR_STATUS_INVALID_PARAMETER for a missing
 * text (and for a NULL `config`, or NULL `options` with a count), CR_STATUS_LIMIT_EXCEEDED for a
 * text that does not fit, CR_STATUS_INVALID_VALUE for an unknown type, of which the low 32 bits
 * count, and 8 of a DO type. The slot is left alone.
 */
KSPOOL_API uint32_t KSConfigSet(KSConfig* config, const KSOption* options,
                                uint32_t count) KSPOOL_NOEXCEPT;

/*
 * Writes a summary of the record, without the password, to the trace when tracing is on. NULL is
 * allowed.
 */
KSPOOL_API void _ksDump(const KSConfig* config) KSPOOL_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif
