// Every call of the smaller functions around creation, deletion and shares fails once: limits, events, plug-ins, the queue
// of deleted subvolumes, a share that comes and its settings that go.
#include "volume/lifecycle.hpp"

#include <sharesnap/config.h>
#include <sharesnap/platform/plugin.h>

#include "faults/export_sweep.hpp"

using namespace lifecycle;
using faults::borne;
using faults::Outcome;
using faults::Outcomes;
using faults::sweep;
using faults::with;
using testkit::FaultPoint;

namespace {

class LifecycleFaults : public Fixture {};

TEST_F(LifecycleFaults, LimitOfTheShare) {
    ASSERT_TRUE(testkit::makeDirectories("/etc.defaults"));
    ASSERT_TRUE(testkit::writeFile("/etc.defaults/qovainfo.conf", "max_snapshots_per_share=\"7\"\n"));
    sweep({"QOVAShareSnapMaximumGet", 7, {{"QLIBCFileGetKeyValue", {1024}}}}, {},
          [] { return QOVAShareSnapMaximumGet(); });
}

// Settings that can't be read have their defaults, a directory that can't be looked at counts as absent, and a counter that
// can't be read is recounted.
TEST_F(LifecycleFaults, LimitsAreChecked) {
    (void)take();
    const Outcomes outcomes =
        borne(0, {"QLIBCFileGetKeyValue", "QOVABtrfsIsSubVol 2", "QOVABtrfsIsSubVol 3", "getxattr"});
    sweep({"QOVAShareSnapCheckReachMaxSnapshot", 0, outcomes}, {},
          [&] { return QOVAShareSnapCheckReachMaxSnapshot(share); });
    // Whatever fails in the first check, the second one is good.
    sweep({"QOVAShareSnapCheckMaxRetry", 0,
           with(outcomes, borne(0, {"QLIBShareIsEncryptionGet", "QOVAShareVolPathGet", "QOVAGetFSType",
                                    "QOVABtrfsIsSubVol", "QOVABtrfsSnapCountReachMaxCheck"}))},
          {}, [&] { return QOVAShareSnapCheckMaxRetry(share); });
}

// The counter has drifted to the limit: a recount that fails leaves it there, and the second check refuses.
TEST_F(LifecycleFaults, LimitsAreCheckedAgainAfterARecount) {
    (void)take();
    const Outcome refused = {-1, 0x1500};
    Outcomes outcomes = borne(0, {"QLIBCFileGetKeyValue", "getxattr", "lstat", "stat", "malloc", "getdelim",
                                  "QLIBCStrSepPair", "fclose", "QLIBCFileUnlockByFile"});
    for (const char *name :
         {"QLIBCSzListAlloc", "QOVAShareEnum", "QOVAShareGet", "QOVAMountVolInfoGet", "malloc 1",
          "QLIBCFileLockTimeByFile", "QLIBShareIsEncryptionGet", "QOVAShareVolPathGet", "QOVAGetFSType",
          "QLIBCSzHashAlloc", "fopen", "QLIBCFileParseSectionName", "QLIBCSzHashSetValue", "QLIBCSzListPush",
          "QOVABtrfsIsSubVol 4", "QOVABtrfsIsSubVol 8", "QOVABtrfsIsSubVol 10", "setxattr"}) {
        outcomes[name] = refused;
    }
    // In the first check nothing stops the repair, in the second one everything counts.
    const Outcomes first =
        borne(0, {"QLIBShareIsEncryptionGet 1", "QLIBShareIsEncryptionGet 2", "QOVAShareVolPathGet 1",
                  "QOVAShareVolPathGet 2", "QOVAGetFSType 1", "QOVABtrfsIsSubVol"});
    const Outcome failed = {-1, 0x2A00};
    const Outcomes second = {{"QLIBShareIsEncryptionGet 8", failed},
                             {"QLIBShareIsEncryptionGet 9", failed},
                             {"QOVAShareVolPathGet 9", failed},
                             {"QOVAShareVolPathGet 10", failed},
                             {"QOVAGetFSType 4", failed},
                             {"QOVABtrfsIsSubVol 11", failed},
                             {"QOVABtrfsSnapCountReachMaxCheck", failed}};
    sweep(
        {"QOVAShareSnapCheckMaxRetry", 0, with(with(outcomes, first), second)}, [&] { storeCount(1024); },
        [&] { return QOVAShareSnapCheckMaxRetry(share); });
}

TEST_F(LifecycleFaults, EventsLeaveTheCodeThatTheyTellOf) {
    for (const unsigned int code : {0x0400U, 0x1500U, 0xE400U}) {
        const Outcome failed = {-1, code};
        const Outcomes outcomes = {{"QOVALogSet1", failed},
                                   {"VolumePathParseEx", failed},
                                   {"QOVAVolIDParse", failed},
                                   {"QLIBCFileGetKeyValue", {0, code}}};
        for (const int success : {0, 1}) {
            sweep({"QOVAShareSnapCreateLogSet", 0, outcomes}, {}, [&] {
                setCode(code);
                return QOVAShareSnapCreateLogSet(share, "snap", "alice", success);
            });
            sweep({"QOVAShareSnapDeleteLogSet", 0, outcomes}, {}, [&] {
                setCode(code);
                return QOVAShareSnapDeleteLogSet(share, "alice", "snap", success);
            });
        }
    }
}

TEST_F(LifecycleFaults, DeletedSubvolumesAreCounted) {
    const testkit::NoSleep naps;
    uint32_t count = 7;
    sweep(
        {"QOVAShareSnapDeletingCountGet", 0}, [&] { count = 7; },
        [&] { return QOVAShareSnapDeletingCountGet("/vol1/docs", &count); },
        [&](const FaultPoint &, int) { EXPECT_EQ(0U, count); });
}

TEST_F(LifecycleFaults, ShareComes) {
    sweep(
        {"QOVAShareSnapShareCreate", 0, {}, {"/vol1/new"}},
        [] { (void)QOVABtrfsDeleteSubvolFaultTolerant("/vol1/new"); },
        [] { return QOVAShareSnapShareCreate("/vol1/new"); },
        [](const FaultPoint &, int given) { EXPECT_EQ(given == 0, testkit::exists("/vol1/new")); });
}

TEST_F(LifecycleFaults, SettingsGoWithTheShare) {
    ASSERT_TRUE(testkit::makeDirectories("/usr/qova/etc/sharesnap"));
    const std::string file = "/usr/qova/etc/sharesnap/sharesnap.conf";
    const std::string text = "[docs]\na=1\n[other]\nb=2\n";
    sweep(
        {"QOVAShareSnapConfigDelete", 0, borne(0, {"stat", "lstat", "QLIBCFileUnlockByFile"})},
        [&] { ASSERT_TRUE(testkit::writeFile(file, text)); }, [] { return QOVAShareSnapConfigDelete("/vol1/docs"); },
        [&](const FaultPoint &point, int given) {
            EXPECT_EQ(given == 0 && point.symbol.rfind("stat", 0) != 0 ? "[other]\nb=2\n" : text,
                      testkit::readFile(file));
        });
}

TEST_F(LifecycleFaults, PluginsAreOpenedAndTold) {
    ASSERT_EQ("", installPlugin("ears", "exit 0\n"));
    QLIBPLUGIN *plugin = nullptr;
    sweep(
        {"QOVAShareSnapshotPluginInit", 0},
        [&] {
            QLIBPluginExit(plugin);
            plugin = nullptr;
        },
        [&] { return QOVAShareSnapshotPluginInit(&plugin); },
        [&](const FaultPoint &, int) { EXPECT_EQ(nullptr, plugin); });
    ASSERT_NE(nullptr, plugin);
    const Record copy("copy", "/vol1/copy");
    const List names(Names{"a", "b"});
    sweep({"QOVAShareSnapshotPluginAction", 0, {{"malloc", {-1, 0x0200}}}}, {}, [&] {
        return QOVAShareSnapshotPluginAction(SNAP_PHASE_PRE, plugin, share, copy.get(), names.get(), "CLONE_SNAP", 0);
    });
    QLIBPluginExit(plugin);
}

} // namespace
