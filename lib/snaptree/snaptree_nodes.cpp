// Names of nodes, their hash and order, and the node classes.
#include <syslog.h>

#include <charconv>
#include <cstring>
#include <functional>
#include <ostream>
#include <string_view>

#include "frame/log.h"
#include <sharesnap/snaptree.hpp>

namespace QovaSnapTree {

namespace {

// The joined text of a name, in a stack buffer as a rule: every comparison of two names hashes both.
class JoinedName {
public:
    explicit JoinedName(const nodeName &name) {
        char szType[16];
        std::size_t cbType = 1;
        if (name.type >= 0 && name.type < 10) {
            szType[0] = static_cast<char>('0' + name.type);
        } else {
            const std::to_chars_result end = std::to_chars(szType, szType + sizeof(szType), name.type);
            cbType = static_cast<std::size_t>(end.ptr - szType);
        }
        cb_ = cbType + name.objectName.size() + name.snapName.size() + name.cloneName.size();
        char *p = buffer_;
        if (cb_ > sizeof(buffer_)) {
            heap_.resize(cb_);
            p = heap_.data();
        }
        p_ = p;
        std::memcpy(p, szType, cbType);
        p += cbType;
        for (const std::string *text : {&name.objectName, &name.snapName, &name.cloneName}) {
            if (!text->empty()) {
                std::memcpy(p, text->data(), text->size());
                p += text->size();
            }
        }
    }
    JoinedName(const JoinedName &) = delete;
    JoinedName &operator=(const JoinedName &) = delete;
    [[nodiscard]] std::string_view view() const { return {p_, cb_}; }

private:
    char buffer_[512];
    std::string heap_;
    const char *p_ = nullptr;
    std::size_t cb_ = 0;
};

} // namespace

// A fixed type, because the root's parent name is written to the file as it stands.
nodeName::nodeName() : type(NODE_ROOT) {}
nodeName::nodeName(const nodeName &other) = default;
nodeName &nodeName::operator=(const nodeName &other) = default;
nodeName &nodeName::operator=(nodeName &&other) noexcept = default;
nodeName::~nodeName() = default;

std::uint64_t NodeNameHasher::operator()(const nodeName &name) const {
    return std::hash<std::string_view>()(JoinedName(name).view());
}

bool NodeNameComparator::operator()(const nodeName &a, const nodeName &b) const {
    const NodeNameHasher hasher;
    return hasher(a) > hasher(b);
}

std::ostream &operator<<(std::ostream &out, const nodeName &name) {
    switch (name.type) {
    case NODE_ROOT:
        return out << "root";
    case NODE_OBJECT:
        return out << "object/" << name.objectName;
    case NODE_CLONE_POINT:
        return out << "clone/" << name.cloneName;
    default:
        return out << "snap/" << name.objectName << "/" << name.snapName;
    }
}

BaseNode::BaseNode() = default;
BaseNode::BaseNode(const nodeName &name, const nodeName &parent) : selfName(name), parentName(parent) {}
BaseNode::BaseNode(const BaseNode &other) = default;
BaseNode &BaseNode::operator=(const BaseNode &other) = default;
BaseNode::~BaseNode() = default;

const nodeName &BaseNode::name() const {
    return selfName;
}

const nodeName &BaseNode::parent() const {
    return parentName;
}

std::size_t BaseNode::getChildSize() const {
    return childs.size();
}

void BaseNode::changeName(const nodeName &name) {
    selfName = name;
}

void BaseNode::changeParent(const nodeName &parent) {
    parentName = parent;
}

void BaseNode::addChild(const nodeName &child) {
    childs.insert(child);
}

void BaseNode::deleteChild(const nodeName &child) {
    childs.erase(child);
}

std::list<nodeName> BaseNode::listChilds() const {
    return {childs.begin(), childs.end()};
}

void BaseNode::addInfo(const std::string &key, const std::string &value) {
    infos[key] = value;
}

void BaseNode::getInfo(const std::string &key, std::string &value) const {
    const auto found = infos.find(key);
    if (found == infos.end()) {
        value.clear();
    } else {
        value = found->second;
    }
}

SnapshotNode::SnapshotNode() = default;
SnapshotNode::SnapshotNode(const nodeName &name, const nodeName &parent) : BaseNode(name, parent) {}

ClonePointNode::ClonePointNode() = default;
ClonePointNode::ClonePointNode(const nodeName &name, const nodeName &parent) : BaseNode(name, parent) {}

ObjectNode::ObjectNode() = default;
ObjectNode::ObjectNode(const nodeName &name, const nodeName &parent) : BaseNode(name, parent) {}

void ObjectNode::addChild(const nodeName & /*child*/) {
    SNAP_LOG(LOG_ERR, "Cannot add child in object node");
}

void ObjectNode::deleteChild(const nodeName & /*child*/) {
    SNAP_LOG(LOG_ERR, "Cannot delete child in object node");
}

SnapshotNode *ObjectNode::addSnapshot(const SnapshotNode &node) {
    SnapshotNode &stored = snapshots[node.name()];
    stored = node;
    return &stored;
}

void ObjectNode::deleteSnapshot(const nodeName &snap) {
    snapshots.erase(snap);
}

SnapshotNode *ObjectNode::getSnapshot(const nodeName &snap) const {
    const auto found = snapshots.find(snap);
    // A const look-up that gives a writable node is the interface; the map itself isn't changed by it.
    return found == snapshots.end() ? nullptr : const_cast<SnapshotNode *>(&found->second);
}

std::list<nodeName> ObjectNode::listSnapshots() const {
    std::list<nodeName> names;
    for (const auto &entry : snapshots) {
        names.push_back(entry.first);
    }
    return names;
}

} // namespace QovaSnapTree
