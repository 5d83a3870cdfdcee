#include "frame/subvolume_line.h"

#include <cstring>

#include "frame/log.h"
#include "frame/path_format.h"

namespace sharesnap {

namespace {

// The rest of a line that is longer than the buffer must not be read as a line of its own.
void SkipRestOfLine(FILE *pStream, const char *szLine) {
    if (std::strchr(szLine, '\n') != nullptr) {
        return;
    }
    int nByte = std::fgetc(pStream);
    while (nByte != EOF && nByte != '\n') {
        nByte = std::fgetc(pStream);
    }
}

} // namespace

bool NextSubvolumePath(FILE *pStream, char (&szPath)[kSubvolumeLineSize]) {
    char szLine[kSubvolumeLineSize];
    while (std::fgets(szLine, sizeof(szLine), pStream) != nullptr) {
        SkipRestOfLine(pStream, szLine);
        // The path is shorter than its line, so it fits.
        if (std::sscanf(szLine, "ID %*u gen %*u top level %*u path %[^\n]\n", szPath) == 1) {
            return true;
        }
    }
    return false;
}

bool EndsWhole(FILE *pStream) {
    if (std::ferror(pStream) == 0) {
        return true;
    }
    SNAP_SET_ERR(SNAP_ERR_OPERATION_FAILED);
    return false;
}

bool SnapshotPrefix(const QOVASHARE *pShare, char *szPrefix, size_t cbPrefix) {
    int nEncrypted = 0;
    if (QLIBShareIsEncryptionGet(pShare, &nEncrypted) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get encryption status of share [%s] [0x%04X %s:%d]", pShare->szName);
        return false;
    }
    return nEncrypted != 0 ? FormatPath(szPrefix, cbPrefix, "@sharesnap/@%s@/", pShare->szName)
                           : FormatPath(szPrefix, cbPrefix, "@sharesnap/%s/", pShare->szName);
}

} // namespace sharesnap
