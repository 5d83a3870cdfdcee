// Links planted where the library looks for its own directories and files: nothing behind them is read, written or
// removed.
#include <sharesnap/config.h>
#include <sharesnap/platform/quota.h>
#include <sharesnap/platform/share_admin.h>

#include "lifecycle.hpp"

namespace {

using namespace lifecycle;

constexpr char kEaDir[] = "/vol1/docs/@eaDir";
constexpr char kConfigDir[] = "/vol1/docs/@eaDir/sharesnap_share_configuration";
constexpr char kBait[] = "[GMT-2026.01.02-03.04.06]\nhide=false\ndesc=bait\n";

// A share, and a subvolume that nobody who works on the share may touch.
class HostileLinks : public Fixture {
protected:
    void SetUp() override {
        Fixture::SetUp();
        if (IsSkipped()) {
            return;
        }
        ASSERT_EQ(0, QOVABtrfsCreateSubVol(elsewhere_.c_str()));
        ASSERT_TRUE(testkit::writeFile(elsewhere_ + "/precious", "precious"));
    }

    void TearDown() override {
        if (!IsSkipped()) {
            EXPECT_EQ(expected_, testkit::directoryNames(elsewhere_));
            EXPECT_EQ("precious", testkit::readFile(elsewhere_ + "/precious"));
        }
        Fixture::TearDown();
    }

    void bait(const std::string &name, const std::string &text) {
        ASSERT_TRUE(testkit::writeFile(elsewhere_ + "/" + name, text));
        expected_ = testkit::directoryNames(elsewhere_);
    }

    // Creation without a look at the result.
    int tryCreate() {
        char name[255] = "";
        return QOVAShareSnapCreate(share, name, sizeof(name), nullptr);
    }

    // Everything that finds the metadata file fails or finds nothing, and a share that goes leaves it alone.
    void expectMetadataUntouched() {
        List list;
        (void)QOVAShareSnapList(share, list.address(), nullptr);
        EXPECT_EQ(Names{}, list.names());
        char value[64] = "";
        EXPECT_EQ(-1, QOVAShareSnapAttrGet(share, kName, "desc", value, sizeof(value)));
        EXPECT_EQ(-1, QOVAShareSnapAttrDelete(share, kName, "desc"));
        EXPECT_EQ(-1, SnapMetaSectionDel(share, kName, 1));
        EXPECT_EQ(-1, remove({kName}));
        (void)QOVAShareSnapMetaSync(share); // nor does it write to what it can't find
        const Record renamed("renamed", "/vol1/docs");
        (void)SnapMetaFileRename(share, renamed.get());
        (void)SnapMetaFileDelete(share);
    }

