// sharesnap tree: from what each share and each snapshot of a volume descends.
#include "failure.h"
#include "share_lookup.h"
#include "text.h"
#include "verbs.h"
#include "volume_tree.h"

#include <sharesnap/frame.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace command {
namespace {

using namespace QovaSnapTree;

struct TreeArguments {
    std::string volume;
    std::string snapshot;
    std::string format = "text";
    bool sources = false;
};

// A file in memory, under a path by which a stream can be opened on it.
class MemoryFile {
public:
    MemoryFile() : fd_(memfd_create("tree", MFD_CLOEXEC)) {}
    ~MemoryFile() { (void)close(fd_); } // nothing of it is kept
    MemoryFile(const MemoryFile &) = delete;
    MemoryFile &operator=(const MemoryFile &) = delete;

    [[nodiscard]] int fd() const { return fd_; }
    [[nodiscard]] std::string path() const { return "/proc/self/fd/" + std::to_string(fd_); }

private:
    int fd_;
};

Failure cantPrint(const char *reason) {
    return {exitFailed, std::string("can't print the tree: ") + reason};
}

// Printing goes to a file by the library's interface; this one lies in memory. A tree that is cut short looks like a
// whole one, so every step is looked at.
std::string printedTree(const SnapTree &tree) {
    const MemoryFile file;
    if (file.fd() < 0) {
        throw cantPrint(std::strerror(errno));
    }
    std::ofstream out(file.path());
    tree.printTree(out);
    out.close();
    if (!out) {
        throw cantPrint("it can't be written to a file in memory");
    }
    std::string text;
    char piece[65536];
    for (ssize_t read = 1; read > 0;) {
        read = pread(file.fd(), piece, sizeof(piece), static_cast<off_t>(text.size()));
        if (read < 0) {
            throw cantPrint(std::strerror(errno));
        }
        text.append(piece, static_cast<size_t>(read));
    }
    return text;
}

std::string printableLines(const std::string &text) {
    std::string shown;
    size_t begin = 0;
    for (size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', begin)) {
        shown += printable(text.substr(begin, end - begin)) + "\n";
        begin = end + 1;
    }
    return shown;
}

std::string dotQuoted(const std::string &text) {
    std::string quotedText = "\"";
    for (const char c : printable(text)) {
        if (c == '"' || c == '\\') {
            quotedText += '\\';
        }
        quotedText += c;
    }
    return quotedText + "\"";
}

const char *dotShape(std::int32_t type) {
    switch (type) {
    case NODE_OBJECT:
        return "folder";
    case NODE_SNAPSHOT:
        return "box";
    case NODE_CLONE_POINT:
        return "diamond";
    default:
        return "circle";
    }
}

void printDot(const SnapTree &tree) {
    print("digraph snapshots {\n  rankdir=LR;\n");
    for (const BaseNode *node : treeNodes(tree)) {
        const std::string name = dotQuoted(treeText(node->name()));
        print("  " + name + " [shape=" + dotShape(node->name().type) + "];\n");
        for (const nodeName &child : node->listChilds()) {
            print("  " + name + " -> " + dotQuoted(treeText(child)) + ";\n");
        }
    }
    print("}\n");
}

const char *kindOf(std::int32_t type) {
    switch (type) {
    case NODE_OBJECT:
        return "share";
    case NODE_SNAPSHOT:
        return "snapshot";
    case NODE_CLONE_POINT:
        return "clone-point";
    default:
        return "root";
    }
}

// A flat list, parents before children: a nested one would be as deep as the tree.
void printJson(const std::string &volume, const SnapTree &tree) {
    Json document = newDocument();
    document["volume"] = volume;
    document["nodes"] = Json::array();
    for (const BaseNode *node : treeNodes(tree)) {
        Json entry = Json::object();
        entry["id"] = treeText(node->name());
        entry["kind"] = kindOf(node->name().type);
        if (!node->name().objectName.empty()) {
            entry["share"] = node->name().objectName;
        }
        if (!node->name().snapName.empty()) {
            entry["snapshot"] = node->name().snapName;
        }
        entry["parent"] = node->name().type == NODE_ROOT ? Json() : Json(treeText(node->parent()));
        entry["children"] = Json::array();
        for (const nodeName &child : node->listChilds()) {
            entry["children"].push_back(treeText(child));
        }
        document["nodes"].push_back(entry);
    }
    printDocument(document);
}

void requireVolume(const std::string &volume) {
    struct stat status = {};
    if (volume.size() < 2 || volume[0] != '/' || volume.find('/', 1) != std::string::npos) {
        throw Failure(exitUsage, "bad volume " + quoted(volume), "give the path of a volume, such as /vol1");
    }
    if (stat(volume.c_str(), &status) != 0) {
        throw Failure(exitNotFound, "there is no volume " + printable(volume), "`df` shows what is mounted");
    }
}

int printSources(const TreeArguments &arguments, const OutputForm &form) {
    const Share share = requireBtrfsShare(arguments.volume, "can't find the sources of");
    const std::string what = "can't find the sources of " + named(*share);
    const std::string path = arguments.snapshot.empty() ? share->szName : arguments.snapshot;
    SnapTree tree;
    std::vector<nodeName> sources;
    if (tree.findCloneSrcSnap(volumeOf(*share, what), share->szName, path, sources) != 0) {
        throw Failure(exitNotFound, what + ": the snapshot tree doesn't know " + quoted(path),
                      "`sharesnap sync " + printable(share->szName) + "` takes it in");
    }
    Table table({"SHARE", "SNAPSHOT"});
    Json document = newDocument();
    document["sources"] = Json::array();
    for (const nodeName &source : sources) {
        table.addRow({source.objectName, source.snapName});
        document["sources"].push_back({{"share", source.objectName}, {"snapshot", source.snapName}});
    }
    if (form.json) {
        printDocument(document);
    } else {
        table.print(form);
    }
    return exitDone;
}

int printVolume(const TreeArguments &arguments, const OutputForm &form) {
    if (!arguments.snapshot.empty()) {
        throw Failure(exitUsage, "a snapshot goes with --sources alone", "sharesnap tree --sources SHARE SNAPSHOT");
    }
    const std::string format = form.json ? "json" : arguments.format;
    if (format != "text" && format != "dot" && format != "json") {
        throw Failure(exitUsage, "bad --format " + quoted(format), "give text, dot or json");
    }
    requireVolume(arguments.volume);
    SnapTree tree;
    readTree(arguments.volume, tree);
    if (format == "json") {
        printJson(arguments.volume, tree);
    } else if (format == "dot") {
        printDot(tree);
    } else {
        print(printableLines(printedTree(tree)));
    }
    return exitDone;
}

int showTree(const TreeArguments &arguments, const OutputForm &form) {
    requireRoot("can't read the snapshot tree");
    return arguments.sources ? printSources(arguments, form) : printVolume(arguments, form);
}

} // namespace

void fillTree(Verb &verb) {
    auto arguments = std::make_shared<TreeArguments>();
    verb.takes("VOLUME", arguments->volume, "Path of the volume; with --sources the name of a share")
        .takesOptional("SNAPSHOT", arguments->snapshot, "With --sources: a snapshot of the share")
        .option("--format", arguments->format, "FORM", "text, dot (for Graphviz) or json")
        .flag("--sources", arguments->sources,
              "List the snapshots that a share, or a snapshot of it, has its data from")
        .runs([arguments, form = &verb.form()] { return showTree(*arguments, *form); });
}

} // namespace command
