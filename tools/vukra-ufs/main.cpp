// vukra-ufs: prepares and inspects ufs device images on the host. It runs
// the kernel in-process with IMAGE as the SD card and the volume on "/mem".
#include "kernel/kernel_errors.h"
#include "kernel/kernel_start.h"
#include "kernel/ufs_check.h"
#include "kernel/vfs.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

using namespace vukra;
using namespace vukra::kernel;
namespace fs = std::filesystem;

namespace {

const char kUsage[] =
    "usage: vukra-ufs IMAGE COMMAND [ARGUMENTS]\n"
    "\n"
    "Prepares and inspects ufs images of a vukra device's SD card.\n"
    "\n"
    "  mkfs [--nodes N] [--blocks N] [--block-size B]\n"
    "                   makes a new volume (256 nodes, as many blocks as fit, 512-byte\n"
    "                   blocks by default); a new IMAGE is made 8 MiB large\n"
    "  ls [-l] PATH     lists a directory (-l: kind, size and name)\n"
    "  tree             lists the whole volume\n"
    "  cat PATH         writes a file to standard output\n"
    "  put LOCAL PATH   copies a host file into the volume\n"
    "  get PATH LOCAL   copies a file out of the volume\n"
    "  mkdir PATH       makes a directory\n"
    "  rm PATH          removes a file or an empty directory\n"
    "  mv OLD NEW       renames or moves\n"
    "  df               blocks and nodes, used and free\n"
    "  check            walks the whole volume; the exit status is 1 when anything\n"
    "                   is inconsistent\n"
    "\n"
    "Paths are absolute within the volume (\"/\" is its root).\n"
    "\n"
    "  -h, --help       shows this text\n"
    "  --version        shows the version\n";

int fail(const std::string& why) {
    std::fprintf(stderr, "vukra-ufs: %s\n", why.c_str());
    return 1;
}

std::string inside(const std::string& path) {
    if (path.empty() || path == "/") return "/mem";
    return "/mem" + (path[0] == '/' ? path : "/" + path);
}

// Runs the kernel in a scratch directory where "sdcard0.o" is the image.
struct Workspace {
    fs::path dir;
    fs::path previous = fs::current_path();
    bool ok = false;

