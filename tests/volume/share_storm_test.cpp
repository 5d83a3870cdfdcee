// Sixteen processes take, delete, hold, annotate and list snapshots of eight shares at the same time, and every tenth of
// a second one of them is killed. Each writes down in shared memory what it is about to do and what it got confirmed.
// Afterwards one quiet reconciliation of each share makes metadata, volume and counter agree, and nothing that was
// confirmed is lost. Unsetting an attribute is left out. SHARESNAP_STORM_SECONDS sets how long it takes.
#include "volume/lifecycle.hpp"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <linux/btrfs.h>
#include <set>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/statfs.h>
#include <sys/wait.h>

#include "support/storm.hpp"

using namespace lifecycle;

namespace {

constexpr unsigned int kWorkers = 16;
constexpr unsigned int kShares = 8;
constexpr uint32_t kRecords = 1U << 18;
constexpr uint32_t kMostStanding = 400; // on all shares together: the volume is small

enum Counter { TAKEN, CONFLICTS, REFUSED, DELETED, NOT_FOUND, HELD, CLAIMED, RELEASED, ANNOTATED, LISTED, TIMED_OUT };

std::chrono::seconds stormSeconds() {
    const char *text = std::getenv("SHARESNAP_STORM_SECONDS");
    const long seconds = text != nullptr ? std::atol(text) : 0;
    return std::chrono::seconds(seconds > 0 ? seconds : 6);
}

std::string code() {
    char text[4200];
    std::snprintf(text, sizeof(text), "0x%04X %s:%d", QLIBCErrGet(), QLIBCErrorGetFile(), QLIBCErrorGetLine());
    return text;
}

// A snapshot that a worker asked for. The marks only grow, in this order but for the fates of a deletion.
struct Record {
    std::atomic<uint32_t> share;
    std::atomic<bool> taken;   // the creation was confirmed, the name stands
    std::atomic<bool> doomed;  // somebody began to delete it
    std::atomic<bool> deleted; // a deletion was confirmed
    std::atomic<bool> settled; // looked at in a pause, and gone
    unsigned int owner;
    char name[48];
};

// A value that only one worker changes: the last one confirmed, and the one on its way.
struct Value {
    std::atomic<uint32_t> confirmed;
    std::atomic<uint32_t> next;
    std::atomic<bool> underWay;

    void begin(uint32_t value) {
        next = value;
        underWay = true;
    }
    void confirm() {
        confirmed = next.load();
        underWay = false;
    }
    // What stands is known again, whatever became of the change that was under way.
    [[nodiscard]] bool settle(uint32_t standing) {
        if (standing != confirmed && !(underWay && standing == next)) {
            return false;
        }
        confirmed = standing;
        underWay = false;
        return true;
    }
};

struct Ledger {
    std::atomic<uint32_t> used;     // records
    std::atomic<uint32_t> standing; // about: kills make it inexact until the next pause
    std::array<Record, kRecords> records;
    std::array<std::array<Value, kWorkers>, kShares> notes;  // attribute of the share's kept snapshot
    std::array<std::array<Value, kWorkers>, kShares> claims; // on the share's kept snapshot
};

// Memory of all processes.
class SharedLedger {
public:
    SharedLedger() {
        void *const pages =
            mmap(nullptr, sizeof(Ledger), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (pages != MAP_FAILED) {
            ledger_ = static_cast<Ledger *>(pages); // all zero, as it is to be
        }
    }
    SharedLedger(const SharedLedger &) = delete;
    SharedLedger &operator=(const SharedLedger &) = delete;
    ~SharedLedger() {
        if (ledger_ != nullptr) {
            (void)munmap(ledger_, sizeof(Ledger));
        }
    }
    [[nodiscard]] Ledger *get() const { return ledger_; }
    Ledger *operator->() const { return ledger_; }

private:
    Ledger *ledger_ = nullptr;
};

// Everything of one share, with the names of its snapshots.
struct Place {
    testkit::SharePointer record;
    std::string kept; // nobody deletes it
    [[nodiscard]] const QOVASHARE *get() const { return record.get(); }
    [[nodiscard]] std::string name() const { return record->szName; }
    [[nodiscard]] std::string directory() const { return "/vol1/@sharesnap/" + name(); }
    [[nodiscard]] bool stands(const std::string &snapshot) const {
        return QOVABtrfsIsSubVol((directory() + "/" + snapshot).c_str()) == 1;
    }
};

int listAll(const Place &place, Names &names, bool visibleOnly = false) {
    char visible[] = "hide=false";
    QOVAShareSnapEnum *chain = nullptr;
    if (visibleOnly && QOVAShareSnapSelectorAdd(&chain, QOVAShareSnapAttrSelector, visible) < 0) {
        return -1;
    }
    List list;
    const int listed = QOVAShareSnapList(place.get(), list.address(), chain);
    QOVAShareSnapEnumFree(chain);
    names = list.names();
    return listed;
}

std::string keyOf(unsigned int worker) {
    return "worker" + std::to_string(worker);
}

class ShareStorm : public testkit::VolumeTest {
protected:
    void SetUp() override {
        VolumeTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        // What a killed worker leaves running becomes ours, so that it can be waited for.
        ASSERT_EQ(0, prctl(PR_SET_CHILD_SUBREAPER, 1));
        ASSERT_NE(nullptr, ledger_.get());
        for (unsigned int i = 0; i < kShares; ++i) {
            const std::string name = "share" + std::to_string(i);
            ASSERT_EQ("", testkit::makeShare(name));
            ASSERT_TRUE(testkit::writeFile("/vol1/" + name + "/letter", "kept"));
            places_[i].record = testkit::getShare(name);
            ASSERT_NE(nullptr, places_[i].record);
            keepOne(places_[i], i);
        }
    }

