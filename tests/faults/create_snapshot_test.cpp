// Every call that a creation makes to the platform or to the C library fails once.
#include "volume/lifecycle.hpp"

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <sys/wait.h>

using namespace lifecycle;

namespace {

class SnapCreateFaults : public Fixture {
protected:
    using Whose = testkit::Sweep::Whose;

    size_t sweep(const Pairs &attributes, bool first, Whose whose = Whose::parents) {
        Names before;
        std::string metaBefore;
        int countBefore = 0;
        std::unique_ptr<testkit::Leftovers> leftovers;
        testkit::Sweep sweep;
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
            const testkit::FixedTime clock(++now_);
            Hash hash(attributes);
            result = QOVAShareSnapCreate(share, name, sizeof(name), hash.address());
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
                EXPECT_NE(0U, QLIBCErrGet());
                EXPECT_EQ(-1, result);
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
