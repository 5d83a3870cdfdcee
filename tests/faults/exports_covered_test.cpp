// Every exported function whose calls can fail is swept.
#include <algorithm>
#include <gtest/gtest.h>
#include <iterator>
#include <set>
#include <sstream>
#include <string>

#include "support/files.hpp"

namespace {

const std::string kRoot = SHARESNAP_SOURCE_DIR;

// What calls nothing that can fail, and why.
const std::set<std::string> kNothingToFail = {
    "BlackList",                    // a variable
    "QOVAShareSnapAttrSelector",    // looks at texts
    "QOVAShareSnapBlackList",       // asks for the location, which every path has
    "QOVAShareSnapCommonSelector",  // looks at texts
    "QOVAShareSnapEnumFree",        // gives memory back
    "QOVAShareSnapProcessSelector", // calls selectors alone
    "QOVAShareSnapTimeGet",         // looks at a text
    "QOVAShareSnapTimeSelector",    // looks at texts
    "SnapSelectorCheck",            // looks at a text
};

// What a test fails by the names of its calls, since parent and child run side by side.
const std::set<std::string> kFailedByName = {"ShareSnapTimeLimitFork"};

std::set<std::string> exported() {
    std::set<std::string> names;
    std::istringstream lines(testkit::readFile(kRoot + "/lib/exports.txt"));
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line[0] != '#') {
            names.insert(line);
        }
    }
    return names;
}

// A sweep names its function, in a text of its own.
std::set<std::string> namedBySweeps(const std::set<std::string> &all) {
    std::string sources;
    for (const std::string &name : testkit::directoryNames(kRoot + "/tests/faults")) {
        if (name != "exports_covered_test.cpp") {
            sources += testkit::readFile(kRoot + "/tests/faults/" + name);
        }
    }
    std::set<std::string> named;
    std::copy_if(all.begin(), all.end(), std::inserter(named, named.end()),
                 [&sources](const std::string &name) { return sources.find("\"" + name + "\"") != std::string::npos; });
    return named;
}

TEST(Sweeps, CoverEveryExportedFunction) {
    const std::set<std::string> all = exported();
    ASSERT_GT(all.size(), 80U);
    const std::set<std::string> swept = namedBySweeps(all);
    for (const std::string &name : all) {
        const size_t places = swept.count(name) + kNothingToFail.count(name) + kFailedByName.count(name);
        EXPECT_EQ(1U, places) << name;
    }
    for (const std::set<std::string> *names : {&kNothingToFail, &kFailedByName}) {
        for (const std::string &name : *names) {
            EXPECT_EQ(1U, all.count(name)) << name << " isn't exported";
        }
    }
}

} // namespace