    void keepOne(Place &place, unsigned int number) {
        const testkit::FixedTime clock(1700000000);
        char name[255] = "";
        ASSERT_EQ(0, QOVAShareSnapCreate(place.get(), name, sizeof(name), nullptr)) << code();
        place.kept = name;
        for (unsigned int i = 0; i < kWorkers; ++i) {
            ASSERT_EQ(0, QOVAShareSnapAttrSet(place.get(), name, keyOf(i).c_str(), "0")) << number;
        }
    }

    // A failure that is no fault: the lock was others' for too long. Anything else ends the storm.
    static void expectBusy(testkit::Worker &worker, const std::string &what) {
        if (QLIBCErrGet() != SNAP_ERR_BUSY) {
            worker.fail(what + ": " + code());
        }
        worker.count(TIMED_OUT);
    }

    Place &anyPlace(testkit::Worker &worker) { return places_[worker.random(kShares)]; }
    [[nodiscard]] unsigned int numberOf(const Place &place) const {
        return static_cast<unsigned int>(&place - places_.data());
    }

    // A second of its own for each, and now and then one that others use, too.
    void takeOne(testkit::Worker &worker) {
        Place &place = anyPlace(worker);
        if (ledger_->standing >= kMostStanding) {
            return;
        }
        const uint32_t index = ledger_->used++;
        if (index >= kRecords) {
            ledger_->used = kRecords;
            return;
        }
        const bool contended = worker.random(4) == 0;
        const testkit::FixedTime clock(contended ? 1750000000 + static_cast<time_t>(index / 64)
                                                 : 1800000000 + static_cast<time_t>(index));
        Hash hash(Pairs{{"hide", worker.random(4) == 0 ? "true" : "false"}, {"owner", keyOf(worker.number())}});
        char name[255] = "";
        setCode(0);
        const int taken = QOVAShareSnapCreate(place.get(), name, sizeof(name), hash.address());
        if (taken == -2) {
            worker.count(CONFLICTS);
        } else if (taken == 0) {
            // Names that are taken again after a deletion say nothing about either.
            if (!contended) {
                writeDown(worker, ledger_->records[index], place, name);
            }
            ++ledger_->standing;
            worker.count(TAKEN);
        } else if (QLIBCErrGet() == SNAP_ERR_LOW_RESERVED_SPACE || QLIBCErrGet() == SNAP_ERR_NO_SPACE) {
            worker.count(REFUSED);
        } else {
            expectBusy(worker, "create");
        }
    }

    void writeDown(testkit::Worker &worker, Record &record, const Place &place, const std::string &name) {
        if (name.size() >= sizeof(record.name)) {
            worker.fail("a long name: " + name);
        }
        std::memcpy(record.name, name.c_str(), name.size() + 1);
        record.owner = worker.number();
        record.share = numberOf(place);
        record.taken = true;
    }

