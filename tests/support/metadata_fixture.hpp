// What tests of the metadata begin with: the share docs, its metadata file as a text, lists and hashes as C++ values.
//
// How to use it
//   class Attr : public testkit::MetadataTest {};
//   TEST_F(Attr, ...) {
//       writeMeta("[a]\nhide=false\n");
//       EXPECT_EQ(0, QOVAShareSnapAttrSet(docs(), "a", "desc", "text"));
//       EXPECT_EQ("[a]\nhide=false\ndesc=text\n", meta());
//   }
#pragma once

#include <sharesnap/metadata.h>
#include <sharesnap/platform/szhash.h>
#include <sharesnap/platform/szlist.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "fixtures.hpp"

namespace testkit {

// A string hash of the platform.
class Pairs {
public:
    Pairs(std::initializer_list<std::pair<std::string, std::string>> pairs = {});
    Pairs(const Pairs &) = delete;
    Pairs &operator=(const Pairs &) = delete;
    ~Pairs() { QLIBCSzHashFree(hash_); }

    void set(const std::string &key, const std::string &value);
    [[nodiscard]] QLIBCSZHASH *get() const { return hash_; }
    [[nodiscard]] QLIBCSZHASH **address() { return &hash_; }
    [[nodiscard]] std::map<std::string, std::string> all() const;

private:
    QLIBCSZHASH *hash_;
};

// A string list of the platform.
class Names {
public:
    Names(std::initializer_list<std::string> items = {});
    Names(const Names &) = delete;
    Names &operator=(const Names &) = delete;
    ~Names() { QLIBCSzListFree(list_); }

    [[nodiscard]] QLIBCSZLIST *get() const { return list_; }
    [[nodiscard]] QLIBCSZLIST **address() { return &list_; }
    [[nodiscard]] std::vector<std::string> all() const;

private:
    QLIBCSZLIST *list_;
};

// A chain of selectors, freed with the variable.
class Chain {
public:
    Chain() = default;
    Chain(const Chain &) = delete;
    Chain &operator=(const Chain &) = delete;
    ~Chain() { QOVAShareSnapEnumFree(first_); }

    // The texts live as long as the chain.
    [[nodiscard]] int add(QOVAShareSnapSelector selector, const std::string &data);
    [[nodiscard]] int addPointer(QOVAShareSnapSelector selector, void *data);
    [[nodiscard]] const QOVAShareSnapEnum *get() const { return first_; }

private:
    QOVAShareSnapEnum *first_ = nullptr;
    std::vector<std::unique_ptr<std::string>> texts_;
};

// The share docs on /vol1, with @sharesnap but without a metadata file.
class MetadataTest : public AnyVolumeTest {
protected:
    void SetUp() override;

    static constexpr const char *top = "/vol1/@sharesnap";
    static constexpr const char *metaPath = "/vol1/@sharesnap/@docs.meta";

    [[nodiscard]] const QOVASHARE *docs() const { return docs_.get(); }
    [[nodiscard]] static std::string meta();
    static void writeMeta(const std::string &text);

    // The names that QOVAShareSnapList gives, which must succeed.
    [[nodiscard]] std::vector<std::string> listed(const QOVAShareSnapEnum *chain = nullptr) const;

    // A read-only snapshot of docs on the volume, without a section.
    void takeSubvolume(const std::string &name, bool hidden = false) const;
    [[nodiscard]] static std::string subvolume(const std::string &name) { return std::string(top) + "/docs/" + name; }

    // The hidden mark of a snapshot as the platform tells it.
    [[nodiscard]] static std::string markOf(const std::string &name);

private:
    SharePointer docs_;
};

} // namespace testkit
