// Which session a file operation uses: the /mem rule.
#include "remotefs/file_operations.h"

#include <cstring>

namespace vukra::remotefs {

session::Session& routed(session::Session& s) {
    if (s.mirror_enabled != 0 && s.mirror_selected != 0 && s.mirror != nullptr) return *s.mirror;
    return s;
}

session::Session& route(session::Session& s, const char* path) {
    // A plain substring search: /memory and /a/mem/b match as well.
    const bool mirror = s.mirror_enabled != 0 && path != nullptr && std::strstr(path, "/mem") != nullptr;
    s.mirror_selected = mirror ? 1 : 0;
    return routed(s);
}

} // namespace vukra::remotefs
