// Failing, replacing and counting the calls that the snapshot library makes to the platform and to the C library.
//
// How it works: the test program defines the functions itself (fault_points_*.inc name them); the dynamic linker
// prefers the program's. A call that comes from anywhere but libqovasharesnapshot.so (by its return address; the C++
// run-time and Boost are looked through) goes on to the real function at once. So do all calls while nothing is
// planned.
//
// How to use it
//   One failure:      testkit::Fault fault("rename", 1, EIO);         // the library's first rename fails with EIO
//                     testkit::Fault fault("QOVAShareGet", 2, 0, -1, 0x0400);
//                     ... call ...; EXPECT_TRUE(fault.met());
//   Every failure:    testkit::Sweep sweep;
//                     sweep.prepare = [&] { ...state before each run... };
//                     sweep.operation = [&] { result = QOVAShareSnapCreate(...); };
//                     sweep.check = [&](const testkit::FaultPoint &point) { EXPECT_EQ(-1, result) << point; };
//                     const size_t points = sweep.run();              // one run a call, until a run meets no more
//                     EXPECT_GT(points, 20u);
//   A replacement:    testkit::Replacement<int(const char *)> isSubVol("QOVABtrfsIsSubVol", [](const char *) { return
//   0; });
//                     testkit::real<int(const char *)>("QOVABtrfsIsSubVol")(path) reaches the real one.
//   The clock:        testkit::FixedTime noon(1700000000);            // time, gettimeofday, clock_gettime (real time)
//   Waiting:          testkit::NoSleep naps; ... naps.seconds()       // sleep and relatives return at once
//   Free space:       testkit::FreeSpace space(99 << 20);             // bytes that statfs and relatives tell
//   Leftovers:        testkit::Leftovers before({"/vol1/@sharesnap"}); ...; EXPECT_EQ("", before.compare());
// Each of them lasts as long as its variable. A failing function of the platform sets the error register and errno; one
// of the C library errno. Functions that give something back (close, fclose, QLIBCPclose, QLIBCFileUnlockByFile ...) do
// their work and then report the failure. Forked children of the library are counted and fail, too.
//
// A test program may still define a function itself: its definition wins over the ones here.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <sys/types.h>
#include <typeinfo>
#include <vector>

namespace testkit {

// The call that failed.
struct FaultPoint {
    size_t number = 0; // among all counted calls of the run, from 1
    size_t index = 0;  // among the calls of the same function, from 1
    std::string symbol;
    std::string caller; // function and offset, or offset in the library
    bool inChild = false;
    unsigned int code = 0; // what the failed function of the platform left in the error register

    // True for functions whose own failure leaves something behind: unlink, rmdir, waitpid, kill ...
    [[nodiscard]] bool leavesBehind() const;
};
std::ostream &operator<<(std::ostream &out, const FaultPoint &point);

// Lets one call of a function fail: the nth, or every one with nth 0.
class Fault {
public:
    // With error 0, or without a result or a code, the table's own values are used.
    explicit Fault(const std::string &symbol, size_t nth = 1, int error = 0);
    Fault(const std::string &symbol, size_t nth, int error, long result, unsigned int code = 0);
    Fault(const Fault &) = delete;
    Fault &operator=(const Fault &) = delete;
    ~Fault();

    [[nodiscard]] bool met() const;     // it has failed at least once
    [[nodiscard]] size_t calls() const; // calls of the function so far

private:
    size_t plan_;
};

// Counts the calls of a function without any effect on them.
class CallCount {
public:
    explicit CallCount(const std::string &symbol);
    CallCount(const CallCount &) = delete;
    CallCount &operator=(const CallCount &) = delete;
    ~CallCount();
    [[nodiscard]] size_t calls() const;

private:
    size_t plan_;
};

// Runs an operation again and again, each time with another one of its calls failing.
//
// A child that the operation forks runs beside its parent: which of their calls is the nth of all differs from run to
// run. A sweep over such an operation counts the calls of one of them only, and leaves out what a signal handler calls.
class Sweep {
public:
    enum class Whose { everyones, parents, childrens };

