// Listing: the sections of the metadata file, one after the other, through a chain of selectors. Beside it the look-ups
// that stand on it.
#include <sharesnap/frame.h>
#include <sharesnap/metadata.h>
#include <sharesnap/platform/section_file.h>
#include <stdio_ext.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <initializer_list>
#include <memory>
#include <new>

#include "frame/log.h"
#include "frame/metadata_lock.h"
#include "frame/owners.h"
#include "frame/path_format.h"

using namespace sharesnap;

namespace {

constexpr size_t kSectionSize = 1024;
constexpr size_t kHashSize = 1024;
constexpr size_t kListSize = 512;
constexpr size_t kStreamBufferSize = 32768;
constexpr size_t kGeneratedNameSize = 255;

// A line of any length; the memory is used again for the next.
class LineReader {
public:
    explicit LineReader(FILE *pStream) : pStream_(pStream) {}
    ~LineReader() { std::free(szLine_); }
    LineReader(const LineReader &) = delete;
    LineReader &operator=(const LineReader &) = delete;

    // False at the end of the file and after a read error, which counts as the end.
    [[nodiscard]] bool next() {
        if (feof_unlocked(pStream_) != 0 || ferror_unlocked(pStream_) != 0) {
            return false;
        }
        const ssize_t cbRead = getdelim(&szLine_, &cbBuffer_, '\n', pStream_);
        cbLine_ = cbRead < 0 ? 0 : static_cast<size_t>(cbRead);
        return cbRead >= 0;
    }
    [[nodiscard]] const char *line() const { return szLine_; }
    [[nodiscard]] size_t length() const { return cbLine_; }

private:
    FILE *pStream_;
    char *szLine_ = nullptr;
    size_t cbBuffer_ = 0;
    size_t cbLine_ = 0;
};

// Reads on to the next header. 1 found; 0 there is none; -1 its name can't be had.
int FindHeader(LineReader *pReader, char *szSection, size_t cbSection) {
    while (pReader->next()) {
        if (QLIBCIFileIsSection(pReader->line(), pReader->length()) != 0) {
            return QLIBCFileParseSectionName(pReader->line(), szSection, cbSection) < 0 ? -1 : 1;
        }
    }
    return 0;
}

// Puts a line's pair into the hash; a line that is no pair costs nothing. 0 or -1.
int TakePair(const char *szLine, QLIBCSZLIST **ppPair, QLIBCSZHASH **ppHash) {
    int nResult = 0;
    if (QLIBCStrSepPair(szLine, ppPair) == 0) {
        nResult = QLIBCSzHashSetValue(ppHash, QLIBCSzListGet(*ppPair, 0), QLIBCSzListGet(*ppPair, 1));
    }
    QLIBCSzListRemoveAll(*ppPair);
    return nResult == -1 ? -1 : 0;
}

// Reads the pairs up to the next line that begins with a bracket and leaves the stream in front of that. 0 or -1.
int ReadBody(LineReader *pReader, FILE *pStream, QLIBCSZLIST **ppPair, QLIBCSZHASH **ppHash) {
    bool blEmpty = true;
    while (pReader->next()) {
        if (pReader->line()[0] == '[') {
            // Behind an empty section back to the start: its result of 0 ends every reading.
            const long nBehindPair = blEmpty ? 0 : std::ftell(pStream) - static_cast<long>(pReader->length());
            (void)std::fseek(pStream, nBehindPair, SEEK_SET); // a failure shows as the end of the file
            return 0;
        }
        blEmpty = false;
        if (TakePair(pReader->line(), ppPair, ppHash) < 0) {
            return -1;
        }
    }
    return 0;
}

// What one listing holds. The lock goes first, then the hash, then the stream, then its buffer.
struct Listing {
    std::unique_ptr<char[]> buffer;
    ReadStreamOwner stream;
    HashOwner hash;
    MetadataLock lock;
};

// Takes the shared lock as root, whoever calls, and gives the privilege back. When the lock fails it stays taken.
int LockAsRoot(const QOVASHARE *pShare, MetadataLock *pLock) {
    const uid_t uidCaller = geteuid();
    if (uidCaller != 0) {
        (void)seteuid(0); // without the right to it the lock fails or not, which is what counts
    }
    if (!pLock->take(pShare, MetadataLockMode::shared)) {
        return -1;
    }
    if (geteuid() != uidCaller && seteuid(uidCaller) < 0) {
        SNAP_LOG(LOG_ERR, "Failed to reset effective user id from root to user. ");
        return -1;
    }
    return 0;
}

// Opens the file for a listing. The end of a section leads back by a line, so the stream gets a buffer that seldom ends
// within one; and it is no other thread's, so nothing locks it.
bool OpenStream(Listing *pListing, const char *szPath) {
    pListing->stream.reset(std::fopen(szPath, "re"));
    if (!pListing->stream) {
        SNAP_SET_ERR(SNAP_ERR_OPEN_FAILED);
        return false;
    }
    (void)__fsetlocking(pListing->stream.get(), FSETLOCKING_BYCALLER); // gives what was set before
    pListing->buffer.reset(new (std::nothrow) char[kStreamBufferSize]);
    if (pListing->buffer) { // it goes without one, too
        (void)std::setvbuf(pListing->stream.get(), pListing->buffer.get(), _IOFBF, kStreamBufferSize);
    }
    return true;
}

// Results of a selector, as a listing takes them.
int ScanSections(Listing *pListing, QLIBCSZLIST **ppListSnap, const QOVAShareSnapEnum *pEnum) {
    char szSection[kSectionSize];
    for (;;) {
        const int nPairs =
            SnapFileGetNextSection(pListing->stream.get(), szSection, sizeof(szSection), &pListing->hash);
        if (nPairs <= 0) {
            return nPairs < 0 ? -1 : 0;
        }
        switch (QOVAShareSnapProcessSelector(szSection, pEnum, pListing->hash.get())) {
        case SNAP_SELECT_KEEP:
            if (QLIBCSzListPush(ppListSnap, szSection) < 0) {
                return -1; // a list with a gap would tell of a snapshot that doesn't exist
            }
            break;
        case SNAP_SELECT_STOP:
            return 0;
        case SNAP_SELECT_FAIL:
            return -1;
        default:
            break;
        }
    }
}

// The selector of visible snapshots; its text lives as long as the chain.
class VisibleSelector {
public:
    VisibleSelector() = default;
    ~VisibleSelector() { QOVAShareSnapEnumFree(pEnum_); }
    VisibleSelector(const VisibleSelector &) = delete;
    VisibleSelector &operator=(const VisibleSelector &) = delete;
    [[nodiscard]] bool add() { return QOVAShareSnapSelectorAdd(&pEnum_, QOVAShareSnapAttrSelector, szData_) == 0; }
    [[nodiscard]] const QOVAShareSnapEnum *get() const { return pEnum_; }

private:
    char szData_[sizeof("hide=false")] = "hide=false";
    QOVAShareSnapEnum *pEnum_ = nullptr;
};

// Fills the list with the names of the share's visible snapshots. 0 or -1.
int ListVisible(const QOVASHARE *pShare, ListOwner &list) {
    list.reset(QLIBCSzListAlloc(kListSize));
    if (!list) {
        SNAP_LOG(LOG_ERR, "QLIBCSzListAlloc() failed");
        return -1;
    }
    VisibleSelector selector;
    if (!selector.add()) {
        return -1;
    }
    if (QOVAShareSnapList(pShare, &list, selector.get()) < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get share(%s) snapshot list [0x%04X %s:%d]", pShare->szName);
        return -1;
    }
    return 0;
}

// The first name of the list whose time is that time; null when there is none.
const char *FindByTime(const QLIBCSZLIST *pList, time_t tTime) {
    for (int i = 0; i < pList->nItem; ++i) {
        const char *szCandidate = QLIBCSzListGet(pList, i);
        time_t tCandidate = 0;
        if (QOVAShareSnapTimeGet(szCandidate, &tCandidate) == 0 && difftime(tTime, tCandidate) == 0.0) {
            return szCandidate;
        }
    }
    return nullptr;
}

// The newest of the list's names, the first one of several; null when none tells a time.
const char *FindLatest(const QLIBCSZLIST *pList) {
    const char *szBest = nullptr;
    time_t tBest = 0;
    for (int i = 0; i < pList->nItem; ++i) {
        const char *szCandidate = QLIBCSzListGet(pList, i);
        time_t tCandidate = 0;
        if (QOVAShareSnapTimeGet(szCandidate, &tCandidate) < 0) {
            continue;
        }
        if (szBest == nullptr || difftime(tBest, tCandidate) < 0.0) {
            szBest = szCandidate;
            tBest = tCandidate;
        }
    }
    return szBest;
}

// Whether the share has a snapshot under the name that this form gives to the time, visible or hidden.
bool IsNamedByTime(const QOVASHARE *pShare, time_t tTime, unsigned int blLocal, char (&szName)[kGeneratedNameSize]) {
    char szPath[kPathSize];
    return SnapNameGenerateByTime(szName, sizeof(szName), tTime, blLocal) == 0 &&
           QOVAShareSnapGetSnapPath(pShare, szName, szPath, sizeof(szPath)) == 1;
}

} // namespace

