// Storms of processes count right, whatever is killed.
#include "support/files.hpp"
#include "support/sandbox.hpp"
#include "support/storm.hpp"

#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

using testkit::Storm;
using testkit::StormResult;
using testkit::Worker;

namespace {

TEST(Storm, RunsEachWorkerItsRounds) {
    Storm storm;
    storm.workers = 3;
    storm.rounds = 5;
    storm.duration = std::chrono::minutes(2); // it ends with the last round
    storm.work = [](Worker &worker) { worker.count(worker.number(), 10); };
    const StormResult result = storm.run();
    EXPECT_EQ("", result.failures);
    EXPECT_EQ(15U, result.rounds);
    EXPECT_EQ(50U, result.counter(0));
    EXPECT_EQ(50U, result.counter(2));
    EXPECT_EQ(0U, result.counter(3));
    EXPECT_EQ(0U, result.killed);
}

TEST(Storm, EndsWhenTheTimeIsUp) {
    Storm storm;
    storm.workers = 2;
    storm.duration = std::chrono::milliseconds(100);
    storm.work = [](Worker &worker) {
        worker.count(0);
        usleep(1000);
    };
    const StormResult result = storm.run();
    EXPECT_EQ("", result.failures);
    EXPECT_GT(result.rounds, 0U);
    EXPECT_EQ(result.rounds, result.counter(0));
}

TEST(Storm, TellsWhyAWorkerFailed) {
    Storm storm;
    storm.workers = 3;
    storm.rounds = 1;
    storm.duration = std::chrono::minutes(2);
    storm.work = [](Worker &worker) {
        if (worker.number() == 1) {
            worker.fail("a reason");
        }
        if (worker.number() == 2) {
            raise(SIGTERM);
        }
    };
    const StormResult result = storm.run();
    EXPECT_NE(std::string::npos, result.failures.find("worker 1: a reason\n")) << result.failures;
    EXPECT_NE(std::string::npos, result.failures.find("worker 2: died by signal 15\n")) << result.failures;
    EXPECT_EQ(std::string::npos, result.failures.find("worker 0")) << result.failures;
}

TEST(Storm, StartsKilledWorkersAgain) {
    Storm storm;
    storm.workers = 3;
    storm.duration = std::chrono::milliseconds(1500);
    storm.killEvery = std::chrono::milliseconds(10);
    storm.work = [](Worker &worker) {
        worker.count(worker.start() > 0 ? 1 : 0);
        usleep(500);
    };
    const StormResult result = storm.run();
    EXPECT_EQ("", result.failures);
    EXPECT_GT(result.killed, 0U);
    EXPECT_GE(result.counter(0) + result.counter(1), result.rounds);
    EXPECT_LE(result.counter(0) + result.counter(1), result.rounds + result.killed);
}

TEST(Storm, GivesTheSameRandomNumbersForTheSameSeed) {
    const auto draw = [](uint64_t seed) {
        Storm storm;
        storm.workers = 2;
        storm.rounds = 3;
        storm.seed = seed;
        storm.duration = std::chrono::minutes(2);
        storm.work = [](Worker &worker) { worker.count(worker.number(), worker.random(1000000)); };
        return storm.run().counters;
    };
    const std::vector<uint64_t> first = draw(7);
    EXPECT_EQ(first, draw(7));
    EXPECT_NE(first, draw(8));
    EXPECT_NE(first[0], first[1]);
}

} // namespace
