/* The program that the platform runs for the name /sbin/btrfs. It answers two questions in the form that the snapshot
   library expects, and hands everything else to the program of the Btrfs tools as it came. */
#include "btrfs/commands.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <unistd.h>

namespace {

int HandOver(char **rgszArgument) {
    (void)execv(BtrfsTool::REAL_BTRFS, rgszArgument);
    (void)fprintf(stderr, "ERROR: cannot run %s: %s\n", BtrfsTool::REAL_BTRFS, strerror(errno));
    return 127;
}

int Run(int nArgument, char **rgszArgument) {
    const auto is = [&](int nIndex, const char *szText) {
        return nIndex < nArgument && strcmp(rgszArgument[nIndex], szText) == 0;
    };
    if (nArgument == 4 && is(1, "subvolume") && is(2, "list") && rgszArgument[3][0] != '-') {
        return BtrfsTool::ListSubvolumes(rgszArgument[3]);
    }
    if (is(1, "send") && is(2, "-es")) {
        return BtrfsTool::EstimateSend({rgszArgument + 3, rgszArgument + nArgument});
    }
    return HandOver(rgszArgument);
}

} // namespace

int main(int nArgument, char **rgszArgument) {
    try {
        return Run(nArgument, rgszArgument);
    } catch (const std::exception &failure) {
        (void)fprintf(stderr, "ERROR: %s\n", failure.what());
        return 1;
    }
}
