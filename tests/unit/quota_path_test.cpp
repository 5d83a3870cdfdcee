// Where the user quota database of a share stands.
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/quota.h>

#include "support/fixtures.hpp"

#include <gtest/gtest.h>
#include <string>

namespace {

using QuotaDatabase = testkit::SandboxTest;

std::string databaseOf(const char *path) {
    char buffer[4096] = "";
    return QOVAQuotaDbPathGet(path, buffer, sizeof(buffer)) == 0 ? buffer : "(failed)";
}

TEST_F(QuotaDatabase, HasAPathForEachShareThoughItNeedNotExist) {
    EXPECT_EQ("/vol1/@quota/docs.db", databaseOf("/vol1/docs"));
    EXPECT_EQ("/vol1/@quota/docs.db", databaseOf("/vol1/docs/"));
    EXPECT_EQ("/vol1/@quota/with blank.db", databaseOf("/vol1/some/with blank"));
}

TEST_F(QuotaDatabase, HasNoneForWhatIsNoPath) {
    EXPECT_EQ("(failed)", databaseOf("docs"));
    EXPECT_EQ("(failed)", databaseOf("/"));
    EXPECT_EQ("(failed)", databaseOf("/vol1/.."));
    EXPECT_EQ("(failed)", databaseOf(nullptr));
    EXPECT_EQ(unsigned(SNAP_ERR_BAD_PARAMETER), QLIBCErrGet());
}

TEST_F(QuotaDatabase, FitsIntoTheBufferOrFails) {
    char buffer[64] = "";
    const std::string expected = "/vol1/@quota/docs.db";
    EXPECT_EQ(0, QOVAQuotaDbPathGet("/vol1/docs", buffer, expected.size() + 1));
    EXPECT_EQ(expected, buffer);
    EXPECT_EQ(-1, QOVAQuotaDbPathGet("/vol1/docs", buffer, expected.size()));
    EXPECT_EQ(-1, QOVAQuotaDbPathGet("/vol1/docs", buffer, 0));
    EXPECT_EQ(-1, QOVAQuotaDbPathGet("/vol1/docs", nullptr, 64));
}

} // namespace
