// Every call that a creation makes to the platform or to the C library fails once.
#include "volume/lifecycle.hpp"

#include <algorithm>
#include <filesystem>
#include <functional>
#include <sstream>
#include <sys/wait.h>

#include "faults/export_sweep.hpp"

using namespace lifecycle;

namespace {

const faults::Codes kCodes = {
    {"fopen", {0x2A00}},
    {"getdelim", {0x2A00}},
    {"gmtime_r", {0x2A00}},
    {"pipe2", {0x2A00}},
    {"fcntl", {0x2A00}},
    {"sigaction", {0x2A00}},
    {"fork", {0x2A00}},
    {"waitpid", {0x2A00}},
    {"statfs", {0x2A00}},
    {"malloc", {0x0200}},
    {"strdup", {0x0200}},
    {"mkdir", {0x0C00}},
    {"open", {0x0C00}},
    {"QOVABtrfsCreateSubVol", {0x0C00}},
    {"QOVAEAMKDir", {0xA100}},
    {"QLIBShareIsEncryptionGet", {0x2A00, 0xA100}},  // the second one below "@eaDir"
    {"QOVABtrfsIsSubVol", {0x2A00, 0x0C00, 0x0D00}}, // of the share, of its snapshot directory, of the source
    {"setxattr", {}}, // a counter that can't be stored is told by a line with errno alone
};

class SnapCreateFaults : public Fixture {
protected:
    using Whose = testkit::Sweep::Whose;
    using Create = std::function<int(char *szName, size_t cbName, QLIBCSZHASH **ppHash)>;

    size_t sweep(const Pairs &attributes, bool first, Whose whose = Whose::parents) {
        return sweep("QOVAShareSnapCreate", attributes, first, whose,
                     [this](char *szName, size_t cbName, QLIBCSZHASH **ppHash) {
                         const testkit::FixedTime clock(++now_);
                         return QOVAShareSnapCreate(share, szName, cbName, ppHash);
                     });
    }

    size_t sweep(const char *function, const Pairs &attributes, bool first, Whose whose, const Create &create) {
        Names before;
        std::string metaBefore;
        int countBefore = 0;
        std::unique_ptr<testkit::Leftovers> leftovers;
        testkit::Sweep sweep;
        sweep.function = function;
        sweep.whose = whose;
        // The handler of the child's signal writes to a pipe whenever the signal comes, and how often the pipe is read
        // goes by that.
        sweep.except = {"read", "write"};
        char name[255] = "";
        sweep.prepare = [&] {
            while (waitpid(-1, nullptr, 0) > 0) {} // where waiting itself had failed
            if (first) {
                // From nothing: no snapshot directory, no metadata.
                (void)remove(standing());
                (void)QOVABtrfsDeleteSubvolFaultTolerant(snapDir().c_str());
                (void)unlink(metaPath().c_str());
                std::filesystem::remove_all("/vol1/docs/@eaDir");
            }
            before = standing();
            metaBefore = meta();
            countBefore = storedCount();
            std::fill(std::begin(name), std::end(name), '\0');
            setCode(0);
            errno = 0;
            leftovers = std::make_unique<testkit::Leftovers>(std::vector<std::string>{"/run"});
        };
        sweep.operation = [&] {
            Hash hash(attributes);
            result = create(name, sizeof(name), hash.address());
            while (waitpid(-1, nullptr, 0) > 0) {} // plug-ins that nobody waits for
        };
        sweep.check = [&](const testkit::FaultPoint &point) {
            std::ostringstream where;
            where << point;
            SCOPED_TRACE(where.str());
            const testkit::Bypass bypass;
            EXPECT_EQ(whose == Whose::childrens, point.inChild);
            EXPECT_TRUE(result == 0 || whose == Whose::parents); // what fails in the child is borne
            if (result == 0) {
                expectWhole(point, name, before, countBefore, attributes);
            } else {
                EXPECT_EQ(-1, result);
                EXPECT_TRUE(faults::isCodeOf(kCodes, point, QLIBCErrGet()));
                expectNothing(point, before, metaBefore, countBefore, first);
            }
            if (!point.leavesBehind()) {
                const std::string left = leftovers->compare();
                EXPECT_TRUE(left.empty() || onlyRunFiles(left)) << left;
            }
        };
        return sweep.run();
    }

