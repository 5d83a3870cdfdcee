// What may stand as a share's name and path.
#include "qovasdk/share_provider.h"

#include <climits>
#include <string_view>

namespace QovaPlatform {

bool isShareName(const std::string &name) {
    return !name.empty() && name.size() <= NAME_MAX && name != "." && name != ".." &&
           name.find_first_of("/\n[]") == std::string::npos;
}

bool makeSharePathPlain(std::string *path) {
    if (path->empty() || path->front() != '/' || path->find('\n') != std::string::npos) {
        return false;
    }
    std::string plain;
    for (std::string_view rest = *path; !rest.empty();) {
        rest.remove_prefix(1); // the slash in front
        const std::string_view component = rest.substr(0, rest.find('/'));
        if (component == "." || component == "..") {
            return false;
        }
        if (!component.empty()) {
            plain.append("/").append(component);
        }
        rest.remove_prefix(component.size());
    }
    if (plain.empty() || plain.size() >= PATH_MAX) {
        return false;
    }
    *path = plain;
    return true;
}

} // namespace QovaPlatform
