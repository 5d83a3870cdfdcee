// A directory of programs that can't be read to its end: whoever is asked for its programs says so.
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/plugin.h>

#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/sandbox.hpp"

#include <cerrno>
#include <dirent.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>

namespace {

bool readdirFails = false;

} // namespace

// Stands in for the C library's, under whichever name the platform calls it.
extern "C" struct dirent *readdir(DIR *directory) {
    if (readdirFails) {
        errno = EIO;
        return nullptr;
    }
#if _FILE_OFFSET_BITS == 64
    static const auto real = reinterpret_cast<struct dirent *(*)(DIR *)>(dlsym(RTLD_NEXT, "readdir64"));
#else
    static const auto real = reinterpret_cast<struct dirent *(*)(DIR *)>(dlsym(RTLD_NEXT, "readdir"));
#endif
    return real(directory);
}

namespace {

class ProgramListing : public testkit::SandboxTest {
protected:
    void SetUp() override {
        SandboxTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        const std::string directory = "/etc/sharesnap/plugins/share_snapshot";
        ASSERT_TRUE(testkit::makeDirectories(directory));
        ASSERT_TRUE(testkit::writeFile(directory + "/ears", "#!/bin/sh\ntouch " + heard() + "\n"));
        ASSERT_EQ(0, chmod((directory + "/ears").c_str(), 0755));
    }
    void TearDown() override { readdirFails = false; }

    static std::string heard() { return testkit::Sandbox::scratch() + "/heard"; }
};

TEST_F(ProgramListing, ThatFailsIsNotTakenForItsEnd) {
    QLIBPLUGIN *plugin = nullptr;
    readdirFails = true;
    EXPECT_EQ(-1, QLIBPluginSDKInit("share_snapshot", "label", &plugin));
    EXPECT_EQ(unsigned(SNAP_ERR_OPERATION_FAILED), QLIBCErrGet());
    EXPECT_EQ(EIO, errno);
    readdirFails = false;
    ASSERT_EQ(0, QLIBPluginSDKInit("share_snapshot", "label", &plugin));
    EXPECT_NE(0, QLIBPluginHasInit(plugin));
    readdirFails = true;
    EXPECT_EQ(-1, QLIBPluginAction(QLIB_PLUGIN_PHASE_PRE, plugin));
    EXPECT_FALSE(testkit::exists(heard()));
    readdirFails = false;
    EXPECT_EQ(0, QLIBPluginAction(QLIB_PLUGIN_PHASE_PRE, plugin));
    EXPECT_TRUE(testkit::exists(heard()));
    QLIBPluginExit(plugin);
}

} // namespace
