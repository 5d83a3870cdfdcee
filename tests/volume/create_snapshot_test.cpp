// A snapshot from its request to the last attribute.
#include "volume/lifecycle.hpp"

#include <sharesnap/config.h>

using namespace lifecycle;

namespace {

class SnapCreate : public Fixture {
protected:
    int create(Hash &hash, char *name = nullptr, size_t size = 0) {
        return QOVAShareSnapCreate(share, name, size, hash.address());
    }
};

TEST_F(SnapCreate, TakesAReadOnlySubvolumeNamedByTheClock) {
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/a", "one"));
    const testkit::FixedTime clock(1767323045);
    char name[255] = "";
    ASSERT_EQ(0, QOVAShareSnapCreate(share, name, sizeof(name), nullptr)) << testkit::logText();
    EXPECT_STREQ("GMT-2026.01.02-03.04.05", name);
    EXPECT_TRUE(stands(name));
    EXPECT_EQ("one", testkit::readFile(snapDir() + "/" + name + "/a"));
    EXPECT_FALSE(testkit::writeFile(snapDir() + "/" + name + "/b", "two"));
    EXPECT_EQ(EROFS, errno);
    EXPECT_EQ(Names{name}, sections());
    EXPECT_EQ(1, storedCount());
    EXPECT_EQ(0U, testkit::logCount(LOG_ERR, "ailed to create")) << testkit::logText();
    EXPECT_TRUE(testkit::loggedMatch(LOG_WARNING, "^[a-z_]+\\.cpp:[0-9]+ The time taken by creating snapshot "
                                                  "\\[GMT-2026\\.01\\.02-03\\.04\\.05\\] of share \\[docs\\] is "
                                                  "[0-9]+\\.[0-9]{6} s\\.$"));
}

TEST_F(SnapCreate, StoresDefaultsAndTheFactsOfTheSubvolume) {
    const std::string name = take({{"desc", "before the move"}});
    EXPECT_EQ("before the move", attribute(name, "desc"));
    EXPECT_EQ("true", attribute(name, "lock"));
    EXPECT_EQ("false", attribute(name, "hide"));
    EXPECT_NE("(absent)", attribute(name, "take-by"));
    EXPECT_EQ(36U, attribute(name, "uuid").size());
    EXPECT_EQ(attribute(name, "uuid"), attribute(name, "ruuid"));
    EXPECT_EQ(36U, attribute(name, "parent_uuid").size());
}

TEST_F(SnapCreate, GivesTheCallersHashBackWithTheDefaults) {
    Hash hash(Pairs{{"desc", "mine"}, {"colour", "red"}});
    ASSERT_EQ(0, create(hash));
    EXPECT_EQ("mine", hash.value("desc"));
    EXPECT_EQ("red", hash.value("colour"));
    EXPECT_EQ("true", hash.value("lock"));
    EXPECT_EQ("false", hash.value("hide"));
    EXPECT_NE("(absent)", hash.value("take-by"));
    EXPECT_EQ("(absent)", hash.value("uuid"));
}

constexpr char kFrozen[] = "/@eaDir/sharesnap_share_configuration/share_configuration";

TEST_F(SnapCreate, FreezesTheConfigurationIntoTheSnapshot) {
    const std::string name = take();
    EXPECT_NE("", testkit::readFile(snapDir() + "/" + name + kFrozen));
}

TEST_F(SnapCreate, ServesAnEncryptedShareThroughItsBackEnd) {
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/@safe@"));
    ASSERT_TRUE(testkit::writeFile("/vol1/@safe@/cipher", "text"));
    const Record record("safe", "/vol1/safe", QOVA_SHARE_STATUS_ENCRYPTED);
    char name[255] = "";
    ASSERT_EQ(0, QOVAShareSnapCreate(record.get(), name, sizeof(name), nullptr)) << testkit::logText();
    const std::string snapshot = std::string("/vol1/@sharesnap/@safe@/") + name;
    EXPECT_EQ("text", testkit::readFile(snapshot + "/cipher"));
    EXPECT_NE("", testkit::readFile(snapshot + kFrozen));
    // The live share is cleaned again: in the clear the configuration would betray the share.
    EXPECT_FALSE(testkit::exists("/vol1/@safe@/@eaDir"));
    EXPECT_NE("", testkit::readFile("/vol1/@sharesnap/@safe@.meta"));
}

TEST_F(SnapCreate, LeavesTheConfigurationOutWhenAsked) {
    char name[255] = "";
    ASSERT_EQ(0, QOVAShareSnapCreateNoShareInfo(share, name, sizeof(name), nullptr));
    EXPECT_TRUE(stands(name));
    EXPECT_FALSE(testkit::exists(snapDir() + "/" + name + "/@eaDir/sharesnap_share_configuration"));
}

TEST_F(SnapCreate, CutsTheNameToTheCallersBuffer) {
    const testkit::FixedTime clock(1767323045);
    char name[8] = "";
    ASSERT_EQ(0, QOVAShareSnapCreate(share, name, sizeof(name), nullptr));
    EXPECT_STREQ("GMT-202", name);
}

TEST_F(SnapCreate, RefusesANullShareWithoutMore) {
    char name[32] = "as before";
    EXPECT_EQ(-1, QOVAShareSnapCreate(nullptr, name, sizeof(name), nullptr));
    EXPECT_EQ(0x0D00U, QLIBCErrGet());
    EXPECT_STREQ("as before", name);
    EXPECT_TRUE(testkit::loggedMatch(LOG_ERR, "^snapshot_create\\.cpp:[0-9]+ Invaild Argument "
                                              "\\(\\(\\(void \\*\\)0\\) != pShare\\)=\\[0\\]$"));
    EXPECT_EQ(1U, testkit::logLines().size()) << testkit::logText();
}

TEST_F(SnapCreate, AddressOfNoHashFails) {
    QLIBCSZHASH *none = nullptr;
    EXPECT_EQ(-1, QOVAShareSnapCreate(share, nullptr, 0, &none));
    EXPECT_EQ("", meta());
    EXPECT_EQ(Names{}, standing());
    QLIBCSzHashFree(none);
}

TEST_F(SnapCreate, RefusesAHideValueThatDiffersInCase) {
    Hash hash(Pairs{{"hide", "True"}});
    EXPECT_EQ(-1, create(hash));
    EXPECT_EQ(0x0D00U, QLIBCErrGet());
    EXPECT_EQ("true", hash.value("lock"));
    EXPECT_EQ("", hash.value("desc"));
    EXPECT_NE("(absent)", hash.value("take-by"));
    EXPECT_EQ("", meta());
    EXPECT_EQ(Names{}, standing());
}

TEST_F(SnapCreate, ConflictsInTheSameSecondAndLeavesTheCountAlone) {
    const std::string first = take();
    const std::string before = meta();
    const testkit::FixedTime clock(now_);
    char name[32] = "as before";
    EXPECT_EQ(-2, QOVAShareSnapCreate(share, name, sizeof(name), nullptr));
    EXPECT_EQ(0xE700U, QLIBCErrGet());
    EXPECT_STREQ("as before", name);
    EXPECT_EQ(1, storedCount());
    EXPECT_EQ(before, meta());
    EXPECT_EQ(Names{first}, standing());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to create snapshot, err [59136]. [0xE700 "));
}

// The loser of a race comes to the metadata when the winner's section stands and its subvolume doesn't yet.
TEST_F(SnapCreate, ConflictsWithASectionThatAnotherCreatorWrote) {
    (void)take();
    const testkit::FixedTime clock(now_ + 1);
    Hash other(Pairs{{"hide", "false"}, {"desc", "the winner's"}});
    ASSERT_EQ(0, QOVAShareSnapMetaSectionAdd(share, "GMT-2026.01.02-03.04.07", other.get()));
    const std::string before = meta();
    EXPECT_EQ(-2, QOVAShareSnapCreate(share, nullptr, 0, nullptr));
    EXPECT_EQ(0x2300U, QLIBCErrGet());
    EXPECT_EQ(1, storedCount());
    EXPECT_EQ(before, meta());
    EXPECT_EQ(1U, standing().size());
}

TEST_F(SnapCreate, RefusesAShareOnExt4) {
    ASSERT_EQ("", testkit::Sandbox::mountVolume("/vol2", "ext4", 16));
    ASSERT_TRUE(testkit::makeDirectories("/vol2/plain"));
    const Record record("plain", "/vol2/plain");
    EXPECT_EQ(-1, QOVAShareSnapCreate(record.get(), nullptr, 0, nullptr));
    EXPECT_EQ(0xD900U, QLIBCErrGet());
    EXPECT_FALSE(testkit::exists("/vol2/@sharesnap"));
}

TEST_F(SnapCreate, RefusesAShareThatIsAPlainDirectory) {
    ASSERT_TRUE(testkit::makeDirectories("/vol1/plain"));
    const Record record("plain", "/vol1/plain");
    EXPECT_EQ(-1, QOVAShareSnapCreate(record.get(), nullptr, 0, nullptr));
    EXPECT_EQ(0xD900U, QLIBCErrGet());
    EXPECT_FALSE(testkit::exists("/vol1/@sharesnap"));
}

TEST_F(SnapCreate, RefusesForbiddenAndDeniedActions) {
    BlackList.pEntry = &BlackList;
    BlackList.uMask = SNAP_CREATE;
    const int denied = QOVAShareSnapCreate(share, nullptr, 0, nullptr);
    BlackList = {};
    EXPECT_EQ(-1, denied);
    EXPECT_EQ(0xD900U, QLIBCErrGet());
    const testkit::Replacement<int(const QOVASHARE *, int *)> forbidden(
        "QLIBShareIsForbiddenGet", [](const QOVASHARE *, int *value) { return *value = 1, 0; });
    EXPECT_EQ(-1, QOVAShareSnapCreate(share, nullptr, 0, nullptr));
    EXPECT_EQ(0x6400U, QLIBCErrGet());
    EXPECT_EQ("", meta());
}

TEST_F(SnapCreate, ServesNamesWithBlanksAndOfAllLanguages) {
    useShare("Mein Büro 日本");
    const std::string name = take({{"desc", "größer = besser; 日本"}});
    EXPECT_TRUE(stands(name));
    EXPECT_EQ("größer = besser; 日本", attribute(name, "desc"));
    EXPECT_EQ(1, storedCount());
    EXPECT_EQ(0, remove({name}));
    EXPECT_EQ(Names{}, sections());
}

struct Zone {
    const char *variable; // the sign of TZ points west
    const char *name;
};

// In the tests' names: the addresses of the texts are others in each run.
void PrintTo(const Zone &zone, std::ostream *out) {
    *out << zone.variable;
}

class SnapCreateZone : public Fixture, public testing::WithParamInterface<Zone> {};

TEST_P(SnapCreateZone, NamesByLocalTimeWhenTheShareAsksForIt) {
    ASSERT_TRUE(testkit::makeDirectories("/usr/qova/etc/sharesnap"));
    ASSERT_EQ(0, QOVAShareSnapConfSet("docs", "local_time_format", "true")) << testkit::logText();
    setenv("TZ", GetParam().variable, 1);
    tzset();
    const std::string name = take();
    setenv("TZ", "UTC0", 1);
    tzset();
    EXPECT_EQ(GetParam().name, name);
    EXPECT_TRUE(stands(name));
    time_t taken = 0;
    EXPECT_EQ(0, QOVAShareSnapTimeGet(name.c_str(), &taken));
    EXPECT_EQ(now_, taken);
}

INSTANTIATE_TEST_SUITE_P(AllSigns, SnapCreateZone,
                         testing::Values(Zone{"ZZZ-8", "GMT+08-2026.01.02-11.04.06"},
                                         Zone{"ZZZ5", "GMT-05-2026.01.01-22.04.06"},
                                         Zone{"ZZZ-5:30", "GMT+0530-2026.01.02-08.34.06"}));

TEST_F(SnapCreate, KeepsToUniversalTimeForAnyOtherValue) {
    ASSERT_TRUE(testkit::makeDirectories("/usr/qova/etc/sharesnap"));
    setenv("TZ", "ZZZ-8", 1);
    tzset();
    for (const char *value : {"false", "True", "1", ""}) {
        ASSERT_EQ(0, QOVAShareSnapConfSet("docs", "local_time_format", value)) << value;
        EXPECT_EQ(0U, take().find("GMT-2026")) << value;
    }
    setenv("TZ", "UTC0", 1);
    tzset();
}

TEST_F(SnapCreate, CountsAHiddenSnapshotNowhere) {
    const std::string visible = take();
    const std::string hidden = take({{"hide", "true"}});
    EXPECT_EQ(1, storedCount());
    EXPECT_EQ("true", attribute(hidden, "hide"));
    EXPECT_EQ((Names{visible, hidden}), sections());
}

} // namespace
