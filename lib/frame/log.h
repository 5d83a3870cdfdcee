// Log lines and the error register as every room of the library uses them.
//
// A log line begins with the source file's name and the line; one that reports a failure of a lower layer ends with the
// error register. The format text stands whole at the call, so that a line found in a log is found in the sources.
#ifndef SHARESNAP_FRAME_LOG_H
#define SHARESNAP_FRAME_LOG_H

#include <sharesnap/platform/error.h>
#include <syslog.h>

namespace sharesnap {

// Writes "<file>:<line> <text>" to syslog. Keeps errno; %m in the format is the errno at the call.
void LogLine(int nPriority, const char *szFile, int nLine, const char *szFormat, ...)
    __attribute__((format(printf, 4, 5)));

// Logs the text of a failed argument check, sets 0x0D00, gives -1.
int BadArgument(const char *szFile, int nLine, const char *szCheck);

} // namespace sharesnap

// SNAP_LOG(LOG_ERR, "Failed to mkdir [%s], errno=%d/%m\n", szPath, errno);
// (__extension__: ISO C++ knows no %m.)
#define SNAP_LOG(nPriority, ...) __extension__ ::sharesnap::LogLine((nPriority), __FILE_NAME__, __LINE__, __VA_ARGS__)

// The same with the register as the last three arguments; the format ends in "[0x%04X %s:%d]".
#define SNAP_LOG_REG(nPriority, ...)                                                                     \
    __extension__ ::sharesnap::LogLine((nPriority), __FILE_NAME__, __LINE__, __VA_ARGS__, QLIBCErrGet(), \
                                       QLIBCErrorGetFile(), QLIBCErrorGetLine())

// return SNAP_BAD_ARGUMENT("((void *)0) != pShare");
#define SNAP_BAD_ARGUMENT(szCheck) ::sharesnap::BadArgument(__FILE_NAME__, __LINE__, (szCheck))

#define SNAP_SET_ERR(uCode) QLIBCErrSetEx((uCode), __FILE_NAME__, __LINE__)

#endif