    // Up to four of one share, whoever took them and whoever else deletes them.
    void deleteSome(testkit::Worker &worker) {
        Place &place = anyPlace(worker);
        std::vector<Record *> chosen = someRecords(worker, numberOf(place));
        Names names;
        for (Record *record : chosen) {
            record->doomed = true;
            names.emplace_back(record->name);
        }
        if (worker.random(3) == 0) {
            names.push_back(place.kept); // refused while somebody holds it
            if (!isHeld(worker, place)) {
                names.pop_back();
            }
        }
        if (names.empty()) {
            return;
        }
        const List list(names);
        QLIBCMRESULT *entries = QLIBCMResultAlloc();
        setCode(0);
        const int outcome = QOVAShareSnapDelete(place.get(), list.get(), &entries);
        const unsigned int cause = QLIBCErrGet();
        std::vector<int> codes;
        for (size_t i = 0; i < names.size(); ++i) {
            int entry = -1;
            (void)QLIBCMResultGetCoreErrorByIndex(entries, static_cast<int>(i), &entry);
            codes.push_back(entry);
        }
        QLIBCMResultFree(entries);
        judgeDeletion(worker, chosen, codes, outcome, cause);
    }

    // Only snapshots that are held for good are handed to a deletion: a claim that is given back between the check and
    // the deletion would let it go.
    bool isHeld(testkit::Worker &worker, const Place &place) {
        uint32_t count = 0;
        if (QOVAShareSnapSysLockGet(place.get(), place.kept.c_str(), "always", &count) != 1) {
            expectBusy(worker, "claims of always");
            return false;
        }
        if (count != 1) {
            worker.fail("the claim of always is " + std::to_string(count));
        }
        return true;
    }

    std::vector<Record *> someRecords(testkit::Worker &worker, unsigned int share) {
        std::vector<Record *> chosen;
        const uint32_t used = std::min(ledger_->used.load(), kRecords);
        for (int tries = 0; used > 0 && tries < 64 && chosen.size() < 4; ++tries) {
            const uint32_t back = static_cast<uint32_t>(worker.random(std::min(used, 4 * kMostStanding)));
            Record &record = ledger_->records[used - 1 - back];
            if (record.taken && record.share == share && !record.deleted &&
                std::find(chosen.begin(), chosen.end(), &record) == chosen.end()) {
                chosen.push_back(&record);
            }
        }
        return chosen;
    }

    void judgeDeletion(testkit::Worker &worker, const std::vector<Record *> &chosen, const std::vector<int> &codes,
                       int outcome, unsigned int cause) {
        bool stopped = false;
        for (size_t i = 0; i < codes.size(); ++i) {
            Record *record = i < chosen.size() ? chosen[i] : nullptr;
            if (codes[i] == 0 && record != nullptr) {
                record->deleted = true;
                --ledger_->standing;
                worker.count(DELETED);
            } else if (codes[i] == 0xA100 && record != nullptr) {
                worker.count(NOT_FOUND); // another one was faster
            } else if (codes[i] == 0xF400 && record == nullptr) {
                worker.count(HELD);
            } else if (codes[i] == 0x2A00 && outcome == -1) {
                stopped = true;
            } else {
                worker.fail("delete: entry " + std::to_string(i) + " has " + std::to_string(codes[i]));
            }
        }
        if (stopped) {
            setCode(cause);
            expectBusy(worker, "delete");
        }
    }

    // A claim on the kept snapshot, up or down by one. What became of one that a kill cut short is found out first.
    void claim(testkit::Worker &worker) {
        Place &place = anyPlace(worker);
        Value &value = ledger_->claims[numberOf(place)][worker.number()];
        const std::string key = keyOf(worker.number());
        uint32_t count = 0;
        if (QOVAShareSnapSysLockGet(place.get(), place.kept.c_str(), key.c_str(), &count) != 1) {
            expectBusy(worker, "claims of " + key);
            return;
        }
        if (!value.settle(count)) {
            worker.fail("claims of " + key + ": " + std::to_string(count) + ", confirmed were " +
                        std::to_string(value.confirmed));
        }
        const bool up = count == 0 || worker.random(2) == 0;
        value.begin(up ? count + 1 : count - 1);
        const int done = up ? QOVAShareSnapSysLockIncrement(place.get(), place.kept.c_str(), key.c_str())
                            : QOVAShareSnapSysLockDecrement(place.get(), place.kept.c_str(), key.c_str());
        if (done == 1) {
            value.confirm();
            worker.count(up ? CLAIMED : RELEASED);
        } else {
            expectBusy(worker, "claim of " + key); // settled with the next one
        }
    }

