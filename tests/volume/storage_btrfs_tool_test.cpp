// The program that stands in for the Btrfs tool, on a real volume.
#include <sharesnap/platform/volume.h>

#include "storage_support.hpp"

#include <algorithm>
#include <sstream>
#include <sys/mount.h>

using testkit::ProcessResult;
using testkit::runProcessApart;
using testkit::writeFile;

namespace {

const std::string MARK = "# end of list\n";

ProcessResult tool(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), SHARESNAP_BTRFS_TOOL);
    return runProcessApart(arguments);
}

// The lines of a text, sorted.
std::vector<std::string> lines(const std::string &text) {
    std::istringstream stream(text);
    std::vector<std::string> all;
    for (std::string line; std::getline(stream, line);) {
        all.push_back(line);
    }
    std::sort(all.begin(), all.end());
    return all;
}

class ToolList : public storage::SnapshotTest {
protected:
    void SetUp() override {
        storage::SnapshotTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        ASSERT_TRUE(testkit::makeDirectories("/vol1/docs/some/way down"));
        ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/docs/some/way down/nested Grüße"));
        take("s 1");
        take("s2");
    }

    // Mounts a subvolume of the volume at a place of its own.
    static void mountSubvolume(const std::string &name, const std::string &path) {
        QOVAMOUNTVOLINFO info = {};
        ASSERT_EQ(0, QOVAMountVolInfoGet("/vol1", &info));
        ASSERT_EQ(0, mkdir(path.c_str(), 0755));
        ASSERT_EQ(0, mount(info.szDevice, path.c_str(), "btrfs", 0, ("subvol=" + name).c_str()));
    }
    static void unmount(const std::string &path) {
        EXPECT_EQ(0, umount2(path.c_str(), MNT_DETACH));
        EXPECT_EQ(0, rmdir(path.c_str()));
    }
};

TEST_F(ToolList, OfAWholeFileSystemIsThatOfTheRealToolAndAMark) {
    const ProcessResult real = runProcessApart({"btrfs", "subvolume", "list", "/vol1"});
    const ProcessResult ours = tool({"subvolume", "list", "/vol1"});
    ASSERT_EQ(0, real.exitStatus);
    ASSERT_EQ(0, ours.exitStatus) << ours.errors;
    EXPECT_EQ(5U, lines(real.output).size());
    ASSERT_LT(MARK.size(), ours.output.size());
    EXPECT_EQ(MARK, ours.output.substr(ours.output.size() - MARK.size()));
    EXPECT_EQ(lines(real.output), lines(ours.output.substr(0, ours.output.size() - MARK.size())));
}

TEST_F(ToolList, OfAnEmptyVolumeIsTheMarkAlone) {
    ASSERT_EQ("", testkit::Sandbox::mountVolume("/vol2"));
    const ProcessResult result = tool({"subvolume", "list", "/vol2"});
    EXPECT_EQ(0, result.exitStatus);
    EXPECT_EQ(MARK, result.output);
}

TEST_F(ToolList, HasPathsFromTheTopOfTheVolumeThatIsMounted) {
    ASSERT_EQ(0, QOVABtrfsSnapshotTake("/vol1/docs", "/vol1/data"));
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/data/@sharesnap"));
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/data/@sharesnap/docs"));
    mountSubvolume("data", "/vol5");
    const ProcessResult result = tool({"subvolume", "list", "/vol5"});
    const ProcessResult inside = tool({"subvolume", "list", "/vol5/some"});
    unmount("/vol5");
    EXPECT_EQ(0, result.exitStatus);
    ASSERT_EQ(3U, lines(result.output).size()) << result.output;
    EXPECT_NE(std::string::npos, result.output.find(" path @sharesnap\n"));
    EXPECT_NE(std::string::npos, result.output.find(" path @sharesnap/docs\n"));
    EXPECT_EQ(result.output, inside.output);
}

TEST_F(ToolList, LeavesOutWhatIsDeleted) {
    const storage::File hold("/vol1/snaps/s2", O_RDONLY);
    ASSERT_EQ(0, QOVABtrfsDeleteSubvolFaultTolerant("/vol1/snaps/s2"));
    const ProcessResult result = tool({"subvolume", "list", "/vol1"});
    EXPECT_EQ(0, result.exitStatus);
    EXPECT_NE(std::string::npos, result.output.find(" path snaps/s 1\n"));
    EXPECT_EQ(std::string::npos, result.output.find("s2"));
}

