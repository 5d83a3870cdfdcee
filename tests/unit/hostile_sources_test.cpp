// What no source of the library, the platform or the programs may do: start a shell, or a program that is looked up in a
// path that the environment gives.

#include <cctype>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

std::string readSource(const fs::path &path) {
    std::ifstream stream(path);
    std::ostringstream text;
    text << stream.rdbuf();
    return text.str();
}

std::vector<fs::path> sources() {
    std::vector<fs::path> found;
    for (const char *folder : {"lib", "platform", "tools", "include"}) {
        for (const fs::directory_entry &entry :
             fs::recursive_directory_iterator(fs::path(SHARESNAP_SOURCE_DIR) / folder)) {
            const std::string extension = entry.path().extension().string();
            if (entry.is_regular_file() && (extension == ".cpp" || extension == ".h" || extension == ".hpp")) {
                found.push_back(entry.path());
            }
        }
    }
    return found;
}

// A call of exactly that name, with or without blanks in front of the bracket.
bool calls(const std::string &text, const std::string &name) {
    for (size_t at = text.find(name); at != std::string::npos; at = text.find(name, at + 1)) {
        const char before = at == 0 ? ' ' : text[at - 1];
        size_t behind = at + name.size();
        while (behind < text.size() && (text[behind] == ' ' || text[behind] == '\n')) {
            ++behind;
        }
        const bool whole = std::isalnum(static_cast<unsigned char>(before)) == 0 && before != '_';
        // "file system (ext4)" in a comment is no call: there a word stands in front.
        const bool prose = before == ' ' && at >= 2 && std::isalpha(static_cast<unsigned char>(text[at - 2])) != 0 &&
                           text.compare(at >= 7 ? at - 7 : 0, 7, "return ") != 0;
        if (whole && !prose && behind < text.size() && text[behind] == '(') {
            return true;
        }
    }
    return false;
}

} // namespace

TEST(HostileSources, CallsAreToldFromOtherNamesAndFromProse) {
    EXPECT_TRUE(calls("    system(\"ls\");", "system"));
    EXPECT_TRUE(calls("x = std::system (text);", "system"));
    EXPECT_TRUE(calls("return system(text);", "system"));
    EXPECT_TRUE(calls("(void)popen(a, b)", "popen"));
    EXPECT_FALSE(calls("QLIBCPopen(a)", "popen"));
    EXPECT_FALSE(calls("my_system(a)", "system"));
    EXPECT_FALSE(calls("// the file system (of the volume)", "system"));
    EXPECT_FALSE(calls("// systems (two)", "system"));
}

TEST(HostileSources, NothingStartsAShell) {
    const std::vector<fs::path> all = sources();
    ASSERT_LT(100U, all.size());
    for (const fs::path &path : all) {
        const std::string text = readSource(path);
        for (const char *name : {"system", "popen", "wordexp"}) {
            EXPECT_FALSE(calls(text, name)) << path << " calls " << name;
        }
        for (const char *shell : {"/bin/sh", "/bin/bash", "/bin/dash", "\"sh\"", "\"bash\""}) {
            EXPECT_EQ(std::string::npos, text.find(shell)) << path << " names " << shell;
        }
    }
}

// Programs are named by their whole path or opened beforehand.
TEST(HostileSources, NothingIsLookedUpInThePath) {
    for (const fs::path &path : sources()) {
        const std::string text = readSource(path);
        for (const char *name : {"execlp", "execvp", "execvpe", "posix_spawnp"}) {
            EXPECT_FALSE(calls(text, name)) << path << " calls " << name;
        }
    }
}

// Names that can be foretold are links that can be planted.
TEST(HostileSources, NoTemporaryNameCanBeForetold) {
    for (const fs::path &path : sources()) {
        const std::string text = readSource(path);
        for (const char *name : {"mktemp", "tmpnam", "tempnam", "tmpfile"}) {
            EXPECT_FALSE(calls(text, name)) << path << " calls " << name;
        }
    }
}