int SnapFileGetNextSection(FILE *pStream, char *szSection, size_t cbSection, QLIBCSZHASH **ppHash) {
    if (szSection == nullptr || ppHash == nullptr || pStream == nullptr || *ppHash == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    ListOwner pair(QLIBCSzListAlloc(kListSize));
    if (!pair) {
        SNAP_SET_ERR(SNAP_ERR_OUT_OF_MEMORY);
        return -1;
    }
    QLIBCHashRemoveAll(*ppHash);
    LineReader reader(pStream);
    const int nHeader = FindHeader(&reader, szSection, cbSection);
    if (nHeader < 0 || (nHeader == 1 && ReadBody(&reader, pStream, &pair, ppHash) < 0)) {
        return -1;
    }
    return QLIBCSzHashPairNum(*ppHash);
}

int QOVAShareSnapList(const QOVASHARE *pShare, QLIBCSZLIST **ppListSnap, const QOVAShareSnapEnum *pEnum) {
    if (pShare == nullptr) {
        return SNAP_BAD_ARGUMENT("((void *)0) != pShare");
    }
    if (ppListSnap == nullptr) {
        return SNAP_BAD_ARGUMENT("NULL != ppListSnap");
    }
    Listing listing;
    listing.hash.reset(QLIBCSzHashAlloc(kHashSize));
    if (!listing.hash) {
        SNAP_LOG_REG(LOG_ERR, "Failed to alloc hash[0x%04X %s:%d]");
        return -1;
    }
    char szPath[kPathSize];
    const int nFile = SnapMetaGetOrCreateFile(pShare, szPath, sizeof(szPath), 0);
    if (nFile < 0) {
        SNAP_LOG_REG(LOG_ERR, "Failed to get metadata file for share [%s] [0x%04X %s:%d]", pShare->szName);
        SNAP_SET_ERR(SNAP_ERR_META_ACCESS);
        return -1;
    }
    if (nFile == 0) {
        return 0;
    }
    if (LockAsRoot(pShare, &listing.lock) < 0) {
        return -1;
    }
    if (!OpenStream(&listing, szPath)) {
        return -1;
    }
    return ScanSections(&listing, ppListSnap, pEnum);
}

int QOVAShareSnapProcessSelector(const char *szSnapName, const QOVAShareSnapEnum *pEnum, const QLIBCSZHASH *pHash) {
    for (const QOVAShareSnapEnum *pLink = pEnum; pLink != nullptr; pLink = pLink->pNext) {
        const int nResult = pLink->pSelector(szSnapName, pHash, pLink->pData);
        if (nResult != SNAP_SELECT_KEEP) {
            return nResult;
        }
    }
    return SNAP_SELECT_KEEP;
}

void QOVAShareSnapEnumFree(QOVAShareSnapEnum *pEnum) {
    while (pEnum != nullptr) {
        QOVAShareSnapEnum *pNext = pEnum->pNext;
        std::free(pEnum);
        pEnum = pNext;
    }
}

int QOVAShareSnapGetLatest(const QOVASHARE *pShare, char *szName, size_t cbName) {
    if (pShare == nullptr || szName == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    ListOwner list;
    if (ListVisible(pShare, list) < 0) {
        return -1;
    }
    if (list->nItem == 0) {
        return 0;
    }
    const char *szLatest = FindLatest(list.get());
    if (szLatest == nullptr) {
        return -1;
    }
    (void)std::snprintf(szName, cbName, "%s", szLatest);
    return 1;
}

int QOVAShareSnapNameGetByTime(const QOVASHARE *pShare, char *szName, size_t cbName, time_t tTime) {
    if (pShare == nullptr || szName == nullptr) {
        SNAP_SET_ERR(SNAP_ERR_BAD_PARAMETER);
        return -1;
    }
    char szGenerated[kGeneratedNameSize] = "";
    for (const unsigned int blLocal : {1U, 0U}) {
        if (IsNamedByTime(pShare, tTime, blLocal, szGenerated)) {
            (void)std::snprintf(szName, cbName, "%s", szGenerated);
            return 0;
        }
    }
    // It may have been made under another time zone.
    ListOwner list;
    if (ListVisible(pShare, list) < 0 || list->nItem < 1) {
        return -1;
    }
    const char *szFound = FindByTime(list.get(), tTime);
    if (szFound == nullptr) {
        return -1;
    }
    (void)std::snprintf(szName, cbName, "%s", szFound);
    return 0;
}
