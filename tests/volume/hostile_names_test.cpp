// Names and sections that lead out of the snapshot directory, given to everything that takes the name of a snapshot:
// nothing beside the share's own snapshots and its own metadata file changes, nor is a share named like that served.
#include <sharesnap/config.h>
#include <sharesnap/platform/share_admin.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <algorithm>
#include <cstring>
#include <dirent.h>
#include <filesystem>

#include "lifecycle.hpp"

namespace {

using namespace lifecycle;
namespace fs = std::filesystem;

// Kind, mode, owner, content and attributes of all that stands at or below a path; a link is told, not followed.
void describe(const fs::path &path, std::string &text) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) {
        return;
    }
    text += path.string() + " " + std::to_string(status.st_mode) + " " + std::to_string(status.st_uid) + " " +
            std::to_string(status.st_ino) + (QOVABtrfsIsSubVol(path.c_str()) == 1 ? " subvolume" : "");
    char names[4096];
    const ssize_t cbNames = llistxattr(path.c_str(), names, sizeof(names));
    for (ssize_t at = 0; at < cbNames; at += static_cast<ssize_t>(std::strlen(names + at)) + 1) {
        char value[4096] = "";
        const ssize_t cbValue = lgetxattr(path.c_str(), names + at, value, sizeof(value));
        text +=
            std::string(" ") + (names + at) + "=" + std::string(value, cbValue > 0 ? static_cast<size_t>(cbValue) : 0);
    }
    if (S_ISREG(status.st_mode)) {
        text += " " + testkit::readFile(path.string());
    }
    text += "\n";
    if (S_ISDIR(status.st_mode)) {
        for (const std::string &name : testkit::directoryNames(path.string())) {
            describe(path / name, text);
        }
    }
}

bool isWritable(const std::string &name) {
    return name.find('\n') == std::string::npos && name.size() <= 300;
}

// The share docs with one snapshot, another share with one, a plain directory, and links in both shares.
class HostileNames : public Fixture {
protected:
    void SetUp() override {
        Fixture::SetUp();
        if (IsSkipped()) {
            return;
        }
        ASSERT_EQ("", testkit::makeShare("other"));
        ASSERT_TRUE(testkit::writeFile("/vol1/other/letter", "other's"));
        other_ = testkit::getShare("other");
        ASSERT_NE(nullptr, other_);
        ASSERT_EQ(0, symlink("/vol1/other", "/vol1/docs/link"));
        ASSERT_EQ(0, symlink("/vol1", "/vol1/docs/up"));
        {
            const testkit::FixedTime clock(1767323000);
            char name[255] = "";
            ASSERT_EQ(0, QOVAShareSnapCreate(other_.get(), name, sizeof(name), nullptr)) << testkit::logText();
            othersName_ = name;
        }
        name_ = take({{"snap_size", "77"}});
        ASSERT_TRUE(testkit::makeDirectories("/vol1/plain"));
        ASSERT_TRUE(testkit::writeFile("/vol1/plain/file", "plain"));
        before_ = world();
    }

    // All of the volume but the snapshot directory's content and the metadata file of the share.
    [[nodiscard]] std::string world() const {
        std::string text;
        for (const std::string &name : testkit::directoryNames("/vol1")) {
            if (name != "@sharesnap") {
                describe("/vol1/" + name, text);
            }
        }
        struct stat status {};
        EXPECT_EQ(0, stat("/vol1/@sharesnap", &status));
        for (const std::string &name : testkit::directoryNames("/vol1/@sharesnap")) {
            if (name != "@docs.meta") {
                describe("/vol1/@sharesnap/" + name, text);
            }
        }
        char names[4096];
        const ssize_t cbNames = llistxattr("/vol1/@sharesnap", names, sizeof(names));
        return text + std::string(names, cbNames > 0 ? static_cast<size_t>(cbNames) : 0);
    }

