// The data of a new share made of a snapshot or of another share.
#include "volume/lifecycle.hpp"

#include <filesystem>

using namespace lifecycle;

namespace {

class SnapClone : public Fixture {
protected:
    void SetUp() override {
        Fixture::SetUp();
        if (!IsSkipped()) {
            ASSERT_TRUE(testkit::writeFile("/vol1/docs/a", "old"));
            name_ = take();
            ASSERT_TRUE(testkit::writeFile("/vol1/docs/a", "new"));
            testkit::logClear();
            setCode(0);
        }
    }

    int clone(const char *snapshot) { return QOVAShareSnapClone(share, copy_.get(), snapshot); }

    std::string name_;
    Record copy_{"copy", "/vol1/copy"};
};

TEST_F(SnapClone, HoldsWhatTheSnapshotHoldsAndCanBeWritten) {
    ASSERT_EQ(0, clone(name_.c_str())) << testkit::logText();
    EXPECT_EQ(1, QOVABtrfsIsSubVol("/vol1/copy"));
    EXPECT_EQ("old", testkit::readFile("/vol1/copy/a"));
    EXPECT_TRUE(testkit::writeFile("/vol1/copy/a", "changed"));
    EXPECT_EQ("old", testkit::readFile(snapDir() + "/" + name_ + "/a"));
    EXPECT_FALSE(testkit::exists("/vol1/@sharesnap/copy"));
    EXPECT_FALSE(testkit::exists("/vol1/@sharesnap/@copy.meta"));
}

TEST_F(SnapClone, OfTheLiveShareHoldsWhatItHoldsNow) {
    ASSERT_EQ(0, clone(nullptr));
    EXPECT_EQ("new", testkit::readFile("/vol1/copy/a"));
}

TEST_F(SnapClone, OfAHiddenSnapshotIsNotHidden) {
    const std::string hidden = take({{"hide", "true"}});
    ASSERT_EQ(0, clone(hidden.c_str()));
    Hash facts;
    ASSERT_EQ(0, QOVASnapFillSubvolInfoWithPath("/vol1/copy", facts.address()));
    EXPECT_EQ("false", facts.value("hide"));
}

TEST_F(SnapClone, RefusesNullArguments) {
    EXPECT_EQ(-1, QOVAShareSnapClone(nullptr, copy_.get(), nullptr));
    EXPECT_EQ(0x0D00U, QLIBCErrGet());
    EXPECT_EQ(-1, QOVAShareSnapClone(share, nullptr, nullptr));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (((void *)0) != pOrigShare)=[0]\n"));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (NULL != pNewShare)=[0]\n"));
}

TEST_F(SnapClone, RefusesToChangeTheEncryptionBeforeAnyPlugin) {
    const testkit::CallCount opened("QLIBPluginSDKInit");
    const Record encrypted("copy", "/vol1/copy", QOVA_SHARE_STATUS_ENCRYPTED);
    EXPECT_EQ(-1, QOVAShareSnapClone(share, encrypted.get(), name_.c_str()));
    EXPECT_EQ(0x0D00U, QLIBCErrGet());
    EXPECT_EQ(0U, opened.calls());
    EXPECT_FALSE(testkit::exists("/vol1/@copy@"));
}

TEST_F(SnapClone, RefusesAnotherVolumeBeforeAnyPlugin) {
    const testkit::CallCount opened("QLIBPluginSDKInit");
    const Record far("copy", "/vol2/copy");
    EXPECT_EQ(-1, QOVAShareSnapClone(share, far.get(), name_.c_str()));
    EXPECT_EQ(0xD900U, QLIBCErrGet());
    EXPECT_EQ(0U, opened.calls());
}

// Its name begins with that of the volume: the look at the names lets it pass.
TEST_F(SnapClone, FailsLateOnAVolumeWithALongerName) {
    ASSERT_EQ("", testkit::Sandbox::mountVolume("/vol12"));
    const Record far("copy", "/vol12/copy");
    EXPECT_EQ(-1, QOVAShareSnapClone(share, far.get(), name_.c_str()));
    EXPECT_EQ(0x2A00U, QLIBCErrGet());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to clone share [/vol12/copy] from [" + snapDir() + "/" + name_ +
                                             "]. errno: Invalid cross-device link [0x"));
    EXPECT_FALSE(testkit::exists("/vol12/copy"));
}

TEST_F(SnapClone, PluginsHearOfBothShares) {
    ASSERT_EQ("", installPlugin("ears", recordingScript("ears")));
    ASSERT_EQ(0, clone(name_.c_str()));
    for (const char *phase : {"pre", "post"}) {
        const std::string record = recorded("ears", phase);
        EXPECT_EQ("CLONE_SNAP", variable(record, "ACTION"));
        EXPECT_EQ("docs", variable(record, "SHARE_NAME"));
        EXPECT_EQ("copy", variable(record, "NEW_SHARE_NAME"));
        EXPECT_EQ("/vol1/copy", variable(record, "NEW_SHARE_PATH"));
        EXPECT_EQ(name_ + " ", variable(record, "SNAPSHOT"));
        EXPECT_EQ("0", variable(record, "RESULT"));
    }
}

