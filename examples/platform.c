/* The smallest platform: no server, no configuration, messages to stderr. That is enough for the
 * cache. Comments that say "your" mark the places that a real platform fills in.
 *
 *     name=libkspool_platform.so.1
 *     cc -shared -fPIC platform.c $(pkg-config --cflags kspool) -Wl,-soname,$name -o $name
 *     LD_LIBRARY_PATH=. ./cache
 *
 * The headers of platform/ are the contracts of these calls.
 */
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "cr_status.h"
#include "platform/ini.h"
#include "platform/net.h"
#include "platform/po.h"
#include "platform/status.h"
#include "platform/support.h"
#include "platform/ws.h"

/* ---- Statuses ---- */

static __thread uint32_t slot;

uint32_t* __cr_errno_location(void) {
    return &slot;
}
const char* CRStatusToStringA(uint32_t status) {
    static __thread char text[32];
    snprintf(text, sizeof text, "status %lu", (unsigned long)status);
    return text;
}
uint32_t _crMapError(const char* function, const char* file, int line) {
    (void)function, (void)file, (void)line;
    return CR_STATUS_SYSTEM_BASE + (uint32_t)(errno != 0 ? errno : EIO);
}
char* CRConfigLocate(const char* kind, char* buffer, size_t size) {
    (void)kind, (void)buffer, (void)size;
    slot = CR_STATUS_NOT_FOUND; /* the place of your agents' configuration goes here */
    return NULL;
}
int CRFPTypeIsValid(uint32_t type) {
    return type >= CR_FP_MD5 && type <= CR_FP_SHA256;
}
int CRDOTypeIsValid(uint8_t type) {
    return type <= CR_DO_LAST;
}
const char* CRFPDigestToString_r(const void* digest, uint32_t type, char* buffer, size_t size) {
    const unsigned char* bytes = digest;
    const size_t length = type == CR_FP_SHA256 ? 32 : 16;
    size_t i;
    if (digest == NULL || buffer == NULL || size == 0) return "";
    buffer[0] = '\0';
    for (i = 0; i < length && 2 * i + 1 < size; ++i)
        snprintf(buffer + 2 * i, size - 2 * i, "%02x", bytes[i]);
    return buffer;
}

/* ---- Messages and helpers ---- */

static int tracing;

int* __qlxlog_trace_location(void) {
    return &tracing;
}
static void print(const char* level, const char* format, va_list arguments) {
    const int error = errno;
    fprintf(stderr, "%s: ", level);
    vfprintf(stderr, format, arguments);
    fputc('\n', stderr);
    errno = error;
}
#define PRINT(level)                     \
    do {                                 \
        va_list arguments;               \
        va_start(arguments, format);     \
        print(level, format, arguments); \
        va_end(arguments);               \
    } while (0)
void __TraceA(const char* format, ...) {
    PRINT("trace");
}
void ErrorA(uint32_t status, const char* format, ...) {
    (void)status;
    PRINT("error");
}
void WarningA(uint32_t status, const char* format, ...) {
    (void)status;
    PRINT("warning");
}
void NoticeA(uint32_t status, const char* format, ...) {
    (void)status;
    PRINT("notice");
}
void InfoA(uint32_t status, const char* format, ...) {
    (void)status;
    PRINT("info");
}
void qlxLogA(uint32_t status, uint32_t level, const char* format, ...) {
    (void)status, (void)level;
    PRINT("message");
}
void qlxSetFatalError(const char* function, uint32_t id, const char* format, ...) {
    (void)function, (void)id;
    PRINT("fatal");
}
char* qlxstrcpy(char* destination, const char* source, size_t size) {
    if (size > 0) snprintf(destination, size, "%s", source);
    return destination;
}
char* qlxstrpbrk(const char* text, const char* set) {
    return strpbrk(text, set);
}
int qlx_access(const char* path, int mode) {
    return access(path, mode);
}
int qlx_unlink(const char* path) {
    return unlink(path);
}
const char* OSGetProcName(int unused) {
    (void)unused;
    return "program";
}
uint64_t OSGetRSS(void) {
    return 0;
}

/* The header may have any layout; files of another platform are then refused. */
struct Header {
    char signature[8];
    uint32_t type, reserved;
    uint64_t value;
};
static const char kSignature[8] = "MYCACHE";

int qlxMagicWrite(uint32_t type, int fd, uint64_t value) {
    struct Header header = {"", 0, 0, 0};
    memcpy(header.signature, kSignature, sizeof kSignature);
    header.type = type;
    header.value = value;
    return write(fd, &header, sizeof header) == (ssize_t)sizeof header ? 0 : -1;
}
uint32_t qlxMagicRead(int fd, QLXMagic* magic) {
    struct Header header;
    if (read(fd, &header, sizeof header) != (ssize_t)sizeof header) return 0;
    if (memcmp(header.signature, kSignature, sizeof kSignature) != 0) return 0;
    magic->type = header.type;
    magic->value = header.value;
    return header.type;
}

