// Names of nodes, their hash and order, and the node classes.
#include <syslog.h>

#include <charconv>
#include <cstring>
#include <functional>
#include <ostream>
#include <string_view>
#include <tuple>
#include <utility>

#include "frame/log.h"
#include <sharesnap/snaptree.hpp>

namespace QovaSnapTree {

namespace {

constexpr std::size_t kTypeDigits = 11; // of a 32-bit number, with its sign

char *AppendType(char *p, std::int32_t type) {
    if (type >= 0 && type < 10) {
        *p = static_cast<char>('0' + type);
        return p + 1;
    }
    return std::to_chars(p, p + kTypeDigits, type).ptr;
}

char *AppendText(char *p, const std::string &text) {
    if (!text.empty()) { // as a rule two of the three texts of a name are
        std::memcpy(p, text.data(), text.size());
    }
    return p + text.size();
}

// Each comparison of two names hashes both: the joined text stands in a stack buffer as a rule.
std::uint64_t HashOf(const nodeName &name) {
    char szJoined[512];
    std::string longer;
    char *joined = szJoined;
    const std::size_t cbMax = kTypeDigits + name.objectName.size() + name.snapName.size() + name.cloneName.size();
    if (cbMax > sizeof(szJoined)) {
        longer.resize(cbMax);
        joined = longer.data();
    }
    char *p = AppendType(joined, name.type);
    p = AppendText(p, name.objectName);
    p = AppendText(p, name.snapName);
    p = AppendText(p, name.cloneName);
    return std::hash<std::string_view>()({joined, static_cast<std::size_t>(p - joined)});
}

} // namespace

// A fixed type, because the root's parent name is written to the file as it stands.
nodeName::nodeName() : type(NODE_ROOT) {}
nodeName::nodeName(const nodeName &other) = default;
nodeName &nodeName::operator=(const nodeName &other) = default;
nodeName &nodeName::operator=(nodeName &&other) noexcept = default;
nodeName::~nodeName() = default;

std::uint64_t NodeNameHasher::operator()(const nodeName &name) const {
    return HashOf(name);
}

bool NodeNameComparator::operator()(const nodeName &a, const nodeName &b) const {
    return HashOf(a) > HashOf(b);
}

bool NodeNameComparator::operator()(const nodeName &a, std::uint64_t hash) const {
    return HashOf(a) > hash;
}

bool NodeNameComparator::operator()(std::uint64_t hash, const nodeName &b) const {
    return hash > HashOf(b);
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
    const auto found = childs.find(HashOf(child));
    if (found != childs.end()) {
        childs.erase(found);
    }
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

SnapshotNode *ObjectNode::newSnapshot(const nodeName &snap, const nodeName &parent) {
    const std::uint64_t hash = HashOf(snap);
    const auto place = snapshots.lower_bound(hash);
    if (place != snapshots.end() && !snapshots.key_comp()(hash, place->first)) {
        return nullptr;
    }
    return &snapshots
                .emplace_hint(place, std::piecewise_construct, std::forward_as_tuple(snap),
                              std::forward_as_tuple(snap, parent))
                ->second;
}

void ObjectNode::deleteSnapshot(const nodeName &snap) {
    snapshots.erase(snap);
}

SnapshotNode *ObjectNode::getSnapshot(const nodeName &snap) const {
    const auto found = snapshots.find(HashOf(snap));
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
