// Estimates of what a set of snapshots holds, and the stored size of one.
#include <sharesnap/lifecycle.h>
#include <sharesnap/metadata.h>
#include <sharesnap/platform/process.h>

#include <cstdio>
#include <cstdlib>

#include "frame/log.h"
#include "frame/owners.h"

namespace {

using namespace sharesnap;

constexpr char kTool[] = "/sbin/btrfs";
// Tool, command, option and the null at the end.
constexpr size_t kFixedArguments = 4;

inline void FreeVector(char **rgszArg) {
    std::free(rgszArg);
}

using VectorOwner = Owner<char *, FreeVector>;

struct Estimate {
    const QLIBCSZLIST *pListSnapPath;
    const QLIBCSZLIST *pListCloneSrc;
    const char *szParent;
    VectorOwner arguments;
    size_t cArgument = 0;

    // An argument vector is of writable texts by its type alone: nobody writes to them.
    void Add(const char *szArgument) { arguments.get()[cArgument++] = const_cast<char *>(szArgument); }
};

[[nodiscard]] size_t Count(const QLIBCSZLIST *pList) {
    return pList != nullptr && pList->nItem > 0 ? static_cast<size_t>(pList->nItem) : 0;
}

[[nodiscard]] bool MakeArguments(Estimate &e) {
    const size_t cPlaces =
        Count(e.pListSnapPath) + 2 * Count(e.pListCloneSrc) + (e.szParent != nullptr ? 2 : 0) + kFixedArguments;
    e.arguments.reset(static_cast<char **>(std::calloc(cPlaces, sizeof(char *))));
    if (!e.arguments) {
        SNAP_SET_ERR(SNAP_ERR_OUT_OF_MEMORY);
        return false;
    }
    e.Add(kTool);
    e.Add("send");
    e.Add("-es"); // the size of the stream instead of the stream
    if (e.szParent != nullptr) {
        e.Add("-p");
        e.Add(e.szParent);
    }
    for (size_t i = 0; i < Count(e.pListCloneSrc); ++i) {
        e.Add("-c");
        e.Add(QLIBCSzListGet(e.pListCloneSrc, static_cast<int>(i)));
    }
    for (size_t i = 0; i < Count(e.pListSnapPath); ++i) {
        e.Add(QLIBCSzListGet(e.pListSnapPath, static_cast<int>(i)));
    }
    return true;
}

// The last line of the kind counts.
[[nodiscard]] int ReadSize(FILE *pStream, uint64_t *pullTotalSize) {
    int nResult = -1;
    char szLine[1024] = "";
    while (std::fgets(szLine, sizeof(szLine), pStream) != nullptr) {
        unsigned long long ullSize = 0;
        if (std::sscanf(szLine, "About:%llu\n", &ullSize) == 1) {
            *pullTotalSize = ullSize;
            nResult = 0;
        }
    }
    return nResult;
}

} // namespace

int QOVAShareSnapCalculateTotalSize(const QLIBCSZLIST *pListSnapPath, const QLIBCSZLIST *pListCloneSrc,
                                    const char *szParent, uint64_t *pullTotalSize, FILE **ppFile) {
    if (pListSnapPath == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != pListSnapPath");
    }
    if (pullTotalSize == nullptr && ppFile == nullptr) {
        return SNAP_BAD_ARGUMENT("NULL != totalSize || NULL != ppFile");
    }
    if (pListSnapPath->nItem == 0) {
        return 0;
    }
    Estimate e{pListSnapPath, pListCloneSrc, szParent, {}};
    if (!MakeArguments(e)) {
        return -1;
    }
    FILE *pStream = QLIBCPopenv(kTool, "r", e.arguments.get());
    if (pStream == nullptr) {
        // Its own form of place: the function and the line.
        syslog(LOG_ERR, "%s,%d Failed to open calculate snapshot size[0x%04X %s:%d]", __func__, __LINE__, QLIBCErrGet(),
               QLIBCErrorGetFile(), QLIBCErrorGetLine());
        return -1;
    }
    if (ppFile != nullptr) {
        *ppFile = pStream;
        return 0;
    }
    const int nResult = ReadSize(pStream, pullTotalSize);
    (void)QLIBCPclose(pStream); // the tool's lines tell all, its exit status nothing
    return nResult;
}

int QOVAShareGetSnapSize(const QOVASHARE *pShare, const char *szSnapshot, uint64_t *pullSize) {
    if (pShare == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != pShare");
    }
    if (szSnapshot == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != szSnapshot");
    }
    if (pullSize == nullptr) {
        return SNAP_BAD_ARGUMENT("NULL != ullSnapshotSize");
    }
    char szValue[1024] = "";
    if (QOVAShareSnapAttrGet(pShare, szSnapshot, "snap_size", szValue, sizeof(szValue)) < 0) {
        return -1;
    }
    unsigned long long ullSize = 0;
    if (std::sscanf(szValue, "%llu", &ullSize) != 1) {
        SNAP_SET_ERR(SNAP_ERR_OPERATION_FAILED);
        return -1;
    }
    *pullSize = ullSize;
    return 0;
}
