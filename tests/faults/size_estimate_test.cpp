// Every call of the size estimate, of the stored size and of a notice fails once.
#include "volume/lifecycle.hpp"

#include <sharesnap/platform/process.h>

#include "faults/export_sweep.hpp"

using namespace lifecycle;
using faults::borne;
using faults::sweep;
using faults::with;
using testkit::FaultPoint;

namespace {

class SnapSizeFaults : public Fixture {};

// Output that can't be read holds no size, which has no code of its own.
TEST_F(SnapSizeFaults, EstimateEndsItsTool) {
    const faults::Outcomes outcomes = {
        {"malloc", {-1, 0x0200}}, {"fgets 1", {-1, faults::kAnyCode}}, {"fgets 2", {0}}, {"QLIBCPclose", {0}}};
    const List paths(Names{snapDir() + "/" + take()});
    uint64_t size = 0;
    sweep(
        {"QOVAShareSnapCalculateTotalSize", 0, outcomes}, [&] { size = 7; },
        [&] { return QOVAShareSnapCalculateTotalSize(paths.get(), nullptr, nullptr, &size, nullptr); },
        [&](const FaultPoint &, int given) { EXPECT_EQ(given != 0, size == 7); });
    FILE *stream = nullptr;
    sweep(
        {"QOVAShareSnapCalculateTotalSize", 0, outcomes}, [&] { stream = nullptr; },
        [&] { return QOVAShareSnapCalculateTotalSize(paths.get(), nullptr, nullptr, nullptr, &stream); },
        [&](const FaultPoint &, int) { EXPECT_EQ(nullptr, stream); });
    ASSERT_NE(nullptr, stream);
    (void)QLIBCPclose(stream);
}

TEST_F(SnapSizeFaults, StoredSizeGivesTheLockBack) {
    const std::string name = take({{"snap_size", "4096"}});
    uint64_t size = 0;
    sweep(
        {"QOVAShareGetSnapSize", 0,
         with(borne(0, {"QOVABtrfsIsSubVol", "lstat", "QLIBCFileUnlockByFile"}), {{"stat", {-1, 0}}})},
        [&] { size = 7; }, [&] { return QOVAShareGetSnapSize(share, name.c_str(), &size); },
        [&](const FaultPoint &, int given) { EXPECT_EQ(given == 0 ? 4096U : 7U, size); });
}

TEST_F(SnapSizeFaults, NoticeFreesItsHash) {
    sweep({"QOVAShareSnapSendNotification", 0}, {},
          [] { return QOVAShareSnapSendNotification("SnapFailed", "docs", nullptr); });
}

} // namespace