    // Lock files and their directories come into being by design.
    static bool onlyRunFiles(const std::string &left) {
        std::istringstream lines(left);
        for (std::string line; std::getline(lines, line);) {
            if (line.find("file /run/lock/sharesnap") == std::string::npos &&
                line.find("file /run/sharesnap") == std::string::npos) {
                return false;
            }
        }
        return true;
    }

    void expectWhole(const testkit::FaultPoint &point, const std::string &name, const Names &before, int countBefore,
                     const Pairs &attributes) {
        EXPECT_TRUE(stands(name));
        EXPECT_EQ(before.size() + 1, standing().size());
        const Names all = sections();
        EXPECT_EQ(1, std::count(all.begin(), all.end(), name));
        if (point.symbol == "QOVABtrfsIsSubVol" || point.symbol == "getxattr") {
            // A directory or a counter that can't be read counts as absent: the next recount mends what follows from
            // it.
            EXPECT_GT(QOVAShareSnapSyncSnapCount(share), 0);
        } else if (attributes.count("hide") == 0) {
            EXPECT_EQ(std::max(countBefore, 0) + 1, storedCount());
        } else {
            EXPECT_EQ(countBefore, storedCount());
        }
    }

    void expectNothing(const testkit::FaultPoint &point, const Names &before, const std::string &metaBefore,
                       int countBefore, bool first) {
        // A clean-up that fails itself leaves what it couldn't clean.
        if (point.symbol == "QOVABtrfsDeleteSubvolFaultTolerant") {
            return;
        }
        EXPECT_EQ(before, standing());
        EXPECT_EQ(metaBefore, meta());
        const int count = storedCount();
        EXPECT_TRUE(count == countBefore || (first && count == 0)) << count << " was " << countBefore;
    }
};

TEST_F(SnapCreateFaults, EachFailsOrIsBorneAndLeavesNothing) {
    (void)take();
    EXPECT_GT(sweep({}, false), 40U);
}

TEST_F(SnapCreateFaults, FirstSnapshotOfAShare) {
    EXPECT_GT(sweep({}, true), 40U);
}

TEST_F(SnapCreateFaults, SnapshotThatWaitsForItsPlugins) {
    (void)take();
    ASSERT_EQ("", installPlugin("ears", "exit 0\n"));
    EXPECT_GT(sweep("QOVAShareSnapCreateEx", {}, false, Whose::parents,
                    [this](char *szName, size_t cbName, QLIBCSZHASH **ppHash) {
                        const testkit::FixedTime clock(++now_);
                        return QOVAShareSnapCreateEx(share, szName, cbName, ppHash, SNAP_CREATE_BLOCKING_POST);
                    }),
              40U);
}

TEST_F(SnapCreateFaults, SnapshotWithoutTheConfiguration) {
    (void)take();
    EXPECT_GT(sweep("QOVAShareSnapCreateNoShareInfo", {}, false, Whose::parents,
                    [this](char *szName, size_t cbName, QLIBCSZHASH **ppHash) {
                        const testkit::FixedTime clock(++now_);
                        return QOVAShareSnapCreateNoShareInfo(share, szName, cbName, ppHash);
                    }),
              40U);
}

// The first name is taken: the second attempt comes a second later.
TEST_F(SnapCreateFaults, SecondAttemptAfterAConflict) {
    (void)take();
    const time_t taken = now_;
    EXPECT_GT(sweep("ShareSnapCreateNameConflictRetry", {}, false, Whose::parents,
                    [this, taken](char *szName, size_t cbName, QLIBCSZHASH **ppHash) {
                        testkit::FixedTime clock(taken);
                        const testkit::Replacement<unsigned int(unsigned int)> nap("sleep", [&](unsigned int) {
                            clock.set(++now_); // a name that no run before has had
                            return 0U;
                        });
                        return ShareSnapCreateNameConflictRetry(share, szName, cbName, ppHash, 1);
                    }),
              40U);
}

TEST_F(SnapCreateFaults, HiddenSnapshot) {
    (void)take();
    EXPECT_GT(sweep({{"hide", "true"}}, false), 40U);
}

TEST_F(SnapCreateFaults, NothingThatFailsInTheTimedChildStopsTheSnapshot) {
    (void)take();
    ASSERT_EQ("", installPlugin("ears", "exit 0\n"));
    EXPECT_GT(sweep({}, false, Whose::childrens), 10U);
}

} // namespace