TEST_F(ToolList, CantBeMadeToTellOfWhatIsntThere) {
    const std::string inDirectory = "/vol1/docs/x\n" + std::string("ID 9 gen 1 top level 5 path snaps");
    ASSERT_EQ(0, mkdir(inDirectory.c_str(), 0755));
    ASSERT_EQ(0, QOVABtrfsCreateSubVol((inDirectory + "/fake").c_str()));
    // A path so long that a reader of pieces finds a line of the maker's choice in its second piece.
    std::string deep = "docs/";
    while (deep.size() + 101 < 900) {
        deep += std::string(100, 'd') + "/";
    }
    ASSERT_TRUE(testkit::makeDirectories("/vol1/" + deep + "snaps"));
    // One of these begins its text where the second piece begins.
    const size_t around = 1023 - deep.size() - std::string("ID 263 gen 9 top level 256 path ").size();
    for (size_t length = around - 5; length <= around + 5; ++length) {
        const std::string path = "/vol1/" + deep + std::string(length, 'e') + "ID 9 gen 1 top level 5 path snaps";
        ASSERT_EQ(0, mkdir(path.c_str(), 0755));
        ASSERT_EQ(0, QOVABtrfsCreateSubVol((path + "/fake").c_str()));
    }
    ASSERT_EQ(0, QOVABtrfsCreateSubVol(("/vol1/" + deep + "fits").c_str()));
    const ProcessResult result = tool({"subvolume", "list", "/vol1"});
    EXPECT_EQ(0, result.exitStatus);
    size_t counted = 0;
    for (const std::string &line : lines(result.output)) {
        // What a reader with a buffer of 1024 bytes gets to see.
        for (size_t at = 0; at < line.size(); at += 1023) {
            char path[1024] = "";
            const bool matched =
                sscanf(line.substr(at, 1023).c_str(), "ID %*u gen %*u top level %*u path %1023[^\n]", path) == 1;
            EXPECT_NE(0, std::string(path).compare(0, 10, "snaps/fake")) << line;
            EXPECT_TRUE(matched || line + "\n" == MARK) << line;
            counted += matched ? 1 : 0;
        }
    }
    EXPECT_EQ(6U, counted); // those of the set-up, and the one whose line isn't too long
}

TEST_F(ToolList, OfNoVolumeFailsWithoutTheMark) {
    for (const char *path : {"/proc", "/vol1/nothing", "/vol1/docs/letter"}) {
        const ProcessResult result = tool({"subvolume", "list", path});
        EXPECT_NE(0, result.exitStatus) << path;
        EXPECT_EQ("", result.output) << path;
        EXPECT_NE("", result.errors) << path;
    }
}

TEST_F(ToolList, ThatCantBeWrittenFails) {
    const ProcessResult result =
        runProcessApart({"sh", "-c", "exec \"$0\" subvolume list /vol1 >/dev/full", SHARESNAP_BTRFS_TOOL});
    EXPECT_NE(0, result.exitStatus);
}

class ToolSend : public storage::SnapshotTest {
protected:
    void SetUp() override {
        storage::SnapshotTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        fill();
        take("first");
        change();
        take("second");
    }

    // Files of many kinds: around the size of a write record, with holes, preallocated, shared, special.
    static void fill() {
        const std::string docs = "/vol1/docs/";
        for (const size_t size : {0UL, 1UL, 2000UL, 4096UL, 49151UL, 49152UL, 49153UL, 3000000UL}) {
            ASSERT_TRUE(writeFile(docs + "size" + std::to_string(size), std::string(size, char('a' + size % 26))));
        }
        ASSERT_TRUE(writeFile(docs + "sparse", ""));
        ASSERT_EQ(0, truncate((docs + "sparse").c_str(), 5000000));
        const storage::File sparse(docs + "sparse", O_WRONLY);
        ASSERT_EQ(5, pwrite(sparse.get(), "hello", 5, 3000000));
        const storage::File early(docs + "preallocated", O_WRONLY | O_CREAT);
        const storage::File preallocated("/vol1/docs/size2000", O_WRONLY);
        ASSERT_EQ(0, fallocate(preallocated.get(), 0, 0, 1000000));
        ASSERT_EQ(4, pwrite(preallocated.get(), "data", 4, 500000));
        ASSERT_TRUE(testkit::makeDirectories(docs + "dir/sub dir"));
        ASSERT_EQ(0, link((docs + "size4096").c_str(), (docs + "dir/hard").c_str()));
        ASSERT_EQ(0, symlink("size4096", (docs + "dir/soft").c_str()));
        ASSERT_EQ(0, mkfifo((docs + "pipe").c_str(), 0600));
        ASSERT_EQ(0, setxattr((docs + "size1").c_str(), "user.note", "text", 4, 0));
        ASSERT_EQ(0, testkit::runProcess({"cp", "--reflink=always", docs + "size3000000", docs + "shared"}).exitStatus);
    }

