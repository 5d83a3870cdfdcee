// What an encrypted share asks for beside what a plain one does, its state and the path of its back end, fails call by call.
#include "volume/lifecycle.hpp"

#include <sharesnap/config.h>

#include <sys/wait.h>

#include "faults/export_sweep.hpp"

using namespace lifecycle;
using faults::borne;
using faults::Outcomes;
using faults::with;
using testkit::FaultPoint;

namespace {

// A locked one: its subvolume is the back end, its path an empty mount point.
class EncryptedShareFaults : public testkit::VolumeTest {
protected:
    void SetUp() override {
        VolumeTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/@safe@"));
        ASSERT_TRUE(testkit::makeDirectories("/vol1/safe"));
        ASSERT_EQ("", testkit::addShare("safe", "/vol1/safe", QOVA_SHARE_STATUS_ENCRYPTED));
        share_ = testkit::getShare("safe");
        ASSERT_NE(nullptr, share_);
    }

    static size_t sweep(const std::string &function, int done, const Outcomes &outcomes,
                        const std::vector<std::string> &makes, const faults::Prepare &prepare,
                        const faults::Operation &operation, const faults::Truth &truth = {}) {
        return faults::sweep(
            {function, done, outcomes, makes, 0, {"QLIBShareEncryptPathGet", "QLIBShareIsEncryptionGet"}}, prepare,
            operation, truth);
    }

    [[nodiscard]] const QOVASHARE *share() const { return share_.get(); }

    int take(char *name, size_t size) {
        int given = 0;
        {
            const testkit::FixedTime clock(++now_);
            given = QOVAShareSnapCreate(share(), name, size, nullptr);
        }
        while (waitpid(-1, nullptr, 0) > 0) {}
        return given;
    }

    static constexpr const char *snapDir = "/vol1/@sharesnap/@safe@";
    static constexpr const char *metaFile = "/vol1/@sharesnap/@safe@.meta";

    // What there is of snapshots in all places.
    [[nodiscard]] std::string state() const {
        std::string text = testkit::readFile(metaFile);
        for (const std::string &name : testkit::directoryNames(snapDir)) {
            text += name + "\n";
        }
        int count = -1;
        (void)QOVAShareSnapGetSnapCount(share(), &count, 0);
        return text + std::to_string(count);
    }

private:
    testkit::SharePointer share_;
    time_t now_ = 1767323045;
};

TEST_F(EncryptedShareFaults, PathsAndSupport) {
    char path[4096] = "";
    int type = 0;
    sweep("QOVAShareSnapCheckSupport", 0, {}, {}, {},
          [&] { return QOVAShareSnapCheckSupport(share(), &type, SNAP_CREATE); });
    sweep("ShareSubvolumePathGet", 0, {}, {}, {}, [&] { return ShareSubvolumePathGet(share(), path, sizeof(path)); });
    sweep("QOVAShareSnapGetSnapPath", 0, {}, {}, {},
          [&] { return QOVAShareSnapGetSnapPath(share(), "a", path, sizeof(path)); });
    uint32_t count = 0;
    sweep("QOVAShareSnapDeletingCountGet", 0, {}, {}, {},
          [&] { return QOVAShareSnapDeletingCountGet("/vol1/safe", &count); });
}

TEST_F(EncryptedShareFaults, ConfigurationIsFrozen) {
    sweep("QOVAShareSnapShareInfoSet", 0,
          {{"QLIBShareIsEncryptionGet 2", {-1, 0xA100}}, {"QLIBShareEncryptPathGet 2", {-1, 0xA100}}},
          {"/vol1/@safe@/@eaDir"}, {}, [&] { return QOVAShareSnapShareInfoSet(share()); });
}

TEST_F(EncryptedShareFaults, SnapshotIsTaken) {
    const Outcomes look =
        borne(0, {"QLIBShareIsEncryptionGet 2", "QLIBShareEncryptPathGet 2", "QLIBShareIsEncryptionGet 3"});
    // The first check of the limits, which is followed by a second one.
    const Outcomes limits =
        borne(0, {"QLIBShareIsEncryptionGet 4", "QLIBShareEncryptPathGet 3", "QLIBShareIsEncryptionGet 5"});
    const Outcomes capture = {{"QLIBShareIsEncryptionGet 11", {-1, 0xA100}},
                              {"QLIBShareEncryptPathGet 7", {-1, 0xA100}}};
    // The mark of the subvolume, set once more with its facts.
    const Outcomes mark =
        borne(0, {"QLIBShareIsEncryptionGet 19", "QLIBShareEncryptPathGet 11", "QLIBShareIsEncryptionGet 20"});
    const Outcomes cleaning =
        borne(0, {"QLIBShareIsEncryptionGet 21", "QLIBShareIsEncryptionGet 22", "QLIBShareEncryptPathGet 12",
                  "QLIBShareIsEncryptionGet 23", "QLIBShareEncryptPathGet 13"});
    const Outcomes outcomes = with(with(with(with(look, limits), capture), mark), cleaning);
    char name[255] = "";
    ASSERT_EQ(0, take(name, sizeof(name)));
    std::string before;
    sweep(
        "QOVAShareSnapCreate", 0, outcomes, {"/vol1/@sharesnap", "/vol1/@safe@/@eaDir"}, [&] { before = state(); },
        [&] { return take(name, sizeof(name)); },
        [&](const FaultPoint &, int given) { EXPECT_EQ(given == 0, state() != before); });
}

TEST_F(EncryptedShareFaults, SnapshotIsDeleted) {
    // Once the visible ones are gone: the hidden ones, of which there are none, and the look at what is left.
    const Outcomes outcomes =
        borne(0, {"QLIBShareIsEncryptionGet 13", "QLIBShareEncryptPathGet 8", "QLIBShareIsEncryptionGet 14",
                  "QLIBShareIsEncryptionGet 15", "QLIBShareEncryptPathGet 9", "QLIBShareIsEncryptionGet 16",
                  "QLIBShareEncryptPathGet 10", "QLIBShareIsEncryptionGet 17"});
    char name[255] = "";
    std::string before;
    sweep(
        "QOVAShareSnapDelete", 0, outcomes, {},
        [&] {
            ASSERT_EQ(0, take(name, sizeof(name)));
            before = state();
        },
        [&] {
            const List list(Names{name});
            QLIBCMRESULT *entries = QLIBCMResultAlloc();
            const int given = QOVAShareSnapDelete(share(), list.get(), &entries);
            QLIBCMResultFree(entries);
            return given;
        },
        [&](const FaultPoint &, int given) {
            EXPECT_EQ(given == 0, !testkit::exists(std::string(snapDir) + "/" + name));
        });
}

} // namespace
