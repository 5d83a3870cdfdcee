// Owners of the platform's containers, as the tests of the core library use them.
#pragma once

#include <sharesnap/platform/szhash.h>
#include <sharesnap/platform/szlist.h>

#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

namespace core {

using Texts = std::vector<std::string>;

// The owner keeps the address that adding functions may change.
class List {
public:
    explicit List(size_t cbInit = 512) : m_pList(QLIBCSzListAlloc(cbInit)) {}
    explicit List(QLIBCSZLIST *pList) : m_pList(pList) {}
    List(std::initializer_list<const char *> items) : List() {
        for (const char *szItem : items) {
            EXPECT_GT(QLIBCSzListPush(&m_pList, szItem), 0);
        }
    }
    List(const List &) = delete;
    List &operator=(const List &) = delete;
    ~List() { QLIBCSzListFree(m_pList); }
    QLIBCSZLIST **operator&() { return &m_pList; }
    [[nodiscard]] QLIBCSZLIST *get() const { return m_pList; }
    [[nodiscard]] std::vector<std::string> items() const {
        std::vector<std::string> all;
        for (int i = 0; i < m_pList->nItem; ++i) {
            all.emplace_back(QLIBCSzListGet(m_pList, i));
        }
        return all;
    }

private:
    QLIBCSZLIST *m_pList;
};

class Hash {
public:
    explicit Hash(size_t cbInit = 1024) : m_pHash(QLIBCSzHashAlloc(cbInit)) {}
    Hash(std::initializer_list<std::pair<const char *, const char *>> pairs) : Hash() {
        for (const auto &[szKey, szValue] : pairs) {
            EXPECT_EQ(0, QLIBCSzHashSetValue(&m_pHash, szKey, szValue));
        }
    }
    Hash(const Hash &) = delete;
    Hash &operator=(const Hash &) = delete;
    ~Hash() { QLIBCSzHashFree(m_pHash); }
    QLIBCSZHASH **operator&() { return &m_pHash; }
    [[nodiscard]] QLIBCSZHASH *get() const { return m_pHash; }
    [[nodiscard]] std::string at(const std::string &key) const {
        const char *szValue = QLIBCSzHashGetValue(m_pHash, key.c_str());
        return szValue != nullptr ? szValue : "(absent)";
    }
    [[nodiscard]] std::vector<std::string> keys() const {
        List list;
        EXPECT_EQ(0, QLIBCSzHashEnumKey(m_pHash, &list));
        return list.items();
    }

private:
    QLIBCSZHASH *m_pHash;
};

} // namespace core