    explicit Workspace(const fs::path& image) {
        std::string pattern = (fs::temp_directory_path() / "vukra-ufs-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) return;
        dir = pattern;
        std::error_code e;
        fs::create_symlink(fs::absolute(image), dir / "sdcard0.o", e);
        if (e) return;
        fs::current_path(dir);
        ok = true;
    }
    ~Workspace() {
        std::error_code e;
        fs::current_path(previous, e);
        if (!dir.empty()) fs::remove_all(dir, e);
    }
};

// Sets the card's size to the image's (less a trailing end marker), when
// it is not the card's own 8 MiB.
void size_card_to(std::uintmax_t bytes) {
    std::int32_t size = static_cast<std::int32_t>(bytes % 512 == 4 ? bytes - 4 : bytes);
    if (size == 0x800000) return;
    Descriptor card = kernel::open("/dev/sdcard0", kOpenRead | kOpenWrite);
    if (card < 0) return;
    std::fflush(stdout);
    kernel::ioctl(card, 2, &size);
    kernel::close(card);
}

std::string kind_letter(std::uint8_t kind) {
    switch (kind) {
    case kNodeDirectory: return "d";
    case kNodeFile: return "-";
    case kNodeCharDevice: return "c";
    case kNodeBlockDevice: return "b";
    default: return "?";
    }
}

int list(const std::string& path, bool long_form) {
    Descriptor fd = kernel::open(inside(path).c_str(), kOpenRead);
    if (fd < 0) return fail("no directory " + path);
    DirEntry entry{};
    int got;
    while ((got = kernel::readdir(fd, entry)) == 1) {
        if (!long_form) {
            std::printf("%s\n", entry.name);
            continue;
        }
        NodeStatus s{};
        const std::string child = inside(path) + "/" + entry.name;
        if (kernel::stat(child.c_str(), s) == 0)
            std::printf("%s %10u %s\n", kind_letter(s.kind).c_str(), s.size, entry.name);
        else
            std::printf("? %10s %s\n", "?", entry.name);
    }
    kernel::close(fd);
    return got < 0 ? fail(path + " is not a directory") : 0;
}

void tree(const std::string& path, int depth, int& count) {
    Descriptor fd = kernel::open(inside(path).c_str(), kOpenRead);
    if (fd < 0 || depth > 64) return;
    DirEntry entry{};
    std::vector<std::string> names;
    while (kernel::readdir(fd, entry) == 1) names.emplace_back(entry.name);
    kernel::close(fd);
    for (const std::string& name : names) {
        const std::string child = (path == "/" ? "/" : path + "/") + name;
        NodeStatus s{};
        bool known = kernel::stat(inside(child).c_str(), s) == 0;
        std::printf("%*s%s%s\n", 2 * depth, "", name.c_str(), known && s.kind == kNodeDirectory ? "/" : "");
        ++count;
        if (known && s.kind == kNodeDirectory) tree(child, depth + 1, count);
    }
}

int copy_out(const std::string& path, std::FILE* out) {
    Descriptor fd = kernel::open(inside(path).c_str(), kOpenRead);
    if (fd < 0) return fail("no file " + path);
    char buffer[8192];
    long n;
    while ((n = kernel::read(fd, buffer, sizeof buffer)) > 0) std::fwrite(buffer, 1, static_cast<std::size_t>(n), out);
    kernel::close(fd);
    return n < 0 ? fail(path + " cannot be read whole") : 0;
}

int copy_in(const std::string& local, const std::string& path) {
    std::ifstream in(local, std::ios::binary);
    if (!in) return fail("cannot read " + local);
    Descriptor fd = kernel::open(inside(path).c_str(), kOpenWrite | kOpenCreate | kOpenTruncate);
    if (fd < 0) return fail("cannot create " + path);
    char buffer[8192];
    int status = 0;
    while (in.read(buffer, sizeof buffer) || in.gcount() > 0) {
        long want = static_cast<long>(in.gcount());
        if (kernel::write(fd, buffer, static_cast<std::size_t>(want)) != want) {
            status = fail("the volume is full or " + path + " reached its size limit");
            break;
        }
    }
    kernel::close(fd);
    return status;
}

int make(const fs::path& image, const std::vector<std::string>& args) {
    UfsMakeArgument a{256, 0xFFFFFFFF, 512, 0};
    for (std::size_t i = 0; i < args.size(); ++i) {
        auto number = [&](std::uint32_t& out) {
            if (i + 1 >= args.size()) return false;
            out = static_cast<std::uint32_t>(std::strtoul(args[++i].c_str(), nullptr, 0));
            return true;
        };
        bool ok = (args[i] == "--nodes" && number(a.nodes)) || (args[i] == "--blocks" && number(a.blocks)) ||
                  (args[i] == "--block-size" && number(a.block_size));
        if (!ok) return fail("mkfs: unknown or incomplete option " + args[i]);
    }
    if (a.nodes == 0 || a.nodes > 0xFFFF) return fail("mkfs: --nodes takes 1 to 65535");
    std::error_code e;
    a.device_size = static_cast<std::uint32_t>(fs::file_size(image, e));
    if (a.device_size % 512 == 4) a.device_size -= 4;
    std::fflush(stdout);
    if (kernel::mkfs(kUfsx, "/dev/sdcard0", &a) != 0) return fail("mkfs failed");
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty() || args[0] == "-h" || args[0] == "--help") {
        std::fputs(kUsage, args.empty() ? stderr : stdout);
        return args.empty() ? 2 : 0;
    }
    if (args[0] == "--version") {
        std::puts("vukra-ufs " VUKRA_VERSION);
        return 0;
    }
    if (args.size() < 2) return fail("a command is needed (see vukra-ufs --help)");
    const fs::path image = fs::absolute(args[0]); // the workspace changes directory
    const std::string command = args[1];
    std::vector<std::string> rest(args.begin() + 2, args.end());
    if (command != "mkfs" && !fs::exists(image)) return fail("no image " + image.string());
    if (command == "mkfs" && !fs::exists(image)) {
        // A new card image as the SD card driver makes one: 8 MiB and its end marker.
        std::ofstream(image, std::ios::binary).flush();
        std::error_code e;
        fs::resize_file(image, 0x800004, e);
        if (e) return fail("cannot make " + image.string());
    }

