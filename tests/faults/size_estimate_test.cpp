// Every call of the size estimate, of the stored size and of a notice fails once.
#include "volume/lifecycle.hpp"

#include <sstream>

using namespace lifecycle;

namespace {

class SnapSizeFaults : public Fixture {
protected:
    size_t sweep(const char *function, const std::function<int()> &call, bool codeAlways) {
        std::unique_ptr<testkit::Leftovers> leftovers;
        testkit::Sweep sweep;
        sweep.function = function;
        sweep.prepare = [&] {
            setCode(0);
            leftovers = std::make_unique<testkit::Leftovers>();
        };
        sweep.operation = [&] { result = call(); };
        sweep.check = [&](const testkit::FaultPoint &point) {
            std::ostringstream where;
            where << point;
            SCOPED_TRACE(where.str());
            const testkit::Bypass bypass;
            EXPECT_TRUE(result == 0 || result == -1);
            // A metadata file that can't be looked at counts as none, which has no code.
            const bool hasCode = codeAlways && point.symbol != "stat" && point.symbol != "stat64";
            EXPECT_TRUE(result == 0 || !hasCode || QLIBCErrGet() != 0);
            if (!point.leavesBehind()) {
                EXPECT_EQ("", leftovers->compare());
            }
        };
        return sweep.run();
    }
};

TEST_F(SnapSizeFaults, EstimateEndsItsTool) {
    const List paths(Names{snapDir() + "/" + take()});
    uint64_t size = 0;
    // Output that can't be read holds no size, which has no code.
    EXPECT_GE(sweep(
                  "QOVAShareSnapCalculateTotalSize",
                  [&] { return QOVAShareSnapCalculateTotalSize(paths.get(), nullptr, nullptr, &size, nullptr); },
                  false),
              4U);
}

TEST_F(SnapSizeFaults, StoredSizeGivesTheLockBack) {
    const std::string name = take({{"snap_size", "4096"}});
    uint64_t size = 0;
    EXPECT_GE(sweep(
                  "QOVAShareGetSnapSize", [&] { return QOVAShareGetSnapSize(share, name.c_str(), &size); }, true),
              8U);
    EXPECT_EQ(4096U, size);
}

TEST_F(SnapSizeFaults, NoticeFreesItsHash) {
    EXPECT_GE(sweep(
                  "QOVAShareSnapSendNotification",
                  [] { return QOVAShareSnapSendNotification("SnapFailed", "docs", nullptr); }, true),
              7U);
}

} // namespace
