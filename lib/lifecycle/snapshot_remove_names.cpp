// The names of a batch and the owners that one removal works with.
#include <fcntl.h>
#include <sharesnap/frame.h>
#include <sharesnap/platform/section_file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "frame/inside_name.h"
#include "frame/log.h"
#include "frame/path_format.h"
#include "lifecycle/snapshot_remove_list.h"

namespace sharesnap {

NameTable::NameTable(const QOVASHARE *pShare, const QLIBCSZLIST *pList)
    : pShare_(pShare), pList_(pList), nCount_(pList->nItem), answers_(static_cast<size_t>(pList->nItem), UNASKED) {
    indexByName_.reserve(static_cast<size_t>(nCount_));
    for (int i = 0; i < nCount_; ++i) {
        indexByName_.emplace(Get(i), i);
    }
}

int NameTable::FindSection(const char *szLine, size_t cbLine) {
    section_.resize(cbLine + 1);
    if (QLIBCFileParseSectionName(szLine, section_.data(), section_.size()) < 0) {
        return FindSectionByMatching(szLine, cbLine);
    }
    const auto found = indexByName_.find(section_.c_str());
    if (found == indexByName_.end() || QLIBCIFileMatchSection(szLine, cbLine, Get(found->second)) != 1) {
        return -1;
    }
    return found->second;
}

// Slow and sure, for a line whose name can't be had.
int NameTable::FindSectionByMatching(const char *szLine, size_t cbLine) const {
    for (int i = 0; i < nCount_; ++i) {
        if (QLIBCIFileMatchSection(szLine, cbLine, Get(i)) == 1) {
            return i;
        }
    }
    return -1;
}

bool NameTable::Stands(int nIndex) const {
    char szPath[kPathSize] = "";
    return NameStaysInside(Get(nIndex)) && QOVAShareSnapGetSnapPath(pShare_, Get(nIndex), szPath, sizeof(szPath)) == 1;
}

bool NameTable::Survived(int nIndex) {
    Answer &answer = answers_[static_cast<size_t>(indexByName_.at(Get(nIndex)))];
    if (answer == UNASKED) {
        answer = Stands(nIndex) ? SURVIVED : GONE;
    }
    return answer == SURVIVED;
}

int NameTable::FirstSurvivor() {
    if (nFirstSurvivor_ < 0) {
        nFirstSurvivor_ = 0;
        while (nFirstSurvivor_ < nCount_ && !Survived(nFirstSurvivor_)) {
            ++nFirstSurvivor_;
        }
    }
    return nFirstSurvivor_;
}

LineReader::~LineReader() {
    const ErrnoKeeper keeper;
    std::free(szLine_);
}

bool LineReader::Next(FILE *pStream) {
    const ssize_t nRead = getdelim(&szLine_, &cbBuf_, '\n', pStream);
    cbLine_ = nRead > 0 ? static_cast<size_t>(nRead) : 0;
    return nRead > 0;
}

TemporaryFile::~TemporaryFile() {
    if (pStream_ != nullptr) {
        const ErrnoKeeper keeper;
        (void)std::fclose(pStream_); // what it holds is thrown away
        (void)unlink(szPath_);       // nothing to be done about a leftover
    }
}

bool TemporaryFile::Create(const char *szTarget) {
    if (!FormatPath(szPath_, sizeof(szPath_), "%s.XXXXXX", szTarget)) {
        SNAP_LOG(LOG_ERR, "Failed create tmp file [%s] errno:%d", szPath_, errno);
        return false;
    }
    const int nFd = mkstemp(szPath_);
    if (nFd < 0) {
        SNAP_LOG(LOG_ERR, "Failed create tmp file [%s] errno:%d", szPath_, errno);
        SNAP_SET_ERR(SNAP_ERR_OPERATION_FAILED);
        return false;
    }
    (void)fcntl(nFd, F_SETFD, FD_CLOEXEC); // can't fail on a descriptor just opened
    pStream_ = fdopen(nFd, "w");
    if (pStream_ == nullptr) {
        SNAP_LOG(LOG_ERR, "Failed open tmp file [%s] errno:%d", szPath_, errno);
        SNAP_SET_ERR(SNAP_ERR_OPERATION_FAILED);
        const ErrnoKeeper keeper;
        (void)close(nFd);      // empty
        (void)unlink(szPath_); // nothing to be done about a leftover
        return false;
    }
    return true;
}

FILE *TemporaryFile::GiveUp() {
    FILE *pStream = pStream_;
    pStream_ = nullptr;
    return pStream;
}

} // namespace sharesnap
