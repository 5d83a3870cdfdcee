// Users and groups by name and by id.
#include "support/files.hpp"
#include "support/fixtures.hpp"

#include <cerrno>
#include <sharesnap/platform/account.h>
#include <sharesnap/platform/error.h>

namespace {

constexpr unsigned int userId = 61234;
constexpr unsigned int groupId = 61235;

// Accounts of the sandbox; a group of so many members that no buffer of a usual size holds it.
class Account : public testkit::SandboxTest {
protected:
    void SetUp() override {
        testkit::SandboxTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        static const std::string users = testkit::readFile("/etc/passwd");
        static const std::string groups = testkit::readFile("/etc/group");
        std::string members;
        for (int number = 0; number < 20000; ++number) {
            members += (number == 0 ? "member" : ",member") + std::to_string(number);
        }
        const std::string user = "snap_alice:x:" + std::to_string(userId) + ":" + std::to_string(groupId) +
                                 ":Alice:/nonexistent:/usr/sbin/nologin\n";
        const std::string group = "snap_staff:x:" + std::to_string(groupId) + ":" + members + "\n";
        if (!testkit::writeFile("/etc/passwd", users + user) || !testkit::writeFile("/etc/group", groups + group)) {
            GTEST_SKIP() << "the sandbox has no accounts of its own here";
        }
    }
};

} // namespace

TEST_F(Account, UserIsFoundByNameAndId) {
    QOVAUSER *user = nullptr;
    ASSERT_EQ(0, QOVAUserGet("snap_alice", &user));
    EXPECT_STREQ("snap_alice", user->szName);
    EXPECT_EQ(userId, user->uId);
    QOVAUserFree(user);
    user = nullptr;
    ASSERT_EQ(0, QOVAUserGetByUID(userId, &user));
    EXPECT_STREQ("snap_alice", user->szName);
    EXPECT_EQ(userId, user->uId);
    QOVAUserFree(user);
}

TEST_F(Account, GroupOfManyMembersIsFoundByNameAndId) {
    QOVAGROUP *group = nullptr;
    ASSERT_EQ(0, QOVAGroupGet("snap_staff", &group));
    EXPECT_STREQ("snap_staff", group->szName);
    EXPECT_EQ(groupId, group->uId);
    QOVAGroupFree(group);
    group = nullptr;
    ASSERT_EQ(0, QOVAGroupGetByGID(groupId, &group));
    EXPECT_STREQ("snap_staff", group->szName);
    QOVAGroupFree(group);
}

TEST_F(Account, AbsentAccountLeavesTheRecordAlone) {
    QOVAUSER *user = nullptr;
    QOVAGROUP *group = nullptr;
    QLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(-1, QOVAUserGet("snap_nobody_of_that_name", &user));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(0x2A00U, QLIBCErrGet());
    EXPECT_EQ(-1, QOVAUserGetByUID(4000000000U, &user));
    EXPECT_EQ(-1, QOVAGroupGet("snap_nobody_of_that_name", &group));
    EXPECT_EQ(-1, QOVAGroupGetByGID(4000000000U, &group));
    EXPECT_EQ(-1, QOVAUserGet("", &user));
    EXPECT_EQ(nullptr, user);
    EXPECT_EQ(nullptr, group);
}

TEST_F(Account, UserAndGroupNamesAreApart) {
    QOVAUSER *user = nullptr;
    QOVAGROUP *group = nullptr;
    EXPECT_EQ(-1, QOVAUserGet("snap_staff", &user));
    EXPECT_EQ(-1, QOVAGroupGet("snap_alice", &group));
}

TEST_F(Account, NullIsRefusedAndFreedWithoutHarm) {
    QOVAUSER *user = nullptr;
    EXPECT_EQ(-1, QOVAUserGet(nullptr, &user));
    EXPECT_EQ(0x0D00U, QLIBCErrGet());
    EXPECT_EQ(-1, QOVAUserGetByUID(0, nullptr));
    EXPECT_EQ(-1, QOVAGroupGet("snap_staff", nullptr));
    EXPECT_EQ(-1, QOVAGroupGetByGID(0, nullptr));
    errno = ENOTTY;
    QOVAUserFree(nullptr);
    QOVAGroupFree(nullptr);
    EXPECT_EQ(ENOTTY, errno);
}
