// Every call that a clone makes to the platform or to the C library fails once.
#include "volume/lifecycle.hpp"

#include <sys/wait.h>

#include "faults/export_sweep.hpp"

using namespace lifecycle;
using faults::borne;
using faults::Outcomes;
using testkit::FaultPoint;

namespace {

class SnapCloneFaults : public Fixture {
protected:
    // Clones to /vol1/copy, where the data come to stand at the target.
    void sweep(const QOVASHARE *from, const Record &copy, const char *snapshot, const std::string &target) {
        ASSERT_EQ("", installPlugin("ears", "exit 0\n"));
        const std::string before = meta();
        const int count = storedCount();
        faults::sweep(
            {"QOVAShareSnapClone", 0, outcomes(), {target}},
            [&] {
                (void)QOVABtrfsDeleteSubvolFaultTolerant(target.c_str());
                waitForPlugins();
            },
            [&] {
                const int given = QOVAShareSnapClone(from, copy.get(), snapshot);
                waitForPlugins();
                return given;
            },
            [&](const FaultPoint &, int given) {
                EXPECT_EQ(given == 0, QOVABtrfsIsSubVol(target.c_str()) == 1);
                EXPECT_EQ(before, meta());
                EXPECT_EQ(count, storedCount());
            });
    }

    static void waitForPlugins() {
        while (waitpid(-1, nullptr, 0) > 0) {}
    }

    // A mark that stays, a last announcement that fails and a name that plug-ins don't hear fail nothing; the first
    // announcement must be made whole.
    static Outcomes outcomes() {
        Outcomes all = borne(0, {"QOVABtrfsIsSubVol 3", "QLIBCSzListPush", "QOVABtrfsSubvolHideAttrSet",
                                 "QLIBPluginSetArg", "QLIBPluginSetArgByInt", "malloc", "QLIBPluginAction 2"});
        for (const char *name : {"QLIBPluginSetArg 1", "QLIBPluginSetArg 2", "QLIBPluginSetArg 3", "QLIBPluginSetArg 4",
                                 "QLIBPluginSetArg 5", "QLIBPluginSetArg 6", "QLIBPluginSetArgByInt 1",
                                 "QLIBPluginSetArgByInt 2", "malloc 1"}) {
            all[name] = {-1, 0x0200};
        }
        return all;
    }
};

TEST_F(SnapCloneFaults, OfASnapshot) {
    const std::string name = take();
    sweep(share, Record("copy", "/vol1/copy"), name.c_str(), "/vol1/copy");
}

TEST_F(SnapCloneFaults, OfTheLiveShare) {
    sweep(share, Record("copy", "/vol1/copy"), nullptr, "/vol1/copy");
}

// A locked encrypted share: its subvolume is the back end.
TEST_F(SnapCloneFaults, OfAnEncryptedShare) {
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/@safe@"));
    const Record safe("safe", "/vol1/safe", QOVA_SHARE_STATUS_ENCRYPTED);
    const Record copy("copy", "/vol1/copy", QOVA_SHARE_STATUS_ENCRYPTED);
    sweep(safe.get(), copy, nullptr, "/vol1/@copy@");
    char name[255] = "";
    ASSERT_EQ(0, QOVAShareSnapCreate(safe.get(), name, sizeof(name), nullptr));
    waitForPlugins();
    sweep(safe.get(), copy, name, "/vol1/@copy@");
}

} // namespace
