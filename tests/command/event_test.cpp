// What the command writes into the journal: who did what with which snapshot.
#include "command.hpp"

#include "unit/sdk_journal_socket.hpp"

#include <cstdlib>
#include <fstream>
#include <pwd.h>
#include <unistd.h>

namespace {

using namespace commandtest;
using testing::HasSubstr;
using testkit::JournalFields;
using testkit::JournalSocket;

class Event : public CommandTest {
protected:
    // The entries of one event, among whatever else arrives there.
    static std::vector<JournalFields> entriesOf(const JournalSocket &journal, const std::string &event) {
        std::vector<JournalFields> found;
        for (JournalFields &entry : journal.entries()) {
            if (entry["SHARESNAP_EVENT"] == event) {
                found.push_back(entry);
            }
        }
        return found;
    }

    // Runs the command under sudo's words for a user, as whom sudo would name its caller.
    static testkit::ProcessResult asCalledBy(uid_t user, const Arguments &arguments) {
        Arguments whole = {"env", "SUDO_UID=" + std::to_string(user), SHARESNAP_COMMAND};
        whole.insert(whole.end(), arguments.begin(), arguments.end());
        return testkit::runProcessApart(whole);
    }

    static std::string accountName(uid_t user) {
        const passwd *account = getpwuid(user);
        return account != nullptr ? account->pw_name : std::to_string(user);
    }

    // Who is logged in counts before what sudo says.
    static std::string expectedActor(uid_t sudoUser) {
        unsigned int login = ~0U;
        std::ifstream("/proc/self/loginuid") >> login;
        return accountName(login != ~0U ? login : sudoUser);
    }
};

constexpr char taken[] = "0x13C00001";
constexpr char notTaken[] = "0x13C00002";
constexpr char deleted[] = "0x13C00003";
constexpr char notDeleted[] = "0x13C00004";

TEST_F(Event, CreateTellsWhoTookWhat) {
    const JournalSocket journal;
    const uid_t user = 1;
    const auto result = asCalledBy(user, {"create", "docs"});
    ASSERT_TRUE(ends(result, done));
    auto entries = entriesOf(journal, taken);
    ASSERT_EQ(1U, entries.size());
    EXPECT_EQ(expectedActor(user), entries[0]["ACTOR"]);
    EXPECT_EQ("docs", entries[0]["SHARE"]);
    EXPECT_EQ(lines(result.output).at(0), entries[0]["SNAPSHOT"]);
}

TEST_F(Event, FailedCreateTellsTheReason) {
    ASSERT_TRUE(testkit::writeFile("/etc.defaults/qovainfo.conf", "max_snapshots_per_share=\"1\"\n"));
    (void)take();
    const JournalSocket journal;
    const uid_t user = 1;
    ASSERT_TRUE(ends(asCalledBy(user, {"create", "docs"}), refused));
    auto entries = entriesOf(journal, notTaken);
    ASSERT_EQ(1U, entries.size());
    EXPECT_EQ(expectedActor(user), entries[0]["ACTOR"]);
    EXPECT_EQ("docs", entries[0]["SHARE"]);
    EXPECT_NE("", entries[0]["REASON"]);
    EXPECT_EQ(0U, entries[0].count("SNAPSHOT"));
}

TEST_F(Event, DeleteTellsWhatWentAndWhatStayed) {
    const std::string held = take();
    const std::string first = take();
    const std::string second = take();
    ASSERT_TRUE(ends(sharesnap({"hold", "add", "docs", held, "backup"}), done));
    const JournalSocket journal;
    const uid_t user = 1;
    EXPECT_TRUE(ends(asCalledBy(user, {"delete", "docs", first, held, second, "nope"}), inPart));
    std::vector<JournalFields> gone;
    std::vector<JournalFields> kept;
    for (JournalFields &entry : journal.entries()) {
        if (entry["SHARESNAP_EVENT"] == deleted) {
            gone.push_back(entry);
        } else if (entry["SHARESNAP_EVENT"] == notDeleted) {
            kept.push_back(entry);
        }
    }
    ASSERT_EQ(1U, gone.size());
    EXPECT_EQ(expectedActor(user), gone[0]["ACTOR"]);
    EXPECT_EQ("docs", gone[0]["SHARE"]);
    EXPECT_EQ(first + ", " + second, gone[0]["SNAPSHOT"]);
    ASSERT_EQ(1U, kept.size());
    EXPECT_EQ(expectedActor(user), kept[0]["ACTOR"]);
    EXPECT_EQ("docs", kept[0]["SHARE"]);
    EXPECT_EQ(held + ", nope", kept[0]["SNAPSHOT"]);
}

// What can't be told is no event: nothing went, nothing was to go.
TEST_F(Event, DryRunsAndReadersTellNothing) {
    const std::string snapshot = take();
    const JournalSocket journal;
    EXPECT_TRUE(ends(sharesnap({"delete", "docs", snapshot, "--dry-run"}), done));
    EXPECT_TRUE(ends(sharesnap({"list", "docs"}), done));
    EXPECT_TRUE(ends(sharesnap({"show", "docs", snapshot}), done));
    for (JournalFields &entry : journal.entries()) {
        EXPECT_EQ(0U, entry.count("SHARESNAP_EVENT")) << entry["MESSAGE"];
    }
}

// A delete of many names them as far as there is room, and counts the rest.
TEST_F(Event, DeleteOfManyCountsThoseThatAreNotNamed) {
    (void)take(); // the list stands
    const JournalSocket journal;
    Arguments arguments = {"delete", "docs"};
    for (int i = 100; i < 150; ++i) {
        arguments.push_back("GMT-2015.01.01-00.00.00-" + std::to_string(i));
    }
    EXPECT_TRUE(ends(sharesnap(arguments), notFound));
    auto entries = entriesOf(journal, notDeleted);
    ASSERT_EQ(1U, entries.size());
    const std::string names = entries[0]["SNAPSHOT"];
    EXPECT_EQ(0U, names.find("GMT-2015.01.01-00.00.00-100, GMT-2015.01.01-00.00.00-101, ")) << names;
    EXPECT_LT(names.size(), 1100U);
    const auto named = static_cast<size_t>(std::count(names.begin(), names.end(), 'G'));
    EXPECT_LT(named, 50U);
    EXPECT_THAT(names, HasSubstr(" and " + std::to_string(50 - named) + " more"));
}

// A restore keeps the present as a snapshot, and that is one that somebody took.
TEST_F(Event, RestoreTellsOfTheSnapshotThatKeepsThePresent) {
    const std::string snapshot = take();
    const JournalSocket journal;
    const nlohmann::json restored = document({"restore", "docs", snapshot});
    auto entries = entriesOf(journal, taken);
    ASSERT_EQ(1U, entries.size());
    EXPECT_EQ("docs", entries[0]["SHARE"]);
    EXPECT_EQ(restored["kept"], entries[0]["SNAPSHOT"]);
}

} // namespace
