#include "support/faults.hpp"
#include "support/files.hpp"
#include "support/log_capture.hpp"
#include "support/metadata_fixture.hpp"

#include <sharesnap/platform/error.h>
#include <sharesnap/platform/subvolume.h>

namespace {

using testkit::Names;
using testkit::Pairs;
using Values = std::map<std::string, std::string>;

class Attr : public testkit::MetadataTest {
protected:
    [[nodiscard]] Values section(const std::string &name = "a") const {
        Pairs pairs;
        EXPECT_EQ(0, QOVAShareSnapAttrList(docs(), name.c_str(), pairs.address()));
        return pairs.all();
    }
    int set(const std::string &key, const std::string &value, const char *name = "a") {
        QLIBCErrSetEx(0, "", 0);
        return QOVAShareSnapAttrSet(docs(), name, key.c_str(), value.c_str());
    }
    int setAll(const Pairs &pairs, const char *name = "a") {
        QLIBCErrSetEx(0, "", 0);
        return QOVAShareSnapAttrMultiSet(docs(), name, pairs.get());
    }
    // A section a with so many keys.
    void fill(int count) {
        std::string text = "[a]\n";
        for (int i = 0; i < count; ++i) {
            text += "key" + std::to_string(i) + "=v\n";
        }
        writeMeta(text);
    }
};

TEST_F(Attr, GetCopiesAValue) {
    writeMeta("[a]\ndesc=a = b\nempty=\n[b]\ndesc=other\n");
    char value[512] = "";
    EXPECT_EQ(0, QOVAShareSnapAttrGet(docs(), "a", "desc", value, sizeof(value)));
    EXPECT_STREQ("a = b", value);
    EXPECT_EQ(0, QOVAShareSnapAttrGet(docs(), "a", "empty", value, sizeof(value)));
    EXPECT_STREQ("", value);
    EXPECT_EQ(0, QOVAShareSnapAttrGet(docs(), "b", "desc", value, 3));
    EXPECT_STREQ("ot", value);
}

TEST_F(Attr, GetIsQuietAboutWhatIsAbsent) {
    writeMeta("[a]\nk=v\n");
    char value[16] = "";
    EXPECT_EQ(-1, QOVAShareSnapAttrGet(docs(), "a", "desc", value, sizeof(value)));
    EXPECT_EQ(0x2000u, QLIBCErrGet());
    EXPECT_EQ(-1, QOVAShareSnapAttrGet(docs(), "b", "desc", value, sizeof(value)));
    EXPECT_EQ(0x2200u, QLIBCErrGet());
    EXPECT_TRUE(testkit::logLines().empty()) << testkit::logText();
}

TEST_F(Attr, GetReportsOtherFailures) {
    char value[16] = "";
    EXPECT_EQ(-1, QOVAShareSnapAttrGet(docs(), "a", "k", value, sizeof(value)));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to access metadata file on share [docs] ["));
    writeMeta("[a]\nk=v\n");
    const testkit::Fault fault("QLIBCFileGetSectionValue", 1, 0, -1, 0x0900);
    EXPECT_EQ(-1, QOVAShareSnapAttrGet(docs(), "a", "k", value, sizeof(value)));
    EXPECT_TRUE(testkit::loggedMatch(
        LOG_ERR, "^snapshot_attr\\.cpp:[0-9]+ Failed to get section \\[a\\] attr \\[k\\], errno=0x900$"));
}

TEST_F(Attr, ListGivesAllPairsAndNoneForAnAbsentSection) {
    writeMeta("[a]\nk=v\nl=\n");
    EXPECT_EQ((Values{{"k", "v"}, {"l", ""}}), section());
    EXPECT_TRUE(section("b").empty());
}

TEST_F(Attr, ListWithoutAFileKnowsNoSection) {
    Pairs pairs;
    EXPECT_EQ(-1, QOVAShareSnapAttrList(docs(), "a", pairs.address()));
    EXPECT_EQ(0x2200u, QLIBCErrGet());
    EXPECT_FALSE(testkit::exists(metaPath));
}

TEST_F(Attr, SetAddsAndChanges) {
    writeMeta("[a]\nk=v\n[b]\nk=w\n");
    EXPECT_EQ(0, set("desc", "text"));
    EXPECT_EQ(0, set("k", ""));
    EXPECT_EQ((Values{{"k", ""}, {"desc", "text"}}), section());
    EXPECT_EQ((Values{{"k", "w"}}), section("b"));
    EXPECT_EQ((std::vector<std::string>{"a", "b"}), listed());
}

TEST_F(Attr, NoSetterMakesASection) {
    writeMeta("[b]\nk=v\n");
    EXPECT_EQ(-1, set("desc", "text"));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to get share(docs) snapshot(a) section ["));
    EXPECT_EQ(0, setAll({{"desc", "text"}}));
    EXPECT_EQ(0x2200u, QLIBCErrGet());
    EXPECT_EQ("[b]\nk=v\n", meta());
}

TEST_F(Attr, ASectionWithoutPairsTakesNone) {
    writeMeta("[a]\n[b]\nk=v\n");
    EXPECT_EQ(-1, set("desc", "text"));
    EXPECT_EQ(0, setAll({{"desc", "text"}}));
    EXPECT_EQ(-1, QOVAShareSnapAttrDelete(docs(), "a", "desc"));
    EXPECT_EQ(0x0D00u, QLIBCErrGet());
    EXPECT_EQ("[a]\n[b]\nk=v\n", meta());
}

TEST_F(Attr, AFirstAttributeWithoutAFileLeavesAnEmptyOne) {
    EXPECT_EQ(-1, set("desc", "text"));
    EXPECT_TRUE(testkit::exists(metaPath));
    EXPECT_EQ("", meta());
}

TEST_F(Attr, HideMustBeExactlyTrueOrFalse) {
    for (const char *value : {"TRUE", "False", "", "1", "true "}) {
        writeMeta("[a]\nhide=false\n");
        EXPECT_EQ(-1, set("hide", value)) << value;
        EXPECT_EQ(0u, QLIBCErrGet()) << value; // no code of its own
        EXPECT_TRUE(testkit::logged(LOG_ERR, "Snapshot attr set: value of hide should be true or false"));
        EXPECT_EQ("[a]\nhide=false\n", meta());
        EXPECT_EQ(0, setAll({{"hide", value}}));
        EXPECT_EQ(0x0D00u, QLIBCErrGet()) << value;
        EXPECT_EQ("[a]\nhide=false\n", meta());
    }
}

TEST_F(Attr, ABadHideLeavesTheMarkOfTheSubvolume) {
    takeSubvolume("a", true);
    takeSubvolume("b", false);
    writeMeta("[a]\nhide=true\n[b]\nhide=false\n");
    const testkit::CallCount marks("QOVABtrfsSubvolHideAttrSet");
    for (const char *name : {"a", "b"}) {
        for (const char *value : {"TRUE", "FALSE"}) {
            EXPECT_EQ(-1, set("hide", value, name));
            EXPECT_EQ(0, setAll({{"hide", value}}, name));
        }
    }
    EXPECT_EQ(0u, marks.calls());
    EXPECT_EQ("true", markOf("a"));
    EXPECT_EQ("false", markOf("b"));
    EXPECT_EQ("[a]\nhide=true\n[b]\nhide=false\n", meta());
}

TEST_F(Attr, ABadHideStillMakesTheFile) {
    EXPECT_EQ(-1, set("hide", "TRUE"));
    EXPECT_TRUE(testkit::exists(metaPath));
}

TEST_F(Attr, LimitsOfKeyAndValue) {
    const std::string key(63, 'k');
    const std::string value(511, 'v');
    writeMeta("[a]\nhide=false\n");
    EXPECT_EQ(0, set(key, value));
    EXPECT_EQ((Values{{"hide", "false"}, {key, value}}), section());
    writeMeta("[a]\nhide=false\n");
    EXPECT_EQ(0, setAll({{key, value}}));
    EXPECT_EQ((Values{{"hide", "false"}, {key, value}}), section());

    writeMeta("[a]\nhide=false\n");
    testkit::logClear();
    EXPECT_EQ(-1, set(key + "k", "v"));
    EXPECT_EQ(0xE600u, QLIBCErrGet());
    EXPECT_EQ(-1, set("k", value + "v"));
    EXPECT_EQ(0xE600u, QLIBCErrGet());
    EXPECT_EQ(0, setAll({{key + "k", "v"}}));
    EXPECT_EQ(0xE600u, QLIBCErrGet());
    EXPECT_EQ(0, setAll({{"k", value + "v"}}));
    EXPECT_EQ(0xE600u, QLIBCErrGet());
    EXPECT_TRUE(testkit::logLines().empty()) << testkit::logText();
    EXPECT_EQ("[a]\nhide=false\n", meta());
}

TEST_F(Attr, SetTestsTheLengthsBeforeAnythingElse) {
    EXPECT_EQ(-1, set("k", std::string(512, 'v')));
    EXPECT_EQ(0xE600u, QLIBCErrGet());
    EXPECT_FALSE(testkit::exists(metaPath));
}

TEST_F(Attr, ASixtyFifthKeyIsRefusedAndAnExistingOneChanges) {
    fill(64);
    const std::string before = meta();
    EXPECT_EQ(-1, set("one", "more"));
    EXPECT_EQ(0xC300u, QLIBCErrGet());
    EXPECT_EQ(0, setAll({{"one", "more"}}));
    EXPECT_EQ(0xC300u, QLIBCErrGet());
    EXPECT_EQ(before, meta());
    EXPECT_EQ(0, set("key63", "new"));
    EXPECT_EQ("new", section()["key63"]);
    EXPECT_EQ(0, setAll({{"key0", "newer"}}));
    EXPECT_EQ("newer", section()["key0"]);
    EXPECT_EQ(64u, section().size());
}

TEST_F(Attr, OneBadKeyAmongManyWritesNone) {
    writeMeta("[a]\nk=v\n");
    EXPECT_EQ(0, setAll({{"one", "1"}, {"two", std::string(512, 'v')}, {"three", "3"}}));
    EXPECT_EQ(0xE600u, QLIBCErrGet());
    EXPECT_EQ(0, setAll({{"one", "1"}, {"hide", "perhaps"}}));
    EXPECT_EQ(0x0D00u, QLIBCErrGet());
    EXPECT_EQ("[a]\nk=v\n", meta());
}

TEST_F(Attr, MultiSetMerges) {
    writeMeta("[a]\nk=v\nl=w\n");
    EXPECT_EQ(0, setAll({{"l", "new"}, {"m", ""}}));
    EXPECT_EQ((Values{{"k", "v"}, {"l", "new"}, {"m", ""}}), section());
}

TEST_F(Attr, HideChangesFileAndSubvolume) {
    takeSubvolume("a");
    writeMeta("[a]\nhide=false\n");
    EXPECT_EQ(0, set("hide", "true"));
    EXPECT_EQ("[a]\nhide=true\n", meta());
    EXPECT_EQ("true", markOf("a"));
    EXPECT_EQ(0, setAll({{"hide", "false"}}));
    EXPECT_EQ("[a]\nhide=false\n", meta());
    EXPECT_EQ("false", markOf("a"));
    EXPECT_EQ(0, setAll({{"hide", "true"}, {"desc", "x"}}));
    EXPECT_EQ("true", markOf("a"));
}

TEST_F(Attr, OtherKeysDoNotTouchTheSubvolume) {
    takeSubvolume("a");
    writeMeta("[a]\nhide=false\n");
    const testkit::CallCount marks("QOVABtrfsSubvolHideAttrSet");
    EXPECT_EQ(0, set("desc", "x"));
    EXPECT_EQ(0, set("Hide", "whatever"));
    EXPECT_EQ(0, setAll({{"desc", "y"}}));
    EXPECT_EQ(0u, marks.calls());
}

TEST_F(Attr, SetUndoesHideWhenTheSubvolumeCannotBeChanged) {
    takeSubvolume("a");
    writeMeta("[a]\nhide=false\nk=v\n");
    const testkit::Fault stuck("QOVABtrfsSubvolHideAttrSet", 0, EIO, -1, 0x2A00);
    EXPECT_EQ(-1, set("hide", "true"));
    EXPECT_EQ(0x2A00u, QLIBCErrGet());
    EXPECT_EQ("[a]\nhide=false\nk=v\n", meta());
    EXPECT_TRUE(
        testkit::logged(LOG_ERR, "Failed to set subvolume hide attribute on [/vol1/@sharesnap/docs/a] [0x2A00"));
}

TEST_F(Attr, SetIsUndoneToTheValueThatStoodThere) {
    takeSubvolume("a", true);
    writeMeta("[a]\nhide=true\nk=v\n");
    const testkit::Fault stuck("QOVABtrfsSubvolHideAttrSet", 0, EIO, -1, 0x2A00);
    EXPECT_EQ(-1, set("hide", "false"));
    EXPECT_EQ("[a]\nhide=true\nk=v\n", meta());
}

TEST_F(Attr, SetWithoutAnEarlierHideIsUndoneAsFalse) {
    writeMeta("[a]\nk=v\n"); // and no subvolume
    EXPECT_EQ(-1, set("hide", "true"));
    EXPECT_EQ((Values{{"k", "v"}, {"hide", "false"}}), section());
}

TEST_F(Attr, AFailedUndoIsReported) {
    writeMeta("[a]\nhide=false\n");
    const testkit::Fault stuck("QOVABtrfsSubvolHideAttrSet", 0, EIO, -1, 0x2A00);
    const testkit::Fault full("QLIBCFileSetSectionValue", 0, ENOSPC, -1, 0x0B00);
    EXPECT_EQ(-1, set("hide", "true"));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to revert share(docs) snapshot(a) hide attribute to false [0x0B00"));
    EXPECT_EQ(0x2A00u, QLIBCErrGet()); // the cause, not what the undoing met
    EXPECT_EQ("[a]\nhide=true\n", meta());
}

TEST_F(Attr, MultiSetUndoesNothing) {
    writeMeta("[a]\nhide=false\n"); // and no subvolume
    EXPECT_EQ(0, setAll({{"hide", "true"}}));
    EXPECT_NE(0u, QLIBCErrGet());
    EXPECT_EQ("[a]\nhide=true\n", meta());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Fail to set attribute of snapshot [a]["));
}

// Whether the metadata lock is held while the subvolume is changed.
bool markedUnderLock(const std::function<void()> &call) {
    int held = 0;
    bool marked = false;
    bool underLock = false;
    const testkit::Replacement<int(const char *, int, int, int *)> lock(
        "QLIBCFileLockTimeByFile", [&](const char *file, int mode, int seconds, int *fd) {
            ++held;
            return testkit::real<int(const char *, int, int, int *)>("QLIBCFileLockTimeByFile")(file, mode, seconds,
                                                                                                fd);
        });
    const testkit::Replacement<int(int)> unlock("QLIBCFileUnlockByFile", [&](int fd) {
        --held;
        return testkit::real<int(int)>("QLIBCFileUnlockByFile")(fd);
    });
    const testkit::Replacement<int(const char *, int)> mark("QOVABtrfsSubvolHideAttrSet", [&](const char *, int) {
        marked = true;
        underLock = held > 0;
        return 0;
    });
    call();
    EXPECT_TRUE(marked);
    EXPECT_EQ(0, held);
    return underLock;
}

TEST_F(Attr, SetMarksUnderTheLockAndMultiSetBehindIt) {
    writeMeta("[a]\nhide=false\n");
    EXPECT_TRUE(markedUnderLock([&] { EXPECT_EQ(0, set("hide", "true")); }));
    const Pairs pairs = {{"hide", "false"}};
    EXPECT_FALSE(markedUnderLock([&] { EXPECT_EQ(0, setAll(pairs)); }));
}

TEST_F(Attr, OnlySetGivesNoFormat) {
    writeMeta("[a]\nk=v\nl=w\n");
    std::vector<std::string> formats;
    using Function = int(const char *, const char *, const char *, const QLIBCSZHASH *, const char *);
    const testkit::Replacement<Function> write(
        "QLIBCFileSetSection",
        [&](const char *file, const char *name, const char *newName, const QLIBCSZHASH *pairs, const char *format) {
            formats.emplace_back(format == nullptr ? "none" : format);
            return testkit::real<Function>("QLIBCFileSetSection")(file, name, newName, pairs, format);
        });
    EXPECT_EQ(0, set("k", "1"));
    EXPECT_EQ(0, setAll({{"k", "2"}}));
    EXPECT_EQ(0, QOVAShareSnapAttrDelete(docs(), "a", "k"));
    EXPECT_EQ((std::vector<std::string>{"none", "%s=%s\n", "%s=%s\n"}), formats);
}

TEST_F(Attr, DeleteRemovesOne) {
    writeMeta("[a]\nk=v\nl=w\n");
    EXPECT_EQ(0, QOVAShareSnapAttrDelete(docs(), "a", "k"));
    EXPECT_EQ("[a]\nl=w\n", meta());
    testkit::logClear();
    EXPECT_EQ(-1, QOVAShareSnapAttrDelete(docs(), "a", "k"));
    EXPECT_EQ(0x2000u, QLIBCErrGet());
    EXPECT_TRUE(testkit::logLines().empty()) << testkit::logText();
}

TEST_F(Attr, DeleteOfTheLastLeavesASectionAtWhichListingStops) {
    writeMeta("[z]\nk=v\n[a]\nk=v\n[b]\nk=v\n");
    EXPECT_EQ(0, QOVAShareSnapAttrDelete(docs(), "a", "k"));
    EXPECT_EQ("[z]\nk=v\n[a]\n[b]\nk=v\n", meta());
    EXPECT_EQ((std::vector<std::string>{"z"}), listed());
}

TEST_F(Attr, DeleteOfHideLeavesTheMark) {
    takeSubvolume("a", true);
    writeMeta("[a]\nhide=true\nk=v\n");
    EXPECT_EQ(0, QOVAShareSnapAttrDelete(docs(), "a", "hide"));
    EXPECT_EQ("true", markOf("a"));
}

TEST_F(Attr, DeleteRefusesWhatIsNotThere) {
    EXPECT_EQ(-1, QOVAShareSnapAttrDelete(docs(), "a", "k"));
    EXPECT_EQ(0x0D00u, QLIBCErrGet());
    EXPECT_FALSE(testkit::exists(metaPath));
    writeMeta("[b]\nk=v\n");
    QLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(-1, QOVAShareSnapAttrDelete(docs(), "a", "k"));
    EXPECT_EQ(0x0D00u, QLIBCErrGet());
}

TEST_F(Attr, DeleteReadsBeforeItLocks) {
    writeMeta("[a]\nk=v\nl=w\n");
    std::string order;
    const testkit::Replacement<int(const char *, const char *, QLIBCSZHASH **)> read(
        "QLIBCFileGetSection", [&](const char *file, const char *name, QLIBCSZHASH **pairs) {
            order += "read ";
            return testkit::real<int(const char *, const char *, QLIBCSZHASH **)>("QLIBCFileGetSection")(file, name,
                                                                                                         pairs);
        });
    const testkit::Replacement<int(const char *, int, int, int *)> lock(
        "QLIBCFileLockTimeByFile", [&](const char *file, int mode, int seconds, int *fd) {
            order += "lock" + std::to_string(mode);
            return testkit::real<int(const char *, int, int, int *)>("QLIBCFileLockTimeByFile")(file, mode, seconds,
                                                                                                fd);
        });
    EXPECT_EQ(0, QOVAShareSnapAttrDelete(docs(), "a", "k"));
    EXPECT_EQ("read lock1", order);
}

TEST_F(Attr, ReadersShareTheLockAndWritersHaveItAlone) {
    writeMeta("[a]\nk=v\nl=w\n");
    std::vector<int> modes;
    const testkit::Replacement<int(const char *, int, int, int *)> lock(
        "QLIBCFileLockTimeByFile", [&](const char *file, int mode, int seconds, int *fd) {
            EXPECT_STREQ("/run/lock/sharesnap/sharesnap_meta_lock/docs.lock", file);
            EXPECT_EQ(10, seconds);
            modes.push_back(mode);
            return testkit::real<int(const char *, int, int, int *)>("QLIBCFileLockTimeByFile")(file, mode, seconds,
                                                                                                fd);
        });
    char value[16] = "";
    Pairs pairs;
    const Pairs more = {{"m", "x"}};
    EXPECT_EQ(0, QOVAShareSnapAttrGet(docs(), "a", "k", value, sizeof(value)));
    EXPECT_EQ(0, QOVAShareSnapAttrList(docs(), "a", pairs.address()));
    EXPECT_EQ((std::vector<int>{0, 0}), modes);
    modes.clear();
    EXPECT_EQ(0, set("k", "1"));
    EXPECT_EQ(0, setAll(more));
    EXPECT_EQ(0, QOVAShareSnapAttrDelete(docs(), "a", "m"));
    EXPECT_EQ(0, QOVAShareSnapMetaSectionAdd(docs(), "b", more.get()));
    EXPECT_EQ(0, SnapMetaSectionDel(docs(), "b", 1));
    EXPECT_EQ((std::vector<int>{1, 1, 1, 1, 1}), modes);
}

TEST_F(Attr, ChecksArguments) {
    char value[16] = "";
    Pairs pairs;
    const struct {
        std::function<int()> call;
        const char *check; // empty where no line is written
    } calls[] = {
        {[&] { return QOVAShareSnapAttrGet(nullptr, "a", "k", value, 16); }, "((void *)0) != pShare"},
        {[&] { return QOVAShareSnapAttrGet(docs(), nullptr, "k", value, 16); }, "((void *)0) != szSnapName"},
        {[&] { return QOVAShareSnapAttrGet(docs(), "a", nullptr, value, 16); }, "((void *)0) != szAttr"},
        {[&] { return QOVAShareSnapAttrGet(docs(), "a", "k", nullptr, 16); }, "NULL != szValue"},
        {[&] { return QOVAShareSnapAttrSet(nullptr, "a", "k", "v"); }, "((void *)0) != pShare"},
        {[&] { return QOVAShareSnapAttrSet(docs(), nullptr, "k", "v"); }, "((void *)0) != szSnapName"},
        {[&] { return QOVAShareSnapAttrSet(docs(), "a", nullptr, "v"); }, "((void *)0) != szAttr"},
        {[&] { return QOVAShareSnapAttrSet(docs(), "a", "k", nullptr); }, "NULL != szValue"},
        {[&] { return QOVAShareSnapAttrMultiSet(nullptr, "a", pairs.get()); }, "((void *)0) != pShare"},
        {[&] { return QOVAShareSnapAttrMultiSet(docs(), nullptr, pairs.get()); }, "((void *)0) != szSnapName"},
        {[&] { return QOVAShareSnapAttrMultiSet(docs(), "a", nullptr); }, "0 != pAttrHash"},
        {[&] { return QOVAShareSnapAttrList(nullptr, "a", pairs.address()); }, ""},
        {[&] { return QOVAShareSnapAttrList(docs(), nullptr, pairs.address()); }, ""},
        {[&] { return QOVAShareSnapAttrList(docs(), "a", nullptr); }, ""},
        {[&] { return QOVAShareSnapAttrDelete(nullptr, "a", "k"); }, ""},
        {[&] { return QOVAShareSnapAttrDelete(docs(), nullptr, "k"); }, ""},
        {[&] { return QOVAShareSnapAttrDelete(docs(), "a", nullptr); }, ""},
    };
    for (const auto &one : calls) {
        testkit::logClear();
        QLIBCErrSetEx(0, "", 0);
        EXPECT_EQ(-1, one.call());
        EXPECT_EQ(0x0D00u, QLIBCErrGet());
        if (*one.check == '\0') {
            EXPECT_TRUE(testkit::logLines().empty()) << testkit::logText();
        } else {
            EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (" + std::string(one.check) + ")=[0]\n"));
        }
    }
    EXPECT_FALSE(testkit::exists(metaPath));
}

TEST_F(Attr, AFailedUnlockIsReportedInEachOnesWords) {
    writeMeta("[a]\nk=v\n");
    const testkit::Fault fault("QLIBCFileUnlockByFile", 0);
    EXPECT_EQ(0, set("k", "1"));
    EXPECT_EQ(1u, testkit::logCount(LOG_ERR, "fail to QLIBCFileUnlockByFile of share(docs) metadata["));
    testkit::logClear();
    EXPECT_EQ(0, setAll({{"k", "2"}}));
    EXPECT_EQ(1u, testkit::logCount(LOG_ERR, "Fail to QLIBCFileUnlockByFile of share(docs) metadata["));
    EXPECT_EQ("[a]\nk=2\n", meta());
}

} // namespace
