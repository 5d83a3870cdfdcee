// Every call that a deletion makes to the platform or to the C library fails once.
#include "volume/lifecycle.hpp"

#include <algorithm>
#include <sstream>
#include <sys/wait.h>

#include "faults/export_sweep.hpp"

using namespace lifecycle;

namespace {

enum { GONE = 0, SURVIVED = 0x2A00, NOT_FOUND = 0xA100, LOCKED = 0xF400 };

const faults::Codes kCodes = {
    {"open", {0x0900}},                   // of the claims
    {"malloc", {0x0200}},   {"stat", {}}, // a metadata file that can't be looked at counts as none, which has no code
    {"fopen", {0x2A00}},    {"fstat", {0x2A00}},
    {"getdelim", {0x0A00}}, {"mkstemp", {0x2A00}},
    {"fdopen", {0x2A00}},   {"setxattr", {0x2900}}, // the failure is one for want of room; so the next two
    {"fprintf", {0x2900}},  {"fflush", {0x2900}},
    {"fsync", {0x0B00}},    {"fchown", {0x0B00}},
    {"fchmod", {0x0B00}},   {"fclose", {0x0B00}},
    {"rename", {0x2800}},   {"QOVABtrfsIsSubVol", {0x2A00, 0x0C00}}, // the second one of the directory with the counter
};

class SnapDeleteFaults : public Fixture {
protected:
    void makeSnapshots() {
        while (waitpid(-1, nullptr, 0) > 0) {} // where waiting itself had failed
        const List old(standing());
        (void)QOVABtrfsDeleteSubvolListFaultTolerant(snapDir().c_str(), old.get());
        (void)unlink(metaPath().c_str());
        for (const std::string &name : testkit::directoryNames("/vol1/@sharesnap")) {
            if (name.rfind("@docs.meta.", 0) == 0) {
                (void)unlink(("/vol1/@sharesnap/" + name).c_str()); // where closing or renaming had failed
            }
        }
        storeCount(0);
        visible_ = {take(), take(), take()};
        hidden_ = take({{"hide", "true"}});
    }

    void expectSafe(const testkit::FaultPoint &point) {
        const Names stood = standing();
        const Names listed = sections();
        // Nothing that stands has lost its section, but for a name that couldn't be looked at: that counts as not found,
        // its section goes, and reconciliation takes the subvolume in again.
        for (const std::string &name : stood) {
            const Names batchNames = batch();
            const auto at = std::find(batchNames.begin(), batchNames.end(), name);
            const bool notFound =
                at != batchNames.end() && codes[static_cast<size_t>(at - batchNames.begin())] == NOT_FOUND;
            EXPECT_EQ(notFound ? 0 : 1, std::count(listed.begin(), listed.end(), name)) << name;
        }
        EXPECT_TRUE(stands(visible_[2]));
        for (size_t i = 0; i < codes.size(); ++i) {
            EXPECT_TRUE(codes[i] == GONE || codes[i] == SURVIVED || codes[i] == NOT_FOUND) << codes[i];
            if (codes[i] == GONE) {
                EXPECT_FALSE(stands(batch()[i]));
            }
        }
        if (outcome_ == 0) {
            EXPECT_EQ(std::vector<int>(3, GONE), codes);
            EXPECT_EQ(Names{visible_[2]}, listed);
        } else {
            EXPECT_EQ(-1, outcome_);
            if (codes == std::vector<int>(3, SURVIVED)) { // the batch stopped
                EXPECT_TRUE(faults::isCodeOf(kCodes, point, code_));
            }
        }
        // Too low is mended by the next recount and lets nobody exceed a limit for long; too high never happens.
        const int visible = static_cast<int>(
            std::count_if(stood.begin(), stood.end(), [this](const std::string &name) { return name != hidden_; }));
        EXPECT_LE(storedCount(), visible);
        if (!point.leavesBehind() && point.symbol != "fclose" && point.symbol != "rename") {
            EXPECT_EQ(Names{}, temporaryFiles());
        }
    }

    [[nodiscard]] Names batch() const { return {visible_[0], hidden_, visible_[1]}; }

    [[nodiscard]] static Names temporaryFiles() {
        Names names;
        for (const std::string &name : testkit::directoryNames("/vol1/@sharesnap")) {
            if (name.rfind("@docs.meta.", 0) == 0) {
                names.push_back(name);
            }
        }
        return names;
    }

    Names visible_;
    std::string hidden_;
    int outcome_ = 0;
    unsigned int code_ = 0;
};

TEST_F(SnapDeleteFaults, NothingThatStandsLosesItsSection) {
    (void)take();
    std::unique_ptr<testkit::Leftovers> leftovers;
    testkit::Sweep sweep;
    sweep.function = "QOVAShareSnapDelete";
    sweep.prepare = [&] {
        makeSnapshots();
        leftovers = std::make_unique<testkit::Leftovers>();
        setCode(0);
        errno = 0;
    };
    // The record of the caller isn't the deletion's own.
    sweep.operation = [&] {
        const List list(batch());
        QLIBCMRESULT *entries = QLIBCMResultAlloc();
        outcome_ = QOVAShareSnapDelete(share, list.get(), &entries);
        code_ = QLIBCErrGet();
        codes.assign(3, SURVIVED);
        for (int i = 0; i < 3; ++i) {
            (void)QLIBCMResultGetCoreErrorByIndex(entries, i, &codes[static_cast<size_t>(i)]);
        }
        QLIBCMResultFree(entries);
    };
    sweep.check = [&](const testkit::FaultPoint &point) {
        std::ostringstream where;
        where << point;
        SCOPED_TRACE(where.str());
        const testkit::Bypass bypass;
        expectSafe(point);
        if (!point.leavesBehind()) {
            EXPECT_EQ("", leftovers->compare());
        }
    };
    EXPECT_GT(sweep.run(), 60U);
}

} // namespace
