// Printing of the tree, a line a node.
#include <ostream>
#include <unordered_set>

#include <sharesnap/snaptree.hpp>

namespace QovaSnapTree {

namespace {

constexpr std::size_t kIndent = 2;

void PrintLine(std::ofstream &out, const std::string &prefix, const nodeName &name) {
    out << prefix << name << std::endl;
}

// One node whose children are still to be printed.
struct PrintFrame {
    explicit PrintFrame(const BaseNode &node) : children(node.listChilds()) {}
    std::list<nodeName> children;
};

} // namespace

// On a stack of its own instead of calls within calls, so that a long chain of snapshots needs no deep stack. Each node
// is printed once: a damaged tree, in which a node stands below itself, ends there.
void BaseNode::printTree(std::ofstream &out, const SnapTree &tree, const std::string &prefix) const {
    std::vector<PrintFrame> walk;
    std::unordered_set<const BaseNode *> printed{this};
    std::string indent = prefix;
    PrintLine(out, indent, selfName);
    walk.emplace_back(*this);
    while (!walk.empty()) {
        PrintFrame &top = walk.back();
        if (top.children.empty()) {
            walk.pop_back();
            indent.resize(prefix.size() + kIndent * (walk.empty() ? 0 : walk.size() - 1));
            continue;
        }
        const nodeName name = top.children.front();
        top.children.pop_front();
        const BaseNode *child = tree.getNode(name);
        if (child == nullptr || !printed.insert(child).second) {
            continue;
        }
        if (name.type == NODE_OBJECT) {
            child->printTree(out, tree, indent + std::string(kIndent, ' '));
            continue;
        }
        indent.append(kIndent, ' ');
        PrintLine(out, indent, child->name());
        walk.emplace_back(*child);
    }
}

void ObjectNode::printTree(std::ofstream &out, const SnapTree & /*tree*/, const std::string &prefix) const {
    PrintLine(out, prefix, selfName);
}

void SnapTree::printTree(std::ofstream &out) const {
    root.printTree(out, *this, std::string());
}

} // namespace QovaSnapTree
