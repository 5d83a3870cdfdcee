// Metadata files that nobody of ours has written: too long, not text, or no files at all. No call hangs, and no
// snapshot and no section is lost by one that looks.
#include <sys/socket.h>
#include <sys/sysmacros.h>
#include <sys/un.h>

#include "lifecycle.hpp"

namespace {

using namespace lifecycle;

constexpr size_t kMegabyte = 1 << 20;

class HostileMetadata : public Fixture {
protected:
    void SetUp() override {
        Fixture::SetUp();
        if (!IsSkipped()) {
            name_ = take({{"desc", "mine"}});
            good_ = meta();
        }
    }

    void edit(const std::string &text) const { ASSERT_TRUE(testkit::writeFile(metaPath(), text)); }

    [[nodiscard]] Names listed() const {
        List list;
        EXPECT_EQ(0, QOVAShareSnapList(share, list.address(), nullptr));
        return list.names();
    }

    // What stands in the file's place is no file: nobody opens it, and the snapshot stays.
    void expectRefused() {
        char path[4096] = "";
        QLIBCErrSetEx(0, "", 0);
        EXPECT_EQ(-1, SnapMetaGetOrCreateFile(share, path, sizeof(path), 1));
        EXPECT_EQ(0xC000U, QLIBCErrGet());
        List list;
        EXPECT_EQ(-1, QOVAShareSnapList(share, list.address(), nullptr));
        char value[64] = "";
        EXPECT_EQ(-1, QOVAShareSnapAttrGet(share, name_.c_str(), "desc", value, sizeof(value)));
        EXPECT_EQ(-1, QOVAShareSnapAttrSet(share, name_.c_str(), "desc", "new"));
        EXPECT_EQ(-1, QOVAShareSnapAttrDelete(share, name_.c_str(), "desc"));
        EXPECT_EQ(-1, SnapMetaSectionDel(share, name_.c_str(), 1));
        const Hash attributes(Pairs{{"hide", "false"}});
        EXPECT_EQ(-1, QOVAShareSnapMetaSectionAdd(share, "new", attributes.get()));
        EXPECT_EQ(-1, QOVAShareSnapMetaSync(share));
        EXPECT_EQ(-1, remove({name_}));
        EXPECT_TRUE(stands(name_));
        EXPECT_EQ(0, SnapMetaFileDelete(share)); // nothing that could be removed
        struct stat status {};
        EXPECT_EQ(0, lstat(metaPath().c_str(), &status));
        EXPECT_FALSE(S_ISREG(status.st_mode));
    }

