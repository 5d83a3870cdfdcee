// Writing of sectioned files.
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/section_file.h>

#include "core_owners.hpp"
#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/process.hpp"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <random>
#include <sstream>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using core::Hash;
using core::List;
using core::Texts;
using namespace std::string_literals;

namespace {

constexpr const char *FORMAT = "%s=%s\n";

class SectionWrite : public testkit::SandboxTest {
protected:
    void SetUp() override {
        SandboxTest::SetUp();
        m_directory = testkit::Sandbox::scratch() + "/room";
        ASSERT_TRUE(testkit::makeDirectories(m_directory));
        m_path = m_directory + "/file.conf";
        forget();
    }

    static void forget() {
        QLIBCErrSetEx(0, "", 0);
        errno = 0;
    }

    void write(const std::string &text) { ASSERT_TRUE(testkit::writeFile(m_path, text)); }
    [[nodiscard]] const char *path() const { return m_path.c_str(); }
    [[nodiscard]] std::string text() const { return testkit::readFile(m_path); }
    [[nodiscard]] Texts names() const { return testkit::directoryNames(m_directory); }

    [[nodiscard]] struct stat status() const {
        struct stat status {};
        EXPECT_EQ(0, lstat(path(), &status));
        return status;
    }

    std::string m_directory;
    std::string m_path;
};

// Runs a function in a child; its result is the exit status.
template <class Function>
int inChild(Function function) {
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(function());
    }
    const int nStatus = testkit::waitForChild(pid);
    return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
}

// A function that fails in a child: the file as before, nothing left beside it, errno as expected.
template <class Function>
int failsWith(int nErrno, Function function) {
    return inChild([&] {
        errno = 0;
        QLIBCErrSetEx(0, "", 0);
        if (function() != -1) {
            return 1;
        }
        return errno == nErrno ? (QLIBCErrGet() != 0 ? 0 : 2) : 3;
    });
}

} // namespace

TEST_F(SectionWrite, AddsBehindTheOthers) {
    write("");
    const Hash first({{"take-by", "admin"}, {"desc", ""}});
    const Hash second({{"k", "a=b"}});
    EXPECT_EQ(1, QLIBCFileAddSection(path(), "one", first.get(), FORMAT));
    EXPECT_EQ(1, QLIBCFileAddSection(path(), "two", second.get(), nullptr));
    EXPECT_EQ("[one]\ntake-by=admin\ndesc=\n[two]\nk=a=b\n", text());
    EXPECT_EQ(Texts{"file.conf"}, names());
}

TEST_F(SectionWrite, AddMakesAMissingFile) {
    const Hash hash({{"k", "v"}});
    const mode_t before = umask(022);
    EXPECT_EQ(1, QLIBCFileAddSection(path(), "a", hash.get(), FORMAT));
    EXPECT_EQ(0644U, status().st_mode & 07777);
    EXPECT_EQ("[a]\nk=v\n", text());
    (void)umask(077);
    ASSERT_EQ(0, unlink(path()));
    EXPECT_EQ(1, QLIBCFileAddSection(path(), "a", hash.get(), FORMAT));
    EXPECT_EQ(0600U, status().st_mode & 07777);
    (void)umask(before);
}

TEST_F(SectionWrite, AddLeavesAnExistingSectionAlone) {
    write("[a]\nk=old\n");
    const Hash hash({{"k", "new"}});
    const ino_t before = status().st_ino;
    EXPECT_EQ(0, QLIBCFileAddSection(path(), "a", hash.get(), FORMAT));
    EXPECT_EQ("[a]\nk=old\n", text());
    EXPECT_EQ(before, status().st_ino);
}

TEST_F(SectionWrite, AddEndsAnOpenLastLine) {
    write("[a]\nk=v");
    const Hash hash({{"l", "w"}});
    EXPECT_EQ(1, QLIBCFileAddSection(path(), "b", hash.get(), FORMAT));
    EXPECT_EQ("[a]\nk=v\n[b]\nl=w\n", text());
}

TEST_F(SectionWrite, AddOfASectionWithoutPairs) {
    write("# only a comment\n");
    const Hash hash;
    EXPECT_EQ(1, QLIBCFileAddSection(path(), "empty", hash.get(), FORMAT));
    EXPECT_EQ("# only a comment\n[empty]\n", text());
}

