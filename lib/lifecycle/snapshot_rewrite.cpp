// Pass two of a removal: the metadata file without the sections of what is gone. The data are on disk before the name
// changes, so a crash leaves the whole old file or the whole new one.
#include <sharesnap/platform/section_file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "frame/log.h"
#include "lifecycle/snapshot_remove_list.h"

namespace {

using namespace sharesnap;

// Permission bits with set-id and sticky bits.
constexpr mode_t kModeMask = 0xFFF;

// After a failed deletion a name that still has its subvolume keeps its own section and those of all names behind it in
// the list: in doubt a section stays, and reconciliation clears what is stale.
[[nodiscard]] bool SnapSectionIsRemain(Removal &r, const char *szLine, size_t cbLine) {
    if (szLine == nullptr || cbLine < 1) {
        SNAP_LOG(LOG_ERR, "Cannot select remain section due to wrong params, so keep it.");
        return true;
    }
    const int nIndex = r.names.FindSection(szLine, cbLine);
    if (nIndex < 0) {
        return true;
    }
    return r.blFailed && r.names.FirstSurvivor() <= nIndex;
}

[[nodiscard]] bool WriteLine(const Removal &r) {
    if (std::fwrite(r.line.Text(), 1, r.line.Length(), r.output.Stream()) != r.line.Length()) {
        SNAP_LOG_REG(LOG_ERR, "Failed to write line in output file[0x%04X %s:%d]");
        SNAP_SET_ERR(SNAP_ERR_OPERATION_FAILED);
        return false;
    }
    return true;
}

// Comments outlive the section they stand in.
[[nodiscard]] bool IsComment(const char *szLine) {
    return szLine[0] == ';' || szLine[0] == '#';
}

[[nodiscard]] bool CopyRemainingLines(Removal &r) {
    std::rewind(r.input.get());
    bool blKeep = false;
    while (r.line.Next(r.input.get())) {
        const bool blSection = QLIBCIFileIsSection(r.line.Text(), r.line.Length()) != 0;
        if (blSection) {
            blKeep = SnapSectionIsRemain(r, r.line.Text(), r.line.Length());
        }
        if ((blKeep || (!blSection && IsComment(r.line.Text()))) && !WriteLine(r)) {
            return false;
        }
    }
    return CheckInputEnd(r);
}

[[nodiscard]] bool FlushOutput(const Removal &r) {
    if (std::fflush(r.output.Stream()) != 0) {
        SNAP_LOG(LOG_ERR, "Failed to fflush Output file errno:%d", errno);
        SNAP_SET_ERR(SNAP_ERR_WRITE_FAILED);
        return false;
    }
    return true;
}

[[nodiscard]] bool SyncOutputAsOldFile(const Removal &r) {
    const int nFd = fileno(r.output.Stream());
    if (fsync(nFd) != 0 || fchown(nFd, r.inputStat.st_uid, r.inputStat.st_gid) != 0 ||
        fchmod(nFd, r.inputStat.st_mode & kModeMask) != 0) {
        SNAP_LOG(LOG_ERR, "Failed to fsync/chown/chmod Output file errno:%d", errno);
        SNAP_SET_ERR(SNAP_ERR_WRITE_FAILED);
        return false;
    }
    return true;
}

[[nodiscard]] bool CloseOutput(Removal &r) {
    if (std::fclose(r.output.GiveUp()) != 0) {
        SNAP_LOG(LOG_ERR, "Failed to close Output file errno:%d", errno);
        SNAP_SET_ERR(SNAP_ERR_WRITE_FAILED);
        return false;
    }
    return true;
}

[[nodiscard]] bool ReplaceMetadata(const Removal &r) {
    if (std::rename(r.output.Path(), r.szMeta) != 0) {
        SNAP_LOG(LOG_ERR, "Failed to rename tmp file replace meta file errno:%d", errno);
        SNAP_SET_ERR(SNAP_ERR_RENAME_FAILED);
        return false;
    }
    return true;
}

} // namespace

namespace sharesnap {

bool RewriteMetadata(Removal &r) {
    return r.output.Create(r.szMeta) && CopyRemainingLines(r) && FlushOutput(r) && SyncOutputAsOldFile(r) &&
           CloseOutput(r) && ReplaceMetadata(r);
}

} // namespace sharesnap
