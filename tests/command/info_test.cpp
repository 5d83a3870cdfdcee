// sharesnap info: the configuration that a snapshot froze, and how it differs from the share's present one.
#include "command.hpp"

#include <sharesnap/platform/subvolume.h>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

using namespace commandtest;
using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;

class InfoVerb : public CommandTest {
protected:
    // The record of music as a share manager writes it.
    static void record(const std::string &description, const std::string &settings) {
        const std::string database = "/etc/sharesnap/shares.conf";
        std::string text = testkit::readFile(database);
        text.erase(std::min(text.find("[music]"), text.size()));
        ASSERT_TRUE(
            testkit::writeFile(database, text + "[music]\npath=/vol1/music\ncomment=" + description + "\n" + settings));
    }

    // The share music, and a snapshot of it with the settings it has then.
    static std::string frozen(const std::string &description, const std::string &settings) {
        EXPECT_TRUE(ends(sharesnap({"share", "add", "music", "/vol1/music"}), done));
        record(description, settings);
        return take({}, "music");
    }

    static json differences(const std::string &snapshot) {
        return document({"info", "music", snapshot, "--diff"})["differences"];
    }
};

TEST_F(InfoVerb, ShowsTheFrozenConfiguration) {
    const std::string name =
        frozen("as it was", "browseable=no\nwrite list=daemon,@staff\nsharesnap:ftp_privilege=3\n");
    record("as it is", "browseable=yes\n");
    json configuration = document({"info", "music", name})["configuration"];
    EXPECT_EQ("as it was", configuration["description"]);
    EXPECT_EQ("0", configuration["browseable"]);
    EXPECT_EQ("daemon,@staff", configuration["read and write"]);
    EXPECT_EQ("", configuration["denied"]);
    EXPECT_EQ("3", configuration["ftp privilege"]);
    EXPECT_EQ("yes", configuration["copy on write"]);
    EXPECT_EQ("no", configuration["compression"]);
    EXPECT_THAT(sharesnap({"info", "music", name}).output, HasSubstr("\ndescription     as it was\n"));
}

TEST_F(InfoVerb, NothingDiffersUntilSomethingChanges) {
    const std::string name = frozen("as it was", "invalid users=bin\n");
    EXPECT_EQ(json::object(), differences(name));
    EXPECT_THAT(lines(sharesnap({"info", "music", name, "--diff"}).output),
                ElementsAre("SETTING  IN THE SNAPSHOT  NOW"));
}

TEST_F(InfoVerb, DiffNamesWhatChanged) {
    const std::string name = frozen("as it was", "invalid users=bin\nread list=daemon\nsharesnap:status=0x100\n");
    record("as it is", "invalid users=bin,@staff\nread list=daemon\nbrowseable=no\nsharesnap:ftp_privilege=7\n"
                       "sharesnap:status=0x80\n");
    EXPECT_EQ((json{{"description", {{"snapshot", "as it was"}, {"now", "as it is"}}},
                    {"denied", {{"snapshot", "bin"}, {"now", "bin,@staff"}}},
                    {"browseable", {{"snapshot", "1"}, {"now", "0"}}},
                    {"ftp privilege", {{"snapshot", "0"}, {"now", "7"}}},
                    {"status", {{"snapshot", "0x100"}, {"now", "0x80"}}}}),
              differences(name));
    const auto table = sharesnap({"info", "music", name, "--diff"});
    EXPECT_TRUE(ends(table, done));
    EXPECT_THAT(lines(table.output),
                ElementsAre("SETTING        IN THE SNAPSHOT  NOW", "description    as it was        as it is",
                            "denied         bin              bin,@staff", "browseable     1                0",
                            "ftp privilege  0                7", "status         0x100            0x80"));
    // The snapshot keeps what it froze, and a later one froze what is true now.
    EXPECT_EQ("as it was", document({"info", "music", name})["configuration"]["description"]);
    EXPECT_EQ(json::object(), differences(take({}, "music")));
}