TEST_F(SectionWrite, SetReplacesAllPairs) {
    write("[a]\nk=1\nold=x\n[b]\nk=2\n[c]\nk=3\n");
    const Hash hash({{"k", "new"}, {"more", "y"}});
    EXPECT_EQ(1, QLIBCFileSetSection(path(), "b", nullptr, hash.get(), FORMAT));
    EXPECT_EQ("[a]\nk=1\nold=x\n[b]\nk=new\nmore=y\n[c]\nk=3\n", text());
    const Hash none;
    EXPECT_EQ(1, QLIBCFileSetSection(path(), "a", nullptr, none.get(), nullptr));
    EXPECT_EQ("[a]\n[b]\nk=new\nmore=y\n[c]\nk=3\n", text());
    EXPECT_EQ(Texts{"file.conf"}, names());
}

TEST_F(SectionWrite, SetRenamesInItsPlace) {
    write("[a]\nk=1\n[b]\nk=2\n");
    const Hash hash({{"k", "new"}});
    EXPECT_EQ(1, QLIBCFileSetSection(path(), "a", "renamed", hash.get(), FORMAT));
    EXPECT_EQ("[renamed]\nk=new\n[b]\nk=2\n", text());
    EXPECT_EQ(1, QLIBCFileSetSection(path(), "renamed", "renamed", hash.get(), FORMAT));
    EXPECT_EQ("[renamed]\nk=new\n[b]\nk=2\n", text());
}

TEST_F(SectionWrite, SetRefusesATakenNameAndAnAbsentSection) {
    const std::string before = "[a]\nk=1\n[b]\nk=2\n";
    write(before);
    const Hash hash({{"k", "new"}});
    EXPECT_EQ(-1, QLIBCFileSetSection(path(), "a", "b", hash.get(), FORMAT));
    EXPECT_EQ(0x0800U, QLIBCErrGet());
    EXPECT_NE(0, errno);
    forget();
    EXPECT_EQ(-1, QLIBCFileSetSection(path(), "c", nullptr, hash.get(), FORMAT));
    EXPECT_EQ(0x2200U, QLIBCErrGet());
    EXPECT_NE(0, errno);
    EXPECT_EQ(before, text());
    ASSERT_EQ(0, unlink(path()));
    forget();
    EXPECT_EQ(-1, QLIBCFileSetSection(path(), "a", nullptr, hash.get(), FORMAT));
    EXPECT_EQ(0x0900U, QLIBCErrGet());
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(Texts{}, names());
}

TEST_F(SectionWrite, SetsOneValueInItsPlaceOrBehindTheLastPair) {
    write("[a]\nk=1\n# note\nl=2\n\n[b]\nk=3\n");
    EXPECT_EQ(0, QLIBCFileSetSectionValue(path(), "a", "k", "changed"));
    EXPECT_EQ(0, QLIBCFileSetSectionValue(path(), "a", "m", "added"));
    EXPECT_EQ(0, QLIBCFileSetSectionValue(path(), "b", "n", ""));
    EXPECT_EQ("[a]\nk=changed\n# note\nl=2\nm=added\n\n[b]\nk=3\nn=\n", text());
}

TEST_F(SectionWrite, SettingAValueCreatesNothing) {
    write("[a]\n");
    EXPECT_EQ(-1, QLIBCFileSetSectionValue(path(), "b", "k", "v"));
    EXPECT_EQ(0x2200U, QLIBCErrGet());
    EXPECT_NE(0, errno);
    EXPECT_EQ("[a]\n", text());
    EXPECT_EQ(0, QLIBCFileSetSectionValue(path(), "a", "k", "v"));
    EXPECT_EQ("[a]\nk=v\n", text());
    ASSERT_EQ(0, unlink(path()));
    EXPECT_EQ(-1, QLIBCFileSetSectionValue(path(), "a", "k", "v"));
    EXPECT_EQ(Texts{}, names());
}

TEST_F(SectionWrite, AKeyThatStandsTwiceStandsOnceAfterASet) {
    write("[a]\nk=1\nl=2\nk=3\n");
    EXPECT_EQ(0, QLIBCFileSetSectionValue(path(), "a", "k", "4"));
    EXPECT_EQ("[a]\nk=4\nl=2\n", text());
}