/* ---- Configuration: none, so all defaults apply. Your reader goes here. ---- */

const char _qlx_config_section_string_table_[4096] = "";
const char _qlx_config_entry_string_table_[4096] = "";

int InifileGetValueA(const char* section, const char* entry, char* destination, int most,
                     const char* byDefault, const char* file) {
    (void)section, (void)entry, (void)file;
    qlxstrcpy(destination, byDefault != NULL ? byDefault : "", (size_t)most + 1);
    return 0;
}
int InifileGetPathA(const char* section, const char* entry, char* destination, int most,
                    const char* byDefault, const char* file) {
    return InifileGetValueA(section, entry, destination, most, byDefault, file);
}
int InifileGetLongLongA(const char* section, const char* entry, int64_t* value, int64_t byDefault,
                        const char* file) {
    (void)section, (void)entry, (void)file;
    *value = byDefault;
    return 0;
}
int InifileGetIntegerA(const char* section, const char* entry, int32_t* value, int32_t byDefault,
                       const char* file) {
    (void)section, (void)entry, (void)file;
    *value = byDefault;
    return 0;
}
void InifileNoticeA(const char* file, const char* section, const char* entry, int unused,
                    const char* message) {
    (void)file, (void)section, (void)entry, (void)unused;
    NoticeA(0, "%s", message);
}
void InifileValueNoticeA(const char* file, const char* section, const char* entry, int64_t value,
                         const char* message) {
    (void)value;
    InifileNoticeA(file, section, entry, 0, message);
}
void InifileValueErrorA(const char* file, const char* section, const char* entry, int64_t value,
                        const char* format, ...) {
    (void)file, (void)section, (void)entry, (void)value;
    PRINT("error");
}

/* ---- Network names, POs, the transport: no server. Your transport goes here. ---- */

int NetExtractHostAndPort(const char* url, char* buffer, size_t size, int unused) {
    (void)unused;
    qlxstrcpy(buffer, url, size);
    return 0;
}
char* URLDecode(char* text) {
    return text;
}

void POReset(PO* po) {
    free(po->text);
    po->text = NULL;
}
void POSetStype(PO* po, uint32_t stype) {
    po->stype = stype;
}
int POSetFromNonConstString(PO* po, char* line) {
    POReset(po);
    po->text = strdup(line);
    if (po->text == NULL) slot = CR_STATUS_NO_MEMORY;
    return po->text != NULL ? 0 : -1;
}

/* WSAbort(), WSLastEvent() and WSStatistics() may be left out, as here: MBAbort(), MBLastEvent()
 * and MBGetStatistics() then return CR_STATUS_SYSTEM_BASE + ENOSYS. */
struct WSTransport {
    int unused;
};
WSTransport* WSInit(int a, int b, int c, int d, int e) {
    WSTransport* transport = calloc(1, sizeof *transport);
    (void)a, (void)b, (void)c, (void)d, (void)e;
    if (transport == NULL) slot = CR_STATUS_NO_MEMORY;
    return transport;
}
void WSShutdown(WSTransport* transport) {
    free(transport);
}
uint32_t WSSetOpt(WSTransport* transport, const WSOption* options, uint32_t count) {
    (void)transport, (void)options, (void)count;
    return CR_STATUS_OK;
}
uint32_t WSSetOptVa(WSTransport* transport, ...) {
    (void)transport;
    return CR_STATUS_OK;
}
uint32_t WSRequestExt(WSTransport* transport, uint32_t service, WSResult* result, ...) {
    (void)transport, (void)service, (void)result;
    return WS_STATUS_NO_SERVER;
}
uint32_t WSRequestPOST(WSTransport* transport, uint32_t service, WSResult* result,
                       uint32_t selection, const char* body, const char* action) {
    (void)transport, (void)service, (void)result, (void)selection, (void)body, (void)action;
    return WS_STATUS_NO_SERVER;
}
int64_t WSGetLastUseTime(const WSTransport* transport) {
    (void)transport;
    return 0;
}
int64_t WSGetReconnectTimeout(const WSTransport* transport) {
    (void)transport;
    return 0;
}
int64_t WSGetResponseTimeout(const WSTransport* transport) {
    (void)transport;
    return 30;
}
uint32_t WSArchMode(WSTransport* transport) {
    (void)transport;
    slot = WS_STATUS_NO_SERVER;
    return 0xFFFFFFFF;
}
