// What the benchmarks share: a sandbox with a volume, rounds in which the contenders take turns, medians and ratios.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace bench {

// A sandbox with an empty Btrfs volume at /vol1. Ends the program, with the reason and status 77, when there is none.
void enterSandbox(unsigned int sizeMiB);

// Ends the program with a message when something that has to work doesn't.
void must(bool done, const std::string &what);

// Seconds of a clock that only goes forward.
[[nodiscard]] double now();

// One thing that is measured. `measure` gives the seconds of what counts, whatever else it does around that. What takes
// very long runs in one round alone, and doesn't warm up.
struct Contender {
    std::string name;
    std::function<double()> measure;
    bool once = false;
};

// Seconds that a function takes.
[[nodiscard]] double timed(const std::function<void()> &work);

// Lets the contenders take turns, another one first in each round, and prints the median of each, the fastest round,
// and the ratio of the median to that of the first contender. The first round warms up and isn't counted. Gives the
// medians.
std::vector<double> race(const std::string &title, const std::vector<Contender> &contenders, int rounds = 9);

[[nodiscard]] double median(std::vector<double> values);

// Runs a program with its output thrown away. Gives the seconds until it has ended; it has to succeed.
[[nodiscard]] double runProgram(const std::vector<std::string> &command);
[[nodiscard]] bool isInstalled(const std::string &program);

} // namespace bench
