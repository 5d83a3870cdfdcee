#include "metadata_fixture.hpp"

#include "files.hpp"

#include <sharesnap/frame.h>
#include <sharesnap/platform/subvolume.h>

#include <cstdlib>

namespace testkit {

Pairs::Pairs(std::initializer_list<std::pair<std::string, std::string>> pairs) : hash_(QLIBCSzHashAlloc(1024)) {
    for (const auto &pair : pairs) {
        set(pair.first, pair.second);
    }
}

void Pairs::set(const std::string &key, const std::string &value) {
    if (QLIBCSzHashSetValue(&hash_, key.c_str(), value.c_str()) != 0) {
        std::abort();
    }
}

std::map<std::string, std::string> Pairs::all() const {
    Names keys;
    if (QLIBCSzHashEnumKey(hash_, keys.address()) != 0) {
        std::abort();
    }
    std::map<std::string, std::string> pairs;
    for (const std::string &key : keys.all()) {
        pairs[key] = QLIBCSzHashGetValue(hash_, key.c_str());
    }
    return pairs;
}

Names::Names(std::initializer_list<std::string> items) : list_(QLIBCSzListAlloc(512)) {
    for (const std::string &item : items) {
        if (QLIBCSzListPush(&list_, item.c_str()) < 0) {
            std::abort();
        }
    }
}

std::vector<std::string> Names::all() const {
    std::vector<std::string> items;
    for (int i = 0; i < list_->nItem; ++i) {
        items.emplace_back(QLIBCSzListGet(list_, i));
    }
    return items;
}

int Chain::add(QOVAShareSnapSelector selector, const std::string &data) {
    texts_.push_back(std::make_unique<std::string>(data));
    return addPointer(selector, texts_.back()->data());
}

int Chain::addPointer(QOVAShareSnapSelector selector, void *data) {
    return QOVAShareSnapSelectorAdd(&first_, selector, data);
}

void MetadataTest::SetUp() {
    AnyVolumeTest::SetUp();
    if (IsSkipped()) {
        return;
    }
    ASSERT_EQ("", makeShare("docs"));
    docs_ = getShare("docs");
    ASSERT_NE(nullptr, docs_);
    char path[4096];
    ASSERT_EQ(1, SnapGetOrCreateSubvolume(docs(), "@sharesnap", path, sizeof(path), 1));
}

std::string MetadataTest::meta() {
    return readFile(metaPath);
}

void MetadataTest::writeMeta(const std::string &text) {
    ASSERT_TRUE(writeFile(metaPath, text));
}

std::vector<std::string> MetadataTest::listed(const QOVAShareSnapEnum *chain) const {
    Names names;
    EXPECT_EQ(0, QOVAShareSnapList(docs(), names.address(), chain));
    return names.all();
}

void MetadataTest::takeSubvolume(const std::string &name, bool hidden) const {
    char path[4096];
    ASSERT_EQ(1, QOVAShareSnapGetOrCreateSnapDir(docs(), path, sizeof(path), 1));
    ASSERT_EQ(0, QOVABtrfsReadOnlySnapshotTake("/vol1/docs", subvolume(name).c_str()));
    ASSERT_EQ(0, QOVABtrfsSubvolHideAttrSet(subvolume(name).c_str(), hidden ? 1 : 0));
}

std::string MetadataTest::markOf(const std::string &name) {
    Pairs facts;
    if (QOVASnapFillSubvolInfoWithPath(subvolume(name).c_str(), facts.address()) != 0) {
        return "unknown";
    }
    return facts.all()["hide"];
}

} // namespace testkit
