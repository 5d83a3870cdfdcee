#include "fixtures.hpp"

#include <sharesnap/platform/error.h>
#include <sharesnap/platform/share_admin.h>
#include <sharesnap/platform/subvolume.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace testkit {
namespace {

std::string because(const std::string &what) {
    char code[16];
    std::snprintf(code, sizeof(code), "0x%04X", QLIBCErrGet());
    return what + " failed: " + code + ", " + std::strerror(errno);
}

// A record's strings aren't const, because QOVAShareFree frees those that QOVAShareGet made.
char *text(std::string &value) {
    return value.data();
}

} // namespace

void SandboxTest::SetUp() {
    if (Sandbox::kind() == Sandbox::Kind::none) {
        GTEST_SKIP() << Sandbox::reason();
    }
}

void VolumeTest::SetUp() {
    if (Sandbox::simulated()) {
        GTEST_SKIP() << "needs the real storage core";
    }
    const std::string failure = Sandbox::mountVolume("/vol1");
    if (!failure.empty()) {
        GTEST_SKIP() << failure;
    }
}

void DocsVolumeTest::SetUp() {
    VolumeTest::SetUp();
    if (IsSkipped()) {
        return;
    }
    ASSERT_EQ("", makeShare("docs"));
    share_ = getShare("docs");
    ASSERT_NE(nullptr, share_);
}

void SimulatedVolumeTest::SetUp() {
    if (!Sandbox::simulated()) {
        GTEST_SKIP() << "needs the simulated storage core";
    }
    const std::string failure = Sandbox::mountSimulatedVolume("/vol1");
    if (!failure.empty()) {
        GTEST_SKIP() << failure;
    }
}

void AnyVolumeTest::SetUp() {
    const std::string failure =
        Sandbox::simulated() ? Sandbox::mountSimulatedVolume("/vol1") : Sandbox::mountVolume("/vol1");
    if (!failure.empty()) {
        GTEST_SKIP() << failure;
    }
}

std::string addShare(const std::string &name, const std::string &path, unsigned int status) {
    std::string nameText = name;
    std::string pathText = path;
    std::string nothing;
    QOVASHARE share = {};
    share.szName = text(nameText);
    share.szDesc = text(nothing);
    share.szPath = text(pathText);
    share.szDenyList = text(nothing);
    share.szRWList = text(nothing);
    share.szROList = text(nothing);
    share.nBrowseable = 1;
    share.uStatus = status;
    return QOVAShareRecordAdd(&share) == 0 ? "" : because("QOVAShareRecordAdd(" + name + ")");
}

std::string makeShare(const std::string &name, const std::string &volume) {
    const std::string path = volume + "/" + name;
    if (QOVABtrfsCreateSubVol(path.c_str()) != 0) {
        return because("QOVABtrfsCreateSubVol(" + path + ")");
    }
    return addShare(name, path);
}

SharePointer getShare(const std::string &name) {
    QOVASHARE *share = nullptr;
    if (QOVAShareGet(name.c_str(), &share) != 0) {
        return nullptr;
    }
    return SharePointer(share);
}

} // namespace testkit
