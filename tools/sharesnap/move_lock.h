// The lock of what moves the data of shares: renames, because two that cross each other's names can't be told apart
// afterwards, and restores, because what stands in for a share has one place.
#pragma once

namespace command {

// One rename or restore at a time. Waits ten seconds, then throws a Failure.
class MoveLock {
public:
    MoveLock();
    ~MoveLock();
    MoveLock(const MoveLock &) = delete;
    MoveLock &operator=(const MoveLock &) = delete;

private:
    int fd_ = -1;
};

} // namespace command
