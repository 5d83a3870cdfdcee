#include "frame/log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include "frame/owners.h"

namespace sharesnap {

void LogLine(int nPriority, const char *szFile, int nLine, const char *szFormat, ...) {
    const ErrnoKeeper keeper;
    char szText[12 * 1024];
    va_list args;
    va_start(args, szFormat);
    errno = keeper.value();
    if (std::vsnprintf(szText, sizeof(szText), szFormat, args) < 0) {
        szText[0] = '\0';
    }
    va_end(args);
    syslog(nPriority, "%s:%d %s", szFile, nLine, szText);
}

int BadArgument(const char *szFile, int nLine, const char *szCheck) {
    LogLine(LOG_ERR, szFile, nLine, "Invaild Argument (%s)=[%d]\n", szCheck, 0);
    QLIBCErrSetEx(SNAP_ERR_BAD_PARAMETER, szFile, nLine);
    return -1;
}

} // namespace sharesnap
