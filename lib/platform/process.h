/* Child programs, without a shell (libqovacore). */
#ifndef SHARESNAP_PLATFORM_PROCESS_H
#define SHARESNAP_PLATFORM_PROCESS_H

#include <sharesnap/platform/api.h>
#include <stdio.h>

QOVA_BEGIN_DECLS

/* All of them: no shell; the environment is PATH and LC_ALL=C alone; default signals, none blocked; standard input and
   error output are /dev/null; no further descriptor reaches the program. The program is a path. "/sbin/btrfs" stands
   for the platform's own tool, which may not be installed there. The calling process must not ignore SIGCHLD: how a
   program ended can't be told then, and counts as a failure. A failure sets errno and a code. */

/* Starts szProgram with the arguments behind szMode (ended by a null char *), argv[0] is the program; szMode is "r".
   A stream on its standard output, closed with QLIBCPclose; null when it can't be started. The listing "/sbin/btrfs
   subvolume list" is taken whole before the stream is handed out, which may last up to 60 s: null also when the tool
   fails or its listing isn't complete, so an empty stream does mean an empty volume. Other programs are read as they
   write, for as long as they take. */
QOVA_PLATFORM_API FILE *QLIBCPopen(const char *szProgram, const char *szMode, ...) QOVA_SENTINEL;
/* The same with a whole argument vector, argv[0] included, ended by null. */
QOVA_PLATFORM_API FILE *QLIBCPopenv(const char *szProgram, const char *szMode, char *const rgszArg[]);
/* Closes the stream and waits for its program without a limit. The exit status (0 to 255); -1 when a signal ended the
   program, or for a stream that didn't come from here, which is then left alone. */
QOVA_PLATFORM_API int QLIBCPclose(FILE *pStream);
/* Runs a program to its end, rgszArg ended by null, its output dropped. nFlags is 0. 0 when it exited with 0; otherwise
   its exit status, or -1 when it couldn't be started or a signal ended it. */
QOVA_PLATFORM_API int QLIBCExecv(const char *szProgram, char *const rgszArg[], int nFlags);

QOVA_END_DECLS
#endif
