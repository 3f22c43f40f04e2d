#include "mount.h"

namespace vukra::cli::mount {

namespace {

// Forgets path, its parent and everything below path.
template <class Map>
void forget(Map& entries, const std::string& path) {
    entries.erase(path);
    entries.erase(parent_of(path));
    const std::string prefix = path == "/" ? "/" : path + "/";
    for (auto at = entries.lower_bound(prefix);
         at != entries.end() && at->first.compare(0, prefix.size(), prefix) == 0;)
        at = entries.erase(at);
}

} // namespace

bool Cache::attributes(const std::string& path, bool& found, modbus_vukra_attributes& out) const {
    const auto at = attributes_.find(path);
    if (at == attributes_.end() || !fresh(at->second.when)) return false;
    found = at->second.found;
    out = at->second.attributes;
    return true;
}

void Cache::put_attributes(const std::string& path, bool found, const modbus_vukra_attributes& a) {
    if (keep_.count() > 0) attributes_[path] = Attributes{Clock::now(), found, a};
}

void Cache::grown(const std::string& path, std::uint32_t size) {
    const auto at = attributes_.find(path);
    if (at == attributes_.end() || !at->second.found) return;
    std::uint32_t& known = at->second.attributes.words[2];
    if (size > known) known = size;
}

bool Cache::listing(const std::string& path, std::vector<std::string>& names) const {
    const auto at = listings_.find(path);
    if (at == listings_.end() || !fresh(at->second.when)) return false;
    names = at->second.names;
    return true;
}

void Cache::put_listing(const std::string& path, const std::vector<std::string>& names) {
    if (keep_.count() > 0) listings_[path] = Listing{Clock::now(), names};
}

void Cache::drop(const std::string& path) {
    forget(attributes_, path);
    forget(listings_, path);
}

} // namespace vukra::cli::mount