TEST_F(SectionWrite, RemovesOneSection) {
    write("[a]\nk=1\n[b]\nk=2\n[c]\nk=3");
    EXPECT_EQ(1, QLIBCFileRemoveSection(path(), "b"));
    EXPECT_EQ("[a]\nk=1\n[c]\nk=3", text());
    EXPECT_EQ(1, QLIBCFileRemoveSection(path(), "c"));
    EXPECT_EQ("[a]\nk=1\n", text());
    EXPECT_EQ(1, QLIBCFileRemoveSection(path(), "a"));
    EXPECT_EQ("", text());
    EXPECT_EQ(Texts{"file.conf"}, names());
}

TEST_F(SectionWrite, RemovingAnAbsentSectionWritesNothing) {
    write("[a]\nk=1\n");
    const ino_t before = status().st_ino;
    EXPECT_EQ(0, QLIBCFileRemoveSection(path(), "b"));
    EXPECT_EQ(before, status().st_ino);
    ASSERT_EQ(0, unlink(path()));
    EXPECT_EQ(-1, QLIBCFileRemoveSection(path(), "a"));
    EXPECT_EQ(0x0900U, QLIBCErrGet());
}

TEST_F(SectionWrite, CommentsOutliveEveryRewrite) {
    write("; top\n[a]\n# head\nk=1\n; tail\n[b]\n#b\nk=2\n");
    const Hash hash({{"n", "1"}});
    EXPECT_EQ(1, QLIBCFileSetSection(path(), "a", nullptr, hash.get(), FORMAT));
    EXPECT_EQ("; top\n[a]\n# head\nn=1\n; tail\n[b]\n#b\nk=2\n", text());
    EXPECT_EQ(1, QLIBCFileRemoveSection(path(), "a"));
    EXPECT_EQ("; top\n# head\n; tail\n[b]\n#b\nk=2\n", text());
    EXPECT_EQ(0, QLIBCFileSetSectionValue(path(), "b", "k", "3"));
    EXPECT_EQ("; top\n# head\n; tail\n[b]\n#b\nk=3\n", text());
    EXPECT_EQ(1, QLIBCFileAddSection(path(), "c", hash.get(), FORMAT));
    EXPECT_EQ("; top\n# head\n; tail\n[b]\n#b\nk=3\n[c]\nn=1\n", text());
}

TEST_F(SectionWrite, AnOpenCommentLineAtTheEndIsEnded) {
    write("[a]\nk=1\n# end");
    const Hash hash({{"k", "2"}});
    EXPECT_EQ(1, QLIBCFileSetSection(path(), "a", nullptr, hash.get(), FORMAT));
    EXPECT_EQ("[a]\nk=2\n# end\n", text());
}

TEST_F(SectionWrite, OfASectionThatStandsTwiceAWriteLeavesOne) {
    const std::string twice = "[a]\nk=1\n[b]\nk=2\n[a]\n# kept\nk=3\n[c]\nk=4\n[a]\nk=5\n";
    const Hash hash({{"k", "new"}});
    write(twice);
    EXPECT_EQ(1, QLIBCFileSetSection(path(), "a", nullptr, hash.get(), FORMAT));
    EXPECT_EQ("[a]\nk=new\n[b]\nk=2\n# kept\n[c]\nk=4\n", text());
    write(twice);
    EXPECT_EQ(0, QLIBCFileSetSectionValue(path(), "a", "k", "new"));
    EXPECT_EQ("[a]\nk=new\n[b]\nk=2\n# kept\n[c]\nk=4\n", text());
    write(twice);
    EXPECT_EQ(1, QLIBCFileRemoveSection(path(), "a"));
    EXPECT_EQ("[b]\nk=2\n# kept\n[c]\nk=4\n", text());
}

TEST_F(SectionWrite, KeepsWhatBelongsToNoSection) {
    write("loose\n[a]\nk=1\n[broken\nx=y\n[b]\nk=2\n");
    EXPECT_EQ(1, QLIBCFileRemoveSection(path(), "a"));
    EXPECT_EQ("loose\n[broken\nx=y\n[b]\nk=2\n", text());
}

