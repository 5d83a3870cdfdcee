// What an operation costs in calls that wait for the disk or start a program and in bytes that go through files, its
// children included.
//
// How to use it
//   const testkit::Cost cost = testkit::traceCost([&] { result = ...; });   // runs in a traced child
//   EXPECT_GE(4u, cost.syncs);
#pragma once

#include <cstddef>
#include <functional>

namespace testkit {

struct Cost {
    size_t syncs = 0;        // fsync, fdatasync, syncfs, sync, BTRFS_IOC_SYNC, BTRFS_IOC_WAIT_SYNC
    size_t programs = 0;     // execve that came through
    size_t calls = 0;        // all system calls
    size_t bytesRead = 0;    // by read and its kin
    size_t bytesWritten = 0; // by write and its kin
    bool whole = false;      // the operation came to its end and gave true
};

// The operation runs in a child of its own; it gives whether it went well.
[[nodiscard]] Cost traceCost(const std::function<bool()> &operation);

} // namespace testkit