    static void change() {
        const std::string docs = "/vol1/docs/";
        const storage::File large(docs + "size3000000", O_WRONLY);
        const std::string data(333333, 'z');
        ASSERT_EQ(ssize_t(data.size()), pwrite(large.get(), data.data(), data.size(), 511111));
        ASSERT_EQ(0, truncate((docs + "size49153").c_str(), 1000));
        ASSERT_EQ(0, rename((docs + "size49152").c_str(), (docs + "dir/moved and longer").c_str()));
        const storage::File shared(docs + "shared", O_WRONLY);
        ASSERT_EQ(0, fallocate(shared.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 8192, 100000));
        ASSERT_EQ(0, unlink((docs + "size1").c_str()));
        ASSERT_TRUE(writeFile(docs + "new", std::string(100000, 'n')));
        ASSERT_EQ(0, testkit::runProcess({"cp", "--reflink=always", docs + "shared", docs + "again"}).exitStatus);
    }

    static std::string realLength(const std::vector<std::string> &arguments) {
        const std::string stream = testkit::Sandbox::scratch() + "/stream";
        std::vector<std::string> command = {"btrfs", "send", "-q", "-e", "-f", stream};
        command.insert(command.end(), arguments.begin(), arguments.end());
        (void)unlink(stream.c_str());
        const ProcessResult result = runProcessApart(command);
        EXPECT_EQ(0, result.exitStatus) << result.errors;
        struct stat status = {};
        EXPECT_EQ(0, stat(stream.c_str(), &status));
        return "About:" + std::to_string(status.st_size) + "\n";
    }

    static std::string estimate(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"send", "-es"});
        const ProcessResult result = tool(arguments);
        EXPECT_EQ(0, result.exitStatus) << result.errors;
        return result.output;
    }
};

const std::string FIRST = "/vol1/snaps/first";
const std::string SECOND = "/vol1/snaps/second";

TEST_F(ToolSend, TellsTheLengthOfAWholeStream) {
    EXPECT_EQ(realLength({FIRST}), estimate({FIRST}));
    EXPECT_EQ(realLength({SECOND}), estimate({SECOND}));
}

TEST_F(ToolSend, TellsTheLengthOfADifference) {
    EXPECT_EQ(realLength({"-p", FIRST, SECOND}), estimate({"-p", FIRST, SECOND}));
    EXPECT_EQ(realLength({"-c", FIRST, SECOND}), estimate({"-c", FIRST, SECOND}));
    EXPECT_EQ(realLength({"-p", FIRST, "-c", FIRST, SECOND}), estimate({"-p", FIRST, "-c", FIRST, SECOND}));
}

TEST_F(ToolSend, TellsTheLengthOfSeveralSnapshotsTogether) {
    EXPECT_EQ(realLength({FIRST, SECOND}), estimate({FIRST, SECOND}));
}

TEST_F(ToolSend, TellsNothingWhenTheStreamCantBeMade) {
    for (const std::vector<std::string> &arguments : std::vector<std::vector<std::string>>{
             {"/vol1/docs"}, {"/vol1/nothing"}, {FIRST, "/vol1/docs"}, {"-p", "/vol1/docs", SECOND}, {}}) {
        std::vector<std::string> command = {"send", "-es"};
        command.insert(command.end(), arguments.begin(), arguments.end());
        const ProcessResult result = tool(command);
        EXPECT_NE(0, result.exitStatus);
        EXPECT_EQ("", result.output);
        EXPECT_NE("", result.errors);
    }
}

using ToolHandOver = storage::SnapshotTest;

TEST_F(ToolHandOver, GivesWhatTheRealToolGives) {
    for (const std::vector<std::string> &arguments :
         std::vector<std::vector<std::string>>{{"subvolume", "show", "/vol1/docs"},
                                               {"subvolume", "list", "-t", "/vol1"},
                                               {"subvolume", "list"},
                                               {"filesystem", "label", "/vol1"},
                                               {"no such command"},
                                               {}}) {
        std::vector<std::string> command = {"btrfs"};
        command.insert(command.end(), arguments.begin(), arguments.end());
        const ProcessResult real = runProcessApart(command);
        const ProcessResult ours = tool(arguments);
        EXPECT_EQ(real.exitStatus, ours.exitStatus);
        EXPECT_EQ(real.output, ours.output);
    }
}

} // namespace
