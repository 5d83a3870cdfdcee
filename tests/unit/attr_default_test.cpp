#include "support/faults.hpp"
#include "support/files.hpp"
#include "support/log_capture.hpp"
#include "support/metadata_fixture.hpp"

#include <sharesnap/platform/error.h>

namespace {

using testkit::Pairs;

class DefaultAttr : public testkit::SandboxTest {
protected:
    static std::string ownName() {
        const std::string line = testkit::readFile("/proc/self/cmdline");
        return line.substr(0, line.find('\0'));
    }
};

TEST_F(DefaultAttr, CompletesAnEmptyHash) {
    Pairs pairs;
    EXPECT_EQ(1, QOVAShareSnapDefaultAttr(pairs.address()));
    EXPECT_EQ(
        (std::map<std::string, std::string>{{"take-by", ownName()}, {"lock", "true"}, {"desc", ""}, {"hide", "false"}}),
        pairs.all());
}

TEST_F(DefaultAttr, KeepsWhatThereIs) {
    Pairs pairs = {{"take-by", "me"}, {"lock", "no"}, {"desc", "x"}, {"hide", "true"}, {"own", "y"}};
    const auto before = pairs.all();
    EXPECT_EQ(0, QOVAShareSnapDefaultAttr(pairs.address()));
    EXPECT_EQ(before, pairs.all());
}

TEST_F(DefaultAttr, OneMissingIsEnoughForAResultOfOne) {
    for (const char *missing : {"take-by", "lock", "desc", "hide"}) {
        Pairs pairs;
        for (const char *key : {"take-by", "lock", "desc"}) {
            if (std::string(key) != missing) {
                pairs.set(key, "");
            }
        }
        if (std::string("hide") != missing) {
            pairs.set("hide", "false");
        }
        EXPECT_EQ(1, QOVAShareSnapDefaultAttr(pairs.address())) << missing;
        EXPECT_EQ(4u, pairs.all().size()) << missing;
    }
}

TEST_F(DefaultAttr, ABadHideFailsBehindTheOtherDefaults) {
    for (const char *hide : {"TRUE", "False", "maybe", ""}) {
        Pairs pairs = {{"hide", hide}};
        QLIBCErrSetEx(0, "", 0);
        EXPECT_EQ(-1, QOVAShareSnapDefaultAttr(pairs.address())) << hide;
        EXPECT_EQ(0x0D00u, QLIBCErrGet());
        EXPECT_EQ(4u, pairs.all().size());
        EXPECT_EQ(hide, pairs.all()["hide"]);
        EXPECT_EQ("true", pairs.all()["lock"]);
    }
}

TEST_F(DefaultAttr, FailsWhenTheProcessCannotBeNamed) {
    Pairs pairs;
    {
        const testkit::Fault fault("fopen64", 0);
        const testkit::Fault plain("fopen", 0);
        EXPECT_EQ(-1, QOVAShareSnapDefaultAttr(pairs.address()));
    }
    EXPECT_EQ(0x2A00u, QLIBCErrGet());
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to open /proc/self/cmdline, errno:5 Input/output error"));
    EXPECT_TRUE(pairs.all().empty());
    {
        const testkit::Fault fault("getdelim", 0);
        const testkit::Fault alias("__getdelim", 0);
        EXPECT_EQ(-1, QOVAShareSnapDefaultAttr(pairs.address()));
    }
    EXPECT_TRUE(testkit::logged(LOG_ERR, "Failed to read /proc/self/cmdline, errno:5 Input/output error"));
    EXPECT_TRUE(pairs.all().empty());
}

TEST_F(DefaultAttr, NeedsNoCommandLineForAHashThatHasAName) {
    Pairs pairs = {{"take-by", "me"}};
    const testkit::CallCount opens("fopen64");
    const testkit::CallCount plain("fopen");
    EXPECT_EQ(1, QOVAShareSnapDefaultAttr(pairs.address()));
    EXPECT_EQ(0u, opens.calls() + plain.calls());
}

TEST_F(DefaultAttr, RefusesNull) {
    QLIBCSZHASH *none = nullptr;
    EXPECT_EQ(-1, QOVAShareSnapDefaultAttr(nullptr));
    EXPECT_EQ(-1, QOVAShareSnapDefaultAttr(&none));
    EXPECT_EQ(0x0D00u, QLIBCErrGet());
}

} // namespace
