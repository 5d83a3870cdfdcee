// Killing an operation at every system call that it makes.
//
// How to use it
//   testkit::CrashSweep sweep;
//   sweep.prepare = [&] { ...state before each run... };
//   sweep.operation = [&] { (void)QOVAShareSnapCreate(...); };     // runs in a child, which dies on the way
//   sweep.check = [&](size_t point) { ...repair, and look at what stands...; };
//   EXPECT_GT(sweep.run(), 50u);                                   // the number of points, printed, too
// The child is traced; at the entry of its nth system call it is killed, so the call isn't made any more. Runs go on with
// n + 1 until one comes to its end. `step` above 1 leaves points out. Children of the child are waited for before the
// check; what they do can't be foreseen, so they are not killed with it.
#pragma once

#include <cstddef>
#include <functional>

namespace testkit {

// Runs the operation in a traced child and kills it at its nth system call. False when it came to its end before.
[[nodiscard]] bool killAtCall(size_t nth, const std::function<void()> &operation);

// Lets the operation come to its end in a traced child; how many system calls it made. `look` is called before each of
// them, while the child waits.
[[nodiscard]] size_t countCalls(const std::function<void()> &operation, const std::function<void()> &look = nullptr);

class CrashSweep {
public:
    std::function<void()> prepare;
    std::function<void()> operation;
    std::function<void(size_t)> check;
    size_t first = 1; // the calls before it are not looked at: a program's start, for one
    size_t step = 1;
    size_t most = 20000; // an operation with more calls is taken for endless

    size_t run() const;
};

} // namespace testkit
