/* The error register: one current code with the place where it was set, per thread (libqovacore). */
#ifndef SHARESNAP_PLATFORM_ERROR_H
#define SHARESNAP_PLATFORM_ERROR_H

#include <sharesnap/platform/api.h>

QOVA_BEGIN_DECLS

/* Codes of the register. All are multiples of 0x0100; 0 means that none was set. */
enum {
    SNAP_ERR_OUT_OF_MEMORY = 0x0200,
    SNAP_ERR_BUSY = 0x0400,
    SNAP_ERR_META_ACCESS = 0x0700,
    SNAP_ERR_ALREADY_EXISTS = 0x0800,
    SNAP_ERR_OPEN_FAILED = 0x0900,
    SNAP_ERR_READ_FAILED = 0x0A00,
    SNAP_ERR_WRITE_FAILED = 0x0B00,
    SNAP_ERR_CREATE_FAILED = 0x0C00,
    SNAP_ERR_BAD_PARAMETER = 0x0D00,
    SNAP_ERR_SNAPSHOT_LIMIT = 0x1500,
    SNAP_ERR_NO_SUCH_KEY = 0x2000,
    SNAP_ERR_NO_SUCH_SECTION = 0x2200,
    SNAP_ERR_SECTION_EXISTS = 0x2300,
    SNAP_ERR_QUOTA_EXCEEDED = 0x2400,
    SNAP_ERR_RENAME_FAILED = 0x2800,
    SNAP_ERR_NO_SPACE = 0x2900,
    SNAP_ERR_OPERATION_FAILED = 0x2A00,
    SNAP_ERR_TIME_LIMIT = 0x2E00,
    SNAP_ERR_REMOVE_FAILED = 0x3900,
    SNAP_ERR_SHARE_FORBIDDEN = 0x6400,
    SNAP_ERR_SYSTEM_SNAPSHOT_LIMIT = 0x6E00,
    SNAP_ERR_VOLUME_INFO = 0x8300,
    SNAP_ERR_NOT_A_DIRECTORY = 0xA000,
    SNAP_ERR_EA_DIR_UNAVAILABLE = 0xA100,
    SNAP_ERR_META_PATH = 0xBE00,
    SNAP_ERR_BAD_FILE_TYPE = 0xC000,
    SNAP_ERR_TOO_MANY_ATTRIBUTES = 0xC300,
    SNAP_ERR_UNSUPPORTED = 0xD900,
    SNAP_ERR_LOW_RESERVED_SPACE = 0xE400,
    SNAP_ERR_ATTR_TOO_LONG = 0xE600,
    SNAP_ERR_SNAPSHOT_EXISTS = 0xE700
};

/* Item codes of a multi-result that tell what became of one snapshot of a delete. They never stand in the register. */
enum { SNAP_RESULT_NOT_FOUND = 0xA100, SNAP_RESULT_LOCKED = 0xF400 };

/* Stores code, source file and source line. szFile must outlive the register (a literal). Leaves errno alone. */
QOVA_PLATFORM_API void QLIBCErrSetEx(unsigned int uCode, const char *szFile, int nLine);
/* The current code of this thread, 0 when none was set. Leaves errno alone. */
QOVA_PLATFORM_API unsigned int QLIBCErrGet(void);
/* File and line at which the current code was set; "" and 0 when none was. Never null. */
QOVA_PLATFORM_API const char *QLIBCErrorGetFile(void);
QOVA_PLATFORM_API int QLIBCErrorGetLine(void);

QOVA_END_DECLS
#endif