TEST_F(SectionWrite, KeepsBytesOfOtherSectionsAsTheyAre) {
    const std::string odd = "[odd]\r\nk=\xff\xfe\0x\nno sign\n=v\n\n"s;
    write(odd + "[a]\nk=1\n" + odd);
    EXPECT_EQ(0, QLIBCFileSetSectionValue(path(), "a", "k", "2"));
    EXPECT_EQ(odd + "[a]\nk=2\n" + odd, text());
}

TEST_F(SectionWrite, RefusesWhatCouldNotBeReadBack) {
    const std::string before = "[a]\nk=1\n";
    write(before);
    const Hash good({{"k", "v"}});
    const std::pair<const char *, const char *> rgBad[] = {
        {"k", "line\nfeed"}, {"line\nfeed", "v"}, {"k=l", "v"}, {"[k", "v"}, {";k", "v"}, {"#k", "v"}, {"", "v"}};
    const auto refused = [](int nResult) {
        const bool blRefused = nResult == -1 && QLIBCErrGet() == 0x0D00 && errno == EINVAL;
        forget();
        return blRefused;
    };
    for (const auto &[szKey, szValue] : rgBad) {
        const Hash bad({{"fine", "1"}, {szKey, szValue}});
        EXPECT_TRUE(refused(QLIBCFileAddSection(path(), "b", bad.get(), FORMAT))) << szKey;
        EXPECT_TRUE(refused(QLIBCFileSetSection(path(), "a", nullptr, bad.get(), FORMAT))) << szKey;
        EXPECT_TRUE(refused(QLIBCFileSetSectionValue(path(), "a", szKey, szValue))) << szKey;
    }
    for (const std::string &name : {std::string(), std::string("line\nfeed"), std::string(1024, 'n')}) {
        EXPECT_TRUE(refused(QLIBCFileAddSection(path(), name.c_str(), good.get(), FORMAT)));
        EXPECT_TRUE(refused(QLIBCFileSetSection(path(), "a", name.c_str(), good.get(), FORMAT)));
    }
    EXPECT_TRUE(refused(QLIBCFileAddSection(path(), "b", good.get(), "%s: %s\n")));
    EXPECT_TRUE(refused(QLIBCFileAddSection(path(), "b", nullptr, FORMAT)));
    EXPECT_TRUE(refused(QLIBCFileAddSection(nullptr, "b", good.get(), FORMAT)));
    EXPECT_TRUE(refused(QLIBCFileSetSection(path(), nullptr, nullptr, good.get(), FORMAT)));
    EXPECT_TRUE(refused(QLIBCFileSetSectionValue(path(), "a", "k", nullptr)));
    EXPECT_TRUE(refused(QLIBCFileRemoveSection(path(), nullptr)));
    EXPECT_EQ(before, text());
    EXPECT_EQ(Texts{"file.conf"}, names());
}

TEST_F(SectionWrite, ReadsBackWhateverItTakes) {
    const std::string longName(1023, 'n');
    const Hash hash({{"]", "[x]"}, {" k ", " v "}, {"k;#[", "=;#["}, {"cr", "x\r"}, {"\xc3\xa4", "\xff"}});
    for (const std::string &name : {std::string("a]b["), std::string("]"), std::string(" "), longName}) {
        ASSERT_EQ(1, QLIBCFileAddSection(path(), name.c_str(), hash.get(), FORMAT));
        Hash read;
        EXPECT_EQ(5, QLIBCFileGetSection(path(), name.c_str(), &read));
        EXPECT_EQ(hash.keys(), read.keys());
        for (const std::string &key : hash.keys()) {
            EXPECT_EQ(hash.at(key), read.at(key));
        }
    }
}

