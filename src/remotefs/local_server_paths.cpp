// The paths the local server serves: all of them lie under its served
// root ("/mem" for the library's mirror, "/" for vukra-sim), and once a
// path has entered the root ".." does not lead out of it again, as the
// kernel keeps a path within the mount it has entered.
#include "remotefs/local_server_internal.h"

#include <algorithm>
#include <vector>

namespace vukra::remotefs {

namespace {

std::string served_root = "/mem";

void split(const std::string& path, std::vector<std::string>& names) {
    std::size_t at = 0;
    while (at < path.size()) {
        while (at < path.size() && path[at] == '/') ++at;
        const std::size_t start = at;
        while (at < path.size() && path[at] != '/') ++at;
        if (at > start) names.emplace_back(path, start, at - start);
    }
}

} // namespace

void set_served_root(const char* root) { served_root = root != nullptr ? root : "/"; }

namespace server {

bool served_path(const char* path, const std::string& base, std::string& out) {
    if (path == nullptr) return false;
    std::vector<std::string> root;
    split(served_root, root);
    std::vector<std::string> names;
    if (path[0] != '/') split(base.empty() ? served_root : base, names);
    split(path, names);

    // The walk, name by name; "entered" once the root's names are all in place.
    std::vector<std::string> walk;
    bool entered = root.empty();
    for (const std::string& name : names) {
        if (name == ".") continue;
        if (name == "..") {
            if (!walk.empty() && !(entered && walk.size() == root.size())) walk.pop_back();
            continue;
        }
        walk.push_back(name);
        if (!entered && walk.size() == root.size() && walk == root) entered = true;
    }
    if (walk.size() < root.size() || !std::equal(root.begin(), root.end(), walk.begin())) return false;
    out.clear();
    for (const std::string& name : walk) {
        out.push_back('/');
        out.append(name);
    }
    if (out.empty()) out.push_back('/');
    return true;
}

} // namespace server

} // namespace vukra::remotefs
