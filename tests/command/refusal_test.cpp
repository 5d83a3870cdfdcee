// What the command refuses for reasons of the machine: no permission, another file system, a forbidden share.
#include "command/command.hpp"

#include <sharesnap/platform/section_file.h>
#include <sharesnap/platform/subvolume.h>

#include <sys/stat.h>

namespace {

using namespace commandtest;

class Refusal : public CommandTest {};

TEST_F(Refusal, OnlyRootChangesAnything) {
    if (testkit::Sandbox::kind() != testkit::Sandbox::Kind::root) {
        GTEST_SKIP() << "only root can become somebody else";
    }
    const Arguments nobody = {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
    const auto asNobody = [&nobody](const Arguments &command) {
        Arguments whole = nobody;
        whole.insert(whole.end(), command.begin(), command.end());
        return testkit::runProcessApart(whole);
    };
    if (asNobody({SHARESNAP_COMMAND, "--version"}).exitStatus != done) {
        GTEST_SKIP() << "the build folder can't be entered by others";
    }
    const std::string name = take();
    for (const Arguments &arguments : {Arguments{"create", "docs"},
                                       {"delete", "docs", name},
                                       {"attr", "set", "docs", name, "desc", "changed"},
                                       {"attr", "unset", "docs", name, "desc"},
                                       {"conf", "set", "docs", "key", "value"},
                                       {"hold", "add", "docs", name, "me"},
                                       {"sync", "docs"},
                                       {"clone", "docs", "copy"},
                                       {"count", "docs", "--sync"},
                                       {"share", "add", "mine", "/vol1/mine"},
                                       {"share", "remove", "docs"}}) {
        Arguments command = {SHARESNAP_COMMAND};
        command.insert(command.end(), arguments.begin(), arguments.end());
        const auto result = asNobody(command);
        EXPECT_TRUE(ends(result, refused)) << arguments[0];
        EXPECT_TRUE(says(result, {"no permission", "as root"})) << arguments[0];
    }
    EXPECT_THAT(listed(), testing::ElementsAre(name));
    EXPECT_EQ("\n", sharesnap({"attr", "get", "docs", name, "desc"}).output);
}

TEST_F(Refusal, AForbiddenShareIsNamed) {
    ASSERT_EQ(0, QLIBCFileSetSectionValue("/etc/sharesnap/shares.conf", "docs", "sharesnap:forbidden", "yes"));
    const auto result = sharesnap({"create", "docs"});
    EXPECT_TRUE(ends(result, refused));
    EXPECT_TRUE(says(result, {"\"docs\"", "/vol1/docs", "SNAP_ERR_SHARE_FORBIDDEN", "sharesnap:forbidden"}));
    EXPECT_EQ(false, document({"share", "show", "docs"})["supported"]);
}

TEST_F(Refusal, AnEncryptedShareIsSnapshotAtItsBackEnd) {
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/@secret@"));
    ASSERT_TRUE(testkit::writeFile("/vol1/@secret@/cipher", "text"));
    EXPECT_TRUE(ends(sharesnap({"share", "add", "secret", "/vol1/secret", "--encrypted"}), usage));
    ASSERT_TRUE(ends(sharesnap({"share", "add", "secret", "/vol1/secret", "--existing", "--encrypted"}), done));
    const std::string name = take({}, "secret");
    EXPECT_EQ("text", testkit::readFile("/vol1/@sharesnap/@secret@/" + name + "/cipher"));
    const auto shown = document({"show", "secret", name});
    EXPECT_EQ(true, shown["on_volume"]);
    EXPECT_EQ(true, shown["frozen_configuration"]);
    EXPECT_TRUE(document({"info", "secret", name})["configuration"].is_object());
    EXPECT_TRUE(ends(sharesnap({"delete", "secret", name}), done));
}

class OtherFileSystem : public testkit::SandboxTest {};

TEST_F(OtherFileSystem, IsRefusedByEveryVerb) {
    if (testkit::Sandbox::simulated()) {
        GTEST_SKIP() << "needs the real storage core";
    }
    const std::string failure = testkit::Sandbox::mountVolume("/vol2", "ext4", 64);
    if (!failure.empty()) {
        GTEST_SKIP() << failure;
    }
    const auto add = sharesnap({"share", "add", "plain", "/vol2/plain"});
    EXPECT_TRUE(ends(add, refused));
    EXPECT_TRUE(says(add, {"\"plain\"", "/vol2", "isn't Btrfs"}));
    EXPECT_FALSE(testkit::exists("/vol2/plain"));
    ASSERT_EQ(0, mkdir("/vol2/plain", 0755));
    ASSERT_EQ("", testkit::addShare("plain", "/vol2/plain"));
    for (const Arguments &arguments : {Arguments{"create", "plain"},
                                       {"list", "plain"},
                                       {"show", "plain", "x"},
                                       {"delete", "plain", "x"},
                                       {"attr", "list", "plain", "x"},
                                       {"hold", "list", "plain"},
                                       {"sync", "plain"},
                                       {"clone", "plain", "copy"},
                                       {"count", "plain"},
                                       {"size", "plain", "x"},
                                       {"info", "plain", "x"}}) {
        const auto result = sharesnap(arguments);
        EXPECT_TRUE(ends(result, refused)) << arguments[0];
        EXPECT_TRUE(says(result, {"\"plain\"", "/vol2", "SNAP_ERR_UNSUPPORTED"})) << arguments[0];
    }
    EXPECT_EQ(nlohmann::json::object(), document({"count"})["shares"]);
    EXPECT_TRUE(ends(sharesnap({"share", "remove", "plain"}), done));
}

} // namespace
