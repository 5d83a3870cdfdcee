// The stand-ins for functions of the platform.
#include "fault_slot.hpp"

#include <sharesnap/platform/account.h>
#include <sharesnap/platform/event_log.h>
#include <sharesnap/platform/file.h>
#include <sharesnap/platform/file_lock.h>
#include <sharesnap/platform/file_operation.h>
#include <sharesnap/platform/hostname.h>
#include <sharesnap/platform/mresult.h>
#include <sharesnap/platform/notification.h>
#include <sharesnap/platform/plugin.h>
#include <sharesnap/platform/process.h>
#include <sharesnap/platform/quota.h>
#include <sharesnap/platform/section_file.h>
#include <sharesnap/platform/share.h>
#include <sharesnap/platform/subvolume.h>
#include <sharesnap/platform/szhash.h>
#include <sharesnap/platform/szlist.h>
#include <sharesnap/platform/text.h>
#include <sharesnap/platform/volume.h>

#include <array>
#include <cerrno>
#include <cstdarg>

#define LINKED_AS(symbol) __asm__(#symbol) __attribute__((visibility("default"), weak, noinline))
#define UNPACK(...) , __VA_ARGS__

namespace testkit {
namespace {

#define PLATFORM_POINT(kind, Result, symbol, parameters, arguments, result, code)                                \
    static_assert(std::is_same_v<decltype(symbol), Result parameters>, "the header's signature of " #symbol);    \
    FaultSlot slot_##symbol = {#symbol, FaultKind::kind, result, EIO, code, nullptr, &typeid(Result parameters), \
                               nullptr};
#define PLATFORM_POINT0(kind, Result, symbol, result, code)                                          \
    static_assert(std::is_same_v<decltype(symbol), Result()>, "the header's signature of " #symbol); \
    FaultSlot slot_##symbol = {#symbol, FaultKind::kind, result, EIO, code, nullptr, &typeid(Result()), nullptr};
#define PLATFORM_VARIADIC(kind, Result, symbol, parameters, result, code)                                        \
    FaultSlot slot_##symbol = {#symbol, FaultKind::kind, result, EIO, code, nullptr, &typeid(Result parameters), \
                               nullptr};
#include "fault_points_platform.inc"
#undef PLATFORM_POINT
#undef PLATFORM_POINT0
#undef PLATFORM_VARIADIC

FaultSlot *const allSlots[] = {
#define PLATFORM_POINT(kind, Result, symbol, parameters, arguments, result, code) &slot_##symbol,
#define PLATFORM_POINT0(kind, Result, symbol, result, code) &slot_##symbol,
#define PLATFORM_VARIADIC(kind, Result, symbol, parameters, result, code) &slot_##symbol,
#include "fault_points_platform.inc"
#undef PLATFORM_POINT
#undef PLATFORM_POINT0
#undef PLATFORM_VARIADIC
};

// The texts of a variadic call, ended by null. More than any caller has is taken as a mistake of the test.
constexpr size_t mostTexts = 31;
using Texts = std::array<const char *, mostTexts + 1>;

void collect(Texts &texts, size_t from, va_list rest) {
    for (size_t index = from; index < mostTexts; ++index) {
        texts[index] = va_arg(rest, const char *);
        if (texts[index] == nullptr) {
            return;
        }
    }
    texts[mostTexts] = nullptr;
}

} // namespace

FaultSlots platformSlots() {
    return {allSlots, sizeof(allSlots) / sizeof(allSlots[0])};
}

} // namespace testkit

using namespace testkit;

extern "C" {

#define PLATFORM_POINT(kind, Result, symbol, parameters, arguments, result, code)               \
    Result standIn_##symbol parameters LINKED_AS(symbol);                                       \
    Result standIn_##symbol parameters {                                                        \
        return interposed<Result>(slot_##symbol, __builtin_return_address(0) UNPACK arguments); \
    }
#define PLATFORM_POINT0(kind, Result, symbol, result, code)                    \
    Result standIn_##symbol() LINKED_AS(symbol);                               \
    Result standIn_##symbol() {                                                \
        return interposed<Result>(slot_##symbol, __builtin_return_address(0)); \
    }
#define PLATFORM_VARIADIC(kind, Result, symbol, parameters, result, code)
#include "fault_points_platform.inc"

// The real one with a vector does the work for both: its argv[0] is the program.
FILE *standIn_QLIBCPopen(const char *program, const char *mode, ...) LINKED_AS(QLIBCPopen);
FILE *standIn_QLIBCPopen(const char *program, const char *mode, ...) {
    Texts texts = {program};
    va_list rest;
    va_start(rest, mode);
    collect(texts, 1, rest);
    va_end(rest);
    auto *arguments = const_cast<char *const *>(texts.data());
    const Verdict verdict = judgeCall(slot_QLIBCPopen, __builtin_return_address(0));
    if (verdict.what == Verdict::replaced) {
        const WithinReplacement within;
        using Function = FILE *(const char *, const char *, char *const *);
        return (*static_cast<std::function<Function> *>(slot_QLIBCPopen.replacement))(program, mode, arguments);
    }
    if (verdict.what == Verdict::fail) {
        reportFault(verdict);
        return nullptr;
    }
    using Real = FILE *(const char *, const char *, char *const *);
    return reinterpret_cast<Real *>(realOf(slot_QLIBCPopenv))(program, mode, arguments);
}

int standIn_QOVALogSet1(int type, int level, unsigned int event, ...) LINKED_AS(QOVALogSet1);
int standIn_QOVALogSet1(int type, int level, unsigned int event, ...) {
    Texts texts = {};
    va_list rest;
    va_start(rest, event);
    collect(texts, 0, rest);
    va_end(rest);
    const Verdict verdict = judgeCall(slot_QOVALogSet1, __builtin_return_address(0));
    if (verdict.what == Verdict::replaced) {
        const WithinReplacement within;
        using Function = int(int, int, unsigned int, const char *const *);
        return (*static_cast<std::function<Function> *>(slot_QOVALogSet1.replacement))(type, level, event,
                                                                                       texts.data());
    }
    if (verdict.what == Verdict::fail) {
        reportFault(verdict);
        return -1;
    }
    // What stands behind the ending null is not read.
    using Real = int(int, int, unsigned int, ...);
    return reinterpret_cast<Real *>(realOf(slot_QOVALogSet1))(type, level, event, texts[0], texts[1], texts[2],
                                                              texts[3], texts[4], texts[5], texts[6], texts[7],
                                                              static_cast<char *>(nullptr));
}
}
