#include "remote_fs.h"

#include "device.h"
#include "progress.h"

#include <cerrno>
#include <cstring>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#if defined(_WIN32)
#include <io.h>
#endif
#include <unordered_set>
#include <vector>

namespace vukra::cli {

modbus_vukra_session* mounted_session(Options& options) {
    modbus_vukra_session* s = device_session(options);
    if (s == nullptr || options.mounted) return s;
    if (modbus_vukra_op_protected_mount(s) != 0) {
        fail("cannot mount the device's filesystem on " + options.port + ": " + device_status(s));
        return nullptr;
    }
    options.mounted = true;
    return s;
}

Remote::Remote(Options& options) : session(mounted_session(options)), hold(session) {}

std::string remote_path(const std::string& user_path) {
    std::string path = "/";
    for (char c : user_path) {
        if (c == '/' && path.back() == '/') continue;
        path += c;
    }
    if (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

std::string status_words(std::int32_t status) {
    char text[160];
    tool::status_words(status, text, sizeof text);
    return text;
}

std::string device_status(modbus_vukra_session* s) {
    const std::int32_t status = modbus_vukra_op_session_error(s);
    if (status == 0 || status == tool::kLineFailed) {
        // What the line met says more than the number.
        const tool::Failure why = tool::last_failure();
        if (why.kind != tool::FailureKind::kNone) return why.reason;
        if (status == 0) return "the device's reply could not be read";
    }
    return status_words(status);
}

int device_fail(const Remote& r, const std::string& what, const std::string& path) {
    return fail("cannot " + what + " " + path + ": " + device_status(r.session));
}

char kind_letter(std::uint32_t kind) {
    if (kind & kKindDirectory) return 'd';
    if (kind & kKindDevice) return (kind & kKindCharacter) ? 'c' : 'b';
    if (kind & kKindFile) return '-';
    if (kind & kKindFifo) return 'p';
    if (kind & kKindLink) return 'l';
    return '?';
}

std::string kind_words(std::uint32_t kind) {
    switch (kind_letter(kind)) {
    case 'd': return "directory";
    case 'c': return "character device";
    case 'b': return "block device";
    case '-': return "regular file";
    case 'p': return "fifo";
    case 'l': return "descriptor link";
    default: return "unknown";
    }
}

bool is_directory(const modbus_vukra_attributes& a) { return (a.words[kAttrKind] & kKindDirectory) != 0; }

bool look_up(const Remote& r, const std::string& path, modbus_vukra_attributes& out) {
    out = {};
    return modbus_vukra_op_protected_lookup(r.session, path.c_str(), &out) == 0;
}

bool missing(const Remote& r) {
    return tool::errno_of(modbus_vukra_op_session_error(r.session), tool::Doing::kLookup) == ENOENT;
}

int list_names(const Remote& r, const std::string& path, std::vector<std::string>& names) {
    modbus_vukra_attributes a;
    if (!look_up(r, path, a)) return device_fail(r, "list", path);
    // The device decides where a listing ends. One that never says so (a
    // page that brings nothing, a cookie seen before, more names than any
    // card holds) is refused rather than asked for forever.
    constexpr std::size_t kMostNames = std::size_t{1} << 20;
    std::unordered_set<std::int32_t> cookies{modbus_vukra_op_protected_telldir(r.session)};
    for (;;) {
        modbus_vukra_dir_entry* first = nullptr;
        const std::int32_t end = modbus_vukra_op_protected_readdir(r.session, &first);
        const std::size_t before = names.size();
        while (first != nullptr) {
            modbus_vukra_dir_entry* next = first->next;
            names.emplace_back(first->name);
            std::free(first);
            first = next;
        }
        if (end < 0) return device_fail(r, "list", path);
        if (end == 1) return 0;
        const bool moved = cookies.insert(modbus_vukra_op_protected_telldir(r.session)).second;
        if (names.size() == before || !moved || names.size() > kMostNames)
            return fail("cannot list " + path + ": the device's listing does not end");
    }
}

Moved read_to(const Remote& r, Progress& progress, std::FILE* out) {
    Moved result = Moved::kAll;
    char block[1024];
    for (;;) {
        const std::int32_t got = modbus_vukra_op_protected_read(r.session, block, sizeof block);
        if (got < 0) {
            result = Moved::kDevice;
            break;
        }
        if (got == 0) break;
        if (std::fwrite(block, 1, static_cast<std::size_t>(got), out) != static_cast<std::size_t>(got)) {
            result = Moved::kLocal;
            break;
        }
        progress_add(progress, static_cast<std::uint64_t>(got));
    }
    return result;
}

Moved write_from(const Remote& r, Progress& progress, std::FILE* in) {
    Moved result = Moved::kAll;
    char block[1024];
    while (result == Moved::kAll) {
        const std::size_t n = std::fread(block, 1, sizeof block, in);
        if (n == 0) break;
        // The device may take fewer bytes than it was given; the rest goes again.
        for (std::size_t at = 0; at < n && result == Moved::kAll;) {
            const std::int32_t put =
                modbus_vukra_op_protected_write(r.session, block + at, static_cast<std::int32_t>(n - at));
            if (put <= 0) {
                result = put < 0 ? Moved::kDevice : Moved::kStalled;
                break;
            }
            at += static_cast<std::size_t>(put);
            progress_add(progress, static_cast<std::uint64_t>(put));
        }
    }
    if (result == Moved::kAll && std::ferror(in)) result = Moved::kLocal;
    return result;
}

std::string device_path_check(const std::string& word) {
    const bool drive = word.size() >= 2 && word[1] == ':' &&
                       ((word[0] >= 'A' && word[0] <= 'Z') || (word[0] >= 'a' && word[0] <= 'z'));
    if (!drive && word.find('\\') == std::string::npos) return "";
    // A Windows shell of the MSYS kind turns "/mem" into "C:/.../mem" on its own.
    return word + " is a Windows path where a device path is expected: the device's paths are written "
                  "with \"/\" from its root, e.g. /mem/notes.txt (in Git Bash set MSYS_NO_PATHCONV=1)";
}

std::string local_path_check(const std::string& word) {
    if (word.empty()) return "an empty local path";
    // Only a path below a first directory: "/x.txt" is a file in the root.
    const std::size_t second = word.find('/', 1);
    if (word.size() < 2 || word[0] != '/' || word[1] == '/' || second == std::string::npos) return "";
    const std::string top = word.substr(0, second);
    std::error_code e;
    if (std::filesystem::exists(top, e)) return "";
    return word + " reads as a device path: there is no local " + top +
           " (fs get REMOTE LOCAL copies from the device, fs put LOCAL REMOTE to it)";
}

std::string shown(const std::filesystem::path& p) {
    const std::u8string u = p.u8string();
    return std::string(u.begin(), u.end());
}

std::FILE* open_local(const std::filesystem::path& p, const char* mode) {
#if defined(_WIN32)
    const std::wstring wide_mode(mode, mode + std::strlen(mode));
    return _wfopen(p.c_str(), wide_mode.c_str());
#else
    return std::fopen(p.c_str(), mode);
#endif
}

std::FILE* create_local(const std::filesystem::path& p) {
#if defined(_WIN32)
    const int fd = _wopen(p.c_str(), _O_WRONLY | _O_CREAT | _O_EXCL | _O_BINARY, _S_IREAD | _S_IWRITE);
    std::FILE* f = fd >= 0 ? _fdopen(fd, "wb") : nullptr;
#else
    const int fd = open(p.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    std::FILE* f = fd >= 0 ? fdopen(fd, "wb") : nullptr;
#endif
    if (f == nullptr && fd >= 0) close(fd);
    return f;
}

} // namespace vukra::cli
