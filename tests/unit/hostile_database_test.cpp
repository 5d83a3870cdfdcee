// A share database with contents that nobody of ours has written, or something else in its place.
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/share.h>
#include <sharesnap/platform/share_admin.h>
#include <sharesnap/platform/szlist.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/sandbox.hpp"

namespace {

using Names = std::vector<std::string>;
using std::string_literals::operator""s;

constexpr char kDatabase[] = "/etc/sharesnap/shares.conf";

class HostileDatabase : public testkit::SandboxTest {
protected:
    // The result of an enumeration; what it found is in found_.
    int enumerate() {
        QLIBCSZLIST *list = QLIBCSzListAlloc(512);
        const int outcome = QOVAShareEnum(&list, 0x301);
        found_.clear();
        for (int i = 0; i < list->nItem; ++i) {
            found_.emplace_back(QLIBCSzListGet(list, i));
        }
        QLIBCSzListFree(list);
        return outcome;
    }

    static int get(const std::string &name) {
        QOVASHARE *share = nullptr;
        const int outcome = QOVAShareGet(name.c_str(), &share);
        QOVAShareFree(share);
        return outcome;
    }

    Names found_;
};

// Names as they would stand in the library's paths.
TEST_F(HostileDatabase, NamesThatAreNoFileNamesAreNoShares) {
    std::string text = "[docs]\npath=/vol1/docs\n";
    for (const std::string &name : {""s, "."s, ".."s, "/"s, "/etc"s, "../docs"s, "a/b"s, "docs/"s, "[x]"s, "x]"s,
                                    "x[y"s, std::string(256, 'n')}) {
        text += "[" + name + "]\npath=/vol1/other\n";
    }
    ASSERT_TRUE(testkit::writeFile(kDatabase, text));
    EXPECT_LE(0, enumerate());
    EXPECT_EQ(Names{"docs"}, found_);
    for (const std::string &name : {""s, "."s, ".."s, "/etc"s, "../docs"s, "a/b"s, "docs/"s, "[x]"s, "x]"s,
                                    "docs]\npath=/etc\n["s, "docs\n"s, std::string(256, 'n'), std::string(300, 'n')}) {
        EXPECT_NE(0, get(name)) << name;
    }
    EXPECT_EQ(0, get("docs"));
}

TEST_F(HostileDatabase, NulBytesMakeNoRecordOfAnotherName) {
    ASSERT_TRUE(testkit::writeFile(
        kDatabase, "[docs]\npath=/vol1/docs\n\0[forged]\npath=/vol1/forged\n[tail\0]\npath=/vol1/tail\n"s));
    EXPECT_LE(0, enumerate());
    EXPECT_EQ(Names{"docs"}, found_);
    EXPECT_NE(0, get("forged"));
}

TEST_F(HostileDatabase, LinesOfAMegabytePass) {
    const std::string text(1 << 20, 'x');
    ASSERT_TRUE(testkit::writeFile(kDatabase, "[" + text + "]\npath=/vol1/x\n[long]\npath=/vol1/" + text +
                                                  "\n[talkative]\npath=/vol1/t\ncomment=" + text + "\n" + text +
                                                  "\n[docs]\npath=/vol1/docs\n"));
    EXPECT_LE(0, enumerate());
    EXPECT_EQ((Names{"talkative", "docs"}), found_);
    EXPECT_EQ(0, get("docs"));
    EXPECT_NE(0, get("long"));
}

TEST_F(HostileDatabase, ThousandsOfRecordsPass) {
    std::string text;
    for (int i = 0; i < 20000; ++i) {
        text += "[s" + std::to_string(i) + "]\npath=/vol1/s" + std::to_string(i) + "\n";
    }
    ASSERT_TRUE(testkit::writeFile(kDatabase, text));
    EXPECT_LE(0, enumerate());
    EXPECT_EQ(20000U, found_.size());
    EXPECT_EQ(0, get("s19999"));
}

// Neither waits for the other end of a pipe nor reads what never ends, and a failure isn't taken for "no shares".
TEST_F(HostileDatabase, WhatIsNoFileIsAFailure) {
    ASSERT_EQ(0, mkfifo(kDatabase, 0644));
    EXPECT_GT(0, enumerate());
    EXPECT_NE(0, get("docs"));
    ASSERT_EQ(0, unlink(kDatabase));
    if (mknod(kDatabase, S_IFCHR | 0644, makedev(1, 5)) == 0) {
        EXPECT_GT(0, enumerate());
        EXPECT_NE(0, get("docs"));
        ASSERT_EQ(0, unlink(kDatabase));
    }
    const std::string victim = testkit::Sandbox::scratch() + "/victim";
    ASSERT_TRUE(testkit::writeFile(victim, "[docs]\npath=/vol1/docs\n"));
    ASSERT_EQ(0, symlink(victim.c_str(), kDatabase));
    EXPECT_GT(0, enumerate());
    EXPECT_NE(0, get("docs"));
    EXPECT_EQ("[docs]\npath=/vol1/docs\n", testkit::readFile(victim));
}

} // namespace
