/* @eaDir directories, file copy and the attribute that network clients see (libqovafileop).

   No call follows a symbolic link at the last component of a path, takes a lock, or waits for anything but the disk.
   Failures leave errno and a code: 0x0200, 0x0800, 0x0D00, 0x2400, 0x2900 for the reasons that have one of their own,
   0x2A00 otherwise. */
#ifndef SHARESNAP_PLATFORM_FILE_OPERATION_H
#define SHARESNAP_PLATFORM_FILE_OPERATION_H

#include <sharesnap/platform/api.h>
#include <stdint.h>

QOVA_BEGIN_DECLS

/* Makes an @eaDir at szPath (0755 whatever the umask; root's when root makes it). nFlags is 0. 0, also when a directory
   stands there, which is left as it is; -1 on failure. */
QOVA_PLATFORM_API int QOVAEAMKDir(int nFlags, const char *szPath);
/* Removes the @eaDir in the directory szPath with all it holds, subvolumes too, without following links or entering
   mounts. nFlags is 3, *pFlag is 1. 0, also when there is none; -1 when something stays. */
QOVA_PLATFORM_API int QOVAEARemove(const char *szPath, int nFlags, int64_t *pFlag);

/* 80 bytes: twenty words; word 0 overwrite, word 2 keep mode and times, word 3 keep the owner; the others are 0. */
typedef struct QOVAFILECOPYOPTIONS {
    uint32_t rgWord[20];
} QOVAFILECOPYOPTIONS;

/* Copies a regular file. The copy grows in a temporary file beside the target, is on disk when it takes the target's name,
   and replaces a link there instead of following it. Without word 0 a target that exists is a failure (EEXIST); without
   word 2 the mode is 0644. pOptions may be null for all words 0. 0, or -1 with the target as it was. */
QOVA_PLATFORM_API int QOVAFileCopy(const char *szSource, const char *szTarget, const QOVAFILECOPYOPTIONS *pOptions);

/* Commands of the attribute that marks a path for network clients as the system's own. */
enum { F_SETSMB_FILE = 515, F_SETSMB_SYSTEM = 516 };

/* Stands for system call 803: stores the attribute in user.DOSATTRIB in the text form that Samba reads (0x6 for a file,
   0x14 for a directory; the command decides, not the path). 0; -1 with errno, EOPNOTSUPP on a file system without such
   attributes. A library may link it weakly and do without. */
QOVA_PLATFORM_API int QOVASmbAttributeSet(const char *szPath, int nCommand);

QOVA_END_DECLS
#endif