    std::string name_;
    std::string good_;
};

TEST_F(HostileMetadata, PipeIsNotOpened) {
    ASSERT_EQ(0, unlink(metaPath().c_str()));
    ASSERT_EQ(0, mkfifo(metaPath().c_str(), 0644));
    expectRefused();
}

TEST_F(HostileMetadata, DirectoryIsNotReplaced) {
    ASSERT_EQ(0, unlink(metaPath().c_str()));
    ASSERT_EQ(0, mkdir(metaPath().c_str(), 0755));
    expectRefused();
}

TEST_F(HostileMetadata, DeviceIsNotOpened) {
    ASSERT_EQ(0, unlink(metaPath().c_str()));
    if (mknod(metaPath().c_str(), S_IFCHR | 0644, makedev(1, 5)) != 0) { // reading it never ends
        GTEST_SKIP() << "no device files can be made here";
    }
    expectRefused();
}

TEST_F(HostileMetadata, SocketIsNotOpened) {
    ASSERT_EQ(0, unlink(metaPath().c_str()));
    struct sockaddr_un address {};
    address.sun_family = AF_UNIX;
    ASSERT_LT(metaPath().size(), sizeof(address.sun_path));
    metaPath().copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_LE(0, fd);
    const int bound = bind(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof(address));
    (void)close(fd);
    ASSERT_EQ(0, bound);
    expectRefused();
}

TEST_F(HostileMetadata, LinesOfAMegabytePass) {
    const std::string longValue(kMegabyte, 'v');
    const std::string longKey(kMegabyte, 'k');
    edit("; " + longValue + "\n[first]\nhide=false\nlong=" + longValue + "\n" + longKey + "=1\n" + longValue + "\n" +
         good_);
    EXPECT_EQ((Names{"first", name_}), listed());
    char value[512] = "";
    EXPECT_EQ(0, QOVAShareSnapAttrGet(share, "first", "long", value, sizeof(value)));
    EXPECT_EQ(std::string(511, 'v'), value); // cut to the buffer
    EXPECT_EQ(0, QOVAShareSnapAttrSet(share, name_.c_str(), "desc", "new"));
    EXPECT_EQ("new", attribute(name_, "desc"));
    EXPECT_NE(std::string::npos, meta().find("\nlong=" + longValue + "\n")); // the others stay as they are
    EXPECT_EQ(0, remove({name_}));
    EXPECT_EQ(Names{"first"}, sections());
    EXPECT_NE(std::string::npos, meta().find("\nlong=" + longValue + "\n"));
}

TEST_F(HostileMetadata, NulBytesForgeNothing) {
    using std::string_literals::operator""s;
    edit("[first\0]\nhide=false\n[se\0cond]\nhide=false\n[third]\nhi\0de=true\nhide=false\0true\n\0\n\0[forged]\n"s +
         good_);
    const Names names = listed();
    EXPECT_EQ(name_, names.empty() ? "" : names.back());
    EXPECT_EQ("false", attribute("third", "hide"));
    for (const std::string &each : names) {
        EXPECT_NE("forged", each);
    }
    EXPECT_EQ(0, QOVAShareSnapAttrSet(share, name_.c_str(), "desc", "new"));
    EXPECT_NE(std::string::npos, meta().find("hide=false\0true\n"s)); // the others stay as they are
    EXPECT_EQ(0, remove({name_}));
    EXPECT_FALSE(stands(name_));
}

TEST_F(HostileMetadata, WhatIsNoTextHasNoSnapshots) {
    std::string bytes;
    for (unsigned i = 0; i < 100000; ++i) {
        bytes.push_back(static_cast<char>((i * 2654435761U) >> 24));
    }
    edit(bytes);
    List list;
    (void)QOVAShareSnapList(share, list.address(), nullptr); // whatever reads as a section there
    EXPECT_EQ(-1, remove({name_}));
    EXPECT_TRUE(stands(name_));
    EXPECT_EQ(0, QOVAShareSnapMetaSync(share)); // brings the section back
    EXPECT_EQ(Names{name_}, sections());
}

TEST_F(HostileMetadata, ManySectionsAndPairsPass) {
    std::string text;
    for (int i = 0; i < 5000; ++i) {
        text += "[s" + std::to_string(i) + "]\nhide=false\n";
    }
    text += "[wide]\nhide=false\n";
    for (int i = 0; i < 5000; ++i) {
        text += "k" + std::to_string(i) + "=v\n";
    }
    edit(text + good_);
    EXPECT_EQ(5002U, listed().size());
    EXPECT_EQ("v", attribute("wide", "k4999"));
    EXPECT_EQ(-1, QOVAShareSnapAttrSet(share, "wide", "one", "more"));
    EXPECT_EQ(0xC300U, QLIBCErrGet());
    EXPECT_EQ(0, remove({name_}));
    EXPECT_EQ(5001U, listed().size());
}

// The second of a name is never read, so it hides nothing; a deletion takes both.
TEST_F(HostileMetadata, SectionThatStandsTwiceIsDeletedOnce) {
    edit(good_ + good_);
    EXPECT_EQ(0, remove({name_})) << testkit::logText();
    EXPECT_FALSE(stands(name_));
    EXPECT_EQ(Names{}, sections());
    EXPECT_LE(0, storedCount());
}

} // namespace
