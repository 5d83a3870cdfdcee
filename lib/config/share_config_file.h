// Where a share's frozen configuration lies, and its lock. Shared by the writer and the reader.
#ifndef SHARESNAP_CONFIG_SHARE_CONFIG_FILE_H
#define SHARESNAP_CONFIG_SHARE_CONFIG_FILE_H

#include <sharesnap/platform/share.h>

#include <cstddef>

#include "frame/path_format.h"

namespace sharesnap {

constexpr char kShareInfoSection[] = "share_info";
constexpr char kEaDirName[] = "@eaDir";
constexpr char kShareConfigDirName[] = "sharesnap_share_configuration";
constexpr char kShareConfigFileName[] = "share_configuration";

enum class ConfigLockMode { kShared = 0, kExclusive = 1 };

// The directory of the share's data: its path, or the back end of an encrypted share. 0 or -1.
[[nodiscard]] int ShareBasePathGet(const QOVASHARE *pShare, char *szPath, std::size_t cbPath);

// Each gives 1 (it stands or was made), 0 (it doesn't) or -1; szPath has kPathSize bytes.
[[nodiscard]] int ShareEaDirGet(const QOVASHARE *pShare, char *szPath, int blCreate);
[[nodiscard]] int ShareConfigDirGet(const QOVASHARE *pShare, char *szPath, int blCreate);
[[nodiscard]] int ShareConfigFileGet(const QOVASHARE *pShare, char *szPath, int blCreate);

// A descriptor, or a negative number; released by QLIBCFileUnlockByFile. Waits up to 10 seconds.
[[nodiscard]] int ShareConfigLock(const char *szShareName, ConfigLockMode mode);

} // namespace sharesnap
#endif
