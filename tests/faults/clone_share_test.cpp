// Every call that a clone makes to the platform or to the C library fails once.
#include "volume/lifecycle.hpp"

#include <sstream>
#include <sys/wait.h>

using namespace lifecycle;

namespace {

class SnapCloneFaults : public Fixture {};

TEST_F(SnapCloneFaults, EachFailsAndLeavesNothingButTheClone) {
    const std::string name = take();
    ASSERT_EQ("", installPlugin("ears", "exit 0\n"));
    const Record copy("copy", "/vol1/copy");
    const std::string before = meta();
    std::unique_ptr<testkit::Leftovers> leftovers;
    testkit::Sweep sweep;
    sweep.prepare = [&] {
        (void)QOVABtrfsDeleteSubvolFaultTolerant("/vol1/copy");
        while (waitpid(-1, nullptr, 0) > 0) {} // plug-ins that nobody waits for
        setCode(0);
        errno = 0;
        leftovers = std::make_unique<testkit::Leftovers>();
    };
    sweep.operation = [&] {
        result = QOVAShareSnapClone(share, copy.get(), name.c_str());
        while (waitpid(-1, nullptr, 0) > 0) {}
    };
    sweep.check = [&](const testkit::FaultPoint &point) {
        std::ostringstream where;
        where << point;
        SCOPED_TRACE(where.str());
        const testkit::Bypass bypass;
        // A mark that stays, a last announcement that fails and a name that plug-ins don't hear fail nothing.
        const bool stands = QOVABtrfsIsSubVol("/vol1/copy") == 1;
        EXPECT_EQ(stands, result == 0);
        EXPECT_TRUE(result == 0 || QLIBCErrGet() != 0);
        EXPECT_EQ(before, meta());
        EXPECT_EQ(1, storedCount());
        EXPECT_EQ("", leftovers->compare());
    };
    EXPECT_GT(sweep.run(), 20U);
}

} // namespace
