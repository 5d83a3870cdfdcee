// Eight processes take, list, annotate and delete snapshots of one share at the same time. SHARESNAP_STORM_SECONDS sets
// how long; the short form proves the same on fewer rounds.
#include "volume/lifecycle.hpp"

#include <algorithm>
#include <array>
#include <set>

#include "support/storm.hpp"

using namespace lifecycle;

namespace {

enum Counter { TAKEN, CONFLICTS, LISTED, ANNOTATED, DELETED, COUNTERS };

std::chrono::seconds stormSeconds() {
    const char *text = std::getenv("SHARESNAP_STORM_SECONDS");
    const long seconds = text != nullptr ? std::atol(text) : 0;
    return std::chrono::seconds(seconds > 0 ? seconds : 3);
}

std::string code() {
    char text[80];
    std::snprintf(text, sizeof(text), "0x%04X %s:%d", QLIBCErrGet(), QLIBCErrorGetFile(), QLIBCErrorGetLine());
    return text;
}

class SnapStorm : public Fixture {
protected:
    void SetUp() override {
        Fixture::SetUp();
        if (!IsSkipped()) {
            ASSERT_TRUE(testkit::writeFile("/etc.defaults/qovainfo.conf", "max_snapshots_per_share=\"1000000\"\n"));
            first_ = take();
        }
    }

    // Names conflict now and then.
    void takeOne(testkit::Worker &worker, bool hidden) {
        const testkit::FixedTime clock(1800000000 + static_cast<time_t>(worker.random(2000)));
        Hash hash(Pairs{{"hide", hidden ? "true" : "false"}, {"owner", std::to_string(worker.number())}});
        char name[255] = "";
        const int taken = QOVAShareSnapCreate(share, name, sizeof(name), hash.address());
        if (taken == -2) {
            worker.count(CONFLICTS);
        } else if (taken != 0) {
            worker.fail("create: " + code());
        } else {
            worker.count(TAKEN);
            annotate(worker, name);
        }
    }

    // What was written is read back: nobody else writes this snapshot's attributes.
    void annotate(testkit::Worker &worker, const std::string &name) {
        const std::string text = std::to_string(worker.random(1000000));
        if (QOVAShareSnapAttrSet(share, name.c_str(), "desc", text.c_str()) != 0) {
            worker.fail("set: " + code());
        }
        if (attribute(name, "desc") != text || attribute(name, "owner") != std::to_string(worker.number()) ||
            attribute(name, "uuid").size() != 36) {
            worker.fail("an attribute of " + name + " is lost");
        }
        worker.count(ANNOTATED);
    }

    void listAll(testkit::Worker &worker) {
        List list;
        if (QOVAShareSnapList(share, list.address(), nullptr) != 0) {
            worker.fail("list: " + code());
        }
        const Names names = list.names();
        if (std::find(names.begin(), names.end(), first_) == names.end()) {
            worker.fail("the first snapshot isn't listed");
        }
        if (std::set<std::string>(names.begin(), names.end()).size() != names.size()) {
            worker.fail("a snapshot is listed twice");
        }
        worker.count(LISTED);
    }

    // Only one's own, so that each can be told what became of it.
    void deleteSome(testkit::Worker &worker) {
        const std::string mine = "owner=" + std::to_string(worker.number());
        QOVAShareSnapEnum *chain = nullptr;
        if (QOVAShareSnapSelectorAdd(&chain, QOVAShareSnapAttrSelector, const_cast<char *>(mine.c_str())) < 0) {
            worker.fail("selector: " + code());
        }
        List list;
        const int listed = QOVAShareSnapList(share, list.address(), chain);
        QOVAShareSnapEnumFree(chain);
        if (listed != 0) {
            worker.fail("list mine: " + code());
        }
        List few;
        for (int i = 0; i < list.get()->nItem && i < 3; ++i) {
            (void)QLIBCSzListPush(few.address(), QLIBCSzListGet(list.get(), i));
        }
        QLIBCMRESULT *entries = QLIBCMResultAlloc();
        const int deleted = QOVAShareSnapDelete(share, few.get(), &entries);
        QLIBCMResultFree(entries);
        if (deleted != 0) {
            worker.fail("delete: " + code());
        }
        worker.count(DELETED, static_cast<uint64_t>(few.get()->nItem));
    }