    // Names that lead elsewhere, or nowhere.
    [[nodiscard]] std::vector<std::string> names() const {
        return {"",
                "/",
                "//",
                ".",
                "..",
                "../../other",
                "../../plain",
                "../other/" + othersName_,
                "../other",
                "../docs",
                "../docs/",
                "/vol1/other",
                "/etc",
                name_ + "/..",
                name_ + "/../../other",
                name_ + "/link",
                name_ + "/up/other",
                "link",
                "GMT-2026.01.02-03.04.05\n[forged]\nhide=false",
                "\n",
                "a\nb",
                "]",
                "[",
                "[x]",
                "x]y",
                std::string(255, 'n'),
                std::string(300, 'n'),
                std::string(5000, 'n')};
    }

    // Sections for these names, as somebody might write them into the file. A line feed can't stand in one, and one
    // that is too long for a listing fails whatever lists.
    [[nodiscard]] std::string forgedSections() const {
        std::string text;
        for (const std::string &name : names()) {
            if (isWritable(name)) {
                text += "[" + name + "]\nhide=false\nsnap_size=5\n";
            }
        }
        return text;
    }

    testkit::SharePointer other_;
    std::string name_;
    std::string othersName_;
    std::string before_;
};

// The read-only ones first: whatever they answer, they change nothing.
TEST_F(HostileNames, LookUpsChangeNothing) {
    const std::string metaBefore = meta();
    for (const std::string &name : names()) {
        char text[1024] = "";
        EXPECT_EQ(-1, QOVAShareSnapAttrGet(share, name.c_str(), "hide", text, sizeof(text))) << name;
        Hash hash;
        EXPECT_EQ(0, QOVAShareSnapAttrList(share, name.c_str(), hash.address())) << name; // of no section, no pairs
        EXPECT_EQ(0, QLIBCSzHashPairNum(hash.get())) << name;
        uint64_t size = 0;
        EXPECT_EQ(-1, QOVAShareGetSnapSize(share, name.c_str(), &size)) << name;
        char path[4096] = "";
        (void)QOVAShareSnapGetSnapPath(share, name.c_str(), path, sizeof(path)); // what it tells is tested below
        (void)QOVAShareSnapHasShareInfoFile(share, name.c_str());
        (void)SnapFillSubvolInfo(share, name.c_str(), hash.address());
        time_t time = 0;
        (void)QOVAShareSnapTimeGet(name.c_str(), &time); // of a name with a text behind its seconds it is a time
    }
    EXPECT_EQ(metaBefore, meta());
    EXPECT_EQ(before_, world());
}

// A path that leads out isn't told to be a snapshot's, whatever stands there.
TEST_F(HostileNames, PathsOutsideAreNoSnapshots) {
    for (const std::string &name : names()) {
        if (name.find_first_not_of('/') == std::string::npos || name == ".") {
            continue; // the snapshot directory itself, which is a subvolume
        }
        char path[4096] = "";
        EXPECT_NE(1, QOVAShareSnapGetSnapPath(share, name.c_str(), path, sizeof(path))) << name;
        Hash hash;
        EXPECT_GT(0, SnapFillSubvolInfo(share, name.c_str(), hash.address())) << name;
        EXPECT_NE(1, QOVAShareSnapHasShareInfoFile(share, name.c_str())) << name;
    }
}

TEST_F(HostileNames, AttributesWithoutASectionAreRefused) {
    const std::string metaBefore = meta();
    for (const std::string &name : names()) {
        EXPECT_EQ(-1, QOVAShareSnapAttrSet(share, name.c_str(), "desc", "text")) << name;
        EXPECT_EQ(-1, QOVAShareSnapAttrSet(share, name.c_str(), "hide", "true")) << name;
        EXPECT_EQ(-1, QOVAShareSnapAttrDelete(share, name.c_str(), "desc")) << name;
        EXPECT_EQ(-1, SnapMetaSectionDel(share, name.c_str(), 1)) << name;
        const Hash attributes(Pairs{{"desc", "text"}, {"hide", "true"}});
        (void)QOVAShareSnapAttrMultiSet(share, name.c_str(), attributes.get()); // tells failures by the register alone
    }
    EXPECT_EQ(metaBefore, meta());
    EXPECT_EQ(before_, world());
}

