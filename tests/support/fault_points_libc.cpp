// The stand-ins for functions of the C library. They bear names of their own in C++ and the library's for the linker,
// so that the headers' declarations, whose attributes differ between versions, needn't match.
#include "fault_slot.hpp"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <dirent.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <sys/time.h>
#include <sys/types.h>
#include <sys/uio.h>

// A sanitizer brings an allocator of its own, which must get every call.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TESTKIT_FOREIGN_MALLOC
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define TESTKIT_FOREIGN_MALLOC
#endif
#endif

#define LINKED_AS(symbol) __asm__(#symbol) __attribute__((visibility("default"), weak, noinline))
#define UNPACK(...) , __VA_ARGS__

namespace testkit {
namespace {

// The slots.
#define FAULT_POINT(kind, Result, symbol, parameters, arguments, result, error)                                 \
    FaultSlot slot_##symbol = {#symbol, FaultKind::kind, result, error, 0, nullptr, &typeid(Result parameters), \
                               nullptr};
#define FAULT_POINT0(kind, Result, symbol, result, error) \
    FaultSlot slot_##symbol = {#symbol, FaultKind::kind, result, error, 0, nullptr, &typeid(Result()), nullptr};
#define FAULT_VARIADIC(kind, Result, symbol, parameters, result, error)                                         \
    FaultSlot slot_##symbol = {#symbol, FaultKind::kind, result, error, 0, nullptr, &typeid(Result parameters), \
                               nullptr};
#include "fault_points_libc.inc"
#undef FAULT_POINT
#undef FAULT_POINT0
#undef FAULT_VARIADIC

FaultSlot *const allSlots[] = {
#define FAULT_POINT(kind, Result, symbol, parameters, arguments, result, error) &slot_##symbol,
#define FAULT_POINT0(kind, Result, symbol, result, error) &slot_##symbol,
#define FAULT_VARIADIC(kind, Result, symbol, parameters, result, error) &slot_##symbol,
#include "fault_points_libc.inc"
#undef FAULT_POINT
#undef FAULT_POINT0
#undef FAULT_VARIADIC
};

} // namespace

FaultSlots libcSlots() {
    return {allSlots, sizeof(allSlots) / sizeof(allSlots[0])};
}

} // namespace testkit

using namespace testkit;

extern "C" {

#define FAULT_POINT(kind, Result, symbol, parameters, arguments, result, error)                 \
    Result standIn_##symbol parameters LINKED_AS(symbol);                                       \
    Result standIn_##symbol parameters {                                                        \
        return interposed<Result>(slot_##symbol, __builtin_return_address(0) UNPACK arguments); \
    }
#define FAULT_POINT0(kind, Result, symbol, result, error)                      \
    Result standIn_##symbol() LINKED_AS(symbol);                               \
    Result standIn_##symbol() {                                                \
        return interposed<Result>(slot_##symbol, __builtin_return_address(0)); \
    }
#define FAULT_VARIADIC(kind, Result, symbol, parameters, result, error)
#include "fault_points_libc.inc"

// The variadic ones hand on as many arguments as the function can have; the surplus ones are what a register held.
#define OPENS(symbol)                                                                                  \
    int standIn_##symbol(const char *path, int flags, ...) LINKED_AS(symbol);                          \
    int standIn_##symbol(const char *path, int flags, ...) {                                           \
        va_list rest;                                                                                  \
        va_start(rest, flags);                                                                         \
        const mode_t mode = va_arg(rest, mode_t);                                                      \
        va_end(rest);                                                                                  \
        return interposed<int>(slot_##symbol, __builtin_return_address(0), path, flags, mode_t(mode)); \
    }
#define OPENS_AT(symbol)                                                                                    \
    int standIn_##symbol(int dir, const char *path, int flags, ...) LINKED_AS(symbol);                      \
    int standIn_##symbol(int dir, const char *path, int flags, ...) {                                       \
        va_list rest;                                                                                       \
        va_start(rest, flags);                                                                              \
        const mode_t mode = va_arg(rest, mode_t);                                                           \
        va_end(rest);                                                                                       \
        return interposed<int>(slot_##symbol, __builtin_return_address(0), dir, path, flags, mode_t(mode)); \
    }
#define CONTROLS(symbol, Command)                                                                  \
    int standIn_##symbol(int fd, Command command, ...) LINKED_AS(symbol);                          \
    int standIn_##symbol(int fd, Command command, ...) {                                           \
        va_list rest;                                                                              \
        va_start(rest, command);                                                                   \
        void *argument = va_arg(rest, void *);                                                     \
        va_end(rest);                                                                              \
        return interposed<int>(slot_##symbol, __builtin_return_address(0), fd, command, argument); \
    }
OPENS(open)
OPENS(open64)
OPENS_AT(openat)
OPENS_AT(openat64)
CONTROLS(fcntl, int)
CONTROLS(fcntl64, int)
CONTROLS(ioctl, unsigned long)

long standIn_syscall(long number, ...) LINKED_AS(syscall);
long standIn_syscall(long number, ...) {
    va_list rest;
    va_start(rest, number);
    long argument[6];
    for (long &one : argument) {
        one = va_arg(rest, long);
    }
    va_end(rest);
    return interposed<long>(slot_syscall, __builtin_return_address(0), long(number), argument[0], argument[1],
                            argument[2], argument[3], argument[4], argument[5]);
}

int standIn_fprintf(FILE *stream, const char *format, ...) LINKED_AS(fprintf);
__attribute__((format(printf, 2, 3))) int standIn_fprintf(FILE *stream, const char *format, ...) {
    const Verdict verdict = judgeCall(slot_fprintf, __builtin_return_address(0));
    if (verdict.what == Verdict::fail) {
        reportFault(verdict);
        return -1;
    }
    va_list rest;
    va_start(rest, format);
    const int result = vfprintf(stream, format, rest);
    va_end(rest);
    return result;
}

int standIn_dprintf(int fd, const char *format, ...) LINKED_AS(dprintf);
__attribute__((format(printf, 2, 3))) int standIn_dprintf(int fd, const char *format, ...) {
    const Verdict verdict = judgeCall(slot_dprintf, __builtin_return_address(0));
    if (verdict.what == Verdict::fail) {
        reportFault(verdict);
        return -1;
    }
    va_list rest;
    va_start(rest, format);
    const int result = vdprintf(fd, format, rest);
    va_end(rest);
    return result;
}
}