TEST_F(SectionWrite, KeepsModeAndOwner) {
    write("[a]\nk=1\n");
    ASSERT_EQ(0, chmod(path(), 0640));
    const bool blOwner = testkit::Sandbox::kind() == testkit::Sandbox::Kind::root;
    if (blOwner) {
        ASSERT_EQ(0, chown(path(), 1234, 4321));
    }
    const Hash hash({{"k", "2"}});
    EXPECT_EQ(1, QLIBCFileSetSection(path(), "a", nullptr, hash.get(), FORMAT));
    EXPECT_EQ(0, QLIBCFileSetSectionValue(path(), "a", "k", "3"));
    EXPECT_EQ(1, QLIBCFileAddSection(path(), "b", hash.get(), FORMAT));
    EXPECT_EQ(1, QLIBCFileRemoveSection(path(), "a"));
    EXPECT_EQ(0640U, status().st_mode & 07777);
    if (blOwner) {
        EXPECT_EQ(1234U, status().st_uid);
        EXPECT_EQ(4321U, status().st_gid);
    }
}

TEST_F(SectionWrite, ReplacesTheFileAndLeavesOtherNamesOfItAlone) {
    write("[a]\nk=1\n");
    const std::string other = m_directory + "/second name";
    ASSERT_EQ(0, link(path(), other.c_str()));
    EXPECT_EQ(0, QLIBCFileSetSectionValue(path(), "a", "k", "2"));
    EXPECT_EQ("[a]\nk=2\n", text());
    EXPECT_EQ("[a]\nk=1\n", testkit::readFile(other));
}

TEST_F(SectionWrite, FollowsNoLinkAndReplacesNothingButFiles) {
    const std::string real = testkit::Sandbox::scratch() + "/victim";
    ASSERT_TRUE(testkit::writeFile(real, "[a]\nk=1\n"));
    const Hash hash({{"k", "2"}});
    const auto allFail = [&](const char *szWhat) {
        EXPECT_EQ(-1, QLIBCFileAddSection(path(), "b", hash.get(), FORMAT)) << szWhat;
        EXPECT_EQ(0x0900U, QLIBCErrGet()) << szWhat;
        EXPECT_NE(0, errno);
        EXPECT_EQ(-1, QLIBCFileSetSection(path(), "a", nullptr, hash.get(), FORMAT)) << szWhat;
        EXPECT_EQ(-1, QLIBCFileSetSectionValue(path(), "a", "k", "2")) << szWhat;
        EXPECT_EQ(-1, QLIBCFileRemoveSection(path(), "a")) << szWhat;
        EXPECT_EQ(Texts{"file.conf"}, names()) << szWhat;
        forget();
    };
    ASSERT_EQ(0, symlink(real.c_str(), path()));
    allFail("link");
    EXPECT_TRUE(S_ISLNK(status().st_mode));
    EXPECT_EQ("[a]\nk=1\n", testkit::readFile(real));
    ASSERT_EQ(0, unlink(path()));
    ASSERT_EQ(0, symlink("nowhere", path()));
    allFail("dangling link");
    ASSERT_EQ(0, unlink(path()));
    ASSERT_EQ(0, mkdir(path(), 0755));
    allFail("directory");
    ASSERT_EQ(0, rmdir(path()));
    ASSERT_EQ(0, mkfifo(path(), 0600));
    allFail("pipe");
}

TEST_F(SectionWrite, AFullFileSystemLeavesTheOldFile) {
    const std::string small = testkit::Sandbox::scratch() + "/small";
    ASSERT_EQ(0, mkdir(small.c_str(), 0755));
    if (mount("small", small.c_str(), "tmpfs", 0, "size=64k") != 0) {
        GTEST_SKIP() << "no file system of its own can be mounted";
    }
    const std::string file = small + "/file.conf";
    const Hash fitting({{"k", std::string(40000, 'v').c_str()}});
    EXPECT_EQ(1, QLIBCFileAddSection(file.c_str(), "a", fitting.get(), FORMAT));
    const std::string before = testkit::readFile(file);
    forget();
    EXPECT_EQ(-1, QLIBCFileAddSection(file.c_str(), "b", fitting.get(), FORMAT));
    EXPECT_EQ(ENOSPC, errno);
    EXPECT_EQ(0x0B00U, QLIBCErrGet());
    forget();
    EXPECT_EQ(-1, QLIBCFileSetSectionValue(file.c_str(), "a", "l", "w"));
    EXPECT_EQ(ENOSPC, errno);
    EXPECT_EQ(before, testkit::readFile(file));
    EXPECT_EQ(Texts{"file.conf"}, testkit::directoryNames(small));
    // A failure of another kind isn't taken for that one.
    EXPECT_EQ(-1, QLIBCFileSetSectionValue(file.c_str(), "absent", "l", "w"));
    EXPECT_NE(ENOSPC, errno);
    EXPECT_EQ(1, QLIBCFileRemoveSection(file.c_str(), "a"));
    EXPECT_EQ(0, umount2(small.c_str(), MNT_DETACH));
}

