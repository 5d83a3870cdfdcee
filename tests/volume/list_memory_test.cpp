// A listing goes over the metadata file once, section by section: it holds one section, not the file.
#include <sharesnap/frame.h>
#include <sharesnap/metadata.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <gtest/gtest.h>
#include <string>

#include "support/files.hpp"
#include "support/fixtures.hpp"

#if defined(__SANITIZE_ADDRESS__)
#define SHARESNAP_OWN_MEMORY 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define SHARESNAP_OWN_MEMORY 0
#endif
#endif
#ifndef SHARESNAP_OWN_MEMORY
#define SHARESNAP_OWN_MEMORY 1
#endif

namespace {

constexpr int kSections = 1024;
constexpr int kPairs = 64;
constexpr size_t kValue = 500;
constexpr long kFileKiB = long{kSections} * kPairs * static_cast<long>(kValue) / 1024;

class ListMemory : public testkit::DocsVolumeTest {
protected:
    void SetUp() override {
        DocsVolumeTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        char path[4096];
        ASSERT_EQ(1, QOVAShareSnapGetOrCreateSnapDir(share_.get(), path, sizeof(path), 1));
        std::ofstream out("/vol1/@sharesnap/@docs.meta");
        const std::string value(kValue, 'v');
        for (int section = 0; section < kSections; ++section) {
            out << "[snapshot" << section << "]\n";
            for (int pair = 0; pair < kPairs; ++pair) {
                out << "key" << pair << "=" << value << "\n";
            }
        }
        ASSERT_TRUE(out.flush().good());
    }

    // 0 when the listing was whole and took less than half of the file's size.
    int listInLittleMemory() {
        rusage before{};
        (void)getrusage(RUSAGE_SELF, &before);
        QLIBCSZLIST *list = QLIBCSzListAlloc(1024);
        if (QOVAShareSnapList(share_.get(), &list, nullptr) != 0 || list->nItem != kSections) {
            return 1;
        }
        rusage after{};
        (void)getrusage(RUSAGE_SELF, &after);
        QLIBCSzListFree(list);
        return after.ru_maxrss - before.ru_maxrss < kFileKiB / 2 ? 0 : 2;
    }
};

TEST_F(ListMemory, IsFarBelowTheSizeOfTheFile) {
    const pid_t child = fork();
    ASSERT_LE(0, child);
    if (child == 0) {
        const int result = listInLittleMemory();
        _exit(SHARESNAP_OWN_MEMORY == 1 || result == 1 ? result : 0);
    }
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
}

} // namespace
