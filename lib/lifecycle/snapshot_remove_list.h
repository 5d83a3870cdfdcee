// The private level of a deletion: metadata lock, counter, subvolumes, rewrite of the metadata, results.
#ifndef SHARESNAP_LIFECYCLE_SNAPSHOT_REMOVE_LIST_H
#define SHARESNAP_LIFECYCLE_SNAPSHOT_REMOVE_LIST_H

#include <sharesnap/lifecycle.h>
#include <sys/stat.h>

#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "frame/metadata_lock.h"
#include "frame/owners.h"
#include "frame/path_format.h"

namespace sharesnap {

// Removes the named snapshots and fills the results, index by index those of the list. 0 when the metadata was
// rewritten, which says nothing on the single snapshots; -1 otherwise, with errno as the failing step left it.
[[nodiscard]] int SnapRemoveList(const QOVASHARE *pShare, const QLIBCSZLIST *pListSnap, QLIBCMRESULT **ppResult);

// Hands one list to the platform's deletion; *pDeletedCount tells how many are gone. 0 or -1.
[[nodiscard]] int SnapDeleteSubvolList(const QOVASHARE *pShare, const QLIBCSZLIST *pList, int *pDeletedCount);

// The names of a batch. A batch may hold a thousand names and the file as many sections, so names are found by hash.
class NameTable {
public:
    NameTable(const QOVASHARE *pShare, const QLIBCSZLIST *pList);
    // The first name in list order whose section the line opens, -1 when it is none of them.
    [[nodiscard]] int FindSection(const char *szLine, size_t cbLine);
    // Whether the snapshot stands. Asked anew by each call.
    [[nodiscard]] bool Stands(int nIndex) const;
    // Whether it stands after the deletions. Asked once: only this batch deletes, and it is done.
    [[nodiscard]] bool Survived(int nIndex);
    // Index of the first name in list order that survived, the number of names when none did.
    [[nodiscard]] int FirstSurvivor();
    [[nodiscard]] int Count() const { return nCount_; }
    [[nodiscard]] const char *Get(int nIndex) const { return QLIBCSzListGet(pList_, nIndex); }

private:
    enum Answer : signed char { UNASKED, GONE, SURVIVED };

    [[nodiscard]] int FindSectionByMatching(const char *szLine, size_t cbLine) const;

    const QOVASHARE *pShare_;
    const QLIBCSZLIST *pList_;
    int nCount_;
    std::unordered_map<std::string_view, int> indexByName_; // the first index of each name
    std::vector<Answer> answers_;                           // by that index
    int nFirstSurvivor_ = -1;
    std::string section_; // name of the section line in hand
};

// One growing buffer for lines of any length.
class LineReader {
public:
    LineReader() = default;
    ~LineReader();
    LineReader(const LineReader &) = delete;
    LineReader &operator=(const LineReader &) = delete;
    // Reads the next line with its end; false at the end of the file and on failure.
    [[nodiscard]] bool Next(FILE *pStream);
    [[nodiscard]] const char *Text() const { return szLine_; }
    [[nodiscard]] size_t Length() const { return cbLine_; }

private:
    char *szLine_ = nullptr;
    size_t cbBuf_ = 0;
    size_t cbLine_ = 0;
};

// A temporary file beside its target, removed again unless it was given up.
class TemporaryFile {
public:
    TemporaryFile() = default;
    ~TemporaryFile();
    TemporaryFile(const TemporaryFile &) = delete;
    TemporaryFile &operator=(const TemporaryFile &) = delete;
    [[nodiscard]] bool Create(const char *szTarget);
    [[nodiscard]] FILE *Stream() const { return pStream_; }
    [[nodiscard]] const char *Path() const { return szPath_; }
    [[nodiscard]] FILE *GiveUp();

private:
    FILE *pStream_ = nullptr;
    char szPath_[kPathSize] = "";
};

// State of one call. What is declared last is released first: line, input, temporary file, lock, lists and hash.
struct Removal {
    Removal(const QOVASHARE *pShareOfNames, const QLIBCSZLIST *pListSnap, QLIBCMRESULT **ppNameResult)
        : pShare(pShareOfNames), ppResult(ppNameResult), names(pShareOfNames, pListSnap) {}

    const QOVASHARE *pShare;
    QLIBCMRESULT **ppResult;
    NameTable names;
    int nFsType = -1;
    char szMeta[kPathSize] = "";
    HashOwner status; // "true" for a name whose section and subvolume were found, else "false"
    ListOwner visible;
    ListOwner hidden;
    MetadataLock lock;
    TemporaryFile output;
    ReadStreamOwner input;
    struct stat inputStat = {};
    LineReader line;

    int nDecreased = 0; // what the counter went down by
    int nVisibleDeleted = 0;
    int nHiddenDeleted = 0;
    bool blFailed = false; // a deletion fell short
};

// Pass two: writes what stays of the metadata to the temporary file and puts that in the place of the old one.
[[nodiscard]] bool RewriteMetadata(Removal &r);

// getdelim ends in the same way at the end of a file and by a failure.
[[nodiscard]] bool CheckInputEnd(const Removal &r);

} // namespace sharesnap
#endif
