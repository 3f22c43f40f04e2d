// Paths inside a device's namespace or a ufs volume: from the root, "/"
// between names, no trailing "/". The tools' one copy of these.
#pragma once

#include <string>

namespace vukra::tools {

// The directory part and the last name of a path ("/" has none).
inline std::string parent_of(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos || slash == 0 ? "/" : path.substr(0, slash);
}

inline std::string name_of(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// dir + "/" + name, without doubling the slash of the root.
inline std::string joined(const std::string& dir, const std::string& name) {
    return dir == "/" ? "/" + name : dir + "/" + name;
}

} // namespace vukra::tools
