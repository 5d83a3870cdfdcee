// Listing: the library against a plain loop that reads the file line by line into a hash.
#include "common/bench.hpp"
#include "common/share.hpp"
#include "support/files.hpp"

#include <sharesnap/metadata.h>
#include <sharesnap/platform/szlist.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

using namespace bench;

size_t plainLoop(const std::string &path) {
    std::vector<std::string> names;
    std::unordered_map<std::string, std::string> pairs;
    FILE *file = std::fopen(path.c_str(), "re");
    must(file != nullptr, path);
    char *line = nullptr;
    size_t capacity = 0;
    ssize_t length = 0;
    while ((length = getdelim(&line, &capacity, '\n', file)) > 0) {
        const std::string text(line, static_cast<size_t>(length - 1));
        const size_t equals = text.find('=');
        if (text[0] == '[') {
            names.push_back(text.substr(1, text.size() - 2));
            pairs.clear();
        } else if (equals != std::string::npos) {
            pairs[text.substr(0, equals)] = text.substr(equals + 1);
        }
    }
    std::free(line);
    (void)std::fclose(file); // it was only read
    return names.size();
}

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
             {{"plain loop with a hash", [&] { return timed([&] { check(plainLoop(listPath(share))); }); }},
              {"library, all", [&] { return timed([&] { check(libraryList(share, "")); }); }},
              {"library, visible ones", [&] { return timed([&] { check(libraryList(share, "hide=false")); }); }}},
             15);
    }
    return 0;
}
