// The place where every test runs: a mount namespace of its own whose fixed absolute paths belong to this process.
//
// How to use it
//   - tests/support/main.cpp enters the sandbox before the first test and makes it fresh before each test. A test
//     program has nothing to do but link the support library.
//   - Use the fixtures of fixtures.hpp: `SandboxTest` (no volume) or `VolumeTest` (an empty Btrfs volume at /vol1).
//   They
//     skip, with the reason, where the machine can't give what they need.
//   - A second volume: `Sandbox::mountVolume("/vol2", "ext4")`, in a test: `ASSERT_EQ("", ...)`.
//   - Temporary files of a test: `Sandbox::scratch()`.
//
// What stands in it
//   fresh and empty before each test: /run (with /run/lock, mode 1777), /usr/qova (with etc), /etc.defaults,
//   /etc/sharesnap, /usr/lib/sharesnap, the scratch directory; /vol1, /vol2 ... exist only while a volume is mounted.
//   /usr and /etc are the machine's with a throw-away layer on top, so a write there stays in the sandbox and lasts
//   until the program ends. All else (/tmp, /home, the build tree) is the machine's own.
//
// How it is made
//   The root file system need not have /vol1, /usr/qova or /etc.defaults, and nothing may be left there, not even by a
//   killed test. So the namespace gets a new root: a tmpfs, in which each directory of the old root is mounted again,
//   and in which the missing mount points are made. Images of volumes are unlinked as soon as their loop device is
//   attached, loop devices clear themselves: when the last process of the sandbox is gone, by whatever signal, all of
//   it is gone. Without root a user namespace carries the same, but for volumes.
#pragma once

#include <string>

namespace testkit {

class Sandbox {
public:
    enum class Kind {
        none,         // not entered: reason() says why
        root,         // everything is there
        userNamespace // without root: no Btrfs, no loop devices, one user id
    };

    // Moves this process into a new sandbox, for good. Only with one thread. False: nothing can be tested here.
    [[nodiscard]] static bool enter();

    [[nodiscard]] static Kind kind();

    // Why there is no sandbox; empty when there is one.
    [[nodiscard]] static const std::string &reason();

    // True when the storage core in use is the simulated one.
    [[nodiscard]] static bool simulated();

    // Puts the program that lists simulated subvolumes in the place of the one that lists real ones; done by main for
    // programs on the simulated core. Empty, or the reason of a failure.
    [[nodiscard]] static std::string useSimulatedTool();

    // Brings everything that belongs to the sandbox into the state of a new one: empty directories, no volumes.
    static void reset();

    // Makes a file system ("btrfs", "ext4") on a sparse image and mounts it at a path of one component ("/vol1").
    // Gives an empty text, or the reason why it can't be had. The image takes memory only as it fills.
    [[nodiscard]] static std::string mountVolume(const std::string &mountPoint, const std::string &type = "btrfs",
                                                 unsigned sizeMiB = 256);

    // A directory in memory mounted like a volume: what the simulated storage core takes for Btrfs. Needs no root.
    [[nodiscard]] static std::string mountSimulatedVolume(const std::string &mountPoint);

    // Takes a volume away again. False when it can't be unmounted.
    static bool unmountVolume(const std::string &mountPoint);

    // An empty directory in memory for the test's own files; no volume holds it.
    [[nodiscard]] static const std::string &scratch();
};

} // namespace testkit
