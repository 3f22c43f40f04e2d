// vukra fs ls|cat|get|put|rm|mkdir|rmdir|mv|df|stat|tree: the device's
// filesystem. Each command works on the invocation's session, mounted by
// the first command that needs it (commands joined by "+" share it).
// Nothing a failed command touched is left changed: get writes a temporary
// file beside the local one and renames it at the end; put writes a
// temporary file on the device and renames it over the remote one at the
// end.
#include "cli.h"
#include "device.h"
#include "remote_fs.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <unistd.h>

namespace vukra::cli {

namespace {

namespace fs = std::filesystem;

int finish(std::FILE* out, int status) {
    if (std::fflush(out) != 0 && status == 0) return fail("cannot write standard output");
    return status;
}

// What every command does around its work: the data stream, a mounted
// session and the user's path taken from the root; the body's status then
// stands unless the data could not be written.
template <class Body>
int on_device(Options& o, const std::string& user_path, Body body) {
    std::FILE* out = data_stream(o);
    Remote r(o);
    if (!r.ok()) return 1;
    return finish(out, body(r, out, remote_path(user_path)));
}

void print_long(std::FILE* out, const modbus_vukra_attributes& a, const std::string& name) {
    std::fprintf(out, "%c %10u %s\n", kind_letter(a.words[kAttrKind]), a.words[kAttrSize], name.c_str());
}

int list(const Remote& r, std::FILE* out, const std::string& path, bool long_form) {
    modbus_vukra_attributes a;
    if (!look_up(r, path, a)) return device_fail(r, "list", path);
    if (!is_directory(a)) {
        if (long_form)
            print_long(out, a, path);
        else
            std::fprintf(out, "%s\n", path.c_str());
        return 0;
    }
    std::vector<std::string> names;
    if (const int failed = list_names(r, path, names)) return failed;
    int status = 0;
    for (const std::string& name : names) {
        if (!long_form) {
            std::fprintf(out, "%s\n", name.c_str());
        } else if (look_up(r, joined(path, name), a)) {
            print_long(out, a, name);
        } else {
            std::fprintf(out, "? %10s %s\n", "?", name.c_str());
            status = device_fail(r, "look up", joined(path, name));
        }
    }
    return status;
}

// Looks path up as something whose bytes can be read: not a directory.
bool readable(const Remote& r, const std::string& path, modbus_vukra_attributes& a, int& status) {
    if (!look_up(r, path, a)) {
        status = device_fail(r, "read", path);
        return false;
    }
    if (is_directory(a)) {
        status = fail("cannot read " + path + ": it is a directory");
        return false;
    }
    return true;
}

int report(const Remote& r, Moved how, const std::string& what, const std::string& path, const std::string& local) {
    switch (how) {
    case Moved::kAll: return 0;
    case Moved::kDevice: return device_fail(r, what, path);
    case Moved::kStalled: return fail("cannot " + what + " " + path + ": the device took no byte (its card is full)");
    case Moved::kLocal: return fail("cannot " + what + " " + path + ": " + local + " failed: " + std::strerror(errno));
    }
    return 1;
}

int cat(Options& o, const std::string& user_path) {
    return on_device(o, user_path, [&o](const Remote& r, std::FILE* out, const std::string& path) {
        modbus_vukra_attributes a;
        int status = 0;
        if (!readable(r, path, a, status)) return status;
        Progress progress = progress_start(path, a.words[kAttrSize], o.quiet);
        const Moved moved = read_to(r, progress, out);
        progress_end(progress);
        return report(r, moved, "read", path, "writing standard output");
    });
}

// Where get writes: LOCAL itself, or where the symbolic link LOCAL leads.
// Empty (after saying why) when LOCAL cannot be replaced by a file.
fs::path local_target(const std::string& local) {
    std::error_code e;
    fs::path target = local;
    if (fs::is_symlink(fs::symlink_status(target, e))) {
        target = fs::weakly_canonical(target, e);
        if (e) return fail("cannot follow " + local), fs::path();
    }
    if (fs::is_directory(target, e)) return fail(local + " is a directory"), fs::path();
    if (fs::exists(target, e) && !fs::is_regular_file(target, e))
        return fail(local + " is not a regular file"), fs::path();
    return target;
}

int get(Options& o, const std::string& user_path, const std::string& local) {
    if (local == "-") return cat(o, user_path);
    const fs::path target = local_target(local);
    if (target.empty()) return 1;
    return on_device(o, user_path, [&](const Remote& r, std::FILE*, const std::string& path) {
        modbus_vukra_attributes a;
        int status = 0;
        if (!readable(r, path, a, status)) return status;
        Progress progress = progress_start(path, a.words[kAttrSize], o.quiet);
        status = get_file(r, progress, path, local, target);
        progress_end(progress);
        return status;
    });
}

int put(Options& o, const std::string& local, const std::string& user_path) {
    std::error_code e;
    if (!fs::exists(local, e)) return fail("no file " + local);
    if (fs::is_directory(local, e)) return fail(local + " is a directory: fs put -r copies a tree");
    if (!fs::is_regular_file(local, e)) return fail(local + " is not a regular file");
    const std::uint64_t size = fs::file_size(local, e);
    if (e) return fail("cannot read " + local + ": " + e.message());
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> in(open_local(local, "rb"), std::fclose);
    if (!in) return fail("cannot read " + local + ": " + std::strerror(errno));
    if (remote_path(user_path) == "/") return fail("cannot put " + local + " as /: name a file");
    return on_device(o, user_path, [&](const Remote& r, std::FILE*, const std::string& path) {
        Progress progress = progress_start(path, size, o.quiet);
        const int status = put_file(r, progress, path, local, size, in.get());
        progress_end(progress);
        return status;
    });
}

// remove, rmdir, mkdir: one request on one path.
int one_path(Options& o, const std::string& user_path, const std::string& what,
             std::int32_t (*operation)(modbus_vukra_session*, const char*)) {
    return on_device(o, user_path, [&](const Remote& r, std::FILE*, const std::string& path) {
        return operation(r.session, path.c_str()) != 0 ? device_fail(r, what, path) : 0;
    });
}

int move(Options& o, const std::string& from_user, const std::string& to_user) {
    return on_device(o, from_user, [&](const Remote& r, std::FILE*, const std::string& from) {
        const std::string to = remote_path(to_user);
        if (modbus_vukra_op_protected_rename(r.session, from.c_str(), to.c_str()) != 0)
            return device_fail(r, "move " + from + " to", to);
        return 0;
    });
}

int usage(const Remote& r, std::FILE* out, const std::string& path) {
    modbus_vukra_usage u{};
    if (modbus_vukra_op_protected_fsstat(r.session, path.c_str(), &u) != 0)
        return device_fail(r, "read the usage of", path);
    std::fprintf(out, "block size  %u\nblocks      %u\nfree blocks %u\nfree nodes  %u\n", u.words[kUsageBlockSize],
                 u.words[kUsageBlocks], u.words[kUsageFreeBlocks], u.words[kUsageFreeNodes]);
    return 0;
}

int status_of(const Remote& r, std::FILE* out, const std::string& path) {
    modbus_vukra_attributes a;
    if (!look_up(r, path, a)) return device_fail(r, "look up", path);
    std::fprintf(out, "node %u\nkind %u (%s)\nsize %u\ntime %u\n", a.words[kAttrNode], a.words[kAttrKind],
                 kind_words(a.words[kAttrKind]).c_str(), a.words[kAttrSize], a.words[kAttrTime]);
    return 0;
}

// The directory's entries, indented by depth, a directory's name ending
// in "/" and followed by its own entries. Each directory is read whole
// before its entries are looked up, since a lookup changes what is current.
int tree_below(const Remote& r, std::FILE* out, const std::string& path, int depth) {
    std::vector<std::string> names;
    if (const int failed = list_names(r, path, names)) return failed;
    int status = 0;
    for (const std::string& name : names) {
        if (name == "." || name == "..") continue;
        const std::string child = joined(path, name);
        modbus_vukra_attributes a;
        if (!look_up(r, child, a)) {
            std::fprintf(out, "%*s%s?\n", 2 * depth, "", name.c_str());
            status = device_fail(r, "look up", child);
            continue;
        }
        const bool directory = is_directory(a);
        std::fprintf(out, "%*s%s%s\n", 2 * depth, "", name.c_str(), directory ? "/" : "");
        if (!directory) continue;
        if (depth >= 64) {
            status = fail("not going below " + child + ": 64 levels deep");
            continue;
        }
        if (tree_below(r, out, child, depth + 1) != 0) status = 1;
    }
    return status;
}

int tree(const Remote& r, std::FILE* out, const std::string& path) {
    modbus_vukra_attributes a;
    if (!look_up(r, path, a)) return device_fail(r, "list", path);
    std::fprintf(out, "%s\n", path.c_str());
    return is_directory(a) ? tree_below(r, out, path, 1) : 0;
}

} // namespace

int get_file(const Remote& r, Progress& progress, const std::string& path, const std::string& local,
             const fs::path& target) {
    int status = 0;
    fs::path temporary;
    std::FILE* file = nullptr;
    const fs::path dir = target.has_parent_path() ? target.parent_path() : fs::path(".");
    for (int n = 0; file == nullptr && n < 100; ++n) {
        fs::path name = ".";
        name += target.filename();
        name += ".vukra-get-" + std::to_string(getpid()) + "-" + std::to_string(n);
        temporary = dir / name;
        file = create_local(temporary);
        if (file == nullptr && errno != EEXIST) break;
    }
    if (file == nullptr) return fail("cannot write in " + shown(dir) + ": " + std::strerror(errno));
    const Moved moved = read_to(r, progress, file);
    if (moved != Moved::kAll || progress.done >= progress.total) progress_end(progress);
    status = report(r, moved, "read", path, "writing " + local);
    if (std::fclose(file) != 0 && status == 0) status = fail("cannot write " + local + ": " + std::strerror(errno));
    std::error_code e;
    if (status == 0) {
        if (fs::exists(target, e)) fs::permissions(temporary, fs::status(target, e).permissions(), e);
        fs::rename(temporary, target, e);
        if (e) status = fail("cannot replace " + local + ": " + e.message());
    }
    if (status != 0) fs::remove(temporary, e);
    return status;
}

namespace {

// A name in dir that names nothing yet, for put's temporary file; empty
// when none could be found (the lookup's status then tells why).
std::string free_name(const Remote& r, const std::string& dir, const std::string& base) {
    const std::string stem = "." + base.substr(0, 200) + ".vukra-put-" + std::to_string(getpid());
    for (int n = 0; n < 100; ++n) {
        const std::string candidate = joined(dir, stem + "-" + std::to_string(n));
        modbus_vukra_attributes a;
        if (!look_up(r, candidate, a)) {
            // Only "no such file" frees the name; a silent device does not.
            return missing(r) ? candidate : "";
        }
    }
    return "";
}

} // namespace

int put_file(const Remote& r, Progress& progress, const std::string& path, const std::string& local,
             std::uint64_t size, std::FILE* in) {
    modbus_vukra_attributes a;
    if (look_up(r, path, a)) {
        if (is_directory(a)) return fail("cannot write " + path + ": it is a directory");
        if (!(a.words[kAttrKind] & kKindFile)) return fail("cannot write " + path + ": it is not a regular file");
    } else if (!missing(r)) {
        return device_fail(r, "look up", path);
    }
    const std::string temporary = free_name(r, parent_of(path), name_of(path));
    if (temporary.empty()) return device_fail(r, "write in", parent_of(path));
    if (modbus_vukra_op_protected_create(r.session, temporary.c_str()) != 0)
        return device_fail(r, "write", path);

    const Moved moved = write_from(r, progress, in);
    if (moved != Moved::kAll || progress.done >= progress.total) progress_end(progress);
    int status = report(r, moved, "write", path, "reading " + local);
    if (status == 0 && modbus_vukra_op_protected_rename(r.session, temporary.c_str(), path.c_str()) != 0)
        status = device_fail(r, "rename " + temporary + " to", path);
    if (status != 0) {
        // Best effort: the old file is untouched. A device that stopped
        // answering is not asked again (that would be one more time-out):
        // the partial copy stays under its temporary name, never the final one.
        if (modbus_vukra_op_session_error(r.session) != tool::kLineFailed)
            modbus_vukra_op_protected_remove(r.session, temporary.c_str());
        return status;
    }
    if (!look_up(r, path, a)) return device_fail(r, "look up", path);
    if (a.words[kAttrSize] != size)
        return fail(path + " holds " + std::to_string(a.words[kAttrSize]) + " bytes on the device, not " +
                    std::to_string(size));
    return 0;
}

void add_fs_commands(CLI::App& app, Options& options) {
    CLI::App* group = app.add_subcommand("fs", "the device's filesystem (paths from the device's root)");
    // A missing command is told here with the list of commands (an unknown
    // word is refused by the parser, by name).
    group->require_subcommand(0, 1);
    group->callback([group] {
        if (group->get_subcommands().empty())
            throw CLI::ValidationError("fs needs a command: ls, cat, get, put, rm, mkdir, rmdir, mv, df, stat, tree, "
                                       "getfs or putfs");
    });

    struct Words {
        std::string path, other;
        bool long_form = false, recursive = false;
    };
    auto words = std::make_shared<Words>();

    Options& o = options;
    // Every path word is checked as it is read: a Windows path is refused
    // where the device's is expected, a device path where a local one is.
    const CLI::Validator device_path(device_path_check, "", "device path");
    const CLI::Validator local_path(local_path_check, "", "local path");
    auto remote_word = [&](CLI::App* command, const char* name, std::string& into, const char* what) {
        return command->add_option(name, into, what)->check(device_path);
    };

    CLI::App* ls = group->add_subcommand("ls", "list a directory, one name a line (-l: kind, size, name)");
    ls->add_flag("-l", words->long_form, "kind (d directory, - file, b c devices), size in bytes, name");
    remote_word(ls, "PATH", words->path, "a directory or file on the device")->required();
    choose(ls, o, [&o, words] {
        return on_device(o, words->path, [words](const Remote& r, std::FILE* out, const std::string& path) {
            return list(r, out, path, words->long_form);
        });
    });

    CLI::App* cat_cmd = group->add_subcommand("cat", "a file's bytes to standard output");
    remote_word(cat_cmd, "PATH", words->path, "a file on the device")->required();
    choose(cat_cmd, o, [&o, words] { return cat(o, words->path); });

    CLI::App* get_cmd = group->add_subcommand(
        "get", "copy a device file to LOCAL (\"-\": standard output); -r: a directory and all below it");
    get_cmd->add_flag("-r,--recursive", words->recursive,
                      "what the directory REMOTE holds, all below it, into the directory LOCAL (made when\n"
                      "missing), file by file");
    remote_word(get_cmd, "REMOTE", words->path, "a file (with -r a directory) on the device")->required();
    get_cmd->add_option("LOCAL", words->other, "the local file, replaced only once complete")
        ->required()
        ->check(local_path);
    choose(get_cmd, o, [&o, words] {
        return words->recursive ? get_tree(o, words->path, words->other) : get(o, words->path, words->other);
    });

    CLI::App* put_cmd = group->add_subcommand(
        "put", "copy LOCAL to a device file, replaced only once complete; -r: a directory and all below it");
    put_cmd->add_flag("-r,--recursive", words->recursive,
                      "what the directory LOCAL holds, all below it, into the directory REMOTE (made when\n"
                      "missing), file by file");
    put_cmd->add_option("LOCAL", words->other, "a local file (with -r a directory)")->required()->check(local_path);
    remote_word(put_cmd, "REMOTE", words->path, "the file on the device")->required();
    choose(put_cmd, o, [&o, words] {
        return words->recursive ? put_tree(o, words->other, words->path) : put(o, words->other, words->path);
    });

    CLI::App* rm = group->add_subcommand("rm", "remove a file");
    remote_word(rm, "PATH", words->path, "a file on the device")->required();
    choose(rm, o, [&o, words] { return one_path(o, words->path, "remove", modbus_vukra_op_protected_remove); });

    CLI::App* mkdir_cmd = group->add_subcommand("mkdir", "make a directory");
    remote_word(mkdir_cmd, "PATH", words->path, "the new directory")->required();
    choose(mkdir_cmd, o,
           [&o, words] { return one_path(o, words->path, "make the directory", modbus_vukra_op_protected_mkdir); });

    CLI::App* rmdir_cmd = group->add_subcommand("rmdir", "remove an empty directory");
    remote_word(rmdir_cmd, "PATH", words->path, "a directory on the device")->required();
    choose(rmdir_cmd, o,
           [&o, words] { return one_path(o, words->path, "remove the directory", modbus_vukra_op_protected_rmdir); });

    CLI::App* mv = group->add_subcommand("mv", "rename OLD to NEW (an existing NEW is replaced)");
    remote_word(mv, "OLD", words->path, "the present path")->required();
    remote_word(mv, "NEW", words->other, "the new path")->required();
    choose(mv, o, [&o, words] { return move(o, words->path, words->other); });

    CLI::App* df = group->add_subcommand("df", "the usage of the filesystem holding PATH (default /)");
    remote_word(df, "PATH", words->path, "a path on the device");
    choose(df, o, [&o, words] { return on_device(o, words->path, usage); });

    CLI::App* stat = group->add_subcommand("stat", "the four attribute words of PATH: node, kind, size, time");
    remote_word(stat, "PATH", words->path, "a path on the device")->required();
    choose(stat, o, [&o, words] { return on_device(o, words->path, status_of); });

    CLI::App* tree_cmd = group->add_subcommand("tree", "PATH (default /) and everything below it");
    remote_word(tree_cmd, "PATH", words->path, "a directory on the device");
    choose(tree_cmd, o, [&o, words] { return on_device(o, words->path, tree); });

    add_image_commands(*group, options);
}

} // namespace vukra::cli
