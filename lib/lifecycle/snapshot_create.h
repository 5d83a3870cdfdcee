// State of one creation, shared by its stages.
#ifndef SHARESNAP_LIFECYCLE_SNAPSHOT_CREATE_H
#define SHARESNAP_LIFECYCLE_SNAPSHOT_CREATE_H

#include <sharesnap/lifecycle.h>

#include <ctime>

#include "frame/owners.h"
#include "frame/path_format.h"

namespace sharesnap {

// A snapshot must leave this much of its volume free, in MB and in bytes.
inline constexpr int kReserveMB = 100;
inline constexpr unsigned long long kReserveBytes = kReserveMB * 1024ULL * 1024ULL;

struct Creation {
    const QOVASHARE *pShare = nullptr;
    char *szSnapName = nullptr; // the caller's buffer, may be null
    size_t cbSnapName = 0;
    QLIBCSZHASH **ppHash = nullptr; // the caller's attributes, or the private ones
    bool blShareInfo = false;
    unsigned int uFlags = 0;

    ListOwner list;        // the names that plug-ins hear of
    HashOwner privateHash; // attributes when the caller gave none
    QLIBPLUGIN *pPlugin = nullptr;
    int nFsType = -1;
    bool blHidden = false;
    time_t tNow = 0;
    bool blLocalTime = false;
    char szName[kPathSize] = "";

    // What the failure tail has to undo.
    bool blRollbackCount = false;
    bool blRollbackMeta = false;
};

// Stages of snapshot_create_take.cpp. Each gives false when the creation fails there, with the code in the register.
[[nodiscard]] bool CheckReservedSpace(const Creation &c);
[[nodiscard]] bool CheckFileSystemType(const Creation &c);
// Takes the subvolume, marks it and stores its facts. A subvolume that can't be completed is deleted again.
[[nodiscard]] bool TakeSnapshot(const Creation &c);

} // namespace sharesnap
#endif