    void annotate(testkit::Worker &worker) {
        Place &place = anyPlace(worker);
        Value &value = ledger_->notes[numberOf(place)][worker.number()];
        const std::string key = keyOf(worker.number());
        char text[64] = "";
        if (QOVAShareSnapAttrGet(place.get(), place.kept.c_str(), key.c_str(), text, sizeof(text)) != 0) {
            expectBusy(worker, "attribute " + key);
            return;
        }
        const auto standing = static_cast<uint32_t>(std::strtoul(text, nullptr, 10));
        if (!value.settle(standing)) {
            worker.fail("attribute " + key + ": " + text + ", confirmed was " + std::to_string(value.confirmed));
        }
        value.begin(standing + 1 + static_cast<uint32_t>(worker.random(1000)));
        const std::string next = std::to_string(value.next);
        if (QOVAShareSnapAttrSet(place.get(), place.kept.c_str(), key.c_str(), next.c_str()) == 0) {
            value.confirm();
            worker.count(ANNOTATED);
        } else {
            expectBusy(worker, "set " + key);
        }
    }

    void list(testkit::Worker &worker) {
        const Place &place = anyPlace(worker);
        Names names;
        if (listAll(place, names, worker.random(2) == 0) != 0) {
            expectBusy(worker, "list");
            return;
        }
        if (std::find(names.begin(), names.end(), place.kept) == names.end()) {
            worker.fail("the kept snapshot of " + place.name() + " isn't listed");
        }
        if (std::set<std::string>(names.begin(), names.end()).size() != names.size()) {
            worker.fail("a snapshot of " + place.name() + " is listed twice");
        }
        worker.count(LISTED);
    }

    void doOneThing(testkit::Worker &worker) {
        switch (worker.random(6)) {
        case 0:
        case 1:
            takeOne(worker);
            break;
        case 2:
            deleteSome(worker);
            break;
        case 3:
            claim(worker);
            break;
        case 4:
            annotate(worker);
            break;
        default:
            list(worker);
            break;
        }
    }