// With forged sections the attributes are found, and stay in the file: no mark is set outside.
TEST_F(HostileNames, AttributesOfForgedSectionsStayInTheFile) {
    for (const std::string &name : names()) {
        if (!isWritable(name)) {
            continue;
        }
        ASSERT_TRUE(testkit::writeFile(metaPath(), "[" + name + "]\nhide=false\ndesc=old\n"));
        EXPECT_EQ(-1, QOVAShareSnapAttrSet(share, name.c_str(), "hide", "true")) << name;
        EXPECT_EQ("false", attribute(name, "hide")) << name; // the file follows what could not be marked
        const Hash attributes(Pairs{{"hide", "true"}});
        (void)QOVAShareSnapAttrMultiSet(share, name.c_str(), attributes.get());
        EXPECT_EQ(0, QOVAShareSnapAttrDelete(share, name.c_str(), "desc")) << name;
        EXPECT_EQ(before_, world()) << name;
    }
}

TEST_F(HostileNames, NamesWithLineFeedsForgeNoSection) {
    const Names before = sections();
    for (const std::string &name : names()) {
        if (name.find('\n') != std::string::npos) {
            const Hash attributes(Pairs{{"hide", "false"}});
            EXPECT_EQ(-1, QOVAShareSnapMetaSectionAdd(share, name.c_str(), attributes.get())) << name;
        }
    }
    EXPECT_EQ(before, sections());
    const Hash forgedValue(Pairs{{"hide", "false\n[forged]"}});
    EXPECT_EQ(-1, QOVAShareSnapMetaSectionAdd(share, "new", forgedValue.get()));
    const Hash forgedKey(Pairs{{"a\n[forged]\nb", "c"}});
    EXPECT_EQ(-1, QOVAShareSnapMetaSectionAdd(share, "new", forgedKey.get()));
    EXPECT_EQ(-1, QOVAShareSnapAttrSet(share, name_.c_str(), "desc", "x\n[forged]"));
    EXPECT_EQ(-1, QOVAShareSnapAttrSet(share, name_.c_str(), "[forged]\na", "b"));
    EXPECT_EQ(before, sections());
    EXPECT_EQ(before_, world());
}

TEST_F(HostileNames, BracketsAreReadBackAsTheyWereGiven) {
    for (const char *name : {"]", "[", "[x]", "x]y", "]["}) {
        const Hash attributes(Pairs{{"hide", "false"}, {"desc", name}});
        ASSERT_EQ(0, QOVAShareSnapMetaSectionAdd(share, name, attributes.get())) << name;
    }
    for (const char *name : {"]", "[", "[x]", "x]y", "]["}) {
        EXPECT_EQ(name, attribute(name, "desc"));
        EXPECT_EQ(0, SnapMetaSectionDel(share, name, 1)) << name;
    }
    EXPECT_EQ(Names{name_}, sections());
    EXPECT_EQ(before_, world());
}

TEST_F(HostileNames, DeletionTouchesNothingOutside) {
    const Names given = names();
    EXPECT_EQ(-1, remove(given)); // without sections
    EXPECT_EQ(before_, world());
    ASSERT_TRUE(testkit::writeFile(metaPath(), forgedSections() + meta()));
    EXPECT_EQ(-1, remove(given));
    for (size_t i = 0; i < given.size(); ++i) {
        EXPECT_NE(0, codes[i]) << given[i];
    }
    EXPECT_EQ(before_, world());
    EXPECT_TRUE(stands(name_));
    EXPECT_EQ(0, remove({name_})); // the one real snapshot can still be deleted
    EXPECT_FALSE(stands(name_));
}

TEST_F(HostileNames, ClonesAreOfSnapshotsAlone) {
    ASSERT_TRUE(testkit::writeFile(metaPath(), forgedSections() + meta()));
    ASSERT_EQ("", testkit::addShare("copy", "/vol1/copy"));
    const testkit::SharePointer copy = testkit::getShare("copy");
    ASSERT_NE(nullptr, copy);
    for (const std::string &name : names()) {
        EXPECT_EQ(-1, QOVAShareSnapClone(share, copy.get(), name.c_str())) << name;
        EXPECT_FALSE(testkit::exists("/vol1/copy")) << name;
    }
    EXPECT_EQ(before_, world());
}