    void doOneThing(testkit::Worker &worker) {
        switch (worker.random(5)) {
        case 0:
        case 1:
            takeOne(worker, worker.random(4) == 0);
            break;
        case 2:
            deleteSome(worker);
            break;
        default:
            listAll(worker);
            break;
        }
    }

    void expectNothingLost(size_t count) {
        Names listed = sections();
        std::sort(listed.begin(), listed.end());
        EXPECT_EQ(listed.end(), std::adjacent_find(listed.begin(), listed.end()));
        EXPECT_EQ(standing(), listed);
        EXPECT_EQ(count, listed.size());
        int visible = 0;
        for (const std::string &name : listed) {
            visible += attribute(name, "hide") == "false" ? 1 : 0;
            EXPECT_EQ(36U, attribute(name, "uuid").size()) << name;
            EXPECT_EQ("true", attribute(name, "lock")) << name;
        }
        EXPECT_EQ(visible, storedCount());
    }

    std::string first_;
};

TEST_F(SnapStorm, NoSectionNoAttributeAndNoCountIsLost) {
    std::array<uint64_t, COUNTERS> sums{};
    // In slices: after each of them everything is looked at, and the log has room for the next.
    constexpr std::chrono::seconds slice{3};
    for (std::chrono::seconds left = stormSeconds(); left.count() > 0 && !HasFailure(); left -= slice) {
        testkit::Storm storm;
        storm.workers = 8;
        storm.duration = std::min(left, slice);
        storm.seed = static_cast<uint64_t>(left.count());
        storm.work = [&](testkit::Worker &worker) { doOneThing(worker); };
        const testkit::StormResult storms = storm.run();
        EXPECT_EQ("", storms.failures);
        EXPECT_EQ(0U, testkit::logCount(LOG_ERR, "Failed to lock")) << testkit::logText();
        for (size_t i = 0; i < sums.size(); ++i) {
            sums[i] += storms.counter(i);
        }
        expectNothingLost(sums[TAKEN] + 1 - sums[DELETED]);
        testkit::logClear();
    }
    EXPECT_GT(sums[TAKEN], 0U);
    EXPECT_GT(sums[LISTED], 0U);
    EXPECT_EQ(sums[TAKEN], sums[ANNOTATED]);
    std::printf("[  STORM   ] %ld s: %s taken, %s conflicts, %s listed, %s deleted\n",
                static_cast<long>(stormSeconds().count()), std::to_string(sums[TAKEN]).c_str(),
                std::to_string(sums[CONFLICTS]).c_str(), std::to_string(sums[LISTED]).c_str(),
                std::to_string(sums[DELETED]).c_str());
}

// All of them in the same second: one snapshot a second, whoever takes it, and the others are told of a conflict.
TEST_F(SnapStorm, OneOfManyGetsEachName) {
    testkit::Storm storm;
    storm.workers = 8;
    storm.rounds = 5;
    storm.duration = std::chrono::minutes(4); // it ends with the last round
    storm.work = [&](testkit::Worker &worker) {
        const testkit::FixedTime clock(1900000000 + static_cast<time_t>(worker.random(4)));
        char name[255] = "";
        const int taken = QOVAShareSnapCreate(share, name, sizeof(name), nullptr);
        if (taken != 0 && taken != -2) {
            worker.fail("create: " + code());
        }
        worker.count(taken == 0 ? TAKEN : CONFLICTS);
    };
    const testkit::StormResult storms = storm.run();
    EXPECT_EQ("", storms.failures);
    EXPECT_EQ(40U, storms.counter(TAKEN) + storms.counter(CONFLICTS));
    Names listed = sections();
    std::sort(listed.begin(), listed.end());
    EXPECT_EQ(standing(), listed);
    EXPECT_EQ(storms.counter(TAKEN) + 1, listed.size());
    EXPECT_LE(storms.counter(TAKEN), 4U);
    EXPECT_EQ(static_cast<int>(listed.size()), storedCount());
}

} // namespace
