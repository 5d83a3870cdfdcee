// The snapshot tree of a volume, kept true by the verbs in cycles of load, rewrite and save under its exclusive lock.
#pragma once

#include "handles.h"

#include <functional>
#include <sharesnap/snaptree.hpp>
#include <string>
#include <vector>

namespace command {

// Runs one cycle. The first cycle of a volume makes its @eaDir and @tmp. The change is thrown away when `rewrite`
// throws. Throws a Failure that names the volume.
void rewriteTree(const std::string &volume, const std::function<void(QovaSnapTree::SnapTree &)> &rewrite);

// Loads the tree for reading; no lock is held afterwards. Throws a Failure.
void readTree(const std::string &volume, QovaSnapTree::SnapTree &tree);

// What a verb did, told to the tree of the share's volume. None of these throws: what was done stands, so a tree that
// can't be rewritten is only complained about. True when the tree is true again.

// A new share. What the tree has under its name is of an earlier share and goes.
[[nodiscard]] bool treeSharePut(const QOVASHARE &share);
[[nodiscard]] bool treeSnapshotTaken(const QOVASHARE &share, const std::string &snapshot);
[[nodiscard]] bool treeSnapshotsDeleted(const QOVASHARE &share, const std::vector<std::string> &snapshots);
// A new share, too. Without a snapshot the share itself was cloned.
[[nodiscard]] bool treeShareCloned(const QOVASHARE &share, const QOVASHARE &clone, const std::string &snapshot);
[[nodiscard]] bool treeShareRestored(const QOVASHARE &share, const std::string &snapshot);
struct Renaming {
    std::string from;
    std::string to;
    std::string doubtful; // whichever of them was to be the new name: in a tree that has both it is not the share's own
    bool first = false;   // the tree wasn't told before: what it has under the new name is an earlier share's
};
[[nodiscard]] bool treeShareRenamed(const QOVASHARE &share, const Renaming &renaming);
// The record is gone. If there is one of that name again, what the tree has under it is the new share's and stays.
[[nodiscard]] bool treeShareRemoved(const std::string &volume, const std::string &name);
// The share and its snapshots as its list has them: missing nodes are put in by their time, others go.
[[nodiscard]] bool treeSynced(const QOVASHARE &share);

// Takes a share with all its snapshots out of the tree, if it has it. Throws a Failure.
void treeForget(QovaSnapTree::SnapTree &tree, const std::string &share);

// Every node that can be reached from the root, parents before children.
[[nodiscard]] std::vector<const QovaSnapTree::BaseNode *> treeNodes(const QovaSnapTree::SnapTree &tree);
[[nodiscard]] std::string treeText(const QovaSnapTree::nodeName &name);
[[nodiscard]] QovaSnapTree::nodeName treeObject(const std::string &share);
[[nodiscard]] QovaSnapTree::nodeName treeSnapshot(const std::string &share, const std::string &snapshot);

} // namespace command
