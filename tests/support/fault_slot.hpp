// Between the functions that stand in for others and the plans of faults.cpp.
#pragma once

#include <cstddef>
#include <cstdio>
#include <functional>
#include <type_traits>
#include <typeinfo>

namespace testkit {

enum class FaultKind {
    fails,    // does nothing and reports a failure
    releases, // does its work and reports a failure
    never     // doesn't fail: only replaced
};

// One function. Constant-initialised: calls come before any constructor has run.
struct FaultSlot {
    const char *name;
    FaultKind kind;
    long result;
    int error;
    unsigned int code; // of the error register; 0 for a function of the C library
    void *real;
    const std::type_info *type; // what a replacement has to be
    void *replacement;          // a std::function of that type
    size_t index = 0;           // among all slots
    bool swept = false;         // counted by the running sweep
};

struct FaultSlots {
    FaultSlot *const *first;
    size_t count;
};

// The two tables, each in the file that defines its functions.
FaultSlots libcSlots();
FaultSlots platformSlots();

struct Verdict {
    enum { pass, fail, replaced } what;
    long result;
    int error;
    unsigned int code;
};

// What is to happen with a call that returns to the address.
Verdict judgeCall(FaultSlot &slot, void *returnAddress);

// The function that would have been called without ours.
void *realOf(FaultSlot &slot);

// What a replacement calls goes to the real functions.
class WithinReplacement {
public:
    WithinReplacement();
    WithinReplacement(const WithinReplacement &) = delete;
    WithinReplacement &operator=(const WithinReplacement &) = delete;
    ~WithinReplacement();
};

// Sets errno and the error register.
void reportFault(const Verdict &verdict);

template <class Result>
Result faultResult(long value) {
    if constexpr (std::is_pointer_v<Result>) {
        return reinterpret_cast<Result>(value);
    } else {
        return static_cast<Result>(value);
    }
}

// A failed read or write shows on its stream, too.
template <class Argument>
void markStream(Argument argument) {
    if constexpr (std::is_same_v<Argument, FILE *>) {
        argument->_flags |= _IO_ERR_SEEN;
    } else {
        (void)argument;
    }
}

template <class Result, class... Arguments>
Result interposed(FaultSlot &slot, void *returnAddress, Arguments... arguments) {
    using Function = Result(Arguments...);
    const Verdict verdict = judgeCall(slot, returnAddress);
    if (verdict.what == Verdict::replaced) {
        const WithinReplacement within;
        return (*static_cast<std::function<Function> *>(slot.replacement))(arguments...);
    }
    if (verdict.what == Verdict::pass) {
        return reinterpret_cast<Function *>(realOf(slot))(arguments...);
    }
    if (slot.kind == FaultKind::releases) {
        (void)reinterpret_cast<Function *>(realOf(slot))(arguments...);
    } else {
        (markStream(arguments), ...);
    }
    reportFault(verdict);
    return faultResult<Result>(verdict.result);
}

} // namespace testkit
