// Clock, waiting and free space as the test wants them.
#include "faults.hpp"

#include <cstdint>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <sys/time.h>
#include <type_traits>
#include <unistd.h>

namespace testkit {

struct FixedTime::State {
    explicit State(time_t seconds) : now(seconds) {}

    time_t now;
    Replacement<time_t(time_t *)> time{"time", [this](time_t *when) {
                                           if (when != nullptr) {
                                               *when = now;
                                           }
                                           return now;
                                       }};
    Replacement<int(timeval *, void *)> ofDay{"gettimeofday", [this](timeval *when, void *) {
                                                  *when = {now, 0};
                                                  return 0;
                                              }};
    // Other clocks measure how long something takes: they go on.
    Replacement<int(clockid_t, timespec *)> clock{"clock_gettime", [this](clockid_t which, timespec *when) {
                                                      if (which != CLOCK_REALTIME) {
                                                          return ::clock_gettime(which, when);
                                                      }
                                                      *when = {now, 0};
                                                      return 0;
                                                  }};
};

FixedTime::FixedTime(time_t seconds) : state_(std::make_unique<State>(seconds)) {}
FixedTime::~FixedTime() = default;

void FixedTime::set(time_t seconds) {
    state_->now = seconds;
}

struct NoSleep::State {
    std::vector<unsigned int> waits;
    Replacement<unsigned int(unsigned int)> sleep{"sleep", [this](unsigned int seconds) {
                                                      waits.push_back(seconds);
                                                      return 0U;
                                                  }};
    Replacement<int(useconds_t)> usleep{"usleep", [this](useconds_t wait) {
                                            waits.push_back(wait / 1000000);
                                            return 0;
                                        }};
    Replacement<int(const timespec *, timespec *)> nanosleep{"nanosleep", [this](const timespec *wait, timespec *) {
                                                                 waits.push_back(
                                                                     static_cast<unsigned int>(wait->tv_sec));
                                                                 return 0;
                                                             }};
};

NoSleep::NoSleep() : state_(std::make_unique<State>()) {}
NoSleep::~NoSleep() = default;

const std::vector<unsigned int> &NoSleep::seconds() const {
    return state_->waits;
}

namespace {

// The real answer, with other numbers for what is free. The unit of a statvfs is the fragment.
template <class Record>
int withFreeSpace(int result, Record *record, uint64_t bytes) {
    if (result == 0) {
        uint64_t unit = static_cast<uint64_t>(record->f_bsize);
        if constexpr (std::is_same_v<Record, struct statvfs> || std::is_same_v<Record, struct statvfs64>) {
            unit = record->f_frsize;
        }
        record->f_bavail = bytes / unit;
        record->f_bfree = bytes / unit;
    }
    return result;
}

} // namespace

struct FreeSpace::State {
    explicit State(uint64_t free) : bytes(free) {}

    uint64_t bytes;
    Replacement<int(const char *, struct statfs *)> one{
        "statfs", [this](const char *path, struct statfs *fs) { return withFreeSpace(::statfs(path, fs), fs, bytes); }};
    Replacement<int(const char *, struct statfs64 *)> two{"statfs64", [this](const char *path, struct statfs64 *fs) {
                                                              return withFreeSpace(::statfs64(path, fs), fs, bytes);
                                                          }};
    Replacement<int(int, struct statfs *)> three{
        "fstatfs", [this](int fd, struct statfs *fs) { return withFreeSpace(::fstatfs(fd, fs), fs, bytes); }};
    Replacement<int(int, struct statfs64 *)> four{
        "fstatfs64", [this](int fd, struct statfs64 *fs) { return withFreeSpace(::fstatfs64(fd, fs), fs, bytes); }};
    Replacement<int(const char *, struct statvfs *)> five{"statvfs", [this](const char *path, struct statvfs *fs) {
                                                              return withFreeSpace(::statvfs(path, fs), fs, bytes);
                                                          }};
    Replacement<int(const char *, struct statvfs64 *)> six{"statvfs64", [this](const char *path, struct statvfs64 *fs) {
                                                               return withFreeSpace(::statvfs64(path, fs), fs, bytes);
                                                           }};
    Replacement<int(int, struct statvfs *)> seven{
        "fstatvfs", [this](int fd, struct statvfs *fs) { return withFreeSpace(::fstatvfs(fd, fs), fs, bytes); }};
    Replacement<int(int, struct statvfs64 *)> eight{
        "fstatvfs64", [this](int fd, struct statvfs64 *fs) { return withFreeSpace(::fstatvfs64(fd, fs), fs, bytes); }};
};

FreeSpace::FreeSpace(uint64_t bytes) : state_(std::make_unique<State>(bytes)) {}
FreeSpace::~FreeSpace() = default;

} // namespace testkit
