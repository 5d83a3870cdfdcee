// Fixtures that most tests begin with. Each test finds a fresh sandbox (see sandbox.hpp).
//
//   using MetaFile = testkit::VolumeTest;          // or a class derived from it
//   TEST_F(MetaFile, KeepsCommentsOverARewrite) {...}
//
//   TESTKIT_RUNS_SIMULATED;                        // once in a program: it runs on the simulated core, also as root
//
// VolumeTest needs root and a kernel with Btrfs, SimulatedVolumeTest the simulated storage core; where that isn't to be
// had they skip and say why. A derived SetUp goes on after the base's has skipped: it asks IsSkipped() first.
#pragma once

#include <sharesnap/platform/share.h>

#include <gtest/gtest.h>
#include <memory>
#include <string>

#include "sandbox.hpp"

bool testkitRunsSimulated();

#define TESTKIT_RUNS_SIMULATED    \
    bool testkitRunsSimulated() { \
        return true;              \
    }                             \
    static_assert(true, "takes the semicolon")

namespace testkit {

// A sandbox without a volume.
class SandboxTest : public testing::Test {
protected:
    void SetUp() override;
};

// An empty Btrfs volume of 256 MiB at /vol1, on the real storage core.
class VolumeTest : public SandboxTest {
protected:
    void SetUp() override;
};

// A volume at /vol1 that the simulated storage core takes for Btrfs, without root as well.
class SimulatedVolumeTest : public SandboxTest {
protected:
    void SetUp() override;
};

// /vol1 on whichever storage core the program runs on.
class AnyVolumeTest : public SandboxTest {
protected:
    void SetUp() override;
};

struct ShareRelease {
    void operator()(QOVASHARE *share) const { QOVAShareFree(share); }
};
using SharePointer = std::unique_ptr<QOVASHARE, ShareRelease>;

// Writes a share's record, nothing else. Empty, or the reason of a failure.
[[nodiscard]] std::string addShare(const std::string &name, const std::string &path, unsigned int status = 0);

// A share as its manager makes it: the subvolume /vol1/<name> and the record.
[[nodiscard]] std::string makeShare(const std::string &name, const std::string &volume = "/vol1");

// The record of a share from the database; null when there is none.
[[nodiscard]] SharePointer getShare(const std::string &name);

// A volume as VolumeTest has it, with the share docs and its record.
class DocsVolumeTest : public VolumeTest {
protected:
    void SetUp() override;

    SharePointer share_;
};

} // namespace testkit