    static void waitForOrphans() {
        while (waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {}
    }

    void expectTruth(Place &place) {
        SCOPED_TRACE(place.name());
        ASSERT_EQ(0, QOVAShareSnapMetaSync(place.get())) << testkit::logText();
        Names listed;
        ASSERT_EQ(0, listAll(place, listed));
        std::sort(listed.begin(), listed.end());
        Names standing;
        for (const std::string &name : testkit::directoryNames(place.directory())) {
            if (place.stands(name)) {
                standing.push_back(name);
            }
        }
        EXPECT_EQ(standing, listed);
        Names visible;
        EXPECT_EQ(0, listAll(place, visible, true));
        int count = -1;
        EXPECT_EQ(0, QOVAShareSnapGetSnapCount(place.get(), &count, 0));
        EXPECT_EQ(visible.size(), static_cast<size_t>(count));
        expectValues(place);
        expectRecords(place, std::set<std::string>(listed.begin(), listed.end()));
        deleteOthers(place, listed);
    }

    void expectValues(const Place &place) {
        for (unsigned int i = 0; i < kWorkers; ++i) {
            SCOPED_TRACE(keyOf(i));
            uint32_t count = 0;
            EXPECT_EQ(1, QOVAShareSnapSysLockGet(place.get(), place.kept.c_str(), keyOf(i).c_str(), &count));
            Value &claims = ledger_->claims[numberOf(place)][i];
            EXPECT_TRUE(claims.settle(count)) << count << " claims, confirmed were " << claims.confirmed;
            char text[64] = "";
            EXPECT_EQ(0, QOVAShareSnapAttrGet(place.get(), place.kept.c_str(), keyOf(i).c_str(), text, sizeof(text)));
            Value &note = ledger_->notes[numberOf(place)][i];
            EXPECT_TRUE(note.settle(static_cast<uint32_t>(std::strtoul(text, nullptr, 10))))
                << text << ", confirmed was " << note.confirmed;
        }
        uint32_t always = 0;
        EXPECT_EQ(1, QOVAShareSnapSysLockGet(place.get(), place.kept.c_str(), "always", &always));
        EXPECT_EQ(1U, always);
    }

    // Confirmed and not deleted: it stands with what it was taken with. Confirmed as deleted: it is gone.
    void expectRecords(const Place &place, const std::set<std::string> &listed) {
        const uint32_t used = std::min(ledger_->used.load(), kRecords);
        for (uint32_t i = 0; i < used && !HasFailure(); ++i) {
            Record &record = ledger_->records[i];
            if (!record.taken || record.settled || record.share != numberOf(place)) {
                continue;
            }
            const bool stands = listed.count(record.name) != 0;
            EXPECT_FALSE(record.deleted && stands) << record.name << " was deleted";
            EXPECT_TRUE(record.doomed || stands) << record.name << " was taken, and nobody deleted it";
            if (stands && !record.doomed) {
                char owner[64] = "";
                EXPECT_EQ(0, QOVAShareSnapAttrGet(place.get(), record.name, "owner", owner, sizeof(owner)));
                EXPECT_EQ(keyOf(record.owner), owner) << record.name;
            }
        }
    }

    // Room for the next part of the storm.
    void deleteOthers(const Place &place, const Names &listed) {
        Names others;
        std::copy_if(listed.begin(), listed.end(), std::back_inserter(others),
                     [&](const std::string &name) { return name != place.kept; });
        const List list(others);
        QLIBCMRESULT *entries = QLIBCMResultAlloc();
        EXPECT_EQ(0, QOVAShareSnapDelete(place.get(), list.get(), &entries)) << code();
        QLIBCMResultFree(entries);
        const uint32_t used = std::min(ledger_->used.load(), kRecords);
        for (uint32_t i = 0; i < used; ++i) {
            if (ledger_->records[i].share == numberOf(place)) {
                ledger_->records[i].settled = true;
                ledger_->records[i].deleted = true; // so that nobody tries
            }
        }
    }

    // Each lock that the operation takes times out once; gives the number of locks.
    static size_t timeOuts(const std::string &what, const std::function<void()> &prepare,
                           const std::function<bool()> &operation) {
        for (size_t nth = 1; nth < 100; ++nth) {
            prepare();
            setCode(0);
            const testkit::Fault fault("QLIBCFileLockTimeByFile", nth, EAGAIN, 0, SNAP_ERR_BUSY);
            const bool done = operation();
            if (!fault.met()) {
                EXPECT_TRUE(done) << what;
                return nth - 1;
            }
            EXPECT_TRUE(done || QLIBCErrGet() == SNAP_ERR_BUSY) << what << ", lock " << nth << ": " << code();
        }
        ADD_FAILURE() << what << " takes locks without end";
        return 0;
    }

    // Lets the file system clean up what was deleted, so that the next part finds room. It goes on without, too: then
    // more creations are refused.
    static void waitForRoom() {
        const int volume = open("/vol1", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ASSERT_GE(volume, 0);
        struct statfs info = {};
        for (int tries = 0; tries < 50; ++tries) {
            (void)ioctl(volume, BTRFS_IOC_SYNC); // wakes the cleaner
            if (fstatfs(volume, &info) == 0 &&
                uint64_t(info.f_bavail) * uint64_t(info.f_bsize) > (uint64_t(140) << 20)) {
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        (void)close(volume);
    }

    testkit::StormResult runPart(std::chrono::seconds duration, uint64_t seed) {
        testkit::Storm storm;
        storm.workers = kWorkers;
        storm.duration = duration;
        storm.killEvery = std::chrono::milliseconds(100);
        storm.seed = seed;
        storm.work = [&](testkit::Worker &worker) { doOneThing(worker); };
        testkit::StormResult part = storm.run();
        waitForOrphans();
        EXPECT_EQ("", part.failures) << testkit::logText();
        return part;
    }

    // A storm in which nobody deletes, say, or everybody waits, proves little.
    static void expectEverythingDone(const std::vector<uint64_t> &sums) {
        uint64_t all = 0;
        for (const Counter counter : {TAKEN, CONFLICTS, DELETED, HELD, CLAIMED, RELEASED, ANNOTATED, LISTED}) {
            EXPECT_GT(sums[counter], 0U) << "counter " << counter;
            all += sums[counter];
        }
        EXPECT_LT(sums[TIMED_OUT] * 50, all);
    }

    SharedLedger ledger_;
    std::array<Place, kShares> places_;
};

TEST_F(ShareStorm, NothingConfirmedIsLostWhenProcessesAreKilled) {
    for (const Place &place : places_) {
        ASSERT_EQ(1, QOVAShareSnapSysLockIncrement(place.get(), place.kept.c_str(), "always"));
    }
    std::vector<uint64_t> sums(testkit::stormCounters, 0);
    unsigned int killed = 0;
    // In parts: after each of them everything is looked at.
    constexpr std::chrono::seconds most{3};
    for (std::chrono::seconds left = stormSeconds(); left.count() > 0 && !HasFailure(); left -= most) {
        const testkit::StormResult part = runPart(std::min(left, most), static_cast<uint64_t>(left.count()));
        for (size_t i = 0; i < sums.size(); ++i) {
            sums[i] += part.counter(i);
        }
        killed += part.killed;
        for (Place &place : places_) {
            expectTruth(place);
        }
        ledger_->standing = 0;
        waitForRoom();
        testkit::logClear();
    }
    const auto sum = [&](Counter counter) { return std::to_string(sums[counter]); };
    std::printf(
        "[  STORM   ] %ld s, %u killed: %s taken, %s conflicts, %s refused, %s deleted, %s not found, %s held,\n"
        "[  STORM   ] %s claimed, %s released, %s annotated, %s listed, %s time-outs\n",
        static_cast<long>(stormSeconds().count()), killed, sum(TAKEN).c_str(), sum(CONFLICTS).c_str(),
        sum(REFUSED).c_str(), sum(DELETED).c_str(), sum(NOT_FOUND).c_str(), sum(HELD).c_str(), sum(CLAIMED).c_str(),
        sum(RELEASED).c_str(), sum(ANNOTATED).c_str(), sum(LISTED).c_str(), sum(TIMED_OUT).c_str());
    EXPECT_GT(sums[TAKEN], 0U);
    EXPECT_GT(killed, 0U);
    if (stormSeconds() >= std::chrono::minutes(1)) { // a short one on a busy machine may not come to all of it
        expectEverythingDone(sums);
    }
}

// What the storm takes for a lock that others had for too long is told so by each operation, whichever lock it was.
TEST_F(ShareStorm, EachLockTimeOutIsToldAsBusy) {
    const Place &place = places_[0];
    time_t now = 1900000000;
    std::string name;
    const auto take = [&] {
        const testkit::FixedTime clock(++now);
        char taken[255] = "";
        const int outcome = QOVAShareSnapCreate(place.get(), taken, sizeof(taken), nullptr);
        name = taken;
        return outcome == 0;
    };
    const auto remove = [&] {
        const List list(Names{name});
        QLIBCMRESULT *entries = QLIBCMResultAlloc();
        const int outcome = QOVAShareSnapDelete(place.get(), list.get(), &entries);
        QLIBCMResultFree(entries);
        return outcome == 0;
    };
    const auto annotate = [&] { return QOVAShareSnapAttrSet(place.get(), place.kept.c_str(), "worker1", "1") == 0; };
    const auto claim = [&] { return QOVAShareSnapSysLockIncrement(place.get(), place.kept.c_str(), "worker1") == 1; };
    Names names;
    const auto list = [&] { return listAll(place, names) == 0; };
    EXPECT_LT(1U, timeOuts(
                      "create", [] {}, take));
    EXPECT_LT(1U, timeOuts(
                      "delete", [&] { ASSERT_TRUE(take()); }, remove));
    EXPECT_LT(0U, timeOuts(
                      "set", [] {}, annotate));
    EXPECT_LT(0U, timeOuts(
                      "claim", [] {}, claim));
    EXPECT_LT(0U, timeOuts(
                      "list", [] {}, list));
}

} // namespace