    static constexpr const char *kName = "GMT-2026.01.02-03.04.06";
    const std::string elsewhere_ = "/vol1/elsewhere";
    Names expected_{"precious"};
};

TEST_F(HostileLinks, MetadataBehindALinkIsNobodysMetadata) {
    ASSERT_EQ("/vol1/@sharesnap/docs/" + take(), snapDir() + "/" + kName);
    bait("bait.meta", kBait);
    ASSERT_EQ(0, unlink(metaPath().c_str()));
    ASSERT_EQ(0, symlink("/vol1/elsewhere/bait.meta", metaPath().c_str()));
    char path[4096] = "";
    EXPECT_EQ(-1, SnapMetaGetOrCreateFile(share, path, sizeof(path), 1));
    EXPECT_EQ(0xC000U, QLIBCErrGet());
    EXPECT_EQ(-1, QOVAShareSnapAttrSet(share, kName, "desc", "mine"));
    const Hash attributes(Pairs{{"hide", "false"}});
    EXPECT_EQ(-1, QOVAShareSnapMetaSectionAdd(share, "new", attributes.get()));
    expectMetadataUntouched();
    EXPECT_EQ(kBait, testkit::readFile(elsewhere_ + "/bait.meta"));
    EXPECT_TRUE(stands(kName));
}

// The path of the metadata leads through it, and some callers make nothing.
TEST_F(HostileLinks, TopThatIsALinkHoldsNoMetadata) {
    bait("@docs.meta", kBait);
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/elsewhere/docs"));
    ASSERT_EQ(0, QOVABtrfsReadOnlySnapshotTake("/vol1/docs", (elsewhere_ + "/docs/" + kName).c_str()));
    expected_ = testkit::directoryNames(elsewhere_);
    ASSERT_EQ(0, symlink(elsewhere_.c_str(), "/vol1/@sharesnap"));
    expectMetadataUntouched();
    char path[4096] = "";
    EXPECT_EQ(0, QOVAShareSnapGetSnapPath(share, kName, path, sizeof(path)));
    int count = 7;
    EXPECT_EQ(0, QOVAShareSnapGetSnapCount(share, &count, 0));
    EXPECT_EQ(0, count);
    EXPECT_EQ(kBait, testkit::readFile(elsewhere_ + "/@docs.meta"));
    EXPECT_EQ(1, QOVABtrfsIsSubVol((elsewhere_ + "/docs/" + kName).c_str()));
}

TEST_F(HostileLinks, TopThatIsALinkIsMovedAsideAsALink) {
    ASSERT_EQ(0, symlink(elsewhere_.c_str(), "/vol1/@sharesnap"));
    const std::string name = take();
    EXPECT_TRUE(stands(name));
    EXPECT_EQ(Names{name}, sections());
    EXPECT_EQ(1, storedCount());
    std::string aside;
    for (const std::string &each : testkit::directoryNames("/vol1")) {
        aside = each.compare(0, 11, "@sharesnap.") == 0 ? each : aside;
    }
    EXPECT_EQ(elsewhere_, testkit::readLink("/vol1/" + aside));
}

TEST_F(HostileLinks, FileInThePlaceOfTheTopStopsNobody) {
    ASSERT_TRUE(testkit::writeFile("/vol1/@sharesnap", "in the way"));
    EXPECT_TRUE(stands(take()));
}

TEST_F(HostileLinks, ShareDirectoryThatIsALinkIsMovedAsideAsALink) {
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/@sharesnap"));
    ASSERT_EQ(0, symlink(elsewhere_.c_str(), "/vol1/@sharesnap/docs"));
    const std::string name = take();
    EXPECT_TRUE(stands(name));
    EXPECT_EQ(1, QOVABtrfsIsSubVol(snapDir().c_str()));
    std::string aside;
    for (const std::string &each : testkit::directoryNames("/vol1/@sharesnap")) {
        aside = each.compare(0, 5, "docs.") == 0 ? each : aside;
    }
    EXPECT_EQ(elsewhere_, testkit::readLink("/vol1/@sharesnap/" + aside));
}

TEST_F(HostileLinks, SnapshotsBehindALinkedShareDirectoryAreNotDeleted) {
    const std::string name = take();
    ASSERT_EQ(0, QOVABtrfsReadOnlySnapshotTake("/vol1/docs", (elsewhere_ + "/" + name).c_str()));
    expected_ = testkit::directoryNames(elsewhere_);
    ASSERT_EQ(0, rename(snapDir().c_str(), "/vol1/@sharesnap/kept"));
    ASSERT_EQ(0, symlink(elsewhere_.c_str(), snapDir().c_str()));
    EXPECT_EQ(-1, remove({name}));
    EXPECT_EQ(1, QOVABtrfsIsSubVol((elsewhere_ + "/" + name).c_str()));
    ASSERT_EQ("", testkit::addShare("copy", "/vol1/copy"));
    const testkit::SharePointer copy = testkit::getShare("copy");
    EXPECT_EQ(-1, QOVAShareSnapClone(share, copy.get(), name.c_str()));
    EXPECT_FALSE(testkit::exists("/vol1/copy"));
}

// A share's data is where its record says, not where a link there leads.
TEST_F(HostileLinks, SharesPathThatIsALinkIsNoShare) {
    const std::string name = take();
    ASSERT_EQ(0, rename("/vol1/docs", "/vol1/moved"));
    ASSERT_EQ(0, symlink(elsewhere_.c_str(), "/vol1/docs"));
    EXPECT_EQ(-1, tryCreate());
    EXPECT_EQ(0xD900U, QLIBCErrGet());
    EXPECT_EQ(-1, remove({name}));
    EXPECT_EQ(-1, QOVAShareSnapClone(share, share, nullptr));
    EXPECT_EQ(-1, QOVAShareSnapShareInfoSet(share));
    EXPECT_EQ(-1, QOVAShareSnapDataDelete("/vol1/docs"));
    EXPECT_TRUE(stands(name));
    EXPECT_EQ(elsewhere_, testkit::readLink("/vol1/docs"));
}

TEST_F(HostileLinks, DataOfARenamedShareMovesAsWhatItIs) {
    ASSERT_EQ(0, rename("/vol1/docs", "/vol1/moved"));
    ASSERT_EQ(0, symlink(elsewhere_.c_str(), "/vol1/docs"));
    const Record renamed("renamed", "/vol1/docs");
    // The snapshot directory can't be made for a share that is no subvolume, and all stays where it was.
    EXPECT_EQ(-1, QOVAShareSnapShareRename(share, renamed.get(), "/vol1/docs", "/vol1/renamed"));
    EXPECT_EQ(elsewhere_, testkit::readLink("/vol1/docs"));
    EXPECT_FALSE(testkit::exists("/vol1/renamed"));
}

// The copy of the quota database is written beside the frozen configuration, by root and into the user's share.
TEST_F(HostileLinks, QuotaDatabaseIsCopiedThroughNoLink) {
    char database[4096];
    ASSERT_EQ(0, QOVAQuotaDbPathGet("/vol1/docs", database, sizeof(database)));
    const std::string path = database;
    ASSERT_TRUE(testkit::makeDirectories(path.substr(0, path.rfind('/'))));
    ASSERT_TRUE(testkit::writeFile(path, "limits"));
    ASSERT_EQ(0, symlink(elsewhere_.c_str(), kEaDir));
    EXPECT_EQ(-1, QOVAShareSnapShareInfoSet(share));
    ASSERT_EQ(0, unlink(kEaDir));
    ASSERT_EQ(0, mkdir(kEaDir, 0755));
    ASSERT_EQ(0, symlink(elsewhere_.c_str(), kConfigDir));
    EXPECT_EQ(-1, QOVAShareSnapShareInfoSet(share));
    ASSERT_EQ(0, unlink(kConfigDir));
    ASSERT_EQ(0, mkdir(kConfigDir, 0755));
    // In the place of the copy itself the link is replaced.
    const std::string copy = std::string(kConfigDir) + path.substr(path.rfind('/'));
    ASSERT_EQ(0, symlink("/vol1/elsewhere/precious", copy.c_str()));
    EXPECT_EQ(0, QOVAShareSnapShareInfoSet(share)) << testkit::logText();
    EXPECT_EQ("limits", testkit::readFile(copy));
    EXPECT_EQ("", testkit::readLink(copy));
    // Nor is the database itself taken through one.
    ASSERT_EQ(0, unlink(path.c_str()));
    ASSERT_EQ(0, symlink("/vol1/elsewhere/precious", path.c_str()));
    EXPECT_EQ(-1, QOVAShareSnapShareInfoSet(share));
    EXPECT_EQ("limits", testkit::readFile(copy));
}

// Users can put a pipe there between the look and the making of the file: root doesn't wait for its reader.
TEST_F(HostileLinks, PipePlantedInTheLastMomentIsNotWaitedFor) {
    const std::string file = std::string(kConfigDir) + "/share_configuration";
    ASSERT_TRUE(testkit::makeDirectories(kConfigDir));
    ASSERT_EQ(0, mkfifo(file.c_str(), 0666));
    using Stat = int(const char *, struct stat64 *);
    const testkit::Replacement<Stat> late("stat64", [&file](const char *path, struct stat64 *status) {
        if (file != path) {
            return testkit::real<Stat>("stat64")(path, status);
        }
        errno = ENOENT;
        return -1;
    });
    EXPECT_EQ(-1, QOVAShareSnapShareInfoSet(share));
    EXPECT_EQ(0x0C00U, QLIBCErrGet());
}

// In a snapshot the links stand as the user planted them in the share.
TEST_F(HostileLinks, FrozenConfigurationIsReadThroughNoLink) {
    ASSERT_TRUE(testkit::makeDirectories("/vol1/elsewhere/sharesnap_share_configuration"));
    bait("sharesnap_share_configuration/share_configuration", "[share_info]\ndesc=secret\n");
    QOVAShareSnapShareInfo *info = nullptr;
    const Record frozen("docs", "/vol1/docs");
    ASSERT_EQ(0, symlink(elsewhere_.c_str(), kEaDir));
    EXPECT_EQ(-1, QOVAShareSnapShareInfoGet(frozen.get(), &info));
    ASSERT_EQ(0, unlink(kEaDir));
    ASSERT_EQ(0, mkdir(kEaDir, 0755));
    ASSERT_EQ(0, symlink("/vol1/elsewhere/sharesnap_share_configuration", kConfigDir));
    EXPECT_EQ(-1, QOVAShareSnapShareInfoGet(frozen.get(), &info));
    ASSERT_EQ(0, unlink(kConfigDir));
    ASSERT_EQ(0, mkdir(kConfigDir, 0755));
    ASSERT_EQ(0, symlink("/vol1/elsewhere/sharesnap_share_configuration/share_configuration",
                         (std::string(kConfigDir) + "/share_configuration").c_str()));
    EXPECT_EQ(-1, QOVAShareSnapShareInfoGet(frozen.get(), &info));
    EXPECT_EQ(nullptr, info);
}

// The removal of an encrypted share's configuration takes a link as a link.
TEST_F(HostileLinks, ConfigurationIsClearedThroughNoLink) {
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/@safe@"));
    const Record safe("safe", "/vol1/safe", QOVA_SHARE_STATUS_ENCRYPTED);
    ASSERT_TRUE(testkit::makeDirectories("/vol1/elsewhere/sharesnap_share_configuration"));
    bait("sharesnap_share_configuration/share_configuration", "[share_info]\n");
    ASSERT_EQ(0, symlink(elsewhere_.c_str(), "/vol1/@safe@/@eaDir"));
    QOVAShareSnapShareInfoClear(safe.get());
    ASSERT_EQ(0, unlink("/vol1/@safe@/@eaDir"));
    ASSERT_EQ(0, mkdir("/vol1/@safe@/@eaDir", 0755));
    ASSERT_EQ(0, symlink("/vol1/elsewhere/sharesnap_share_configuration",
                         "/vol1/@safe@/@eaDir/sharesnap_share_configuration"));
    QOVAShareSnapShareInfoClear(safe.get());
    ASSERT_EQ(0, unlink("/vol1/@safe@/@eaDir/sharesnap_share_configuration"));
    ASSERT_EQ(0, mkdir("/vol1/@safe@/@eaDir/sharesnap_share_configuration", 0755));
    ASSERT_EQ(0, symlink(elsewhere_.c_str(), "/vol1/@safe@/@eaDir/sharesnap_share_configuration/link"));
    QOVAShareSnapShareInfoClear(safe.get());
    EXPECT_EQ(Names{}, testkit::directoryNames("/vol1/@safe@"));
    EXPECT_EQ("[share_info]\n", testkit::readFile(elsewhere_ + "/sharesnap_share_configuration/share_configuration"));
}

TEST_F(HostileLinks, SharesExtendedAttributesAreRemovedThroughNoLink) {
    ASSERT_EQ(0, symlink(elsewhere_.c_str(), kEaDir));
    EXPECT_EQ(0, QOVAShareSnapDataDelete("/vol1/docs")) << testkit::logText();
    EXPECT_FALSE(testkit::exists("/vol1/docs"));
}

TEST_F(HostileLinks, IconIsRemovedAsALink) {
    (void)take();
    const std::string icon = snapDir() + "/desktop.ini";
    ASSERT_EQ(0, unlink(icon.c_str()));
    ASSERT_EQ(0, symlink("/vol1/elsewhere/precious", icon.c_str()));
    EXPECT_EQ(0, QOVAShareSnapDataDelete("/vol1/docs")) << testkit::logText();
    EXPECT_FALSE(testkit::exists("/vol1/@sharesnap/docs"));
}

// Temporary files have names that can't be foretold and are never opened when they stand.
TEST_F(HostileLinks, LinksBesideTheMetadataAreNotWrittenThrough) {
    const std::string name = take();
    for (const char *ending : {".tmp", ".new", "~", ".bak", ".XXXXXX", ".lock", ".swp"}) {
        ASSERT_EQ(0, symlink("/vol1/elsewhere/precious", (metaPath() + ending).c_str()));
    }
    EXPECT_EQ(0, QOVAShareSnapAttrSet(share, name.c_str(), "desc", "text"));
    EXPECT_EQ(0, remove({name}));
    EXPECT_EQ("", meta());
}

TEST_F(HostileLinks, LocksOfSnapshotsAreKeptThroughNoLink) {
    const std::string name = take();
    ASSERT_EQ(1, QOVAShareSnapSysLockIncrement(share, name.c_str(), "me"));
    const std::string data = "/run/sharesnap/sys_lock/docs.sharesnap_sys_lock";
    ASSERT_EQ(0, rename(data.c_str(), (data + ".real").c_str()));
    bait("claims", "[" + name + "]\nyou=1\n");
    ASSERT_EQ(0, symlink("/vol1/elsewhere/claims", data.c_str()));
    uint32_t count = 0;
    EXPECT_EQ(-1, QOVAShareSnapSysLockGet(share, name.c_str(), "you", &count));
    EXPECT_EQ(-1, QOVAShareSnapSysLockIncrement(share, name.c_str(), "you"));
    EXPECT_EQ(-1, QOVAShareSnapSysLockRemove(share, name.c_str(), "you"));
    List initiators;
    EXPECT_EQ(-1, QOVAShareSnapSysLockInitiatorList(share, name.c_str(), initiators.address()));
    // Whether the snapshot is held can't be told: it isn't deleted.
    EXPECT_EQ(-1, remove({name}));
    EXPECT_TRUE(stands(name));
    EXPECT_EQ("[" + name + "]\nyou=1\n", testkit::readFile(elsewhere_ + "/claims"));
    // With the share the link goes as a link.
    EXPECT_EQ(0, ShareSnapSysLockShareDeleteHook("docs"));
    EXPECT_FALSE(testkit::exists(data));
}

TEST_F(HostileLinks, DirectoryOfTheLocksThatIsALinkIsRefused) {
    const std::string name = take();
    ASSERT_TRUE(testkit::makeDirectories("/run/sharesnap"));
    ASSERT_EQ(0, symlink(elsewhere_.c_str(), "/run/sharesnap/sys_lock"));
    EXPECT_EQ(-1, QOVAShareSnapSysLockIncrement(share, name.c_str(), "me"));
    EXPECT_EQ(-1, remove({name}));
    EXPECT_TRUE(stands(name));
    EXPECT_EQ(-1, ShareSnapSysLockShareDeleteHook("docs"));
}

} // namespace
