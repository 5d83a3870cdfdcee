// Sizes of snapshots: the stored one and the tool's estimate.
#include "volume/lifecycle.hpp"

#include <sharesnap/platform/process.h>

using namespace lifecycle;

namespace {

class SnapSize : public Fixture {
protected:
    // With the attribute set to that text.
    int stored(const std::string &value, uint64_t *size) {
        EXPECT_EQ(0, QOVAShareSnapAttrSet(share, name_.c_str(), "snap_size", value.c_str()));
        setCode(0);
        return QOVAShareGetSnapSize(share, name_.c_str(), size);
    }

    [[nodiscard]] std::string pathOf(const std::string &name) const { return snapDir() + "/" + name; }

    std::string name_;
};

TEST_F(SnapSize, StoredOneIsADecimalNumber) {
    name_ = take();
    uint64_t size = 77;
    EXPECT_EQ(0, stored("4096", &size));
    EXPECT_EQ(4096U, size);
    EXPECT_EQ(0, stored("12x", &size));
    EXPECT_EQ(12U, size);
    EXPECT_EQ(0, stored("18446744073709551615", &size));
    EXPECT_EQ(UINT64_MAX, size);
}

TEST_F(SnapSize, StoredTextThatIsNoNumberFails) {
    name_ = take();
    uint64_t size = 77;
    EXPECT_EQ(-1, stored("x", &size));
    EXPECT_EQ(0x2A00U, QLIBCErrGet());
    EXPECT_EQ(77U, size);
}

TEST_F(SnapSize, MissingOneHasTheCodeOfTheAttributeAndNoLineOfItsOwn) {
    name_ = take();
    uint64_t size = 77;
    char value[1024] = "";
    ASSERT_GT(0, QOVAShareSnapAttrGet(share, name_.c_str(), "snap_size", value, sizeof(value)));
    const unsigned int code = QLIBCErrGet();
    testkit::logClear();
    EXPECT_EQ(-1, QOVAShareGetSnapSize(share, name_.c_str(), &size));
    EXPECT_EQ(code, QLIBCErrGet());
    for (const testkit::LogLine &line : testkit::logLines()) {
        EXPECT_EQ(std::string::npos, line.text.find("snapshot_size_calculate")) << line.text;
    }
}

TEST_F(SnapSize, EstimateGrowsWithTheData) {
    const std::string first = take();
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/a", std::string(3 << 20, 'x')));
    const std::string second = take();
    const List one(Names{pathOf(first)});
    const List two(Names{pathOf(second)});
    uint64_t small = 0;
    uint64_t large = 0;
    ASSERT_EQ(0, QOVAShareSnapCalculateTotalSize(one.get(), nullptr, nullptr, &small, nullptr)) << testkit::logText();
    ASSERT_EQ(0, QOVAShareSnapCalculateTotalSize(two.get(), nullptr, nullptr, &large, nullptr)) << testkit::logText();
    EXPECT_LT(small, 1U << 20);
    EXPECT_GE(large, 3U << 20);
    uint64_t difference = 0;
    EXPECT_EQ(0, QOVAShareSnapCalculateTotalSize(one.get(), nullptr, pathOf(second).c_str(), &difference, nullptr));
    EXPECT_LT(difference, 1U << 20);
}

TEST_F(SnapSize, EstimateOfNoSnapshotAtAllFailsWithoutACode) {
    const List none(Names{"/vol1/absent"});
    uint64_t size = 77;
    setCode(0);
    EXPECT_EQ(-1, QOVAShareSnapCalculateTotalSize(none.get(), nullptr, nullptr, &size, nullptr));
    EXPECT_EQ(0U, QLIBCErrGet());
    EXPECT_EQ(77U, size);
}

TEST_F(SnapSize, StreamOfTheToolIsTheCallers) {
    const List one(Names{pathOf(take())});
    FILE *stream = nullptr;
    ASSERT_EQ(0, QOVAShareSnapCalculateTotalSize(one.get(), nullptr, nullptr, nullptr, &stream));
    ASSERT_NE(nullptr, stream);
    std::string output;
    for (int byte = std::fgetc(stream); byte != EOF; byte = std::fgetc(stream)) {
        output.push_back(static_cast<char>(byte));
    }
    EXPECT_EQ(0, QLIBCPclose(stream));
    EXPECT_NE(std::string::npos, output.find("About:")) << output;
}

} // namespace
