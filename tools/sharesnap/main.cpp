// sharesnap: the administrator's command for snapshots of shared folders.
#include "failure.h"
#include "verbs.h"

#include <exception>
#include <new>
#include <sys/stat.h>

namespace {

void addVerbs(command::Verb &root) {
    command::addShareVerbs(root);
    command::addCreateVerb(root);
    command::addListVerb(root);
    command::addShowVerb(root);
    command::addAttrVerbs(root);
    command::addConfVerbs(root);
    command::addCountVerb(root);
    command::addDeleteVerb(root);
    command::addHoldVerbs(root);
    command::addSyncVerb(root);
    command::addCloneVerb(root);
    command::addSizeVerb(root);
    command::addInfoVerb(root);
}

} // namespace

int main(int argc, char **argv) {
    // The library makes directories and files with the modes it is given; none of them is to be writable by others.
    (void)umask(022);
    try {
        const int status = command::parseAndRun(argc, argv, addVerbs);
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
