// Events on their way to the journal.
#include "sdk_journal_socket.hpp"
#include "support/fixtures.hpp"

#include <cerrno>
#include <ctime>
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/event_log.h>

namespace {

class EventLog : public testkit::SandboxTest {};

} // namespace

TEST_F(EventLog, TakenSnapshotIsASentenceWithFields) {
    const testkit::JournalSocket journal;
    ASSERT_EQ(0,
              QOVALogSet1(9, 1, 0x13C00001, "alice", "GMT-2026.01.02-03.04.05", "docs", static_cast<char *>(nullptr)));
    const auto entries = journal.entries();
    ASSERT_EQ(1U, entries.size());
    testkit::JournalFields entry = entries[0];
    EXPECT_EQ("User alice took snapshot GMT-2026.01.02-03.04.05 of shared folder docs.", entry["MESSAGE"]);
    EXPECT_EQ("6", entry["PRIORITY"]);
    EXPECT_EQ("0x13C00001", entry["SHARESNAP_EVENT"]);
    EXPECT_EQ("345973bfb98941ecb577d73ae3a11dd9", entry["MESSAGE_ID"]);
    EXPECT_EQ("alice", entry["SHARESNAP_TEXT_1"]);
    EXPECT_EQ("GMT-2026.01.02-03.04.05", entry["SHARESNAP_TEXT_2"]);
    EXPECT_EQ("docs", entry["SHARESNAP_TEXT_3"]);
    EXPECT_EQ("alice", entry["ACTOR"]);
    EXPECT_EQ("GMT-2026.01.02-03.04.05", entry["SNAPSHOT"]);
    EXPECT_EQ("docs", entry["SHARE"]);
    EXPECT_EQ(program_invocation_short_name, entry["SYSLOG_IDENTIFIER"]);
}

TEST_F(EventLog, FailedSnapshotTellsItsReason) {
    const testkit::JournalSocket journal;
    ASSERT_EQ(0, QOVALogSet1(9, 3, 0x13C00002, "alice", "docs", "Share used size reaches the limit of share quota ",
                             static_cast<char *>(nullptr)));
    testkit::JournalFields entry = journal.entries().at(0);
    EXPECT_EQ("User alice failed to take a snapshot of shared folder docs: Share used size reaches the limit of share "
              "quota.",
              entry["MESSAGE"]);
    EXPECT_EQ("3", entry["PRIORITY"]);
    EXPECT_EQ("Share used size reaches the limit of share quota ", entry["REASON"]);
    EXPECT_EQ("docs", entry["SHARE"]);
    EXPECT_EQ(0U, entry.count("SNAPSHOT"));
}

TEST_F(EventLog, DeletionsNameTheShareSecond) {
    const testkit::JournalSocket journal;
    ASSERT_EQ(0, QOVALogSet1(9, 1, 0x13C00003, "bob", "docs", "GMT-1", static_cast<char *>(nullptr)));
    ASSERT_EQ(0, QOVALogSet1(9, 2, 0x13C00004, "bob", "docs", "GMT-1", static_cast<char *>(nullptr)));
    auto entries = journal.entries();
    ASSERT_EQ(2U, entries.size());
    EXPECT_EQ("User bob deleted snapshot GMT-1 of shared folder docs.", entries[0]["MESSAGE"]);
    EXPECT_EQ("User bob failed to delete snapshot GMT-1 of shared folder docs.", entries[1]["MESSAGE"]);
    EXPECT_EQ("4", entries[1]["PRIORITY"]);
    EXPECT_EQ("docs", entries[0]["SHARE"]);
    EXPECT_EQ("GMT-1", entries[0]["SNAPSHOT"]);
    EXPECT_NE(entries[0]["MESSAGE_ID"], entries[1]["MESSAGE_ID"]);
}

TEST_F(EventLog, UnknownEventIsWrittenWithItsTexts) {
    const testkit::JournalSocket journal;
    ASSERT_EQ(0, QOVALogSet1(9, 1, 0x1234U, "one", "two", static_cast<char *>(nullptr)));
    testkit::JournalFields entry = journal.entries().at(0);
    EXPECT_EQ("Event 0x00001234: one: two", entry["MESSAGE"]);
    EXPECT_EQ(0U, entry.count("MESSAGE_ID"));
    EXPECT_EQ("two", entry["SHARESNAP_TEXT_2"]);
}

