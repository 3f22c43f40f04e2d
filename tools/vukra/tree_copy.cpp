// vukra fs get -r REMOTEDIR LOCALDIR and fs put -r LOCALDIR REMOTEDIR: a
// directory and everything below it, into a directory that is made when it
// is missing (what it already holds under other names stays).
//
// The whole source tree is read first (names, kinds, sizes): nothing is
// copied when any of it cannot be (a link to a directory, a device node, a
// name the other side cannot hold), the progress line counts over the
// total, and a copy whose destination lies inside its source does not chase
// the files it makes. Each file then goes through the copy of one file: a
// temporary name, renamed over the final one once complete. The first
// failure names its file and ends the copy with status 1; the files copied
// before it stay, each whole.
#include "cli.h"
#include "device.h"
#include "remote_fs.h"

#include <cerrno>
#include <cstring>
#include <exception>
#include <filesystem>
#include <memory>
#include <system_error>
#include <vector>

namespace vukra::cli {

namespace {

namespace fs = std::filesystem;

// One thing below the top of a tree: its path from the top with "/"
// between names (UTF-8, as the device names it), and what it is.
struct Entry {
    std::string name;
    bool directory = false;
    std::uint64_t size = 0;
};

fs::path local_name(const std::string& utf8_name) {
    return fs::path(std::u8string(utf8_name.begin(), utf8_name.end()));
}

// Whether inner lies within outer, both absolute with "/" between names.
bool lies_inside(const std::string& outer, const std::string& inner) {
    if (outer == "/" || inner.size() <= outer.size()) return false;
    return inner.compare(0, outer.size(), outer) == 0 && inner[outer.size()] == '/';
}

std::string absolute_local(const std::string& local) {
    std::error_code e;
    const fs::path p = fs::absolute(fs::path(local), e).lexically_normal();
    const std::u8string generic = p.generic_u8string();
    std::string text = e ? local : std::string(generic.begin(), generic.end());
    if (text.size() > 1 && text.back() == '/') text.pop_back();
    return text;
}

int into_itself(const std::string& source, const std::string& destination) {
    return fail("cannot copy " + source + " into " + destination + ": that lies inside it (a directory into itself)");
}

// A name the host's files cannot have: empty, or one Windows refuses
// (its reserved characters, or bytes that are not UTF-8 and so have no
// wide form).
bool bad_local_name(const std::string& name) {
#if defined(_WIN32)
    if (name.find_first_of("<>:\"\\|?*") != std::string::npos) return true;
    try {
        (void)local_name(name);
    } catch (const std::exception&) {
        return true;
    }
#endif
    return name.empty();
}

// The local tree below dir, parents before what they hold. A link to a
// file counts as the file; anything else that is not a plain file or
// directory is refused, as is what cannot be read.
int plan_local(const fs::path& dir, const std::string& shown_dir, std::vector<Entry>& entries) {
    std::error_code e;
    fs::recursive_directory_iterator it(dir, e), end;
    for (; !e && it != end; it.increment(e)) {
        const fs::path& p = it->path();
        const std::u8string relative = p.lexically_relative(dir).generic_u8string();
        const std::string name(relative.begin(), relative.end());
        const std::string where = shown_dir + "/" + name;
        const fs::file_status link = it->symlink_status(e);
        if (e) break;
        const fs::file_status target = it->status(e);
        if (e) return fail("cannot read " + where + ": " + e.message() + "; nothing was copied");
        if (fs::is_directory(target) && fs::is_symlink(link))
            return fail(where + " is a link to a directory, which is not followed; nothing was copied");
        if (fs::is_directory(target)) {
            entries.push_back({name, true, 0});
        } else if (fs::is_regular_file(target)) {
            const std::uint64_t size = fs::file_size(p, e);
            if (e) break;
            entries.push_back({name, false, size});
        } else {
            return fail(where + " is neither a file nor a directory; nothing was copied");
        }
    }
    if (e) return fail("cannot read " + shown_dir + ": " + e.message() + "; nothing was copied");
    return 0;
}

// The device's tree below dir, parents before what they hold.
int plan_remote(const Remote& r, const std::string& dir, const std::string& prefix, int depth,
                std::vector<Entry>& entries) {
    std::vector<std::string> names;
    if (const int failed = list_names(r, dir, names)) return failed;
    for (const std::string& name : names) {
        if (name == "." || name == "..") continue;
        const std::string child = joined(dir, name);
        if (bad_local_name(name)) return fail(child + ": a name this machine's files cannot have; nothing was copied");
        modbus_vukra_attributes a;
        if (!look_up(r, child, a)) return device_fail(r, "look up", child);
        const std::string below = prefix.empty() ? name : prefix + "/" + name;
        if (is_directory(a)) {
            if (depth >= 64) return fail("not going below " + child + ": 64 levels deep; nothing was copied");
            entries.push_back({below, true, 0});
            if (const int failed = plan_remote(r, child, below, depth + 1, entries)) return failed;
        } else if (a.words[kAttrKind] & kKindFile) {
            entries.push_back({below, false, a.words[kAttrSize]});
        } else {
            return fail(child + " is a " + kind_words(a.words[kAttrKind]) +
                        ", not a file nor a directory; nothing was copied");
        }
    }
    return 0;
}

std::uint64_t total_bytes(const std::vector<Entry>& entries) {
    std::uint64_t total = 0;
    for (const Entry& entry : entries) total += entry.size;
    return total;
}

// The device's directory path, made when missing.
int remote_directory(const Remote& r, const std::string& path) {
    modbus_vukra_attributes a;
    if (look_up(r, path, a)) return is_directory(a) ? 0 : fail("cannot copy into " + path + ": it is not a directory");
    if (modbus_vukra_op_protected_mkdir(r.session, path.c_str()) != 0) return device_fail(r, "make the directory", path);
    return 0;
}

// The local directory path, made when missing.
int local_directory(const fs::path& path) {
    std::error_code e;
    if (fs::is_directory(path, e)) return 0;
    if (fs::exists(fs::symlink_status(path, e)))
        return fail("cannot copy into " + shown(path) + ": it is not a directory");
    if (!fs::create_directory(path, e) && e) return fail("cannot make the directory " + shown(path) + ": " + e.message());
    return 0;
}

} // namespace

int get_tree(Options& o, const std::string& user_remote, const std::string& local) {
    const std::string source = remote_path(user_remote);
    if (lies_inside(source, absolute_local(local))) return into_itself(source, local);
    std::error_code e;
    if (fs::exists(local, e) && !fs::is_directory(local, e))
        return fail("cannot copy into " + local + ": it is not a directory");
    data_stream(o);
    const Remote r(o);
    if (!r.ok()) return 1;
    modbus_vukra_attributes a;
    if (!look_up(r, source, a)) return device_fail(r, "read", source);
    if (!is_directory(a)) return fail(source + " is not a directory: fs get without -r copies a file");
    std::vector<Entry> entries;
    if (const int failed = plan_remote(r, source, "", 1, entries)) return failed;

    const fs::path top = local;
    if (const int failed = local_directory(top)) return failed;
    Progress progress = progress_start(source, total_bytes(entries), o.quiet);
    int status = 0;
    for (const Entry& entry : entries) {
        const std::string remote = joined(source, entry.name);
        const fs::path target = top / local_name(entry.name);
        const std::string shown_local = (local.back() == '/' ? local : local + "/") + entry.name;
        if (entry.directory) {
            status = local_directory(target);
        } else if (!look_up(r, remote, a)) {
            status = device_fail(r, "read", remote);
        } else if (is_directory(a) || fs::is_directory(target, e)) {
            status = fail("cannot copy " + remote + " to " + shown_local + ": a directory and a file of one name");
        } else {
            status = get_file(r, progress, remote, shown_local, target);
        }
        if (status != 0) break;
    }
    progress_end(progress);
    return status;
}

int put_tree(Options& o, const std::string& local, const std::string& user_remote) {
    const std::string destination = remote_path(user_remote);
    const std::string source = absolute_local(local);
    if (lies_inside(source, destination)) return into_itself(local, destination);
    std::error_code e;
    if (!fs::exists(local, e)) return fail("no directory " + local);
    if (!fs::is_directory(local, e)) return fail(local + " is not a directory: fs put without -r copies a file");
    std::string shown_top = local;
    while (shown_top.size() > 1 && shown_top.back() == '/') shown_top.pop_back();
    std::vector<Entry> entries;
    if (const int failed = plan_local(local, shown_top, entries)) return failed;

    data_stream(o);
    const Remote r(o);
    if (!r.ok()) return 1;
    if (const int failed = remote_directory(r, destination)) return failed;
    Progress progress = progress_start(shown_top, total_bytes(entries), o.quiet);
    int status = 0;
    for (const Entry& entry : entries) {
        const std::string remote = joined(destination, entry.name);
        const std::string shown_local = shown_top + "/" + entry.name;
        if (entry.directory) {
            status = remote_directory(r, remote);
            if (status != 0) break;
            continue;
        }
        std::unique_ptr<std::FILE, int (*)(std::FILE*)> in(open_local(fs::path(local) / local_name(entry.name), "rb"),
                                                             std::fclose);
        if (!in) {
            status = fail("cannot read " + shown_local + ": " + std::strerror(errno));
            break;
        }
        status = put_file(r, progress, remote, shown_local, entry.size, in.get());
        if (status != 0) break;
    }
    progress_end(progress);
    return status;
}

} // namespace vukra::cli
