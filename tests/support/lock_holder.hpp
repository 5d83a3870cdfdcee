// Another process that holds a lock of the platform.
//
// How to use it
//   testkit::LockHolder holder("/run/lock/sharesnap/sharesnap_conf.lock", testkit::LockHolder::exclusive);
//   ASSERT_TRUE(holder.holds());
//   ... what waits for the lock fails here ...
//   holder.release();                       // gone when it returns; or by the destructor
//   holder.releaseAfter(std::chrono::milliseconds(300)); // lets go by itself while the test waits for the lock
// The directories above the lock file are made. The process dies with the test.
#pragma once

#include <chrono>
#include <string>
#include <sys/types.h>

namespace testkit {

class LockHolder {
public:
    static constexpr int shared = 0;
    static constexpr int exclusive = 1;

    LockHolder(const std::string &path, int mode);
    LockHolder(const LockHolder &) = delete;
    LockHolder &operator=(const LockHolder &) = delete;
    ~LockHolder();

    [[nodiscard]] bool holds() const { return holds_; }
    [[nodiscard]] pid_t pid() const { return pid_; }

    void release();
    void releaseAfter(std::chrono::milliseconds wait);

private:
    void tell(int milliseconds);

    pid_t pid_ = -1;
    int orders_ = -1; // the holder lets go when this end is closed
    bool holds_ = false;
};

} // namespace testkit
