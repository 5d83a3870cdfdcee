// What the tests of creation, deletion, clones and share-level operations have in common: a share with snapshots on a
// real volume, and a look at all that is kept for it.
#pragma once

#include <sharesnap/counters.h>
#include <sharesnap/frame.h>
#include <sharesnap/lifecycle.h>
#include <sharesnap/metadata.h>
#include <sharesnap/platform/error.h>
#include <sharesnap/platform/section_file.h>
#include <sharesnap/platform/subvolume.h>

#include <chrono>
#include <cstdlib>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "support/faults.hpp"
#include "support/files.hpp"
#include "support/fixtures.hpp"
#include "support/log_capture.hpp"
#include "support/sandbox.hpp"

namespace lifecycle {

using Names = std::vector<std::string>;
using Pairs = std::map<std::string, std::string>;

class List {
public:
    List() : list_(QLIBCSzListAlloc(512)) {}
    explicit List(const Names &names) : List() {
        for (const std::string &name : names) {
            (void)QLIBCSzListPush(&list_, name.c_str());
        }
    }
    ~List() { QLIBCSzListFree(list_); }
    List(const List &) = delete;
    List &operator=(const List &) = delete;
    [[nodiscard]] QLIBCSZLIST *get() const { return list_; }
    [[nodiscard]] QLIBCSZLIST **address() { return &list_; }
    [[nodiscard]] Names names() const {
        Names names;
        for (int i = 0; i < list_->nItem; ++i) {
            names.emplace_back(QLIBCSzListGet(list_, i));
        }
        return names;
    }

private:
    QLIBCSZLIST *list_;
};

class Hash {
public:
    Hash() : hash_(QLIBCSzHashAlloc(512)) {}
    explicit Hash(const Pairs &pairs) : Hash() {
        for (const auto &pair : pairs) {
            (void)QLIBCSzHashSetValue(&hash_, pair.first.c_str(), pair.second.c_str());
        }
    }
    ~Hash() { QLIBCSzHashFree(hash_); }
    Hash(const Hash &) = delete;
    Hash &operator=(const Hash &) = delete;
    [[nodiscard]] QLIBCSZHASH *get() const { return hash_; }
    [[nodiscard]] QLIBCSZHASH **address() { return &hash_; }
    [[nodiscard]] std::string value(const std::string &key) const {
        const char *value = QLIBCSzHashGetValue(hash_, key.c_str());
        return value != nullptr ? value : "(absent)";
    }

private:
    QLIBCSZHASH *hash_;
};

// A share record made by hand, for shares that no database knows.
struct Record {
    Record(std::string name, std::string path, unsigned int status = 0)
        : name_(std::move(name)), path_(std::move(path)) {
        share.szName = name_.data();
        share.szPath = path_.data();
        share.szDesc = empty_;
        share.szDenyList = empty_;
        share.szRWList = empty_;
        share.szROList = empty_;
        share.uStatus = status;
    }
    Record(const Record &) = delete;
    Record &operator=(const Record &) = delete;
    [[nodiscard]] const QOVASHARE *get() const { return &share; }
    QOVASHARE share{};

private:
    std::string name_;
    std::string path_;
    char empty_[1] = "";
};

inline void setCode(unsigned int code) {
    QLIBCErrSetEx(code, "test.cpp", 1);
}

// A condition that another process brings about. The limit is there for a machine that hangs.
template <class Condition>
bool eventually(Condition condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

// One that writes its arguments and variables to <scratch>/<name>.<phase> and does what the script says before.
inline std::string installPlugin(const std::string &name, const std::string &script, mode_t mode = 0755) {
    const std::string directory = "/etc/sharesnap/plugins/share_snapshot";
    if (!testkit::makeDirectories(directory) || !testkit::writeFile(directory + "/" + name, "#!/bin/sh\n" + script) ||
        chmod((directory + "/" + name).c_str(), mode) != 0) {
        return "the plug-in can't be installed";
    }
    return "";
}

// A plug-in's file appears whole: it is written under another name first.
inline std::string recordingScript(const std::string &name) {
    const std::string file = testkit::Sandbox::scratch() + "/" + name;
    return "env | sort > " + file + ".$1.new\nmv " + file + ".$1.new " + file + ".$1\n";
}

inline std::string recorded(const std::string &name, const std::string &phase) {
    const std::string file = testkit::Sandbox::scratch() + "/" + name + "." + phase;
    return eventually([&] { return testkit::exists(file); }) ? testkit::readFile(file) : "(never written)";
}

// The value of a variable in a plug-in's record.
inline std::string variable(const std::string &record, const std::string &key) {
    const std::string text = "\n" + record;
    const size_t at = text.find("\n" + key + "=");
    if (at == std::string::npos) {
        return "(absent)";
    }
    const size_t begin = at + key.size() + 2;
    return text.substr(begin, text.find('\n', begin) - begin);
}

class Fixture : public testkit::VolumeTest {
protected:
    void SetUp() override {
        VolumeTest::SetUp();
        if (!IsSkipped()) {
            useShare("docs");
        }
    }

    void useShare(const std::string &name) {
        ASSERT_EQ("", testkit::makeShare(name));
        share_ = testkit::getShare(name);
        ASSERT_NE(nullptr, share_);
        share = share_.get();
    }

    // Takes a snapshot at a time of its own.
    std::string take(const Pairs &attributes = {}) {
        const testkit::FixedTime clock(++now_);
        Hash hash(attributes);
        char name[255] = "";
        result = QOVAShareSnapCreate(share, name, sizeof(name), hash.address());
        EXPECT_EQ(0, result) << testkit::logText();
        return name;
    }

    Names takeSome(int count) {
        Names names;
        for (int i = 0; i < count; ++i) {
            names.push_back(take());
        }
        return names;
    }

    // Result and entries of a deletion.
    int remove(const Names &names) {
        const List list(names);
        QLIBCMRESULT *entries = QLIBCMResultAlloc();
        const int outcome = QOVAShareSnapDelete(share, list.get(), &entries);
        codes.clear();
        for (size_t i = 0; i < names.size(); ++i) {
            int code = -1;
            EXPECT_EQ(0, QLIBCMResultGetCoreErrorByIndex(entries, static_cast<int>(i), &code));
            codes.push_back(code);
        }
        QLIBCMResultFree(entries);
        return outcome;
    }

    [[nodiscard]] std::string snapDir() const { return "/vol1/@sharesnap/" + std::string(share->szName); }
    [[nodiscard]] std::string metaPath() const { return "/vol1/@sharesnap/@" + std::string(share->szName) + ".meta"; }
    [[nodiscard]] std::string meta() const { return testkit::readFile(metaPath()); }
    [[nodiscard]] bool stands(const std::string &name) const {
        return QOVABtrfsIsSubVol((snapDir() + "/" + name).c_str()) == 1;
    }

    // Names of the snapshots that stand, sorted.
    [[nodiscard]] Names standing() const {
        Names names;
        for (const std::string &name : testkit::directoryNames(snapDir())) {
            if (stands(name)) {
                names.push_back(name);
            }
        }
        return names;
    }

    // Names of the sections in the order of the file.
    [[nodiscard]] Names sections() const {
        List list;
        (void)QLIBCFileEnumSection(metaPath().c_str(), list.address());
        return list.names();
    }

    // The counter as it is stored; -1 without one.
    [[nodiscard]] int storedCount() const {
        char text[2048] = "";
        const ssize_t length = getxattr(snapDir().c_str(), "user.snapcount", text, sizeof(text) - 1);
        return length > 0 ? std::atoi(text) : -1;
    }

    void storeCount(int count) const {
        const std::string text = std::to_string(count);
        ASSERT_EQ(0, setxattr(snapDir().c_str(), "user.snapcount", text.c_str(), text.size(), 0));
    }

    [[nodiscard]] std::string attribute(const std::string &name, const std::string &key) const {
        char value[1024] = "";
        return QOVAShareSnapAttrGet(share, name.c_str(), key.c_str(), value, sizeof(value)) == 0 ? value : "(absent)";
    }

    const QOVASHARE *share = nullptr;
    int result = 0;
    std::vector<int> codes;
    time_t now_ = 1767323045; // 2026-01-02 03:04:05 UTC

private:
    testkit::SharePointer share_;
};

} // namespace lifecycle
