// The simulated storage core keeps the contract that the real one keeps, and has the same functions.
#include "support/storage_contract.hpp"

#include "support/log_capture.hpp"

#include <sharesnap/sharesnap.h>

#include <dlfcn.h>
#include <sstream>

TESTKIT_RUNS_SIMULATED;

namespace {

using Simulated = testkit::SimulatedVolumeTest;

TEST_F(Simulated, IsInThePlaceOfTheRealOne) {
    EXPECT_TRUE(testkit::Sandbox::simulated());
    Dl_info info = {};
    ASSERT_NE(0, dladdr(dlsym(RTLD_NEXT, "QOVABtrfsIsSubVol"), &info));
    EXPECT_NE(std::string::npos, std::string(info.dli_fname).find(SHARESNAP_SIMULATED_DIR)) << info.dli_fname;
}

TEST_F(Simulated, DeletedSubvolumesAreBeingCleanedForEver) {
    ASSERT_EQ(0, QOVABtrfsCreateSubVol("/vol1/docs"));
    ASSERT_EQ(0, QOVABtrfsReadOnlySnapshotTake("/vol1/docs", "/vol1/one"));
    ASSERT_EQ(0, QOVABtrfsReadOnlySnapshotTake("/vol1/docs", "/vol1/two"));
    ASSERT_EQ(0, QOVABtrfsDeletedSubvolAdd("/vol1/docs", "/vol1/one"));
    ASSERT_EQ(0, QOVABtrfsDeletedSubvolAdd("/vol1/docs", "/vol1/two"));
    ASSERT_EQ(0, QOVABtrfsDeleteSubvolFaultTolerant("/vol1/one"));
    QLIBCSZHASH *hash = QLIBCSzHashAlloc(1024);
    EXPECT_EQ(0, QOVABtrfsDeletedSubvolGet("/vol1/docs", &hash));
    EXPECT_EQ(1, QLIBCSzHashPairNum(hash)) << "the other one still stands";
    QLIBCSzHashFree(hash);
}

TEST_F(Simulated, CarriesTheLibrary) {
    ASSERT_EQ("", testkit::makeShare("docs"));
    ASSERT_TRUE(testkit::writeFile("/vol1/docs/file", "before"));
    const testkit::SharePointer share = testkit::getShare("docs");
    ASSERT_NE(nullptr, share);
    char name[255] = "";
    QLIBCSZHASH *attributes = QLIBCSzHashAlloc(1024);
    EXPECT_EQ(0, QOVAShareSnapCreate(share.get(), name, sizeof(name), &attributes)) << testkit::logText();
    QLIBCSzHashFree(attributes);
    EXPECT_EQ("before", testkit::readFile(std::string("/vol1/@sharesnap/docs/") + name + "/file"));
    int count = -1;
    EXPECT_LE(0, QOVAShareSnapGetSnapCount(share.get(), &count, 0));
    EXPECT_EQ(1, count);
}

TEST_F(Simulated, HasTheFunctionsOfTheRealOneAndNoOthers) {
    const std::string realPath = std::string(SHARESNAP_BUILD_DIR) + "/lib/libqovastoragecore.so.7";
    const testkit::ProcessResult real = testkit::runProcess({"nm", "-D", "--defined-only", "-P", realPath});
    const testkit::ProcessResult own = testkit::runProcess(
        {"nm", "-D", "--defined-only", "-P", std::string(SHARESNAP_SIMULATED_DIR) + "/libqovastoragecore.so.7"});
    if (real.exitStatus != 0 || own.exitStatus != 0) {
        GTEST_SKIP() << "no nm here: " << real.output;
    }
    // C functions only: what templates leave behind is mangled.
    const auto functions = [](const std::string &text) {
        std::vector<std::string> names;
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
            const std::string name = line.substr(0, line.find(' '));
            if (name.compare(0, 2, "_Z") != 0 && line.find(" T ") != std::string::npos) {
                names.push_back(name);
            }
        }
        return names;
    };
    EXPECT_GT(functions(real.output).size(), 15U);
    EXPECT_EQ(functions(real.output), functions(own.output));
}

} // namespace
