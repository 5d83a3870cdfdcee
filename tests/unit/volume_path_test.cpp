// The textual side of volumes.
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/volume.h>

#include "support/fixtures.hpp"

#include <gtest/gtest.h>
#include <string>

namespace {

class VolumeText : public testkit::SandboxTest {
protected:
    void SetUp() override {
        if (testkit::Sandbox::simulated()) {
            GTEST_SKIP() << "needs the real storage core";
        }
        testkit::SandboxTest::SetUp();
    }
};

std::string parsed(const std::string &path) {
    char buffer[QOVA_VOLUME_PATH_SIZE] = "";
    return VolumePathParseEx(path.c_str(), buffer) == 0 ? buffer : "(failed)";
}

TEST_F(VolumeText, IsTheFirstComponent) {
    EXPECT_EQ("/vol1", parsed("/vol1"));
    EXPECT_EQ("/vol1", parsed("/vol1/"));
    EXPECT_EQ("/vol1", parsed("/vol1/docs/a"));
    EXPECT_EQ("/vol1", parsed("//vol1//docs"));
    EXPECT_EQ("/no such volume", parsed("/no such volume/x"));
    EXPECT_EQ("/.hidden", parsed("/.hidden/x"));
}

TEST_F(VolumeText, OfWhatHasNoneFails) {
    for (const char *path : {"", "/", "//", "vol1/docs", "/.", "/../vol1", "/./vol1"}) {
        EXPECT_EQ("(failed)", parsed(path)) << path;
        EXPECT_EQ(unsigned(SNAP_ERR_BAD_PARAMETER), QLIBCErrGet());
    }
    char buffer[QOVA_VOLUME_PATH_SIZE];
    EXPECT_EQ(-1, VolumePathParseEx(nullptr, buffer));
    EXPECT_EQ(-1, VolumePathParseEx("/vol1", nullptr));
}

TEST_F(VolumeText, HasAtMostAHundredAndThirtyOneBytes) {
    const std::string longest = "/" + std::string(130, 'v');
    EXPECT_EQ(longest, parsed(longest + "/docs"));
    EXPECT_EQ("(failed)", parsed(longest + "v/docs"));
}

TEST_F(VolumeText, NumberIsAtTheEndOfTheName) {
    EXPECT_EQ(1, QOVAVolIDParse("/vol1"));
    EXPECT_EQ(1, QOVAVolIDParse("/vol1/"));
    EXPECT_EQ(27, QOVAVolIDParse("/volume27"));
    EXPECT_EQ(3, QOVAVolIDParse("/2vol03"));
    EXPECT_EQ(12, QOVAVolIDParse("/12"));
}

TEST_F(VolumeText, WithoutANumberIsNegative) {
    for (const char *path : {"", "/", "/vol", "vol1", "/vol1x", "/vol1/docs2", "/vol99999999999999999999"}) {
        EXPECT_GT(0, QOVAVolIDParse(path)) << path;
        EXPECT_EQ(unsigned(SNAP_ERR_BAD_PARAMETER), QLIBCErrGet());
    }
    EXPECT_GT(0, QOVAVolIDParse(nullptr));
}

} // namespace
