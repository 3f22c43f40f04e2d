// What FUSE asks of the mount, in the library's file operations.
//
// Paths under the mount are device paths below the root (--root). Files
// are read and written 1024 bytes per transaction from the position the
// kernel asks for; since every lookup, listing or creation moves the
// session's one current handle elsewhere, a read or write first looks its
// file up again unless that file is still the current one.
//
// What the device cannot do is refused rather than pretended: modes and
// owners other than those shown (EPERM), links (EPERM), times and
// truncation to any length but 0 or the present one (EOPNOTSUPP). A
// truncation to 0 (an open with O_TRUNC, as a shell's ">" makes) is a
// create of the existing name, which the device answers by emptying the
// file: one transaction, and the file keeps its node.
#include "mount.h"
#include "remote_fs.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <linux/fs.h>
#include <sys/stat.h>

namespace vukra::cli::mount {

namespace {

State& state() { return *static_cast<State*>(fuse_get_context()->private_data); }

// The device path of a path under the mount: 0, or -ENAMETOOLONG when the
// device could not be sent it or holds no name that long (it answers a name
// of more than 255 bytes as missing, which would read as ENOENT). FUSE
// passes no path for an open file or directory whose name was removed or
// replaced meanwhile: -ESTALE, what bears the name now is another's.
int to_device(const State& st, const char* path, std::string& out) {
    if (path == nullptr) return -ESTALE;
    out = st.root == "/" ? std::string(path) : std::strcmp(path, "/") == 0 ? st.root : st.root + path;
    if (out.size() > kLongestPath) return -ENAMETOOLONG;
    for (const char* name = path; *name != '\0';) {
        const std::size_t length = std::strcspn(name, "/");
        if (length > kLongestName) return -ENAMETOOLONG;
        name += length + (name[length] == '/');
    }
    return 0;
}

// The failure of the library call just made, as a FUSE result. A device
// that did not answer is not asked again for a second: the requests queued
// behind that one, and those of the same command, fail at once rather than
// each after a whole time-out.
int failed(State& st, Doing doing = Doing::kOther) {
    const std::int32_t status = modbus_vukra_op_session_error(st.session);
    if (status == tool::kLineFailed) st.silent_until = Cache::Clock::now() + std::chrono::seconds(1);
    return -tool::errno_of(status, doing);
}

bool silent(const State& st) { return Cache::Clock::now() < st.silent_until; }

// Looks path up (or takes what the cache holds); 0 or -errno.
int look(State& st, const std::string& path, modbus_vukra_attributes& a) {
    bool found = false;
    if (st.cache.attributes(path, found, a)) return found ? 0 : -ENOENT;
    if (silent(st)) return -EIO;
    st.current = 0;
    a = {};
    if (modbus_vukra_op_protected_lookup(st.session, path.c_str(), &a) != 0) {
        const int result = failed(st, Doing::kLookup);
        if (result == -ENOENT) st.cache.put_attributes(path, false, a);
        return result;
    }
    st.cache.put_attributes(path, true, a);
    return 0;
}

// Looks up a path under the mount: its device path and attributes; 0 or -errno.
int look(State& st, const char* path, std::string& device, modbus_vukra_attributes& a) {
    if (const int refused = to_device(st, path, device)) return refused;
    return look(st, device, a);
}

// Anything but a directory is shown as a regular file whose bytes are the
// device's: a device node (the card's image at /dev/sdcard0, of the card's
// size) or a fifo of the host's own kind would open one of the host's
// devices or pipes, never the device's.
mode_t mode_of(const modbus_vukra_attributes& a) {
    return (a.words[kAttrKind] & kKindDirectory) ? S_IFDIR | 0755 : S_IFREG | 0644;
}

void fill(const State& st, const modbus_vukra_attributes& a, struct stat& out) {
    out = {};
    out.st_ino = a.words[kAttrNode];
    out.st_mode = mode_of(a);
    out.st_nlink = S_ISDIR(out.st_mode) ? 2 : 1;
    out.st_uid = st.uid;
    out.st_gid = st.gid;
    out.st_size = a.words[kAttrSize];
    out.st_blksize = 1024;
    out.st_blocks = (out.st_size + 511) / 512;
    out.st_atime = out.st_mtime = out.st_ctime = a.words[kAttrTime];
}

// The device's files are about to change (the first time: first_write).
void wrote(State& st) {
    if (!st.written && st.first_write) st.first_write();
    st.written = true;
}

// A request that changes the device's files: what it touches leaves the
// cache, and the current handle is the device's to choose.
void changing(State& st, const std::string& path) {
    st.current = 0;
    wrote(st);
    st.cache.drop(path);
}

// Makes the open file fh the current handle again; 0 or -errno. The high-
// level library passes the path the file has now, renames included. A file
// is bound to the node it was opened on: when its path names another node,
// or none, it is stale, and nothing is read from or written to what bears
// the name now.
int establish(State& st, std::uint64_t fh, const char* path) {
    const auto file = st.files.find(fh);
    if (file == st.files.end()) return -EBADF;
    if (silent(st)) return -EIO;
    if (const int refused = to_device(st, path, file->second.path)) return refused;
    if (st.current == fh) return 0;
    st.current = 0;
    modbus_vukra_attributes a{};
    if (modbus_vukra_op_protected_lookup(st.session, file->second.path.c_str(), &a) != 0) {
        const int result = failed(st);
        return result == -ENOENT ? -ESTALE : result;
    }
    if (a.words[kAttrNode] != file->second.node) return -ESTALE;
    st.current = fh;
    return 0;
}

// Positions are 32-bit on the line.
constexpr off_t kLastPosition = INT32_MAX;

void* on_init(fuse_conn_info* conn, fuse_config* cfg) {
    State& st = state();
    cfg->use_ino = 1;
    cfg->hard_remove = 1; // a removed open file is gone on the device at once, as the device has it
    cfg->entry_timeout = cfg->attr_timeout = st.cache_seconds;
    cfg->negative_timeout = 0;
    // A truncation comes as its own request, not folded into the open.
    conn->want &= ~FUSE_CAP_ATOMIC_O_TRUNC;
    // Large reads and writes keep the line busy: one request becomes many
    // 1024-byte transactions back to back.
    conn->max_readahead = 256 * 1024;
    conn->max_write = 256 * 1024;
    return &st;
}

int on_getattr(const char* path, struct stat* out, fuse_file_info*) {
    State& st = state();
    std::string device;
    modbus_vukra_attributes a;
    if (const int result = look(st, path, device, a)) return result;
    fill(st, a, *out);
    return 0;
}

int on_readdir(const char* path, void* buffer, fuse_fill_dir_t filler, off_t, fuse_file_info*, fuse_readdir_flags) {
    State& st = state();
    std::string device;
    if (const int refused = to_device(st, path, device)) return refused;
    std::vector<std::string> names;
    if (!st.cache.listing(device, names)) {
        if (silent(st)) return -EIO;
        st.current = 0;
        // A listing that fails, or never ends, is said on stderr by list_names.
        if (list_names(*st.remote, device, names) != 0) return failed(st);
        st.cache.put_listing(device, names);
    }
    filler(buffer, ".", nullptr, 0, fuse_fill_dir_flags{});
    filler(buffer, "..", nullptr, 0, fuse_fill_dir_flags{});
    for (const std::string& name : names)
        if (name != "." && name != ".." && !name.empty() && filler(buffer, name.c_str(), nullptr, 0, fuse_fill_dir_flags{}))
            break;
    return 0;
}

int on_open(const char* path, fuse_file_info* fi) {
    State& st = state();
    std::string device;
    modbus_vukra_attributes a;
    if (const int result = look(st, path, device, a)) return result;
    if (is_directory(a)) return -EISDIR;
    fi->fh = st.next_file++;
    st.files[fi->fh] = {device, a.words[kAttrNode]};
    return 0;
}

int on_create(const char* path, mode_t mode, fuse_file_info* fi) {
    State& st = state();
    if (!S_ISREG(mode)) return -EPERM;
    std::string device;
    if (const int refused = to_device(st, path, device)) return refused;
    if (silent(st)) return -EIO;
    changing(st, device);
    if (modbus_vukra_op_protected_create(st.session, device.c_str()) != 0) return failed(st);
    // The lookup keeps the new file current, at position 0, and tells FUSE
    // its attributes right after.
    modbus_vukra_attributes a{};
    if (modbus_vukra_op_protected_lookup(st.session, device.c_str(), &a) != 0) return failed(st);
    st.cache.put_attributes(device, true, a);
    fi->fh = st.next_file++;
    st.files[fi->fh] = {device, a.words[kAttrNode]};
    st.current = fi->fh;
    return 0;
}

int on_read(const char* path, char* buffer, std::size_t size, off_t offset, fuse_file_info* fi) {
    State& st = state();
    if (const int result = establish(st, fi->fh, path)) return result;
    if (offset >= kLastPosition) return 0;
    size = static_cast<std::size_t>(std::min<off_t>(static_cast<off_t>(size), kLastPosition - offset));
    modbus_vukra_op_protected_seek(st.session, static_cast<std::uint32_t>(offset), 0);
    std::size_t done = 0;
    while (done < size) {
        const auto want = static_cast<std::int32_t>(std::min<std::size_t>(1024, size - done));
        const std::int32_t got = modbus_vukra_op_protected_read(st.session, buffer + done, want);
        if (got < 0) {
            // A short answer would read as the file's end: the error it is.
            st.current = 0;
            return failed(st);
        }
        done += static_cast<std::size_t>(got);
        if (got < want) break; // the file's end
    }
    return static_cast<int>(done);
}

int on_write(const char* path, const char* buffer, std::size_t size, off_t offset, fuse_file_info* fi) {
    State& st = state();
    if (const int result = establish(st, fi->fh, path)) return result;
    if (offset + static_cast<off_t>(size) > kLastPosition) return -EFBIG;
    wrote(st);
    modbus_vukra_op_protected_seek(st.session, static_cast<std::uint32_t>(offset), 0);
    std::size_t done = 0;
    int result = 0;
    while (done < size && result == 0) {
        const auto give = static_cast<std::int32_t>(std::min<std::size_t>(1024, size - done));
        const std::int32_t taken = modbus_vukra_op_protected_write(st.session, buffer + done, give);
        if (taken < 0) {
            st.current = 0;
            result = failed(st);
        } else if (taken == 0) {
            result = -ENOSPC; // the device took nothing and said nothing: its card is full
        } else {
            done += static_cast<std::size_t>(taken);
        }
    }
    st.cache.grown(st.files[fi->fh].path, static_cast<std::uint32_t>(offset + static_cast<off_t>(done)));
    return done > 0 ? static_cast<int>(done) : result;
}

int on_truncate(const char* path, off_t size, fuse_file_info*) {
    State& st = state();
    std::string device;
    modbus_vukra_attributes a;
    if (const int result = look(st, path, device, a)) return result;
    if (is_directory(a)) return -EISDIR;
    if (size == static_cast<off_t>(a.words[kAttrSize])) return 0;
    if (size != 0 || !(a.words[kAttrKind] & kKindFile)) return -EOPNOTSUPP;
    if (silent(st)) return -EIO;
    changing(st, device);
    return modbus_vukra_op_protected_create(st.session, device.c_str()) == 0 ? 0 : failed(st);
}

// remove, mkdir, rmdir: one request on one path.
int one_path(const char* path, std::int32_t (*operation)(modbus_vukra_session*, const char*), Doing doing) {
    State& st = state();
    std::string device;
    if (const int refused = to_device(st, path, device)) return refused;
    if (silent(st)) return -EIO;
    changing(st, device);
    return operation(st.session, device.c_str()) == 0 ? 0 : failed(st, doing);
}

int on_unlink(const char* path) { return one_path(path, modbus_vukra_op_protected_remove, Doing::kOther); }
int on_mkdir(const char* path, mode_t) { return one_path(path, modbus_vukra_op_protected_mkdir, Doing::kOther); }
int on_rmdir(const char* path) {
    return one_path(path, modbus_vukra_op_protected_rmdir, Doing::kRemovingDirectory);
}

int on_rename(const char* from_path, const char* to_path, unsigned int flags) {
    State& st = state();
    if (flags & RENAME_EXCHANGE) return -EINVAL; // the device swaps nothing
    std::string from, to;
    if (const int refused = to_device(st, from_path, from)) return refused;
    if (const int refused = to_device(st, to_path, to)) return refused;
    if (flags & RENAME_NOREPLACE) {
        modbus_vukra_attributes a;
        const int there = look(st, to, a);
        if (there == 0) return -EEXIST;
        if (there != -ENOENT) return there;
    }
    if (silent(st)) return -EIO;
    changing(st, from);
    changing(st, to);
    if (modbus_vukra_op_protected_rename(st.session, from.c_str(), to.c_str()) != 0) return failed(st);
    // Open files below a moved directory are looked up by their new paths.
    for (auto& [fh, file] : st.files)
        if (file.path == from || file.path.compare(0, from.size() + 1, from + "/") == 0)
            file.path = to + file.path.substr(from.size());
    return 0;
}

int on_statfs(const char*, struct statvfs* out) {
    State& st = state();
    if (silent(st)) return -EIO;
    st.current = 0;
    modbus_vukra_usage u{};
    if (modbus_vukra_op_protected_fsstat(st.session, st.root.c_str(), &u) != 0) return failed(st);
    *out = {};
    out->f_bsize = out->f_frsize = u.words[kUsageBlockSize];
    out->f_blocks = u.words[kUsageBlocks];
    out->f_bfree = out->f_bavail = u.words[kUsageFreeBlocks];
    out->f_files = out->f_ffree = out->f_favail = u.words[kUsageFreeNodes]; // the device tells no total
    out->f_namemax = 255;
    return 0;
}

int on_release(const char*, fuse_file_info* fi) {
    State& st = state();
    st.files.erase(fi->fh);
    if (st.current == fi->fh) st.current = 0;
    return 0;
}

// Every write is on the device once its transaction is answered.
int on_fsync(const char*, int, fuse_file_info*) { return 0; }

// The mode and owner shown are the only ones there are: asking for them
// again is no change, anything else cannot be done.
int on_chmod(const char* path, mode_t mode, fuse_file_info*) {
    State& st = state();
    std::string device;
    modbus_vukra_attributes a;
    if (const int result = look(st, path, device, a)) return result;
    return (mode & 07777) == (mode_of(a) & 07777) ? 0 : -EPERM;
}

int on_chown(const char*, uid_t uid, gid_t gid, fuse_file_info*) {
    const State& st = state();
    const bool same_user = uid == static_cast<uid_t>(-1) || uid == st.uid;
    const bool same_group = gid == static_cast<gid_t>(-1) || gid == st.gid;
    return same_user && same_group ? 0 : -EPERM;
}

int on_utimens(const char*, const struct timespec*, fuse_file_info*) { return -EOPNOTSUPP; }
int on_link(const char*, const char*) { return -EPERM; }
int on_mknod(const char*, mode_t, dev_t) { return -EPERM; }

// No request may end the mount: whatever an operation throws (memory
// running out) is EIO for that request alone.
template <auto Operation, typename... Arguments>
int guarded(Arguments... arguments) noexcept {
    try {
        return Operation(arguments...);
    } catch (...) {
        return -EIO;
    }
}

const fuse_operations kOperations = [] {
    fuse_operations o{};
    o.init = on_init;
    o.getattr = guarded<on_getattr>;
    o.readdir = guarded<on_readdir>;
    o.open = guarded<on_open>;
    o.create = guarded<on_create>;
    o.read = guarded<on_read>;
    o.write = guarded<on_write>;
    o.truncate = guarded<on_truncate>;
    o.unlink = guarded<on_unlink>;
    o.mkdir = guarded<on_mkdir>;
    o.rmdir = guarded<on_rmdir>;
    o.rename = guarded<on_rename>;
    o.statfs = guarded<on_statfs>;
    o.release = guarded<on_release>;
    o.fsync = guarded<on_fsync>;
    o.chmod = guarded<on_chmod>;
    o.chown = guarded<on_chown>;
    o.utimens = guarded<on_utimens>;
    o.link = guarded<on_link>;
    o.symlink = guarded<on_link>;
    o.mknod = guarded<on_mknod>;
    return o;
}();

} // namespace

const fuse_operations& operations() { return kOperations; }

} // namespace vukra::cli::mount
