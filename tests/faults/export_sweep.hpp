// Sweeps over single exported functions: each call that one makes to the platform or to the C library fails once. What
// the function gives for that is written down call by call; a failure that nobody wrote down must give -1 with the code
// of the failed call.
//
//   sweep({"QOVAShareSnapConfList", 1, {{"stat", {0}},              // a file that can't be seen counts as absent
//                                       {"mkdir 1", {-1, 0x0C00}},  // the first call alone
//                                       {"QLIBCFileUnlockByFile", {1}}}},
//         [&] { state before each run }, [&] { return QOVAShareSnapConfList(...); },
//         [&](const testkit::FaultPoint &point, int result) { what stands afterwards });
#pragma once

#include <sharesnap/platform/error.h>

#include <cerrno>
#include <functional>
#include <gtest/gtest.h>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "support/faults.hpp"
#include "support/log_capture.hpp"

namespace faults {

// Where a failure has no code of its own, and what an earlier call may have left stands.
constexpr unsigned int kAnyCode = 1;

// What a function gives although, or because, a call of it failed.
struct Outcome {
    int result = -1;
    // In the register. Without one: any when the failure was borne, otherwise that of the failed call.
    std::optional<unsigned int> code = std::nullopt;
};

using Outcomes = std::map<std::string, Outcome>;

// The outcomes of both; the second ones count where both have one.
inline Outcomes with(Outcomes outcomes, const Outcomes &more) {
    for (const auto &one : more) {
        outcomes[one.first] = one.second;
    }
    return outcomes;
}

// The same result for the failure of each of these functions.
inline Outcomes borne(int result, std::initializer_list<const char *> names) {
    Outcomes outcomes;
    for (const char *name : names) {
        outcomes[name] = {result};
    }
    return outcomes;
}

struct Export {
    std::string function;
    int done = 0; // its result without a failure
    Outcomes outcomes = {};
    std::vector<std::string> makes = {}; // beginnings of paths that may come into being
    int error = 0;                       // errno of the failures; 0 for the table's own
    std::vector<std::string> only = {};  // the functions that fail; empty for all
};

using Prepare = std::function<void()>;
using Operation = std::function<int()>;
using Truth = std::function<void(const testkit::FaultPoint &, int)>;

// One name for the functions that a compiler or a build chooses among.
inline std::string plainName(const std::string &symbol) {
    static const std::map<std::string, std::string> names = {
        {"__getdelim", "getdelim"}, {"fwrite", "fprintf"}, {"fputs", "fprintf"}, {"fputc", "fprintf"},
        {"putc", "fprintf"},        {"calloc", "malloc"},  {"realloc", "malloc"}};
    const auto found = names.find(symbol);
    if (found != names.end()) {
        return found->second;
    }
    const bool wide = symbol.size() > 2 && symbol.compare(symbol.size() - 2, 2, "64") == 0;
    return wide ? symbol.substr(0, symbol.size() - 2) : symbol;
}

inline Outcome outcomeOf(const Export &exported, const testkit::FaultPoint &point) {
    const std::string name = plainName(point.symbol);
    for (const std::string &key : {name + " " + std::to_string(point.index), name}) {
        const auto found = exported.outcomes.find(key);
        if (found != exported.outcomes.end()) {
            return found->second;
        }
    }
    return {};
}

inline void checkOutcome(const Export &exported, const testkit::FaultPoint &point, int result) {
    const Outcome wanted = outcomeOf(exported, point);
    EXPECT_EQ(wanted.result, result);
    if (wanted.code) {
        EXPECT_TRUE(*wanted.code == kAnyCode || *wanted.code == QLIBCErrGet()) << std::hex << QLIBCErrGet();
    } else if (wanted.result != exported.done && wanted.result < 0) {
        EXPECT_NE(0U, point.code) << "the code of this failure isn't written down";
        EXPECT_EQ(point.code, QLIBCErrGet());
    }
}

// For functions with many calls: the codes that a failure can end in, by the function that fails; an empty set for any.
using Codes = std::map<std::string, std::set<unsigned int>>;

// The code that is written down, or that of the failed call.
inline testing::AssertionResult isCodeOf(const Codes &codes, const testkit::FaultPoint &point, unsigned int code) {
    const auto found = codes.find(plainName(point.symbol));
    const bool right = found == codes.end() ? code != 0 && code == point.code
                                            : found->second.empty() || found->second.count(code) == 1;
    return (right ? testing::AssertionSuccess() : testing::AssertionFailure()) << "code 0x" << std::hex << code;
}

// Without what the function makes by design: lock files, and what the sweep names.
inline std::string unexpected(const Export &exported, const std::string &left) {
    std::vector<std::string> expected = exported.makes;
    expected.emplace_back("/run/lock/sharesnap");
    expected.emplace_back("/run/sharesnap");
    std::istringstream lines(left);
    std::string rest;
    for (std::string line; std::getline(lines, line);) {
        bool byDesign = false;
        for (const std::string &beginning : expected) {
            byDesign = byDesign || line.find("left over: file " + beginning) == 0;
        }
        rest += byDesign ? "" : line + "\n";
    }
    return rest;
}

// A function that failed to give something back did give it back: only what it can't remove or wait for stays.
inline bool leavesBehind(const testkit::FaultPoint &point) {
    return point.leavesBehind() && point.symbol != "QLIBCFileUnlockByFile";
}

inline size_t sweep(const Export &exported, const Prepare &prepare, const Operation &operation,
                    const Truth &truth = {}) {
    SCOPED_TRACE(exported.function);
    int result = 0;
    std::unique_ptr<testkit::Leftovers> before;
    testkit::Sweep run;
    run.function = exported.function;
    run.error = exported.error;
    run.only = exported.only;
    run.prepare = [&] {
        if (prepare) {
            prepare();
        }
        testkit::logClear();
        before = std::make_unique<testkit::Leftovers>(
            std::vector<std::string>{"/vol1", "/usr/qova/etc/sharesnap", "/run/sharesnap", "/etc/sharesnap"});
        QLIBCErrSetEx(0, "", 0);
        errno = 0;
    };
    run.operation = [&] { result = operation(); };
    run.check = [&](const testkit::FaultPoint &point) {
        checkOutcome(exported, point, result);
        if (!leavesBehind(point)) {
            EXPECT_EQ("", unexpected(exported, before->compare()));
        }
        if (truth) {
            truth(point, result);
        }
    };
    const size_t points = run.run();
    EXPECT_GT(points, 0U);
    EXPECT_EQ(exported.done, result) << "without a failure";
    return points;
}

} // namespace faults
