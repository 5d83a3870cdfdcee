// The lock of what moves the data of shares: renames, because two that cross each other's names can't be told apart
// afterwards, and restores, because what stands in for a share has one place. What gives or takes away the name of a
// share keeps these away, and not others of its kind.
#pragma once

namespace command {

class MoveLock {
public:
    enum Mode { together = 0, alone = 1 };

    // Waits ten seconds, then throws a Failure.
    explicit MoveLock(Mode mode);
    // Waits as long as it is told, then isn't held.
    MoveLock(Mode mode, int seconds);
    ~MoveLock();
    MoveLock(const MoveLock &) = delete;
    MoveLock &operator=(const MoveLock &) = delete;

    [[nodiscard]] bool held() const { return held_; }

private:
    int fd_ = -1;
    bool held_;
};

} // namespace command
