// The rooms of docs/architecture.md against what the sources include.

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

const fs::path kTop = SHARESNAP_SOURCE_DIR;

// Name of a room -> the rooms that it may include.
using Rooms = std::map<std::string, std::set<std::string>>;
// Path of a file below the tree's top -> the same of the files of ours that it includes.
using Graph = std::map<std::string, std::set<std::string>>;

std::string ReadFile(const fs::path &path) {
    std::ifstream stream(path);
    std::ostringstream text;
    text << stream.rdbuf();
    return text.str();
}

std::vector<std::string> BackQuoted(const std::string &text) {
    static const std::regex quoted("`([^`]+)`");
    std::vector<std::string> names;
    for (std::sregex_iterator it(text.begin(), text.end(), quoted), end; it != end; ++it) {
        names.push_back((*it)[1]);
    }
    return names;
}

// The table begins with "| room | may include |"; names stand in back quotes.
Rooms ReadRooms() {
    Rooms rooms;
    std::istringstream text(ReadFile(kTop / "docs/architecture.md"));
    bool in_table = false;
    for (std::string line; std::getline(text, line);) {
        if (line == "| room | may include |") {
            in_table = true;
        } else if (in_table && line.rfind("| `", 0) == 0) {
            const std::size_t second = line.find('|', 1);
            const std::vector<std::string> name = BackQuoted(line.substr(0, second));
            const std::vector<std::string> allowed = BackQuoted(line.substr(second));
            rooms[name.at(0)] = {allowed.begin(), allowed.end()};
        } else if (in_table && line.rfind("|---", 0) != 0) {
            in_table = false;
        }
    }
    return rooms;
}

// The folder is the room; a public header that has a room's name belongs to that room.
std::string RoomOf(const std::string &file, const Rooms &rooms) {
    const fs::path path = file;
    if (path.parent_path() == "include/sharesnap") {
        const std::string own = "lib/" + path.stem().string();
        return rooms.count(own) != 0 ? own : "include/sharesnap";
    }
    return path.parent_path().string();
}

// Where an include of ours leads, in the order in which the compiler looks; empty for the system's headers.
std::string Resolve(const std::string &from, const std::string &name) {
    static const std::string platform = "sharesnap/platform/";
    if (name.rfind(platform, 0) == 0) {
        return "lib/platform/" + name.substr(platform.size());
    }
    for (const fs::path &root : {fs::path(from).parent_path(), fs::path("include"), fs::path("lib"),
                                 fs::path("platform"), fs::path("tools")}) {
        if (fs::is_regular_file(kTop / root / name)) {
            return (root / name).lexically_normal().string();
        }
    }
    return "";
}

Graph ReadIncludes() {
    static const std::regex include("(?:^|\n)[ \t]*#[ \t]*include[ \t]*[<\"]([^>\"]+)[>\"]");
    static const std::set<std::string> extensions = {".h", ".hpp", ".c", ".cpp", ".inc"};
    Graph graph;
    for (const char *top : {"include", "lib", "platform", "tools"}) {
        if (!fs::is_directory(kTop / top)) {
            continue;
        }
        for (const fs::directory_entry &entry : fs::recursive_directory_iterator(kTop / top)) {
            if (!entry.is_regular_file() || extensions.count(entry.path().extension().string()) == 0) {
                continue;
            }
            const std::string file = entry.path().lexically_relative(kTop).string();
            std::set<std::string> &included = graph[file];
            const std::string text = ReadFile(entry.path());
            for (std::sregex_iterator it(text.begin(), text.end(), include), end; it != end; ++it) {
                const std::string target = Resolve(file, (*it)[1]);
                if (!target.empty()) {
                    included.insert(target);
                }
            }
        }
    }
    return graph;
}

// A source and the header of the same name are one node: what either includes, both stand on.
std::string NodeOf(const std::string &file) {
    return fs::path(file).replace_extension("").string();
}

// One circle of the graph as "a -> b -> a", or an empty text.
std::string FindCircle(const Graph &graph) {
    enum class Colour { white, grey, black };
    std::map<std::string, Colour> colours;
    std::vector<std::string> road;
    std::string found;
    const std::function<void(const std::string &)> visit = [&](const std::string &node) {
        colours[node] = Colour::grey;
        road.push_back(node);
        const auto edges = graph.find(node);
        if (edges != graph.end()) {
            for (const std::string &next : edges->second) {
                if (!found.empty()) {
                    return;
                }
                if (colours[next] == Colour::grey) {
                    for (auto it = std::find(road.begin(), road.end(), next); it != road.end(); ++it) {
                        found += *it + " -> ";
                    }
                    found += next;
                } else if (colours[next] == Colour::white) {
                    visit(next);
                }
            }
        }
        road.pop_back();
        colours[node] = Colour::black;
    };
    for (const auto &[node, edges] : graph) {
        if (found.empty() && colours[node] == Colour::white) {
            visit(node);
        }
    }
    return found;
}

TEST(IncludeRooms, EverySourceStandsInARoomOfTheTable) {
    const Rooms rooms = ReadRooms();
    ASSERT_FALSE(rooms.empty()) << "docs/architecture.md has no table of rooms";
    for (const auto &[file, included] : ReadIncludes()) {
        EXPECT_EQ(rooms.count(RoomOf(file, rooms)), 1U) << file << " stands in no room of docs/architecture.md";
    }
}

TEST(IncludeRooms, RoomsIncludeOnlyWhatTheTableAllows) {
    const Rooms rooms = ReadRooms();
    std::size_t checked = 0;
    for (const auto &[file, included] : ReadIncludes()) {
        const std::string room = RoomOf(file, rooms);
        const auto row = rooms.find(room);
        if (row == rooms.end()) {
            continue;
        }
        for (const std::string &target : included) {
            const std::string other = RoomOf(target, rooms);
            ++checked;
            EXPECT_TRUE(other == room || row->second.count(other) != 0)
                << file << " includes " << target << ", but " << room << " may not include " << other;
        }
    }
    EXPECT_GT(checked, 20U);
}

TEST(IncludeRooms, TableNamesRoomsThatStand) {
    const Rooms rooms = ReadRooms();
    for (const auto &[room, allowed] : rooms) {
        EXPECT_TRUE(fs::is_directory(kTop / room)) << room;
        for (const std::string &other : allowed) {
            EXPECT_EQ(rooms.count(other), 1U) << room << " may include " << other << ", which is no room";
        }
    }
}

TEST(IncludeRooms, FilesIncludeEachOtherInNoCircle) {
    Graph nodes;
    for (const auto &[file, included] : ReadIncludes()) {
        for (const std::string &target : included) {
            if (NodeOf(target) != NodeOf(file)) {
                nodes[NodeOf(file)].insert(NodeOf(target));
            }
        }
    }
    EXPECT_EQ(FindCircle(nodes), "");
}

TEST(IncludeRooms, CircleFinderFindsOne) {
    EXPECT_EQ(FindCircle({{"a", {"b"}}, {"b", {"c"}}, {"c", {"b"}}}), "b -> c -> b");
    EXPECT_EQ(FindCircle({{"a", {"b", "c"}}, {"b", {"c"}}}), "");
}

} // namespace
