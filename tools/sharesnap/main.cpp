// sharesnap: the administrator's command for snapshots of shared folders.
#include "failure.h"
#include "inherited.h"
#include "verbs.h"

#include <exception>
#include <iterator>
#include <new>
#include <sys/stat.h>

namespace {

constexpr command::VerbEntry verbs[] = {
    {"share", "List, show, add, rename and remove shares", command::fillShare},
    {"create", "Take a snapshot of a share and print its name", command::fillCreate},
    {"list,ls", "List the snapshots of a share, oldest first", command::fillList},
    {"show", "Show one snapshot: path, attributes, who holds it", command::fillShow},
    {"delete,rm", "Delete snapshots", command::fillDelete},
    {"clone", "Make a new share, with its own files, out of a share or a snapshot", command::fillClone},
    {"attr", "Read and change the attributes of a snapshot", command::fillAttr},
    {"hold", "Keep snapshots from deletion, until a reboot or a release", command::fillHold},
    {"conf", "Read and change the snapshot settings of a share", command::fillConf},
    {"sync", "Make the list of snapshots true to what the volume holds", command::fillSync},
    {"count", "Count the visible snapshots of a share, or of all shares", command::fillCount},
    {"size", "Estimate the size of a snapshot, or of its difference to another one", command::fillSize},
    {"info", "Show the share's configuration as a snapshot froze it", command::fillInfo},
    {"restore", "Bring a share's files back to a snapshot; the present state is kept as one", command::fillRestore},
    {"tree", "Show from what the shares and snapshots of a volume descend", command::fillTree},
};

} // namespace

int main(int argc, char **argv) {
    command::mendInheritedState();
    // The library makes directories and files with the modes it is given; none of them is to be writable by others.
    (void)umask(022);
    try {
        const int status = command::parseAndRun(argc, argv, verbs, std::size(verbs));
        command::finishOutput();
        return status;
    } catch (const command::Failure &failure) {
        command::complain(failure.message(), failure.next());
        return failure.exitStatus();
    } catch (const std::bad_alloc &) {
        command::complain("there is no memory left");
        return command::exitFailed;
    } catch (const std::exception &error) {
        command::complain(error.what());
        return command::exitFailed;
    }
}
