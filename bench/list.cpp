// Listing: the library against a plain loop that reads the file line by line into a hash.
#include "common/bench.hpp"
#include "common/share.hpp"
#include "support/files.hpp"

#include <sharesnap/metadata.h>
#include <sharesnap/platform/szlist.h>

#include <string>

namespace {

using namespace bench;

size_t libraryList(const QOVASHARE &share, const char *filter) {
    QLIBCSZLIST *names = QLIBCSzListAlloc(1024);
    QOVAShareSnapEnum *chain = nullptr;
    std::string text = filter;
    if (!text.empty()) {
        must(QOVAShareSnapSelectorAdd(&chain, QOVAShareSnapAttrSelector, text.data()) == 0, "a selector");
    }
    must(QOVAShareSnapList(&share, &names, chain) == 0, "QOVAShareSnapList");
    const auto count = static_cast<size_t>(names->nItem);
    QOVAShareSnapEnumFree(chain);
    QLIBCSzListFree(names);
    return count;
}

} // namespace

int main() {
    enterSandbox(512);
    const QOVASHARE &share = makeShare("docs", 0);
    (void)snapshotDirectory(share); // the list lies beside it
    for (const size_t count : {10U, 100U, 1000U, 10000U}) {
        std::string text;
        for (size_t i = 0; i < count; ++i) {
            text += section(snapshotName(static_cast<int>(i)));
        }
        must(testkit::writeFile(listPath(share), text), "the list");
        const auto check = [count](size_t found) { must(found == count, "finding all snapshots"); };
        race(std::to_string(count) + " sections of eight pairs",
             {{"plain loop with a hash", [&] { return timed([&] { check(plainList(listPath(share))); }); }},
              {"library, all", [&] { return timed([&] { check(libraryList(share, "")); }); }},
              {"library, visible ones", [&] { return timed([&] { check(libraryList(share, "hide=false")); }); }}},
             15);
    }
    return 0;
}