TEST_F(SectionWrite, AFileSizeLimitLeavesTheOldFile) {
    const std::string before = "[a]\nk=1\n";
    write(before);
    const Hash large({{"k", std::string(500000, 'v').c_str()}});
    EXPECT_EQ(0, failsWith(EFBIG, [&] {
                  (void)signal(SIGXFSZ, SIG_IGN);
                  const rlimit limit{4096, 4096};
                  return setrlimit(RLIMIT_FSIZE, &limit) == 0 ? QLIBCFileAddSection(path(), "b", large.get(), FORMAT)
                                                              : 0;
              }));
    EXPECT_EQ(before, text());
    EXPECT_EQ(Texts{"file.conf"}, names());
}

TEST_F(SectionWrite, AReadOnlyDirectoryFails) {
    const std::string place = testkit::Sandbox::scratch() + "/readonly";
    ASSERT_EQ(0, mkdir(place.c_str(), 0755));
    ASSERT_TRUE(testkit::writeFile(place + "/file.conf", "[a]\nk=1\n"));
    if (mount(place.c_str(), place.c_str(), "none", MS_BIND, nullptr) != 0 ||
        mount("none", place.c_str(), "none", MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) != 0) {
        GTEST_SKIP() << "nothing can be mounted read-only";
    }
    const std::string file = place + "/file.conf";
    const Hash hash({{"k", "2"}});
    EXPECT_EQ(-1, QLIBCFileSetSection(file.c_str(), "a", nullptr, hash.get(), FORMAT));
    EXPECT_EQ(EROFS, errno);
    EXPECT_EQ(0x0C00U, QLIBCErrGet());
    EXPECT_EQ("[a]\nk=1\n", testkit::readFile(file));
    EXPECT_EQ(0, umount2(place.c_str(), MNT_DETACH));
}

TEST_F(SectionWrite, PathsThatLeadNowhereFail) {
    const Hash hash({{"k", "2"}});
    EXPECT_EQ(-1, QLIBCFileAddSection((m_directory + "/absent/file").c_str(), "a", hash.get(), FORMAT));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(0x0900U, QLIBCErrGet());
    EXPECT_EQ(-1, QLIBCFileAddSection((m_directory + "/").c_str(), "a", hash.get(), FORMAT));
    EXPECT_EQ(EISDIR, errno);
    EXPECT_EQ(-1, QLIBCFileAddSection("", "a", hash.get(), FORMAT));
    EXPECT_EQ(ENOENT, errno);
    const std::string longName = m_directory + "/" + std::string(300, 'n');
    EXPECT_EQ(-1, QLIBCFileAddSection(longName.c_str(), "a", hash.get(), FORMAT));
    EXPECT_EQ(ENAMETOOLONG, errno);
    EXPECT_EQ(Texts{}, names());
}

TEST_F(SectionWrite, AReaderSeesTheOldFileOrTheNewOne) {
    write("[a]\nx=0\ny=0\n");
    const pid_t pid = fork();
    if (pid == 0) {
        for (int i = 1; i <= 300; ++i) {
            const std::string number = std::to_string(i) + std::string(static_cast<size_t>(i % 50) * 100, '.');
            const Hash hash({{"x", number.c_str()}, {"y", number.c_str()}});
            if (QLIBCFileSetSection(path(), "a", nullptr, hash.get(), FORMAT) != 1) {
                _exit(1);
            }
        }
        _exit(0);
    }
    int nStatus = 0;
    while (waitpid(pid, &nStatus, WNOHANG) == 0) {
        Hash hash;
        ASSERT_EQ(2, QLIBCFileGetSection(path(), "a", &hash));
        ASSERT_EQ(hash.at("x"), hash.at("y"));
    }
    EXPECT_TRUE(WIFEXITED(nStatus) && WEXITSTATUS(nStatus) == 0);
}

