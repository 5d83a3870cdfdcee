// Deletions under circumstances that aren't everyday's: a counter that is missing or damaged, a full volume, a metadata
// file of dozens of megabytes, snapshots that a program is reading.
#include "volume/lifecycle.hpp"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <linux/btrfs.h>
#include <memory>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include "support/process.hpp"

using namespace lifecycle;

namespace {

enum { GONE = 0, SURVIVED = 0x2A00, NOT_FOUND = 0xA100 };
using Codes = std::vector<int>;

class HardDelete : public Fixture {
protected:
    void storeText(const std::string &text) const {
        ASSERT_EQ(0, setxattr(snapDir().c_str(), "user.snapcount", text.data(), text.size(), 0));
    }

    static void syncVolume() {
        const int volume = open("/vol1", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ASSERT_GE(volume, 0);
        (void)ioctl(volume, BTRFS_IOC_SYNC); // a full one may say so; wakes the cleaner, too
        (void)close(volume);
    }

    // Metadata, volume and counter agree without anybody's help.
    void expectAgreement() const {
        Names listed = sections();
        std::sort(listed.begin(), listed.end());
        EXPECT_EQ(standing(), listed);
        int visible = 0;
        for (const std::string &name : listed) {
            visible += attribute(name, "hide") == "false" ? 1 : 0;
        }
        EXPECT_EQ(visible, storedCount());
    }
};

// The recount happens under the lock that the deletion itself holds, and doesn't wait for it.
TEST_F(HardDelete, MissingCounterIsRecountedUnderTheDeletionsOwnLock) {
    const Names names = takeSome(4);
    const std::string hidden = take({{"hide", "true"}});
    ASSERT_EQ(0, removexattr(snapDir().c_str(), "user.snapcount"));
    EXPECT_EQ(0, remove({names[0], hidden, names[2]}));
    EXPECT_EQ((Codes{GONE, GONE, GONE}), codes);
    EXPECT_EQ((Names{names[1], names[3]}), standing());
    EXPECT_EQ(2, storedCount());
    expectAgreement();
    EXPECT_EQ(0U, testkit::logCount(LOG_ERR, "Failed to lock")) << testkit::logText();
}

TEST_F(HardDelete, CounterWithoutANumberIsRecounted) {
    for (const std::string &text : {std::string("abc"), std::string(), std::string(1024, '\0'), std::string("-")}) {
        SCOPED_TRACE("\"" + text + "\"");
        const Names names = takeSome(3);
        storeText(text);
        EXPECT_EQ(0, remove({names[1]}));
        EXPECT_EQ(2, storedCount());
        expectAgreement();
        EXPECT_EQ(0, remove({names[0], names[2]}));
        EXPECT_EQ(0, storedCount());
    }
}

// Damage that still reads as a number is taken for the count, until the next sync.
TEST_F(HardDelete, CounterWithAnotherNumberIsTakenForTrue) {
    const Names names = takeSome(3);
    storeText("12abc");
    EXPECT_EQ(0, remove({names[0]}));
    EXPECT_EQ(11, storedCount());
    EXPECT_EQ(2, QOVAShareSnapSyncSnapCount(share));
    expectAgreement();
}

TEST_F(HardDelete, CounterThatWouldFallBelowZeroEndsThere) {
    const Names names = takeSome(3);
    for (const char *text : {"-5", "1"}) {
        storeText(text);
        const std::string before = std::to_string(std::atoi(text) - (text[0] == '1' ? 2 : 1));
        const Names some = text[0] == '1' ? Names{names[1], names[2]} : Names{names[0]};
        EXPECT_EQ(0, remove(some)) << testkit::logText();
        EXPECT_EQ(0, storedCount());
        EXPECT_TRUE(testkit::logged(LOG_ERR, "Share snapcount [" + before +
                                                 "] of share [docs] should not less than zero, autofix it to [0]"));
    }
    expectAgreement();
}

class FullDelete : public HardDelete {
protected:
    // Until no block of data has room.
    static void fillWithData() {
        const int file = open("/vol1/ballast", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        ASSERT_GE(file, 0);
        const std::vector<char> block(1 << 20, 'x');
        size_t piece = block.size();
        for (size_t written = 0; piece >= 4096 && written < (size_t(1) << 30);) {
            const ssize_t done = write(file, block.data(), piece);
            written += done > 0 ? size_t(done) : 0;
            piece = done > 0 ? piece : piece / 16;
        }
        (void)fsync(file); // a full volume may say so here, too
        ASSERT_EQ(0, close(file));
    }

    // No block of data has room, but names, attributes and other small things have: they live in chunks of their own,
    // and many small files make the file system set aside another of these, far larger than what they need.
    static void fillButForNames() {
        ASSERT_EQ(0, mkdir("/vol1/cushion", 0700));
        for (int i = 0; i < 6000; ++i) {
            ASSERT_TRUE(testkit::writeFile("/vol1/cushion/" + std::to_string(i), std::string(1500, 'y')));
        }
        syncVolume();
        for (int round = 0; round < 3; ++round) { // what the first ones let go of is filled, too
            ASSERT_NO_FATAL_FAILURE(fillWithData());
            syncVolume();
        }
    }

    // Until neither a block of data nor another small file has room.
    static void fill() {
        ASSERT_EQ(0, mkdir("/vol1/small", 0700));
        ASSERT_NO_FATAL_FAILURE(fillWithData());
        for (int i = 0; i < 100000 && testkit::writeFile("/vol1/small/" + std::to_string(i), std::string(1500, 'y'));
             ++i) {}
        syncVolume();
    }

    // Room is there when the file system has let go of what was unlinked, not before.
    static void empty() {
        std::vector<std::string> files = {"/vol1/ballast", "/vol1/probe"};
        for (const std::string &name : testkit::directoryNames("/vol1/small")) {
            files.push_back("/vol1/small/" + name);
        }
        for (const std::string &file : files) {
            ASSERT_TRUE(eventually([&] { return unlink(file.c_str()) == 0 || errno == ENOENT; })) << file;
        }
        ASSERT_TRUE(eventually([] {
            syncVolume();
            return testkit::writeFile("/vol1/probe", std::string(1 << 20, 'z')) &&
                   rename("/vol1/probe", "/vol1/p") == 0;
        }));
        ASSERT_EQ(0, unlink("/vol1/p"));
        syncVolume();
    }
};

// A volume that is full to the last block may let the deletion through, refuse it before anything is touched, or refuse
// the new metadata when the snapshots are gone. Each is told as what it is, and one sync makes all true.
TEST_F(FullDelete, IsDoneOrToldAndOneSyncMakesItTrue) {
    const Names names = takeSome(4);
    const std::string before = meta();
    ASSERT_NO_FATAL_FAILURE(fill());
    setCode(0);
    const int outcome = remove({names[1], names[2]});
    const unsigned int cause = QLIBCErrGet();
    if (outcome == 0) {
        EXPECT_EQ((Codes{GONE, GONE}), codes);
        EXPECT_EQ((Names{names[0], names[3]}), standing());
        expectAgreement();
    } else {
        EXPECT_EQ(-1, outcome);
        EXPECT_EQ((Codes{SURVIVED, SURVIVED}), codes);
        EXPECT_EQ(before, meta());
        EXPECT_NE(0U, cause);
        // The metadata couldn't be written when the snapshots were gone: their count is gone, too.
        if (!stands(names[1]) && !stands(names[2])) {
            EXPECT_EQ(static_cast<unsigned int>(SNAP_ERR_NO_SPACE), cause);
            EXPECT_EQ(2, storedCount());
        }
    }
    std::printf("[  FULL    ] result %d, code 0x%04X, %zu standing\n", outcome, cause, standing().size());
    for (const std::string &left : testkit::directoryNames("/vol1/@sharesnap")) {
        EXPECT_NE(0U, left.rfind("@docs.meta.", 0)) << left;
    }
    ASSERT_NO_FATAL_FAILURE(empty());
    ASSERT_EQ(0, QOVAShareSnapMetaSync(share)) << testkit::logText();
    expectAgreement();
    EXPECT_TRUE(stands(names[0]));
    EXPECT_TRUE(stands(names[3]));
    Names rest = standing();
    EXPECT_EQ(0, remove(rest)) << testkit::logText();
    EXPECT_EQ(Names{}, standing());
}

// The new metadata have no room, so the old ones stay, and name what is gone: that is told as a full volume.
TEST_F(FullDelete, NewMetadataWithoutRoomLeaveTheOldOnesUntilASync) {
    const Names names = takeSome(4);
    // Another section makes the file longer than what the deletion itself gives back.
    const std::string others = "[GMT-1999.01.01-00.00.00]\nhide=true\ndesc=" + std::string(2 << 20, 'd') + "\n";
    ASSERT_TRUE(testkit::writeFile(metaPath(), meta() + others));
    const std::string before = meta();
    ASSERT_NO_FATAL_FAILURE(fillButForNames());
    setCode(0);
    EXPECT_EQ(-1, remove({names[1], names[2]})) << testkit::logText();
    EXPECT_EQ(static_cast<unsigned int>(SNAP_ERR_NO_SPACE), QLIBCErrGet());
    EXPECT_EQ((Codes{SURVIVED, SURVIVED}), codes);
    EXPECT_EQ((Names{names[0], names[3]}), standing());
    EXPECT_TRUE(before == meta());
    EXPECT_EQ(2, storedCount());
    for (const std::string &left : testkit::directoryNames("/vol1/@sharesnap")) {
        EXPECT_NE(0U, left.rfind("@docs.meta.", 0)) << left;
    }
    ASSERT_NO_FATAL_FAILURE(empty());
    ASSERT_EQ(0, QOVAShareSnapMetaSync(share)) << testkit::logText();
    expectAgreement();
    EXPECT_EQ((Names{names[0], names[3]}), standing());
}

// An empty list takes no block, so the way out of a full volume is open: all snapshots can go.
TEST_F(FullDelete, AllSnapshotsCanGoFromAVolumeWithoutABlock) {
    const Names names = takeSome(3);
    ASSERT_NO_FATAL_FAILURE(fillButForNames());
    const int file = open("/vol1/probe", O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(file, 0);
    const std::vector<char> block(4096, 'x');
    EXPECT_EQ(-1, write(file, block.data(), block.size()));
    EXPECT_EQ(ENOSPC, errno);
    ASSERT_EQ(0, close(file));
    EXPECT_EQ(0, remove(names)) << testkit::logText();
    EXPECT_EQ((Codes{GONE, GONE, GONE}), codes);
    EXPECT_EQ(Names{}, standing());
    EXPECT_EQ("", meta());
    EXPECT_EQ(0, storedCount());
    ASSERT_NO_FATAL_FAILURE(empty());
}

// 33 MiB of sections, long and short, with comments: what is deleted goes, every other byte stays.
TEST_F(HardDelete, HugeMetadataFileIsRewrittenToTheByte) {
    const Names names = takeSome(3);
    ASSERT_EQ(3U, sections().size());
    const auto section = [&](size_t from, size_t to) {
        const std::string text = meta();
        const size_t begin = text.find("[" + names[from] + "]");
        return text.substr(begin, to < names.size() ? text.find("[" + names[to] + "]") - begin : std::string::npos);
    };
    const std::string first = section(0, 1);
    const std::string second = section(1, 2);
    const std::string third = section(2, 3);
    // Sections of snapshots that only the file knows: a deletion of others has no business with them.
    const auto filler = [](int from, int to) {
        std::string text;
        for (int i = from; i < to; ++i) {
            text += "[GMT-1999.01.01-" + std::to_string(i) + "]\nhide=false\n; a comment\ndesc=" +
                    std::string(i % 100 == 0 ? 200000 : 1200, static_cast<char>('a' + i % 26)) + "\n";
        }
        return text;
    };
    const std::string early = filler(0, 6000);
    const std::string late = filler(6000, 12000);
    ASSERT_TRUE(testkit::writeFile(metaPath(), first + early + second + late + third));
    ASSERT_LT(size_t(33) << 20, meta().size());
    EXPECT_EQ(0, remove({names[1]})) << testkit::logText();
    EXPECT_EQ(Codes{GONE}, codes);
    EXPECT_TRUE(first + early + late + third == meta());
    EXPECT_EQ((Names{names[0], names[2]}), standing());
    EXPECT_EQ(2, storedCount());
    EXPECT_EQ(0, remove({names[2], names[0]})) << testkit::logText();
    EXPECT_TRUE(early + late == meta());
    EXPECT_EQ(0, storedCount());
}

class ReadDelete : public HardDelete {
protected:
    void SetUp() override {
        HardDelete::SetUp();
        if (IsSkipped()) {
            return;
        }
        ASSERT_TRUE(testkit::makeDirectories("/vol1/docs/folder"));
        // More than all pipes and buffers of a sender hold, and no block like another.
        std::string text;
        for (unsigned int i = 0; text.size() < (size_t(24) << 20); i = i * 1664525U + 1013904223U) {
            text += std::to_string(i) + " is no number of chance\n";
        }
        ASSERT_TRUE(testkit::writeFile("/vol1/docs/folder/long", text));
        ASSERT_TRUE(testkit::writeFile("/vol1/docs/letter", "kept"));
        syncVolume();
        text_ = text;
    }

    std::string text_;
};

// An open file keeps its contents to its end, as a removed file does; the snapshot is gone for everybody else.
TEST_F(ReadDelete, SnapshotWithOpenFilesGoesAndTheFilesAreReadToTheirEnd) {
    const Names names = takeSome(2);
    const std::string path = snapDir() + "/" + names[0];
    const int file = open((path + "/folder/long").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(file, 0);
    const std::unique_ptr<DIR, int (*)(DIR *)> directory(opendir((path + "/folder").c_str()), closedir);
    ASSERT_NE(nullptr, directory);
    std::string got(4096, '\0');
    ASSERT_EQ(4096, read(file, got.data(), got.size()));
    EXPECT_EQ(0, remove({names[0]})) << testkit::logText();
    EXPECT_EQ(Codes{GONE}, codes);
    EXPECT_EQ(Names{names[1]}, standing());
    expectAgreement();
    std::vector<char> buffer(1 << 20);
    for (ssize_t done = 1; done > 0;) {
        done = read(file, buffer.data(), buffer.size());
        ASSERT_GE(done, 0) << std::strerror(errno);
        got.append(buffer.data(), static_cast<size_t>(done));
    }
    EXPECT_TRUE(got == text_);
    EXPECT_EQ(0, close(file));
}

TEST_F(ReadDelete, SnapshotThatAProcessStandsInGoes) {
    const Names names = takeSome(2);
    const std::string path = snapDir() + "/" + names[0] + "/folder";
    int ready[2];
    int order[2];
    ASSERT_EQ(0, pipe2(ready, O_CLOEXEC));
    ASSERT_EQ(0, pipe2(order, O_CLOEXEC));
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
        (void)close(order[1]);
        char byte = chdir(path.c_str()) == 0 ? 'y' : 'n';
        if (write(ready[1], &byte, 1) != 1) {
            _exit(2);
        }
        (void)read(order[0], &byte, 1); // ends with the other end
        // What it stands in is gone, and says so.
        _exit(open("new", O_WRONLY | O_CREAT, 0600) < 0 ? 0 : 3);
    }
    char byte = 0;
    EXPECT_EQ(1, read(ready[0], &byte, 1));
    EXPECT_EQ('y', byte);
    EXPECT_EQ(0, remove({names[0]})) << testkit::logText();
    EXPECT_EQ(Codes{GONE}, codes);
    EXPECT_EQ(Names{names[1]}, standing());
    expectAgreement();
    for (const int end : {ready[0], ready[1], order[0], order[1]}) {
        (void)close(end);
    }
    EXPECT_EQ(0, testkit::waitForChild(child));
}

// `btrfs send` of a snapshot into a pipe that nobody empties.
class Sender {
public:
    explicit Sender(const std::string &snapshot) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) {
            return;
        }
        output_ = ends[0];
        pid_ = fork();
        if (pid_ == 0) {
            (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
            (void)signal(SIGPIPE, SIG_DFL);
            const int nothing = open("/dev/null", O_RDWR);
            if (dup2(ends[1], 1) < 0 || nothing < 0 || dup2(nothing, 0) < 0 || dup2(nothing, 2) < 0) {
                _exit(126);
            }
            (void)execlp("btrfs", "btrfs", "send", snapshot.c_str(), static_cast<char *>(nullptr));
            _exit(127);
        }
        (void)close(ends[1]);
        // The first byte comes from the kernel, which reads the snapshot from then on.
        char byte = 0;
        sends_ = pid_ > 0 && read(output_, &byte, 1) == 1;
    }
    Sender(const Sender &) = delete;
    Sender &operator=(const Sender &) = delete;
    ~Sender() { stop(); }

    [[nodiscard]] bool sends() const { return sends_; }

    void stop() {
        if (output_ >= 0) {
            (void)close(output_);
            output_ = -1;
        }
        if (pid_ > 0) {
            (void)kill(pid_, SIGKILL);
            (void)testkit::waitForChild(pid_);
            pid_ = -1;
        }
    }

private:
    int output_ = -1;
    pid_t pid_ = -1;
    bool sends_ = false;
};

// The kernel refuses to take a snapshot away under a sender: it survives with its section and its count, and so do the
// sections of those behind it; it goes when the sender is done.
TEST_F(ReadDelete, SnapshotThatIsBeingSentSurvivesUntilTheSenderIsDone) {
    const Names names = takeSome(3);
    {
        Sender sender(snapDir() + "/" + names[1]);
        ASSERT_TRUE(sender.sends());
        EXPECT_EQ(-1, remove({names[0], names[1]}));
        EXPECT_EQ((Codes{GONE, SURVIVED}), codes);
        EXPECT_EQ((Names{names[1], names[2]}), standing());
        expectAgreement();
        EXPECT_TRUE(
            testkit::logged(LOG_ERR, "Failed to delete share [docs] snapshot [" + names[1] + "]")); // told by name
        EXPECT_EQ("kept", testkit::readFile(snapDir() + "/" + names[1] + "/letter"));
    }
    ASSERT_TRUE(eventually([&] { return remove({names[1]}) == 0; })) << testkit::logText();
    EXPECT_EQ(Names{names[2]}, standing());
    expectAgreement();
}

} // namespace
