/* @eaDir directories, file copy and the attribute that network clients see (libqovafileop). No call follows a symbolic
   link at the last component. */
#ifndef SHARESNAP_PLATFORM_FILE_OPERATION_H
#define SHARESNAP_PLATFORM_FILE_OPERATION_H

#include <sharesnap/platform/api.h>
#include <stdint.h>

QOVA_BEGIN_DECLS

/* Makes an @eaDir (0755, root). nFlags is 0. 0, also when it stands; -1 on failure. */
QOVA_PLATFORM_API int QOVAEAMKDir(int nFlags, const char *szPath);
/* Removes the @eaDir below szPath with all it holds, never following links. nFlags is 3, *pFlag is 1. 0, also when
   there is none; -1 on failure. */
QOVA_PLATFORM_API int QOVAEARemove(const char *szPath, int nFlags, int64_t *pFlag);

/* 80 bytes: twenty words; word 0 overwrite, word 2 keep mode and times, word 3 keep the owner; the others are 0. */
typedef struct QOVAFILECOPYOPTIONS {
    uint32_t rgWord[20];
} QOVAFILECOPYOPTIONS;

/* Copies a regular file through a temporary file beside the target. 0 or -1 with errno. */
QOVA_PLATFORM_API int QOVAFileCopy(const char *szSource, const char *szTarget, const QOVAFILECOPYOPTIONS *pOptions);

/* Commands of the attribute that marks a path for network clients as the system's own. */
enum { F_SETSMB_FILE = 515, F_SETSMB_SYSTEM = 516 };

/* Stands for system call 803: stores the attribute in user.DOSATTRIB in the text form that Samba reads (0x6 for a file,
   0x14 for a directory). 0 or -1 with errno. A library may link it weakly and do without. */
QOVA_PLATFORM_API int QOVASmbAttributeSet(const char *szPath, int nCommand);

QOVA_END_DECLS
#endif