    // Host paths are the caller's, read after the workspace changed directory.
    if (command == "put" && !rest.empty()) rest[0] = fs::absolute(rest[0]).string();
    if (command == "get" && rest.size() > 1) rest[1] = fs::absolute(rest[1]).string();
    Workspace work(image);
    if (!work.ok) return fail("cannot set up a workspace for " + image.string());
    kernel_start();
    if (fs::exists(image)) size_card_to(fs::file_size(image));
    if (command == "mkfs") return make(image, rest);

    if (kernel::mount(kUfsx, "/dev/sdcard0", "/mem") != 0)
        return fail(image.string() + " holds no volume that mounts (error " + std::to_string(kernel_error()) + ")");
    auto need = [&](std::size_t count) { return rest.size() == count; };
    int status = 0;
    if (command == "ls" && (need(1) || need(2))) {
        bool long_form = rest[0] == "-l";
        status = list(long_form ? (rest.size() > 1 ? rest[1] : "/") : rest[0], long_form);
    } else if (command == "tree" && need(0)) {
        int count = 0;
        std::printf("/\n");
        tree("/", 1, count);
    } else if (command == "cat" && need(1)) {
        status = copy_out(rest[0], stdout);
    } else if (command == "put" && need(2)) {
        status = copy_in(rest[0], rest[1]);
    } else if (command == "get" && need(2)) {
        std::FILE* out = std::fopen(rest[1].c_str(), "wb");
        status = out ? copy_out(rest[0], out) : fail("cannot write " + rest[1]);
        if (out) std::fclose(out);
    } else if (command == "mkdir" && need(1)) {
        status = kernel::mkdir(inside(rest[0]).c_str()) == 0 ? 0 : fail("cannot make " + rest[0]);
    } else if (command == "rm" && need(1)) {
        status = kernel::remove(inside(rest[0]).c_str()) == 0 ? 0 : fail("cannot remove " + rest[0]);
    } else if (command == "mv" && need(2)) {
        status = kernel::rename(inside(rest[0]).c_str(), inside(rest[1]).c_str()) == 0
                     ? 0
                     : fail("cannot move " + rest[0] + " to " + rest[1]);
    } else if (command == "df" && need(0)) {
        FsStatus s{};
        kernel::fsstat("/mem", s);
        std::printf("block size %u\nblocks %u used, %u free of %u\nnodes %u used, %u free of %u\n", s.block_size,
                    s.blocks - s.free_blocks, s.free_blocks, s.blocks, s.nodes - s.free_nodes, s.free_nodes, s.nodes);
    } else if (command == "check" && need(0)) {
        CheckReport report;
        check_volume("/mem", report);
        for (const std::string& p : report.problems) std::printf("%s\n", p.c_str());
        std::printf("%u directories, %u files, %u other nodes, %u blocks in use: %s\n", report.directories,
                    report.files, report.others, report.blocks_in_use,
                    report.problems.empty() ? "consistent" : "INCONSISTENT");
        status = report.problems.empty() ? 0 : 1;
    } else {
        status = fail("unknown command or wrong arguments: " + command + " (see vukra-ufs --help)");
    }
    if (kernel::umount("/mem") != 0 && status == 0) status = fail("the volume could not be written back");
    return status;
}