TEST_F(SectionWrite, ChangesALargeFileInTheMiddle) {
    std::string before;
    std::string behind;
    for (int i = 0; i < 300; ++i) {
        before += "[s" + std::to_string(i) + "]\nk=" + std::string(3000, 'x') + "\n";
        behind += "[t" + std::to_string(i) + "]\nk=" + std::string(3000, 'y') + "\n";
    }
    write(before + "[a]\nk=1\n" + behind);
    EXPECT_EQ(0, QLIBCFileSetSectionValue(path(), "a", "k", "2"));
    EXPECT_EQ(before + "[a]\nk=2\n" + behind, text());
    EXPECT_EQ(1, QLIBCFileRemoveSection(path(), "a"));
    EXPECT_EQ(before + behind, text());
}

namespace {

// What a file says, section by section, in the order of the file: the names, and the pairs as read.
std::vector<std::pair<std::string, Texts>> contentOf(const char *szFile) {
    std::vector<std::pair<std::string, Texts>> content;
    List names;
    EXPECT_EQ(0, QLIBCFileEnumSection(szFile, &names));
    for (const std::string &name : names.items()) {
        Hash hash;
        EXPECT_GE(QLIBCFileGetSection(szFile, name.c_str(), &hash), 0);
        Texts pairs;
        for (const std::string &key : hash.keys()) {
            pairs.push_back(key + "=" + hash.at(key));
        }
        content.emplace_back(name, pairs);
    }
    return content;
}

std::string randomText(std::mt19937 &random) {
    static const Texts pieces = {"[a]\n",  "[b]\n",  "[c\n",     "[]\n", "[d] x\n", "[b]c]\n",     "k=1\n",   "k=2\n",
                                 "l=\n",   "=v\n",   "#c\n",     ";d\n", "\n",      "text\n",      "m=x=y\n", "\r\n",
                                 "k =1\n", " [a]\n", "n=\0z\n"s, "[a",   "k=3",     "\xff=\xfe\n", "[e]\r\n"};
    std::string text;
    const auto nPieces = random() % 30;
    for (unsigned long i = 0; i < nPieces; ++i) {
        text += pieces[random() % pieces.size()];
    }
    return text;
}

std::vector<std::string> commentsOf(const std::string &text) {
    std::vector<std::string> comments;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && (line[0] == '#' || line[0] == ';')) {
            comments.push_back(line);
        }
    }
    return comments;
}

} // namespace

TEST_F(SectionWrite, AnyFileKeepsItsOtherSectionsAndComments) {
    std::mt19937 random(20240102); // the same files at every run
    for (int nRound = 0; nRound < 300; ++nRound) {
        const std::string before = randomText(random);
        write(before);
        auto expected = contentOf(path());
        const auto entry =
            std::find_if(expected.begin(), expected.end(), [](const auto &section) { return section.first == "b"; });
        const bool blThere = entry != expected.end();
        const Hash hash({{"new", "pair"}});
        switch (nRound % 4) {
        case 0:
            ASSERT_EQ(blThere ? 0 : 1, QLIBCFileAddSection(path(), "b", hash.get(), FORMAT));
            if (!blThere) {
                expected.emplace_back("b", Texts{"new=pair"});
            }
            break;
        case 1:
            ASSERT_EQ(blThere ? 1 : -1, QLIBCFileSetSection(path(), "b", "renamed", hash.get(), FORMAT));
            if (blThere) {
                *entry = {"renamed", Texts{"new=pair"}};
            }
            break;
        case 2:
            ASSERT_EQ(blThere ? 0 : -1, QLIBCFileSetSectionValue(path(), "b", "new", "pair"));
            if (blThere) {
                entry->second.emplace_back("new=pair");
            }
            break;
        default:
            ASSERT_EQ(blThere ? 1 : 0, QLIBCFileRemoveSection(path(), "b"));
            if (blThere) {
                expected.erase(entry);
            }
        }
        ASSERT_EQ(expected, contentOf(path())) << "before:\n" << before << "\nafter:\n" << text();
        ASSERT_EQ(commentsOf(before).size(), commentsOf(text()).size()) << "before:\n"
                                                                        << before << "\nafter:\n"
                                                                        << text();
        ASSERT_EQ(Texts{"file.conf"}, names());
    }
}
