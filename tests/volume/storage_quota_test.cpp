// The quota of a share, by the qgroup of its subvolume.
#include <sharesnap/platform/quota.h>

#include "storage_support.hpp"

namespace {

constexpr uint64_t MIB = 1024 * 1024;

QOVASHARE shareAt(std::string &path, unsigned int status = 0) {
    QOVASHARE share = {};
    share.szPath = path.data();
    share.uStatus = status;
    return share;
}

class ShareQuota : public storage::SnapshotTest {
protected:
    static bool limit(const std::string &path, const std::string &size) {
        return testkit::runProcess({"btrfs", "quota", "enable", "/vol1"}).exitStatus == 0 &&
               testkit::runProcess({"btrfs", "qgroup", "limit", size, path}).exitStatus == 0;
    }
};

TEST_F(ShareQuota, IsNoneWithoutQuotasAndTurnsNoneOn) {
    std::string path = "/vol1/docs";
    const QOVASHARE share = shareAt(path);
    QOVASHAREQUOTA quota = {};
    EXPECT_EQ(0, QOVAQuotaShareQuotaGet(&share, &quota));
    EXPECT_EQ(0.0F, quota.fQuotaMiB);
    EXPECT_EQ(0U, quota.ullLimit);
    EXPECT_NE(0, QOVAQuotaIsEnough(0, "/vol1/docs", UINT64_MAX));
    EXPECT_NE(0, testkit::runProcess({"btrfs", "qgroup", "show", "/vol1"}).exitStatus);
}

TEST_F(ShareQuota, IsTheLimitInMebibytes) {
    ASSERT_TRUE(limit("/vol1/docs", "20M"));
    std::string path = "/vol1/docs";
    const QOVASHARE share = shareAt(path);
    QOVASHAREQUOTA quota = {};
    ASSERT_EQ(0, QOVAQuotaShareQuotaGet(&share, &quota));
    EXPECT_EQ(20.0F, quota.fQuotaMiB);
    EXPECT_EQ(20 * MIB, quota.ullLimit);
    std::string other = "/vol1/snaps";
    const QOVASHARE unlimited = shareAt(other);
    ASSERT_EQ(0, QOVAQuotaShareQuotaGet(&unlimited, &quota));
    EXPECT_EQ(0.0F, quota.fQuotaMiB);
}

TEST_F(ShareQuota, IsEnoughUpToTheLastByte) {
    ASSERT_TRUE(limit("/vol1/docs", "20M"));
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/large", std::string(5 * MIB, 'x')));
    ASSERT_EQ(0, testkit::runProcess({"btrfs", "filesystem", "sync", "/vol1"}).exitStatus);
    std::string path = "/vol1/docs";
    const QOVASHARE share = shareAt(path);
    QOVASHAREQUOTA quota = {};
    ASSERT_EQ(0, QOVAQuotaShareQuotaGet(&share, &quota));
    EXPECT_LE(5 * MIB, quota.ullUsed);
    EXPECT_GT(6 * MIB, quota.ullUsed);
    const uint64_t room = quota.ullLimit - quota.ullUsed;
    EXPECT_NE(0, QOVAQuotaIsEnough(1000, "/vol1/docs", room));
    EXPECT_EQ(0, QOVAQuotaIsEnough(1000, "/vol1/docs", room + 1));
    EXPECT_EQ(0, QOVAQuotaIsEnough(0, "/vol1/docs", UINT64_MAX));
    EXPECT_NE(0, QOVAQuotaIsEnough(0, "/vol1/snaps", UINT64_MAX));
}

TEST_F(ShareQuota, OfAnEncryptedShareIsThatOfItsBackEnd) {
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/@docs@"));
    ASSERT_TRUE(limit("/vol1/@docs@", "3M"));
    std::string path = "/vol1/docs";
    const QOVASHARE share = shareAt(path, QOVA_SHARE_STATUS_ENCRYPTED);
    QOVASHAREQUOTA quota = {};
    ASSERT_EQ(0, QOVAQuotaShareQuotaGet(&share, &quota));
    EXPECT_EQ(3.0F, quota.fQuotaMiB);
}

TEST_F(ShareQuota, OfAnotherFileSystemIsNone) {
    std::string path = testkit::Sandbox::scratch();
    const QOVASHARE share = shareAt(path);
    QOVASHAREQUOTA quota = {};
    EXPECT_EQ(0, QOVAQuotaShareQuotaGet(&share, &quota));
    EXPECT_EQ(0.0F, quota.fQuotaMiB);
    EXPECT_NE(0, QOVAQuotaIsEnough(0, path.c_str(), 1));
}

TEST_F(ShareQuota, OfAShareThatIsGoneIsAFailure) {
    std::string path = "/vol1/nothing";
    const QOVASHARE share = shareAt(path);
    QOVASHAREQUOTA quota = {};
    EXPECT_EQ(-1, QOVAQuotaShareQuotaGet(&share, &quota));
    EXPECT_EQ(-1, QOVAQuotaShareQuotaGet(nullptr, &quota));
    EXPECT_EQ(-1, QOVAQuotaShareQuotaGet(&share, nullptr));
}

} // namespace
