// Many processes that do the same at the same time, for a given while, with some of them killed on the way.
//
// How to use it
//   testkit::Storm storm;
//   storm.workers = 8;
//   storm.duration = std::chrono::seconds(2);
//   storm.killEvery = std::chrono::milliseconds(20);   // on average; without it nobody is killed
//   storm.work = [&](testkit::Worker &worker) {        // called again and again in each process
//       const int result = QOVAShareSnapCreate(...);
//       worker.count(result == 0 ? 0 : 1);             // counter 0 or 1, summed over all processes
//       if (unexpected) { worker.fail("why"); }        // ends this process, shows in the result
//   };
//   const testkit::StormResult result = storm.run();
//   EXPECT_EQ("", result.failures); EXPECT_GT(result.counter(0), 0u);
// A killed worker is started again under its number, with another seed. Its counts stay: they are in shared memory and
// grow before or after a kill, never by halves. The random numbers of each worker come from `seed`, its number and its
// start. Nobody is killed after the time is up: all workers then end their round.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace testkit {

constexpr size_t stormCounters = 32;

class Worker {
public:
    Worker(unsigned int number, unsigned int start, uint64_t *counters, char *failures, uint64_t seed);

    [[nodiscard]] unsigned int number() const { return number_; } // 0 to workers - 1
    [[nodiscard]] unsigned int start() const { return start_; }   // how often this number was started before
    [[nodiscard]] uint64_t random(uint64_t below);

    void count(size_t counter, uint64_t by = 1);

    // Keeps the text for the result and ends the process.
    [[noreturn]] void fail(const std::string &why);

private:
    unsigned int number_;
    unsigned int start_;
    uint64_t *counters_;
    char *failures_;
    std::mt19937_64 random_;
};

struct StormResult {
    std::vector<uint64_t> counters;
    std::string failures; // a line for each worker that failed or died by itself
    unsigned int killed = 0;
    unsigned int rounds = 0; // calls of the work that came to their end

    [[nodiscard]] uint64_t counter(size_t index) const { return counters[index]; }
};

class Storm {
public:
    unsigned int workers = 4;
    std::chrono::milliseconds duration{1000};
    std::chrono::milliseconds killEvery{0};
    unsigned int rounds = 0; // a worker ends after so many; 0 for no limit but the time
    uint64_t seed = 1;
    std::function<void(Worker &)> work;

    [[nodiscard]] StormResult run();
};

} // namespace testkit
