// Search for the snapshots that share data with an object or a snapshot.
#include <libgen.h>
#include <syslog.h>

#include <unordered_set>

#include "frame/log.h"
#include <sharesnap/snaptree.hpp>

namespace QovaSnapTree {

namespace {

constexpr std::size_t kMaxSources = 255; // looked at between steps up: a clone point can push the list beyond

std::string LastComponent(const std::string &path) {
    std::string copy = path;
    return basename(copy.data());
}

nodeName Target(const std::string &object, const std::string &path) {
    const std::string base = LastComponent(path);
    nodeName target;
    target.objectName = object;
    if (object == base) {
        target.type = NODE_OBJECT;
    } else {
        target.type = NODE_SNAPSHOT;
        target.snapName = base;
    }
    return target;
}

// As texts: two names of equal hash are still two snapshots here.
bool IsSame(const nodeName &a, const nodeName &b) {
    return a.type == b.type && a.objectName == b.objectName && a.snapName == b.snapName && a.cloneName == b.cloneName;
}

void CollectSnapshotChilds(const BaseNode &point, const nodeName &last, std::vector<nodeName> &result) {
    for (const nodeName &child : point.listChilds()) {
        if (child.type == NODE_SNAPSHOT && !(last.type == NODE_SNAPSHOT && IsSame(last, child))) {
            result.push_back(child);
        }
    }
}

int CollectSources(const SnapTree &tree, const nodeName &target, std::vector<nodeName> &result) {
    const BaseNode *node = tree.getNode(target);
    if (node == nullptr) {
        SNAP_LOG(LOG_DEBUG, "Failed to get node [%s/%s] in tree, it not exist.", target.objectName.c_str(),
                 target.snapName.c_str());
        return -1;
    }
    nodeName last = target;
    std::unordered_set<const BaseNode *> passed{node};
    const BaseNode *cur = tree.getNode(node->parent());
    // A damaged tree can lead nowhere, or round in a circle: the walk ends there.
    while (cur != nullptr && passed.insert(cur).second) {
        if (cur->name().type == NODE_ROOT || result.size() > kMaxSources) {
            break;
        }
        if (cur->name().type == NODE_SNAPSHOT) {
            result.push_back(cur->name());
            last = cur->name();
        } else {
            CollectSnapshotChilds(*cur, last, result);
        }
        cur = tree.getNode(cur->parent());
    }
    return 0;
}

} // namespace

int SnapTree::findCloneSrcSnap(const std::string &volume, const std::string &object, const std::string &path,
                               std::vector<nodeName> &result) {
    int nResult = -1;
    if (loadByVolume(volume, false) < 0) {
        SNAP_LOG(LOG_ERR, "Failed to load snaptree of [%s]", volume.c_str());
    } else {
        nResult = CollectSources(*this, Target(object, path), result);
    }
    freeLock();
    return nResult;
}

} // namespace QovaSnapTree
