// A tree whose file still has the old form is converted by the first verb that changes it.
#include "command.hpp"

#include <sharesnap/platform/file_lock.h>

#include "waiting.hpp"

namespace {

using namespace commandtest;
using testing::HasSubstr;

class OldTree : public CommandTest {
protected:
    void SetUp() override {
        CommandTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        place();
        before_ = drawn(); // which converts it
        place();
    }

    static void place() {
        const std::string old = std::string(SHARESNAP_SOURCE_DIR) + "/tests/data/snaptree/old-v11-small.bin";
        ASSERT_NE("", testkit::readFile(old));
        ASSERT_TRUE(testkit::writeFile("/vol1/@eaDir/snaptree.bin", testkit::readFile(old)));
    }

    static std::string drawn() {
        const auto result = sharesnap({"tree", "/vol1"});
        EXPECT_TRUE(ends(result, done));
        return result.output;
    }

    static bool isFree(const std::string &lock) {
        int fd = -1;
        if (QLIBCFileLockTimeByFile(lock.c_str(), 1, 0, &fd) == 0) {
            return false;
        }
        (void)QLIBCFileUnlockByFile(fd); // it is had
        return true;
    }

    std::string before_;
};

TEST_F(OldTree, KeepsWhatItHeld) {
    ASSERT_TRUE(ends(sharesnap({"share", "add", "music", "/vol1/music"}), done));
    const std::string after = drawn();
    EXPECT_THAT(after, HasSubstr("  object/music\n"));
    for (const std::string &line : lines(before_)) {
        EXPECT_THAT(after, HasSubstr(line));
    }
}

// While the list of the new share can't be read, the tree is loaded and not saved: nobody else may change it.
TEST_F(OldTree, IsLockedFromItsConversionToTheEnd) {
    (void)take(); // makes the directory of the lists, and converts the file
    place();
    ASSERT_TRUE(testkit::writeFile("/vol1/@sharesnap/@music.meta", ""));
    ASSERT_TRUE(testkit::makeDirectories("/run/lock/sharesnap/sharesnap_meta_lock"));
    testkit::LockHolder holder(listLock("music"), testkit::LockHolder::exclusive);
    ASSERT_TRUE(holder.holds());
    Running running = begin({"share", "add", "music", "/vol1/music"});
    ASSERT_TRUE(comesToWait(running, holder, listLock("music")));
    EXPECT_FALSE(isFree(treeLock("/vol1")));
    holder.release();
    EXPECT_TRUE(ends(running.get(), done));
    EXPECT_THAT(drawn(), HasSubstr("  object/music\n"));
}

} // namespace