TEST_F(SnapClone, LiveCloneNamesNoSnapshot) {
    ASSERT_EQ("", installPlugin("ears", recordingScript("ears")));
    ASSERT_EQ(0, clone(nullptr));
    EXPECT_EQ("CLONE_SHARE", variable(recorded("ears", "pre"), "ACTION"));
    EXPECT_EQ("", variable(recorded("ears", "pre"), "SNAPSHOT"));
    EXPECT_EQ("CLONE_SHARE", variable(recorded("ears", "post"), "ACTION"));
}

TEST_F(SnapClone, FailingPreStopsIt) {
    ASSERT_EQ("", installPlugin("grumpy", "[ $1 = pre ] && exit 1\n" + recordingScript("grumpy")));
    EXPECT_EQ(-1, clone(name_.c_str()));
    EXPECT_FALSE(testkit::exists("/vol1/copy"));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Fail to execute share snapshot plugin (PRE)[0x2A00 "));
    EXPECT_EQ("-1", variable(recorded("grumpy", "post"), "RESULT"));
}

TEST_F(SnapClone, WithoutASnapshotDirectorySendsPostAlone) {
    ASSERT_EQ("", testkit::makeShare("bare"));
    ASSERT_EQ("", installPlugin("ears", recordingScript("ears")));
    const Record bare("bare", "/vol1/bare");
    EXPECT_EQ(-1, QOVAShareSnapClone(bare.get(), copy_.get(), name_.c_str()));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Fail to get snapshot directory [0x"));
    EXPECT_EQ("-1", variable(recorded("ears", "post"), "RESULT"));
    EXPECT_FALSE(testkit::exists(testkit::Sandbox::scratch() + "/ears.pre"));
}

TEST_F(SnapClone, BackEndThatCannotBeFoundSendsPostAlone) {
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/@safe@"));
    const Record safe("safe", "/vol1/safe", QOVA_SHARE_STATUS_ENCRYPTED);
    const Record first("first", "/vol1/first", QOVA_SHARE_STATUS_ENCRYPTED);
    using Init = int(const char *, const char *, QLIBPLUGIN **);
    using BackEnd = int(const char *, char *, size_t);
    for (const std::string &unknown : {std::string("/vol1/safe"), std::string("/vol1/first")}) {
        SCOPED_TRACE(unknown);
        ASSERT_EQ("", installPlugin("ears", recordingScript("ears")));
        (void)unlink((testkit::Sandbox::scratch() + "/ears.post").c_str());
        bool opened = false;
        const testkit::Replacement<Init> init("QLIBPluginSDKInit",
                                              [&](const char *name, const char *label, QLIBPLUGIN **plugin) {
                                                  opened = true;
                                                  return testkit::real<Init>("QLIBPluginSDKInit")(name, label, plugin);
                                              });
        const testkit::Replacement<BackEnd> backEnd(
            "QLIBShareEncryptPathGet", [&](const char *path, char *text, size_t size) {
                if (opened && path == unknown) {
                    setCode(0x8300);
                    return -1;
                }
                return testkit::real<BackEnd>("QLIBShareEncryptPathGet")(path, text, size);
            });
        EXPECT_EQ(-1, QOVAShareSnapClone(safe.get(), first.get(), nullptr));
        EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to get the encrypted path from [" + unknown + "][0x8300 "));
        EXPECT_EQ("-1", variable(recorded("ears", "post"), "RESULT"));
        EXPECT_EQ("", variable(recorded("ears", "post"), "SNAPSHOT"));
        EXPECT_FALSE(testkit::exists(testkit::Sandbox::scratch() + "/ears.pre"));
        EXPECT_FALSE(testkit::exists("/vol1/@first@"));
    }
}

TEST_F(SnapClone, OfAnUnknownSnapshotFails) {
    EXPECT_EQ(-1, clone("GMT-1999.01.01-00.00.00"));
    EXPECT_EQ(0x2A00U, QLIBCErrGet());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to clone share [/vol1/copy] from [" + snapDir() +
                                             "/GMT-1999.01.01-00.00.00]. errno: No such file or directory [0x"));
    EXPECT_FALSE(testkit::exists("/vol1/copy"));
}

TEST_F(SnapClone, LeavesWhatStandsAtTheTargetAlone) {
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/copy"));
    ASSERT_TRUE(testkit::writeFile("/vol1/copy/mine", "mine"));
    EXPECT_EQ(-1, clone(name_.c_str()));
    EXPECT_EQ(Names{"mine"}, testkit::directoryNames("/vol1/copy"));
}

TEST_F(SnapClone, NamesCannotLeadOutOfTheSnapshotDirectory) {
    ASSERT_EQ("", testkit::makeShare("secret"));
    ASSERT_TRUE(testkit::writeFile("/vol1/secret/key", "hush"));
    ASSERT_EQ(0, symlink("/vol1/secret", "/vol1/docs/link"));
    const std::string linked = take();
    const std::vector<std::string> forged{"",
                                          ".",
                                          "..",
                                          "../../secret",
                                          "../docs/" + name_,
                                          "/vol1/secret",
                                          linked + "/link",
                                          linked + "/link/",
                                          name_ + "/../../../secret"};
    for (const std::string &name : forged) {
        EXPECT_EQ(-1, clone(name.c_str())) << name;
        EXPECT_EQ(0x2A00U, QLIBCErrGet()) << name;
        EXPECT_FALSE(testkit::exists("/vol1/copy")) << name;
    }
}

TEST_F(SnapClone, HiddenMarkThatCannotBeClearedIsOnlyLogged) {
    const testkit::Fault fault("QOVABtrfsSubvolHideAttrSet");
    EXPECT_EQ(0, clone(name_.c_str()));
    EXPECT_TRUE(fault.met());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to set subvol hide attr [/vol1/copy] [0x2A00 "));
}

TEST_F(SnapClone, RefusesADeniedAction) {
    BlackList.pEntry = &BlackList;
    BlackList.uMask = SNAP_CLONE;
    const int outcome = clone(name_.c_str());
    BlackList = {};
    EXPECT_EQ(-1, outcome);
    EXPECT_EQ(0xD900U, QLIBCErrGet());
}

TEST_F(SnapClone, EncryptedSharesAreClonedThroughTheirBackEnds) {
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/@safe@"));
    ASSERT_TRUE(testkit::writeFile("/vol1/@safe@/cipher", "old"));
    const Record safe("safe", "/vol1/safe", QOVA_SHARE_STATUS_ENCRYPTED);
    char name[255] = "";
    ASSERT_EQ(0, QOVAShareSnapCreate(safe.get(), name, sizeof(name), nullptr)) << testkit::logText();
    ASSERT_TRUE(testkit::writeFile("/vol1/@safe@/cipher", "new"));
    const Record first("first", "/vol1/first", QOVA_SHARE_STATUS_ENCRYPTED);
    const Record second("second", "/vol1/second", QOVA_SHARE_STATUS_ENCRYPTED);
    EXPECT_EQ(0, QOVAShareSnapClone(safe.get(), first.get(), name));
    EXPECT_EQ("old", testkit::readFile("/vol1/@first@/cipher"));
    EXPECT_EQ(0, QOVAShareSnapClone(safe.get(), second.get(), nullptr));
    EXPECT_EQ("new", testkit::readFile("/vol1/@second@/cipher"));
    EXPECT_FALSE(testkit::exists("/vol1/first"));
    EXPECT_FALSE(testkit::exists("/vol1/second"));
}

TEST_F(SnapClone, EncStatusTellsWhetherTheShareIsUnlocked) {
    ASSERT_EQ("", installPlugin("ears", recordingScript("ears")));
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/@safe@"));
    const Record target("first", "/vol1/first", QOVA_SHARE_STATUS_ENCRYPTED);
    const Record locked("safe", "/vol1/safe", QOVA_SHARE_STATUS_ENCRYPTED);
    ASSERT_EQ(0, QOVAShareSnapClone(locked.get(), target.get(), nullptr));
    EXPECT_EQ("2", variable(recorded("ears", "pre"), "ENC_STATUS"));
    const Record other("second", "/vol1/second", QOVA_SHARE_STATUS_ENCRYPTED);
    const Record open("safe", "/vol1/safe", QOVA_SHARE_STATUS_ENCRYPTED | QOVA_SHARE_STATUS_UNLOCKED);
    ASSERT_EQ(0, QOVAShareSnapClone(open.get(), other.get(), nullptr));
    EXPECT_EQ("1", variable(recorded("ears", "pre"), "ENC_STATUS"));
}

// The code isn't kept over the last announcement.
TEST_F(SnapClone, RegisterHoldsWhatStandsAfterThePlugins) {
    using Action = int(int, QLIBPLUGIN *);
    ASSERT_EQ("", installPlugin("ears", recordingScript("ears")));
    const testkit::Replacement<Action> action("QLIBPluginAction", [](int phase, QLIBPLUGIN *) {
        setCode(phase == SNAP_PHASE_POST ? 0x6400 : 0);
        return 0;
    });
    EXPECT_EQ(-1, clone("GMT-1999.01.01-00.00.00"));
    EXPECT_EQ(0x6400U, QLIBCErrGet());
    EXPECT_STREQ("snapshot_clone.cpp", QLIBCErrorGetFile());
}

} // namespace