TEST_F(EventLog, MissingTextsLeaveAGap) {
    const testkit::JournalSocket journal;
    ASSERT_EQ(0, QOVALogSet1(9, 1, 0x13C00001, static_cast<char *>(nullptr)));
    testkit::JournalFields entry = journal.entries().at(0);
    EXPECT_EQ("User (unknown) took snapshot (unknown) of shared folder (unknown).", entry["MESSAGE"]);
    EXPECT_EQ(0U, entry.count("ACTOR"));
}

// A text can't smuggle a field of its own into the entry.
TEST_F(EventLog, LineFeedsStayInsideTheirField) {
    const testkit::JournalSocket journal;
    const std::string actor = "alice\nPRIORITY=0\n_UID=0";
    ASSERT_EQ(0, QOVALogSet1(9, 1, 0x13C00001, actor.c_str(), "snap", "docs", static_cast<char *>(nullptr)));
    testkit::JournalFields entry = journal.entries().at(0);
    EXPECT_EQ(actor, entry["ACTOR"]);
    EXPECT_EQ("6", entry["PRIORITY"]);
    EXPECT_EQ(0U, entry.count("_UID"));
}

TEST_F(EventLog, LongTextsAreCut) {
    const testkit::JournalSocket journal;
    const std::string text(100000, 'x');
    ASSERT_EQ(0, QOVALogSet1(9, 1, 0x13C00001, text.c_str(), text.c_str(), text.c_str(), static_cast<char *>(nullptr)));
    testkit::JournalFields entry = journal.entries().at(0);
    EXPECT_EQ(std::string(16384, 'x'), entry["SHARE"]);
}

TEST_F(EventLog, MachineWithoutAJournalIsSilent) {
    QLIBCErrSetEx(0, "", 0);
    errno = ENOSPC;
    EXPECT_EQ(0, QOVALogSet1(9, 1, 0x13C00001, "alice", "snap", "docs", static_cast<char *>(nullptr)));
    EXPECT_EQ(ENOSPC, errno);
    EXPECT_EQ(0U, QLIBCErrGet());
    { const testkit::JournalSocket gone; } // a socket that nobody holds any more
    errno = ENOTTY;
    EXPECT_EQ(0, QOVALogSet1(9, 3, 0x13C00002, "alice", "docs", "why", static_cast<char *>(nullptr)));
    EXPECT_EQ(ENOTTY, errno);
}

TEST_F(EventLog, FullJournalLosesTheEventInsteadOfWaiting) {
    const testkit::JournalSocket journal; // nobody reads
    int result = 0;
    int sent = 0;
    errno = ENOTTY;
    for (; result == 0 && sent < 100000; ++sent) {
        result = QOVALogSet1(9, 1, 0x13C00001, "alice", "snap", "docs", static_cast<char *>(nullptr));
    }
    EXPECT_EQ(-1, result);
    EXPECT_EQ(0x2A00U, QLIBCErrGet());
    EXPECT_EQ(ENOTTY, errno);
    EXPECT_EQ(static_cast<size_t>(sent - 1), journal.entries().size());
    EXPECT_EQ(0, QOVALogSet1(9, 1, 0x13C00001, "alice", "snap", "docs", static_cast<char *>(nullptr)));
}

TEST_F(EventLog, OtherTypesAndLevelsAreRefused) {
    const testkit::JournalSocket journal;
    EXPECT_EQ(-1, QOVALogSet1(8, 1, 0x13C00001, "alice", static_cast<char *>(nullptr)));
    EXPECT_EQ(-1, QOVALogSet1(9, 0, 0x13C00001, "alice", static_cast<char *>(nullptr)));
    EXPECT_EQ(-1, QOVALogSet1(9, 4, 0x13C00001, "alice", static_cast<char *>(nullptr)));
    EXPECT_EQ(0x0D00U, QLIBCErrGet());
    EXPECT_TRUE(journal.entries().empty());
}
