#include "support/faults.hpp"
#include "support/fixtures.hpp"
#include "support/log_capture.hpp"

#include <sharesnap/frame.h>
#include <sharesnap/platform/error.h>

namespace {

class ActionBlackList : public testkit::SandboxTest {
protected:
    ~ActionBlackList() override { BlackList = {nullptr, 0}; }

    // What is left of the actions on a share with that status.
    static unsigned int left(unsigned int action, unsigned int status = 0) {
        QOVASHARE share = {};
        char path[] = "/vol1/docs";
        share.szPath = path;
        share.uStatus = status;
        EXPECT_EQ(0, QOVAShareSnapBlackList(&share, &action));
        return action;
    }
};

TEST_F(ActionBlackList, LetsAPlainShareDoEverything) {
    EXPECT_EQ(0x1FFu, left(SNAP_ALL));
    EXPECT_EQ(0x001u, left(SNAP_CREATE));
}

TEST_F(ActionBlackList, TakesBitsFromEncryptedShares) {
    EXPECT_EQ(0x1FFu & ~0x10u, left(SNAP_ALL, 0x03));
    EXPECT_EQ(0x1FFu & ~0x14u, left(SNAP_ALL, 0x02));
    EXPECT_EQ(0x04u, left(0x04, 0x03));
    EXPECT_EQ(0x00u, left(0x04, 0x02));
    EXPECT_EQ(0x00u, left(0x10, 0x02));
    EXPECT_EQ(0x00u, left(0x10, 0x03));
    EXPECT_EQ(0x08u, left(SNAP_CLONE, 0x02));
    EXPECT_EQ(0x08u, left(SNAP_CLONE, 0x03));
    EXPECT_EQ(0x14u, left(0x14, 0x01)); // the bit counts on encrypted shares only
}

TEST_F(ActionBlackList, TheExportedListRefusesForAllShares) {
    int anything = 0;
    BlackList.uMask = SNAP_DELETE;
    EXPECT_EQ(0x003u, left(0x003));
    BlackList.pEntry = &anything;
    EXPECT_EQ(0x001u, left(0x003));
}

TEST_F(ActionBlackList, SomeLocationsAllowNothing) {
    for (const int type : {0, 2, 3}) {
        const testkit::Replacement<int(const char *)> location("QLIBShareLocTypeGet",
                                                               [type](const char *) { return type; });
        EXPECT_EQ(0u, left(SNAP_ALL)) << type;
    }
    for (const int type : {1, 4, -1}) {
        const testkit::Replacement<int(const char *)> location("QLIBShareLocTypeGet",
                                                               [type](const char *) { return type; });
        EXPECT_EQ(0x1FFu, left(SNAP_ALL)) << type;
    }
}

TEST_F(ActionBlackList, RefusesMasksOutOfRange) {
    QOVASHARE share = {};
    unsigned int action = 0;
    EXPECT_EQ(-1, QOVAShareSnapBlackList(&share, &action));
    EXPECT_EQ(0x0D00u, QLIBCErrGet());
    EXPECT_TRUE(testkit::loggedMatch(
        LOG_ERR, "^snapshot_blacklist\\.cpp:[0-9]+ Invaild Argument \\(SNAP_CREATE <= \\*action\\)=\\[0\\]$"));
    QLIBCErrSetEx(0, "", 0);
    action = 0x200;
    EXPECT_EQ(-1, QOVAShareSnapBlackList(&share, &action));
    EXPECT_EQ(0x0D00u, QLIBCErrGet());
    EXPECT_EQ(0x200u, action);
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (SNAP_ALL >= *action)=[0]"));
    EXPECT_EQ(-1, QOVAShareSnapBlackList(nullptr, &action));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (((void *)0) != pShare)=[0]"));
    EXPECT_EQ(-1, QOVAShareSnapBlackList(&share, nullptr));
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Invaild Argument (((void *)0) != action)=[0]"));
}

} // namespace