TEST_F(HostileNames, LocksStayInTheSharesOwnFile) {
    for (const std::string &name : names()) {
        const bool written = QOVAShareSnapSysLockIncrement(share, name.c_str(), "me") == 1;
        uint32_t count = 77;
        EXPECT_EQ(1, QOVAShareSnapSysLockGet(share, name.c_str(), "me", &count)) << name;
        EXPECT_EQ(written ? 1U : 0U, count) << name;
        // A name that can't stand in a file gets no claim, and no other snapshot gets one by it.
        EXPECT_EQ(isWritable(name) && !name.empty(), written) << name.size() << " bytes: " << name.substr(0, 40);
        (void)QOVAShareSnapSysLockRemove(share, name.c_str(), "me");
        List initiators;
        EXPECT_EQ(1, QOVAShareSnapSysLockInitiatorList(share, name.c_str(), initiators.address())) << name;
        EXPECT_EQ(Names{}, initiators.names()) << name;
    }
    EXPECT_EQ(-1, QOVAShareSnapSysLockIncrement(share, name_.c_str(), "a\n[forged]\nb"));
    EXPECT_EQ(-1, QOVAShareSnapSysLockIncrement(share, name_.c_str(), "[forged]"));
    EXPECT_EQ(Names{"sys_lock"}, testkit::directoryNames("/run/sharesnap"));
    EXPECT_EQ(Names{"docs.sharesnap_sys_lock"}, testkit::directoryNames("/run/sharesnap/sys_lock"));
    EXPECT_EQ("", testkit::readFile("/run/sharesnap/sys_lock/docs.sharesnap_sys_lock"));
    EXPECT_EQ(before_, world());
}

TEST_F(HostileNames, ReconciliationDropsForgedSections) {
    ASSERT_TRUE(testkit::writeFile(metaPath(), forgedSections() + meta()));
    EXPECT_EQ(0, QOVAShareSnapMetaSync(share)) << testkit::logText();
    EXPECT_EQ(Names{name_}, sections());
    EXPECT_EQ(before_, world());
}

// What can't be listed can't be compared with the volume: nothing is dropped.
TEST_F(HostileNames, SectionTooLongForAListingStopsReconciliationAndLosesNothing) {
    const std::string text = "[" + std::string(5000, 'n') + "]\nhide=false\n" + meta();
    ASSERT_TRUE(testkit::writeFile(metaPath(), text));
    EXPECT_EQ(-1, QOVAShareSnapMetaSync(share));
    EXPECT_EQ(text, meta());
    EXPECT_TRUE(stands(name_));
    EXPECT_EQ(before_, world());
}

TEST_F(HostileNames, BufferForTheNameIsNotOverrun) {
    // The longest section name that a listing takes, and one more.
    ASSERT_TRUE(testkit::writeFile(metaPath(), "[" + std::string(1023, 'l') + "]\nhide=false\n"));
    List fits;
    EXPECT_EQ(0, QOVAShareSnapList(share, fits.address(), nullptr));
    EXPECT_EQ(Names{std::string(1023, 'l')}, fits.names());
    ASSERT_TRUE(testkit::writeFile(metaPath(), "[" + std::string(1024, 'l') + "]\nhide=false\n"));
    List tooLong;
    EXPECT_EQ(-1, QOVAShareSnapList(share, tooLong.address(), nullptr));
    char small[8];
    EXPECT_EQ(-1, QOVAShareSnapGetLatest(share, small, sizeof(small)));
}

// A record that no database would give: the library's own paths are made of its name.
TEST_F(HostileNames, SharesNamedOutOfTheirDirectoryAreRefused) {
    for (const char *name : {"../plain", "..", "a/../../plain", "../../other"}) {
        const Record forged(name, "/vol1/docs");
        char text[255] = "";
        EXPECT_EQ(-1, QOVAShareSnapCreate(forged.get(), text, sizeof(text), nullptr)) << name;
        const List list(Names{name_});
        QLIBCMRESULT *entries = QLIBCMResultAlloc();
        EXPECT_EQ(-1, QOVAShareSnapDelete(forged.get(), list.get(), &entries)) << name;
        QLIBCMResultFree(entries);
        const Record target("new", "/vol1/new");
        EXPECT_EQ(-1, QOVAShareSnapClone(forged.get(), target.get(), name_.c_str())) << name;
        EXPECT_FALSE(testkit::exists("/vol1/new"));
        EXPECT_EQ(before_, world()) << name;
    }
}

} // namespace
