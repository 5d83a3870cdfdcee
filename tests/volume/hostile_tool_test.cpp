// A listing tool that is killed, cut short, failing or missing: what reads the volume through it fails, and neither a
// section nor a snapshot is lost because the volume looked empty.
#include <sys/mount.h>

#include "lifecycle.hpp"

namespace {

using namespace lifecycle;

class HostileTool : public Fixture {
protected:
    void SetUp() override {
        Fixture::SetUp();
        if (!IsSkipped()) {
            names_ = takeSome(2);
            before_ = meta();
        }
    }

    void TearDown() override {
        takeAway();
        Fixture::TearDown();
    }

    // A script in the place of the tool until the next one.
    void put(const std::string &body, mode_t mode = 0755) {
        takeAway();
        const std::string script = testkit::Sandbox::scratch() + "/tool";
        ASSERT_TRUE(testkit::writeFile(script, "#!/bin/sh\n" + body));
        ASSERT_EQ(0, chmod(script.c_str(), mode));
        ASSERT_EQ(0, mount(script.c_str(), SHARESNAP_BTRFS_TOOL, "none", MS_BIND, nullptr));
        placed_ = true;
    }

    void takeAway() {
        if (placed_) {
            EXPECT_EQ(0, umount2(SHARESNAP_BTRFS_TOOL, MNT_DETACH));
            placed_ = false;
        }
    }

    void expectNothingLost(const std::string &what) {
        List list;
        EXPECT_EQ(-1, BtrfsListSnaps(share, list.address())) << what;
        EXPECT_EQ(-1, QOVAShareSnapMetaSync(share)) << what;
        EXPECT_EQ(-1, QOVAShareSnapDataDelete("/vol1/docs")) << what;
        EXPECT_EQ(before_, meta()) << what;
        EXPECT_EQ(names_, standing()) << what;
        EXPECT_TRUE(testkit::exists("/vol1/docs")) << what;
    }

    Names names_;
    std::string before_;
    bool placed_ = false;
};

TEST_F(HostileTool, ListingThatIsCutShortLosesNothing) {
    const std::string line = "ID 257 gen 7 top level 5 path @sharesnap/docs/" + names_[0];
    for (const std::string &body : {std::string(), std::string("exit 0\n"), "echo '" + line + "'\n",
                                    "printf '" + line + "'\n", std::string("printf '# end of'\n")}) {
        put(body);
        expectNothingLost(body);
    }
}

TEST_F(HostileTool, ToolThatFailsOrIsKilledLosesNothing) {
    for (const char *body : {"exit 1\n", "echo '# end of list'\nexit 1\n", "kill -KILL $$\n",
                             "echo '# end of list'\nkill -SEGV $$\n", "echo 'ERROR: cannot access' >&2\nexit 255\n"}) {
        put(body);
        expectNothingLost(body);
    }
}

TEST_F(HostileTool, ToolThatCannotBeStartedLosesNothing) {
    put("echo '# end of list'\n", 0644);
    expectNothingLost("not executable");
}

// The mark at the end of a listing is no line of it: with it alone the volume has no subvolumes, and that is believed.
TEST_F(HostileTool, OnlyAWholeListingIsBelieved) {
    put("echo '# end of list'\n");
    EXPECT_EQ(0, QOVAShareSnapMetaSync(share));
    EXPECT_EQ(Names{}, sections());
    EXPECT_EQ(names_, standing());
    takeAway();
    EXPECT_EQ(0, QOVAShareSnapMetaSync(share));
    EXPECT_EQ(2U, sections().size());
}

} // namespace