// Bits of the status that no snapshot freezes are the share's own: they are no difference.
TEST_F(InfoVerb, StatusBitsOfThePresentAreNoDifference) {
    const std::string name = frozen("", "sharesnap:status=0x100\n");
    record("", "sharesnap:status=0x140\n");
    EXPECT_EQ(json::object(), differences(name));
    EXPECT_EQ("0x140", document({"info", "music", name})["configuration"]["status"]);
}

// A setting that the snapshot doesn't hold differs from any value.
TEST_F(InfoVerb, DiffShowsWhatTheSnapshotDoesNotHold) {
    const std::string directory = "/vol1/docs/@eaDir/sharesnap_share_configuration";
    const std::string name = "GMT-2015.01.01-00.00.00";
    ASSERT_TRUE(ends(sharesnap({"delete", "docs", take()}), done)); // the directory of the snapshots stands now
    ASSERT_TRUE(testkit::makeDirectories(directory));
    ASSERT_TRUE(testkit::writeFile(directory + "/share_configuration", "[share_info]\nbrowseable=1\nshare_quota=0\n"));
    ASSERT_EQ(0, QOVABtrfsReadOnlySnapshotTake("/vol1/docs", snapshotPath(name).c_str()));
    ASSERT_TRUE(ends(sharesnap({"sync", "docs"}), done));
    json found = document({"info", "docs", name, "--diff"})["differences"];
    EXPECT_EQ((json{{"snapshot", nullptr}, {"now", ""}}), found["description"]);
    EXPECT_EQ((json{{"snapshot", nullptr}, {"now", "yes"}}), found["copy on write"]);
    EXPECT_EQ(0U, found.count("browseable"));
    EXPECT_EQ(0U, found.count("quota (MiB)"));
    EXPECT_THAT(sharesnap({"info", "docs", name, "--diff"}).output,
                HasSubstr("\ncopy on write   -                yes\n"));
}

TEST_F(InfoVerb, SaysWhenASnapshotHoldsNone) {
    const std::string name = take({"--no-share-info"});
    for (const Arguments &options : {Arguments{}, Arguments{"--diff"}}) {
        Arguments arguments = {"info", "docs", name};
        arguments.insert(arguments.end(), options.begin(), options.end());
        const auto result = sharesnap(arguments);
        EXPECT_TRUE(ends(result, notFound));
        EXPECT_TRUE(says(result, {name, "\"docs\"", "no configuration"}));
    }
    EXPECT_TRUE(ends(sharesnap({"info", "docs", "nope"}), notFound));
}

class InfoOnVolume : public testkit::VolumeTest {
protected:
    static std::string snapshotOfDocs() {
        EXPECT_TRUE(ends(sharesnap({"share", "add", "docs", "/vol1/docs"}), done));
        return lines(sharesnap({"create", "docs"}).output).at(0);
    }
};

TEST_F(InfoOnVolume, DiffKnowsWhetherFilesAreCompressed) {
    const std::string name = snapshotOfDocs();
    ASSERT_EQ(0, setxattr("/vol1/docs", "btrfs.compression", "zstd", 4, 0));
    EXPECT_EQ((json{{"compression", {{"snapshot", "no"}, {"now", "yes"}}}}),
              document({"info", "docs", name, "--diff"})["differences"]);
}

TEST_F(InfoOnVolume, DiffKnowsWhetherFilesAreCopiedOnWrite) {
    const std::string name = snapshotOfDocs();
    const int directory = open("/vol1/docs", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(directory, 0);
    int flags = 0;
    ASSERT_EQ(0, ioctl(directory, FS_IOC_GETFLAGS, &flags));
    flags |= FS_NOCOW_FL;
    ASSERT_EQ(0, ioctl(directory, FS_IOC_SETFLAGS, &flags));
    ASSERT_EQ(0, close(directory));
    EXPECT_EQ((json{{"copy on write", {{"snapshot", "yes"}, {"now", "no"}}}}),
              document({"info", "docs", name, "--diff"})["differences"]);
}

} // namespace
