// What a restore left beside a share may be the only copy of something: no verb leaves it to a share of another name, or
// to another share of the same name.
#include "command.hpp"

#include <sharesnap/platform/subvolume.h>

#include <sys/stat.h>

namespace {

using namespace commandtest;
using testing::HasSubstr;
using testing::Not;

constexpr char kLeft[] = "/vol1/@restore-docs";

class RestoreLeft : public CommandTest {
protected:
    static void leave() {
        ASSERT_EQ(0, QOVABtrfsCreateSubVol(kLeft));
        ASSERT_TRUE(testkit::writeFile(std::string(kLeft) + "/letter", "left"));
    }

    static testing::AssertionResult refuses(const Arguments &arguments) {
        const auto result = sharesnap(arguments);
        const auto status = ends(result, refused);
        return status ? says(result, {kLeft, "restore"}) : status;
    }

    static std::string left() { return testkit::readFile(std::string(kLeft) + "/letter"); }
};

TEST_F(RestoreLeft, KeepsItsShareFromARename) {
    leave();
    EXPECT_TRUE(refuses({"share", "rename", "docs", "files"}));
    EXPECT_NE(nullptr, testkit::getShare("docs"));
    EXPECT_TRUE(testkit::isDirectory("/vol1/docs"));
    EXPECT_FALSE(testkit::exists("/etc/sharesnap/renames/docs"));
    EXPECT_EQ("left", left());
}

TEST_F(RestoreLeft, KeepsOtherSharesFromItsName) {
    ASSERT_TRUE(ends(sharesnap({"share", "remove", "docs"}), done));
    ASSERT_EQ(0, rename("/vol1/docs", "/vol1/old"));
    ASSERT_TRUE(ends(sharesnap({"share", "add", "music", "/vol1/music"}), done));
    leave();
    EXPECT_TRUE(refuses({"share", "add", "docs", "/vol1/docs"}));
    EXPECT_TRUE(refuses({"share", "rename", "music", "docs"}));
    EXPECT_TRUE(refuses({"clone", "music", "docs"}));
    EXPECT_EQ(nullptr, testkit::getShare("docs"));
    EXPECT_FALSE(testkit::exists("/vol1/docs"));
    EXPECT_EQ("left", left());
}

TEST_F(RestoreLeft, KeepsItsShareFromARemovalWithoutTheData) {
    leave();
    EXPECT_TRUE(refuses({"share", "remove", "docs"}));
    EXPECT_NE(nullptr, testkit::getShare("docs"));
    EXPECT_EQ("left", left());
}

TEST_F(RestoreLeft, GoesWithTheDataOfItsShare) {
    leave();
    const auto asked = sharesnap({"share", "remove", "docs", "--data"});
    EXPECT_TRUE(ends(asked, refused));
    EXPECT_TRUE(says(asked, {kLeft}));
    EXPECT_EQ("left", left());
    ASSERT_EQ(0, sharesnap({"share", "remove", "docs", "--data", "--yes"}).exitStatus);
    EXPECT_FALSE(testkit::exists(kLeft));
    EXPECT_FALSE(testkit::exists("/vol1/docs"));
    EXPECT_EQ(nullptr, testkit::getShare("docs"));
}

TEST_F(RestoreLeft, IsToldOfBesideItsShare) {
    EXPECT_EQ("", sharesnap({"share", "show", "docs"}).errors);
    leave();
    const auto result = sharesnap({"share", "show", "docs"});
    EXPECT_EQ(done, result.exitStatus);
    EXPECT_TRUE(says(result, {kLeft, "restore"}));
    EXPECT_THAT(result.output, HasSubstr("/vol1/docs"));
    EXPECT_THAT(result.output, Not(HasSubstr(kLeft)));
}

} // namespace