    std::string function;                          // the exported function that is swept; printed with the points
    std::function<void()> prepare;                 // before each run, nothing fails in it
    std::function<void()> operation;               // the run
    std::function<void(const FaultPoint &)> check; // after each run that met its point
    std::vector<std::string> only;                 // functions to count; empty for all
    std::vector<std::string> except;               // functions never to fail
    Whose whose = Whose::everyones;                // the processes whose calls count
    int error = 0;                                 // errno of the failures; 0 for the table's own
    size_t most = 5000;                            // a sweep with more points is taken for endless

    // The number of points. It is printed, too.
    size_t run();
};

// While one lives, calls of this thread are neither counted nor failed nor replaced.
class Bypass {
public:
    Bypass();
    Bypass(const Bypass &) = delete;
    Bypass &operator=(const Bypass &) = delete;
    ~Bypass();
};

// While one lives, the test program's own calls are taken for the library's. For testing code that is linked into the
// program; what a replacement calls is never judged.
class OwnCalls {
public:
    OwnCalls();
    OwnCalls(const OwnCalls &) = delete;
    OwnCalls &operator=(const OwnCalls &) = delete;
    ~OwnCalls();
};

namespace detail {
void setReplacement(const std::string &symbol, const std::type_info &type, void *function);
void *realFunction(const std::string &symbol);
} // namespace detail

// Puts another function in the place of one that the library calls. The signature is the function's own; that of a
// variadic one has its fixed arguments and what the table names.
template <class Signature>
class Replacement {
public:
    Replacement(std::string symbol, std::function<Signature> function)
        : symbol_(std::move(symbol)), function_(std::make_unique<std::function<Signature>>(std::move(function))) {
        detail::setReplacement(symbol_, typeid(Signature), function_.get());
    }
    Replacement(const Replacement &) = delete;
    Replacement &operator=(const Replacement &) = delete;
    ~Replacement() { detail::setReplacement(symbol_, typeid(void), nullptr); }

private:
    std::string symbol_;
    std::unique_ptr<std::function<Signature>> function_; // at an address that stays
};

template <class Signature>
Signature *real(const std::string &symbol) {
    return reinterpret_cast<Signature *>(detail::realFunction(symbol));
}

// The library's clock stands still.
class FixedTime {
public:
    explicit FixedTime(time_t seconds);
    FixedTime(const FixedTime &) = delete;
    FixedTime &operator=(const FixedTime &) = delete;
    ~FixedTime();
    void set(time_t seconds);

private:
    struct State;
    std::unique_ptr<State> state_;
};

// The library doesn't wait; for how long it wanted to is kept.
class NoSleep {
public:
    NoSleep();
    NoSleep(const NoSleep &) = delete;
    NoSleep &operator=(const NoSleep &) = delete;
    ~NoSleep();
    [[nodiscard]] const std::vector<unsigned int> &seconds() const; // one entry a call, rounded down

private:
    struct State;
    std::unique_ptr<State> state_;
};

// What the library is told about free space on any file system.
class FreeSpace {
public:
    explicit FreeSpace(uint64_t bytes);
    FreeSpace(const FreeSpace &) = delete;
    FreeSpace &operator=(const FreeSpace &) = delete;
    ~FreeSpace();

private:
    struct State;
    std::unique_ptr<State> state_;
};

// What an operation must not leave: descriptors, child processes, held locks, files in the named directories.
class Leftovers {
public:
    explicit Leftovers(std::vector<std::string> directories = {});

    // Empty when nothing is left over since the construction, otherwise a line for each thing.
    [[nodiscard]] std::string compare() const;

private:
    std::vector<std::string> directories_;
    std::vector<std::string> descriptors_;
    std::vector<std::string> children_;
    std::vector<std::string> files_;
    std::vector<std::string> locks_;
};

// The names of all functions that can fail, for a test of the table.
[[nodiscard]] std::vector<std::string> faultSymbols();

// Ends everything planned; done after each test.
void forgetFaults();

} // namespace testkit
