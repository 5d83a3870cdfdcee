// Each row of the tables in docs/security.md names tests that stand in the sources.

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

const fs::path kTop = SHARESNAP_SOURCE_DIR;

std::string readFile(const fs::path &path) {
    std::ifstream stream(path);
    std::ostringstream text;
    text << stream.rdbuf();
    return text.str();
}

struct Row {
    std::string line;
    std::vector<std::string> quoted; // what stands in back quotes in the last column
};

std::vector<Row> readRows() {
    static const std::regex quoted("`([^`]+)`");
    std::vector<Row> rows;
    std::istringstream text(readFile(kTop / "docs/security.md"));
    bool inTable = false;
    for (std::string line; std::getline(text, line);) {
        if (line == "| Threat | What happens | Test |") {
            inTable = true;
        } else if (line.rfind("|", 0) != 0) {
            inTable = false;
        } else if (inTable && line.rfind("|---", 0) != 0) {
            Row row{line, {}};
            const size_t end = line.find_last_not_of("| ");
            const std::string cell = line.substr(line.rfind('|', end));
            for (std::sregex_iterator it(cell.begin(), cell.end(), quoted), last; it != last; ++it) {
                row.quoted.push_back((*it)[1]);
            }
            rows.push_back(row);
        }
    }
    return rows;
}

// The tests that a source defines, as "Suite.Test".
const std::set<std::string> &testsOf(const std::string &program) {
    static const std::regex definition("\\b(?:TEST|TEST_F|TEST_P)\\(\\s*(\\w+),\\s*(\\w+)\\s*\\)");
    static std::map<std::string, std::set<std::string>> known;
    const auto found = known.find(program);
    if (found != known.end()) {
        return found->second;
    }
    std::set<std::string> &tests = known[program];
    const std::string text = readFile(kTop / "tests" / (program + "_test.cpp"));
    for (std::sregex_iterator it(text.begin(), text.end(), definition), last; it != last; ++it) {
        tests.insert((*it)[1].str() + "." + (*it)[2].str());
    }
    return tests;
}

bool stands(const std::string &program, const std::string &test) {
    const std::set<std::string> &tests = testsOf(program);
    if (test.size() > 2 && test.compare(test.size() - 2, 2, ".*") == 0) {
        const auto first = tests.lower_bound(test.substr(0, test.size() - 1));
        return first != tests.end() && first->compare(0, test.size() - 1, test, 0, test.size() - 1) == 0;
    }
    return tests.count(test) != 0;
}

} // namespace

TEST(SecurityTable, HasARowForEachThreat) {
    EXPECT_LT(50U, readRows().size());
}

// "kind/program: Suite.Test"; a name without a program is of the program named before it in the row. A row may name a
// fuzzer, or the source that rules the threat out.
TEST(SecurityTable, NamesTestsThatStandInTheSources) {
    for (const Row &row : readRows()) {
        EXPECT_FALSE(row.quoted.empty()) << "no test in: " << row.line;
        std::string program;
        for (const std::string &name : row.quoted) {
            const size_t colon = name.find(": ");
            if (colon != std::string::npos) {
                program = name.substr(0, colon);
            }
            const std::string test = colon == std::string::npos ? name : name.substr(colon + 2);
            if (name.rfind("fuzz/", 0) == 0) {
                EXPECT_TRUE(fs::is_regular_file(kTop / "tests" / (name + "_fuzz.cpp"))) << name << " in: " << row.line;
            } else if (name.find('/') != std::string::npos && colon == std::string::npos) {
                EXPECT_TRUE(fs::is_regular_file(kTop / name)) << name << " in: " << row.line;
            } else {
                EXPECT_TRUE(stands(program, test)) << program << ": " << test << " in: " << row.line;
            }
        }
    }
}
