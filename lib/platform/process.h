/* Child programs, without a shell (libqovacore). */
#ifndef SHARESNAP_PLATFORM_PROCESS_H
#define SHARESNAP_PLATFORM_PROCESS_H

#include <sharesnap/platform/api.h>
#include <stdio.h>

QOVA_BEGIN_DECLS

/* Starts szProgram with the arguments behind szMode (ended by a null char *), argv[0] is the program; szMode is "r".
   A stream on its standard output, closed with QLIBCPclose; null when it can't be started. */
QOVA_PLATFORM_API FILE *QLIBCPopen(const char *szProgram, const char *szMode, ...) QOVA_SENTINEL;
/* The same with a whole argument vector, argv[0] included, ended by null. */
QOVA_PLATFORM_API FILE *QLIBCPopenv(const char *szProgram, const char *szMode, char *const rgszArg[]);
/* Closes and waits. The exit status (0 to 255), or -1. */
QOVA_PLATFORM_API int QLIBCPclose(FILE *pStream);
/* Runs a program to its end, rgszArg ended by null. nFlags is 0. 0 when it exited with 0, its exit status or -1
 * otherwise. */
QOVA_PLATFORM_API int QLIBCExecv(const char *szProgram, char *const rgszArg[], int nFlags);

QOVA_END_DECLS
#endif
