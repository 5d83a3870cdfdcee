// The plans: which call fails, which is replaced, which is counted.
#include "faults.hpp"

#include "fault_slot.hpp"

#include <sharesnap/platform/error.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <execinfo.h>
#include <gtest/gtest.h>
#include <link.h>
#include <sstream>
#include <sys/mman.h>
#include <unistd.h>

namespace testkit {
namespace {

constexpr size_t mostSlots = 512;
constexpr size_t mostPlans = 64;

[[noreturn]] void refuse(const char *what, const char *name) {
    std::fprintf(stderr, "fault injection: %s: %s\n", what, name);
    std::abort();
}

// What calls have come to, in memory shared with forked children: a child's call counts like its parent's.
struct Shared {
    std::atomic<size_t> sweepCalls;
    std::atomic<bool> met;
    std::atomic<size_t> slotCalls[mostSlots];
    std::atomic<size_t> planCalls[mostPlans];
    std::atomic<size_t> planFailures[mostPlans];
    // The call that failed.
    const FaultSlot *slot;
    size_t index;
    void *caller;
    pid_t pid;
};

Shared &shared() {
    static Shared *const memory = [] {
        void *pages = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (pages == MAP_FAILED) {
            refuse("no shared memory", std::strerror(errno));
        }
        return static_cast<Shared *>(pages);
    }();
    return *memory;
}

struct Plan {
    std::atomic<FaultSlot *> slot;
    bool fails;
    size_t nth;
    Verdict verdict;
};

// All zero from the start: calls are judged before constructors have run.
Plan plans[mostPlans];
std::atomic<int> active; // plans, replacements and sweeps
std::atomic<size_t> sweepTarget;
Sweep::Whose sweepWhose = Sweep::Whose::everyones;
pid_t sweepProcess; // the one that runs the sweep
thread_local int bypassed;
thread_local bool judging;

// Where the code lies from which calls are counted.
struct Range {
    uintptr_t begin;
    uintptr_t end;
};
constexpr size_t mostRanges = 32;
struct Ranges {
    std::array<Range, mostRanges> parts;
    size_t count;

