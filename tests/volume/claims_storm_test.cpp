// Many processes take and give back claims on the snapshots of one share at the same time: every sum is exact.
// SHARESNAP_CLAIM_ROUNDS sets how many times each of them does; the short form proves the same on fewer.
#include "volume/lifecycle.hpp"

#include <array>

#include "support/storm.hpp"

using namespace lifecycle;

namespace {

constexpr unsigned int kProcesses = 32;

enum Counter { INCREMENTED, DECREMENTED, TIMED_OUT };

unsigned int rounds() {
    const char *text = std::getenv("SHARESNAP_CLAIM_ROUNDS");
    const long number = text != nullptr ? std::atol(text) : 0;
    return number > 0 ? static_cast<unsigned int>(number) : 20;
}

class ClaimsStorm : public Fixture {
protected:
    void SetUp() override {
        Fixture::SetUp();
        if (!IsSkipped()) {
            names_ = takeSome(2);
        }
    }

    using Change = int(const QOVASHARE *, const char *, const char *);

    // The lock may time out on a machine that has much else to do: nothing has changed then, and it is tried again.
    void change(testkit::Worker &worker, Change *function, const std::string &name, const std::string &key) {
        while (function(share, name.c_str(), key.c_str()) != 1) {
            if (QLIBCErrGet() != SNAP_ERR_BUSY) {
                worker.fail("a claim of " + key + " fails with code " + std::to_string(QLIBCErrGet()));
            }
            worker.count(TIMED_OUT);
        }
    }

    void increment(testkit::Worker &worker, const std::string &name, const std::string &key) {
        change(worker, QOVAShareSnapSysLockIncrement, name, key);
        worker.count(INCREMENTED);
    }

    void decrement(testkit::Worker &worker, const std::string &name, const std::string &key) {
        change(worker, QOVAShareSnapSysLockDecrement, name, key);
        worker.count(DECREMENTED);
    }

    [[nodiscard]] uint32_t claimsDuring(testkit::Worker &worker, const std::string &name,
                                        const std::string &key) const {
        uint32_t count = 0;
        while (QOVAShareSnapSysLockGet(share, name.c_str(), key.c_str(), &count) != 1) {
            if (QLIBCErrGet() != SNAP_ERR_BUSY) {
                worker.fail("the claims of " + key + " can't be read: code " + std::to_string(QLIBCErrGet()));
            }
            worker.count(TIMED_OUT);
        }
        return count;
    }

    [[nodiscard]] uint32_t claims(const std::string &name, const std::string &key) const {
        uint32_t count = 12345;
        EXPECT_EQ(1, QOVAShareSnapSysLockGet(share, name.c_str(), key.c_str(), &count));
        return count;
    }

    [[nodiscard]] testkit::StormResult runStorm(const std::function<void(testkit::Worker &)> &work) const {
        testkit::Storm storm;
        storm.workers = kProcesses;
        storm.rounds = rounds();
        storm.duration = std::chrono::hours(2); // it ends with the last round
        storm.work = work;
        const testkit::StormResult sums = storm.run();
        EXPECT_EQ("", sums.failures);
        EXPECT_EQ(kProcesses * rounds(), sums.rounds);
        std::printf("[  STORM   ] %u processes, %s increments, %s decrements, %s time-outs\n", kProcesses,
                    std::to_string(sums.counter(INCREMENTED)).c_str(),
                    std::to_string(sums.counter(DECREMENTED)).c_str(), std::to_string(sums.counter(TIMED_OUT)).c_str());
        return sums;
    }

    Names names_;
};

// All share one key, which never falls to 0: each round adds two and takes one.
TEST_F(ClaimsStorm, SumOfOneKeyIsExact) {
    const testkit::StormResult sums = runStorm([&](testkit::Worker &worker) {
        increment(worker, names_[0], "all");
        increment(worker, names_[0], "all");
        decrement(worker, names_[0], "all");
    });
    ASSERT_FALSE(HasFailure());
    EXPECT_EQ(2 * sums.counter(DECREMENTED), sums.counter(INCREMENTED));
    EXPECT_EQ(kProcesses * rounds(), claims(names_[0], "all"));
    EXPECT_EQ(-1, remove({names_[0], names_[1]}));
    EXPECT_EQ((std::vector<int>{0xF400, 0}), codes);
}

// Each has a key of its own, which comes and goes, and is never another's: sections and keys appear and vanish.
TEST_F(ClaimsStorm, KeysThatComeAndGoDisturbNoOther) {
    ASSERT_EQ(1, QOVAShareSnapSysLockIncrement(share, names_[0].c_str(), "backup"));
    const testkit::StormResult sums = runStorm([&](testkit::Worker &worker) {
        const std::string key = "process " + std::to_string(worker.number());
        const std::string &name = names_[worker.random(2)];
        increment(worker, name, key);
        if (claimsDuring(worker, name, key) != 1) {
            worker.fail("another process changed the claim of " + key);
        }
        decrement(worker, name, key);
        if (claimsDuring(worker, name, key) != 0) {
            worker.fail("the claim of " + key + " stays");
        }
    });
    ASSERT_FALSE(HasFailure());
    EXPECT_EQ(sums.counter(DECREMENTED), sums.counter(INCREMENTED));
    List holders;
    EXPECT_EQ(1, QOVAShareSnapSysLockInitiatorList(share, names_[0].c_str(), holders.address()));
    EXPECT_EQ(Names{"backup"}, holders.names());
    EXPECT_EQ(1U, claims(names_[0], "backup"));
    EXPECT_EQ(-1, remove({names_[0], names_[1]}));
    EXPECT_EQ((std::vector<int>{0xF400, 0}), codes);
}

} // namespace
