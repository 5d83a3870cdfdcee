// Every call that a rename or a removal of a share makes to the platform or to the C library fails once.
#include "volume/lifecycle.hpp"

#include <sharesnap/config.h>

#include <filesystem>
#include <sstream>

#include "faults/export_sweep.hpp"

using namespace lifecycle;

namespace {

class ShareOpFaults : public Fixture {
protected:
    void SetUp() override {
        Fixture::SetUp();
        if (!IsSkipped()) {
            ASSERT_TRUE(testkit::makeDirectories("/usr/qova/etc/sharesnap"));
        }
    }

    // Wherever the last run has left the share: it begins anew.
    void begin() {
        for (const char *directory : {"/vol1/@sharesnap/docs", "/vol1/@sharesnap/files"}) {
            const Names names = testkit::directoryNames(directory);
            const List list(names);
            (void)QOVABtrfsDeleteSubvolListFaultTolerant(directory, list.get());
            (void)QOVABtrfsDeleteSubvolFaultTolerant(directory);
        }
        std::filesystem::remove("/vol1/@sharesnap/@docs.meta");
        std::filesystem::remove("/vol1/@sharesnap/@files.meta");
        (void)QOVABtrfsDeleteSubvolFaultTolerant("/vol1/docs");
        (void)QOVABtrfsDeleteSubvolFaultTolerant("/vol1/files");
        ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/docs"));
        std::filesystem::remove("/usr/qova/etc/sharesnap/sharesnap.conf");
        ASSERT_EQ(0, QOVAShareSnapConfSet("docs", "local_time_format", "false"));
        name_ = take();
        text_ = meta();
        setCode(0);
        errno = 0;
    }

    static bool hasSetting(const std::string &name) {
        char value[64] = "";
        return QOVAShareSnapConfGet(name.c_str(), "local_time_format", value, sizeof(value)) == 1;
    }

    std::string name_;
    std::string text_;
};

TEST_F(ShareOpFaults, RenameMovesEverythingOrNothing) {
    const faults::Codes due = {
        {"rename", {0x2A00}},
        {"QOVAShareVolPathGet", {0x2A00, 0xBE00}}, // of the old and of the new metadata file
        {"QLIBShareIsEncryptionGet", {0x2A00, 0xBE00}},
        {"QOVABtrfsIsSubVol", {0x2A00, 0x0C00}}, // of the share and of its snapshot directory
    };
    const Record renamed("files", "/vol1/docs");
    std::unique_ptr<testkit::Leftovers> leftovers;
    testkit::Sweep sweep;
    sweep.function = "QOVAShareSnapShareRename";
    sweep.except = {"stat", "stat64"}; // a metadata file that can't be looked at counts as none, and stays
    sweep.prepare = [&] {
        begin();
        leftovers = std::make_unique<testkit::Leftovers>();
    };
    sweep.operation = [&] { result = QOVAShareSnapShareRename(share, renamed.get(), "/vol1/docs", "/vol1/files"); };
    sweep.check = [&](const testkit::FaultPoint &point) {
        std::ostringstream where;
        where << point;
        SCOPED_TRACE(where.str());
        const testkit::Bypass bypass;
        EXPECT_TRUE(result == 0 || result == -1) << result;
        EXPECT_TRUE(result == 0 || faults::isCodeOf(due, point, QLIBCErrGet()));
        const bool moved = result == 0;
        EXPECT_EQ(moved, hasSetting("files"));
        EXPECT_EQ(!moved, hasSetting("docs"));
        EXPECT_EQ(moved ? "" : text_, meta());
        EXPECT_EQ(moved ? text_ : "", testkit::readFile("/vol1/@sharesnap/@files.meta"));
        EXPECT_EQ(moved ? 1 : -1, QOVABtrfsIsSubVol(("/vol1/@sharesnap/files/" + name_).c_str()));
        EXPECT_EQ(moved ? -1 : 1, QOVABtrfsIsSubVol((snapDir() + "/" + name_).c_str()));
        EXPECT_EQ(moved, testkit::exists("/vol1/files"));
        EXPECT_EQ(!moved, testkit::exists("/vol1/docs"));
        if (!point.leavesBehind()) {
            EXPECT_EQ("", leftovers->compare());
        }
    };
    EXPECT_GT(sweep.run(), 20U);
}

TEST_F(ShareOpFaults, DataDeleteStopsAndCanBeCalledAgain) {
    const faults::Codes due = {
        {"fgets", {0x2A00}},
        {"remove", {0x3900}},
        {"QOVABtrfsDeleteSubvolFaultTolerant", {0x2A00, 0x3900}}, // of the share and of its snapshot directory
    };
    std::unique_ptr<testkit::Leftovers> leftovers;
    testkit::Sweep sweep;
    sweep.function = "QOVAShareSnapDataDelete";
    sweep.prepare = [&] {
        begin();
        leftovers = std::make_unique<testkit::Leftovers>();
    };
    sweep.operation = [&] { result = QOVAShareSnapDataDelete("/vol1/docs"); };
    sweep.check = [&](const testkit::FaultPoint &point) {
        std::ostringstream where;
        where << point;
        SCOPED_TRACE(where.str());
        const testkit::Bypass bypass;
        const unsigned int code = QLIBCErrGet();
        if (!point.leavesBehind()) {
            EXPECT_EQ("", leftovers->compare());
        }
        if (result != 0) {
            EXPECT_EQ(-1, result);
            EXPECT_TRUE(faults::isCodeOf(due, point, code));
            EXPECT_TRUE(testkit::exists("/vol1/docs"));
            EXPECT_EQ(text_, meta());
            EXPECT_EQ(0, QOVAShareSnapDataDelete("/vol1/docs"));
        }
        EXPECT_FALSE(testkit::exists("/vol1/docs"));
    };
    EXPECT_GT(sweep.run(), 20U);
}

} // namespace