    void add(uintptr_t begin, uintptr_t end) {
        if (count < parts.size()) {
            parts[count++] = {begin, end};
        }
    }
    [[nodiscard]] bool hold(const void *address) const {
        const auto place = reinterpret_cast<uintptr_t>(address);
        return std::any_of(parts.begin(), parts.begin() + count,
                           [place](const Range &part) { return part.begin <= place && place < part.end; });
    }
};
Ranges library;
Ranges program;
bool ownCalls;        // the program's calls count, too
Ranges lookedThrough; // the C++ run-time and Boost call for whoever called them

void addObject(Ranges &ranges, const dl_phdr_info &object) {
    for (size_t i = 0; i < object.dlpi_phnum; ++i) {
        const ElfW(Phdr) &part = object.dlpi_phdr[i];
        if (part.p_type == PT_LOAD && (part.p_flags & PF_X) != 0) {
            ranges.add(object.dlpi_addr + part.p_vaddr, object.dlpi_addr + part.p_vaddr + part.p_memsz);
        }
    }
}

int sortObject(dl_phdr_info *object, size_t, void *) {
    const char *slash = std::strrchr(object->dlpi_name, '/');
    const std::string name = slash != nullptr ? slash + 1 : object->dlpi_name;
    const auto begins = [&name](const char *start) { return name.compare(0, std::strlen(start), start) == 0; };
    if (begins("libqovasharesnapshot.so")) {
        addObject(library, *object);
    } else if (begins("libstdc++.so") || begins("libc++") || begins("libboost_")) {
        addObject(lookedThrough, *object);
    } else if (name.empty()) {
        addObject(program, *object);
    }
    return 0;
}

void findLibrary() {
    static const bool once = [] {
        dl_iterate_phdr(sortObject, nullptr);
        if (library.count == 0) {
            library = program; // linked into the program: its own calls count
        }
        std::array<void *, 4> warmUp;
        (void)backtrace(warmUp.data(), int(warmUp.size())); // the first one loads a library
        return true;
    }();
    (void)once;
}

bool isCounted(void *address) {
    return library.hold(address) || (ownCalls && program.hold(address));
}

bool comesFromLibrary(void *returnAddress) {
    if (isCounted(returnAddress)) {
        return true;
    }
    if (!lookedThrough.hold(returnAddress)) {
        return false;
    }
    std::array<void *, 64> frames;
    const auto end = frames.begin() + backtrace(frames.data(), int(frames.size()));
    auto frame = std::find(frames.begin(), end, returnAddress);
    frame = std::find_if(frame, end, [](void *address) { return !lookedThrough.hold(address); });
    return frame != end && isCounted(*frame);
}

std::vector<FaultSlot *> makeRegistry() {
    std::vector<FaultSlot *> all;
    for (const FaultSlots &slots : {libcSlots(), platformSlots()}) {
        all.insert(all.end(), slots.first, slots.first + slots.count);
    }
    if (all.size() > mostSlots) {
        refuse("too many functions", "fault_points");
    }
    for (size_t i = 0; i < all.size(); ++i) {
        all[i]->index = i;
    }
    return all;
}

const std::vector<FaultSlot *> &registry() {
    static const std::vector<FaultSlot *> all = makeRegistry();
    return all;
}

FaultSlot &slotOf(const std::string &symbol) {
    for (FaultSlot *slot : registry()) {
        if (symbol == slot->name) {
            return *slot;
        }
    }
    refuse("no such function in the tables", symbol.c_str());
}

size_t addPlan(const std::string &symbol, bool fails, size_t nth, const Verdict *verdict, int error) {
    findLibrary();
    FaultSlot &slot = slotOf(symbol);
    for (size_t i = 0; i < mostPlans; ++i) {
        if (plans[i].slot == nullptr) {
            plans[i].fails = fails;
            plans[i].nth = nth;
            plans[i].verdict =
                verdict != nullptr ? *verdict : Verdict{Verdict::fail, slot.result, slot.error, slot.code};
            plans[i].verdict.error = error != 0 ? error : plans[i].verdict.error;
            shared().planCalls[i] = 0;
            shared().planFailures[i] = 0;
            plans[i].slot = &slot;
            ++active;
            return i;
        }
    }
    refuse("too many plans at once", symbol.c_str());
}

void removePlan(size_t plan) {
    if (plans[plan].slot.exchange(nullptr) != nullptr) {
        --active;
    }
}

// The first plan that wants this call to fail. All plans of the function count it.
const Verdict *judgeByPlans(const FaultSlot &slot) {
    const Verdict *verdict = nullptr;
    for (size_t i = 0; i < mostPlans; ++i) {
        if (plans[i].slot != &slot) {
            continue;
        }
        const size_t number = ++shared().planCalls[i];
        if (verdict == nullptr && plans[i].fails && (plans[i].nth == 0 || plans[i].nth == number)) {
            ++shared().planFailures[i];
            verdict = &plans[i].verdict;
        }
    }
    return verdict;
}

bool isOfSweptProcess() {
    return sweepWhose == Sweep::Whose::everyones || (getpid() == sweepProcess) == (sweepWhose == Sweep::Whose::parents);
}

bool judgeBySweep(const FaultSlot &slot, void *returnAddress) {
    const size_t target = sweepTarget;
    if (target == 0 || !slot.swept || !isOfSweptProcess()) {
        return false;
    }
    Shared &all = shared();
    const size_t index = ++all.slotCalls[slot.index];
    if (++all.sweepCalls != target) {
        return false;
    }
    all.slot = &slot;
    all.index = index;
    all.caller = returnAddress;
    all.pid = getpid();
    all.met = true;
    return true;
}

Verdict judge(FaultSlot &slot, void *returnAddress) {
    const Verdict pass = {Verdict::pass, 0, 0, 0};
    if (!comesFromLibrary(returnAddress)) {
        return pass;
    }
    const Verdict *planned = judgeByPlans(slot);
    if (planned != nullptr) {
        return *planned;
    }
    if (slot.replacement != nullptr) {
        return {Verdict::replaced, 0, 0, 0};
    }
    if (judgeBySweep(slot, returnAddress)) {
        return {Verdict::fail, slot.result, slot.error, slot.code};
    }
    return pass;
}

std::string describe(void *address) {
    Dl_info info = {};
    if (dladdr(address, &info) == 0 || info.dli_fname == nullptr) {
        return "?";
    }
    const char *slash = std::strrchr(info.dli_fname, '/');
    char offset[32];
    const auto place = reinterpret_cast<uintptr_t>(address) - reinterpret_cast<uintptr_t>(info.dli_fbase);
    std::snprintf(offset, sizeof(offset), "+0x%zx", static_cast<size_t>(place));
    std::string text = std::string(slash != nullptr ? slash + 1 : info.dli_fname) + offset;
    if (info.dli_sname != nullptr) {
        text += std::string(" behind ") + info.dli_sname;
    }
    return text;
}

bool contains(const std::vector<std::string> &names, const char *name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

int sweepError; // of all failures of the running sweep; 0 for the table's own

} // namespace

Verdict judgeCall(FaultSlot &slot, void *returnAddress) {
    if (active.load(std::memory_order_relaxed) == 0 || bypassed != 0 || judging) {
        return {Verdict::pass, 0, 0, 0};
    }
    const int error = errno;
    judging = true;
    Verdict verdict = judge(slot, returnAddress);
    judging = false;
    errno = error;
    if (verdict.what == Verdict::fail && sweepError != 0 && sweepTarget != 0) {
        verdict.error = sweepError;
    }
    return verdict;
}

void *realOf(FaultSlot &slot) {
    void *real = __atomic_load_n(&slot.real, __ATOMIC_RELAXED);
    if (real == nullptr) {
        real = dlsym(RTLD_NEXT, slot.name);
        if (real == nullptr) {
            refuse("no library has it", slot.name);
        }
        __atomic_store_n(&slot.real, real, __ATOMIC_RELAXED);
    }
    return real;
}

void reportFault(const Verdict &verdict) {
    if (verdict.code != 0) {
        QLIBCErrSetEx(verdict.code, "fault", 1);
    }
    errno = verdict.error;
}

bool FaultPoint::leavesBehind() const {
    static const std::vector<std::string> names = {
        "unlink", "unlinkat", "remove", "rmdir", "waitpid", "kill", "QLIBCFileUnlockByFile"};
    return contains(names, symbol.c_str());
}

std::ostream &operator<<(std::ostream &out, const FaultPoint &point) {
    return out << "point " << point.number << ": " << point.symbol << ", call " << point.index << ", from "
               << point.caller << (point.inChild ? ", in a child" : "");
}

Fault::Fault(const std::string &symbol, size_t nth, int error) : plan_(addPlan(symbol, true, nth, nullptr, error)) {}

Fault::Fault(const std::string &symbol, size_t nth, int error, long result, unsigned int code) : plan_(0) {
    const FaultSlot &slot = slotOf(symbol);
    const Verdict verdict = {Verdict::fail, result, slot.error, code != 0 ? code : slot.code};
    plan_ = addPlan(symbol, true, nth, &verdict, error);
}

Fault::~Fault() {
    removePlan(plan_);
}

bool Fault::met() const {
    return shared().planFailures[plan_] > 0;
}

size_t Fault::calls() const {
    return shared().planCalls[plan_];
}

CallCount::CallCount(const std::string &symbol) : plan_(addPlan(symbol, false, 0, nullptr, 0)) {}

CallCount::~CallCount() {
    removePlan(plan_);
}

size_t CallCount::calls() const {
    return shared().planCalls[plan_];
}

namespace {

// One run with the call of that number failing; false when it had fewer.
bool runWithFault(const Sweep &sweep, size_t number, FaultPoint &point) {
    if (sweep.prepare) {
        sweep.prepare();
    }
    Shared &all = shared();
    for (auto &calls : all.slotCalls) {
        calls = 0;
    }
    all.sweepCalls = 0;
    all.met = false;
    sweepError = sweep.error;
    sweepWhose = sweep.whose;
    sweepProcess = getpid();
    sweepTarget = number;
    ++active;
    sweep.operation();
    --active;
    sweepTarget = 0;
    sweepError = 0;
    if (!all.met) {
        return false;
    }
    point = {number, all.index, all.slot->name, describe(all.caller), all.pid != getpid(), all.slot->code};
    return true;
}

} // namespace

size_t Sweep::run() {
    findLibrary();
    if (!function.empty() && dlsym(RTLD_DEFAULT, function.c_str()) == nullptr) {
        refuse("no such function", function.c_str());
    }
    for (const std::string &name : only) {
        (void)slotOf(name); // a misspelt name would leave the sweep empty
    }
    for (FaultSlot *slot : registry()) {
        slot->swept = slot->kind != FaultKind::never && (only.empty() || contains(only, slot->name)) &&
                      !contains(except, slot->name);
    }
    size_t points = 0;
    FaultPoint point;
    while (points < most && !testing::Test::HasFatalFailure() && runWithFault(*this, points + 1, point)) {
        ++points;
        std::ostringstream text;
        text << point;
        SCOPED_TRACE(text.str());
        if (check) {
            check(point);
        }
    }
    if (points == most) {
        ADD_FAILURE() << "no end of calls after " << points << " points";
    }
    std::printf("[  POINTS  ] %zu calls failed, one a run%s%s\n", points, function.empty() ? "" : ": ",
                function.c_str());
    return points;
}

Bypass::Bypass() {
    ++bypassed;
}

Bypass::~Bypass() {
    --bypassed;
}

WithinReplacement::WithinReplacement() {
    ++bypassed;
}

WithinReplacement::~WithinReplacement() {
    --bypassed;
}

OwnCalls::OwnCalls() {
    ownCalls = true;
}

OwnCalls::~OwnCalls() {
    ownCalls = false;
}

void detail::setReplacement(const std::string &symbol, const std::type_info &type, void *function) {
    findLibrary();
    FaultSlot &slot = slotOf(symbol);
    if (function != nullptr && type != *slot.type) {
        refuse("a replacement of another signature", symbol.c_str());
    }
    if (function != nullptr && slot.replacement != nullptr) {
        refuse("a second replacement", symbol.c_str());
    }
    active += (function != nullptr ? 1 : 0) - (slot.replacement != nullptr ? 1 : 0);
    slot.replacement = function;
}

void *detail::realFunction(const std::string &symbol) {
    return realOf(slotOf(symbol));
}

std::vector<std::string> faultSymbols() {
    std::vector<std::string> names;
    for (const FaultSlot *slot : registry()) {
        if (slot->kind != FaultKind::never) {
            names.emplace_back(slot->name);
        }
    }
    return names;
}

void forgetFaults() {
    sweepTarget = 0;
    sweepError = 0;
    ownCalls = false;
    for (size_t i = 0; i < mostPlans; ++i) {
        removePlan(i);
    }
    for (FaultSlot *slot : registry()) {
        slot->replacement = nullptr;
    }
    active = 0;
}

} // namespace testkit
