// vukra-ufs: prepares and inspects ufs device images on the host. It runs
// the kernel in-process with IMAGE as the SD card and the volume on "/mem";
// the user's paths are read within the volume and never leave it.
#include "../common/card_image.h"
#include "commands.h"

#include "kernel/kernel_diagnostics.h"
#include "kernel/kernel_errors.h"
#include "kernel/kernel_start.h"
#include "kernel/vfs.h"
#include "platform/platform.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

using namespace vukra;
using namespace vukra::kernel;
using vukra::ufs_tool::fail;
namespace fs = std::filesystem;

namespace {

const char kUsage[] =
    "usage: vukra-ufs [-v] IMAGE COMMAND [ARGUMENTS]\n"
    "\n"
    "Prepares and inspects ufs images of a vukra device's SD card.\n"
    "\n"
    "  mkfs [--nodes N] [--blocks N] [--block-size B]\n"
    "                   makes a new volume (256 nodes, as many blocks as fit, 512-byte\n"
    "                   blocks by default; a block size other than 16, 32, 64, 128, 256\n"
    "                   or 512 is taken as 32); a new IMAGE is made 8 MiB large\n"
    "  ls [-l] [PATH]   lists a directory (-l: kind, size and name)\n"
    "  tree             lists the whole volume\n"
    "  cat PATH         writes a file to standard output\n"
    "  put LOCAL PATH   copies a host file into the volume, replacing PATH whole\n"
    "  get PATH LOCAL   copies a file out of the volume (LOCAL \"-\": standard output)\n"
    "  mkdir PATH       makes a directory\n"
    "  rm PATH          removes a file or an empty directory\n"
    "  mv OLD NEW       renames or moves; NEW is the new name, and an existing file\n"
    "                   (or empty directory) of that name is replaced\n"
    "  df               blocks and nodes, used and free\n"
    "  check            walks the whole volume; the exit status is 1 when anything\n"
    "                   is inconsistent\n"
    "\n"
    "  -v               shows the kernel's messages on standard error\n"
    "\n"
    "SOURCE_DATE_EPOCH, when set, is the time (in seconds) the nodes made or changed\n"
    "get: the same commands then make the same image, byte for byte.\n"
    "\n"
    "Paths are within the volume: \"/\" is its root, and \"..\" at the root stays there.\n"
    "A failed command leaves the image and host files as they were. One program at a\n"
    "time uses an image: a second one is told \"image in use\".\n"
    "\n"
    "  -h, --help       shows this text\n"
    "  --version        shows the version\n";

struct Command {
    const char* name;
    std::size_t least, most; // arguments
};

constexpr Command kCommands[] = {
    {"mkfs", 0, 6}, {"ls", 0, 2}, {"tree", 0, 0}, {"cat", 1, 1}, {"put", 2, 2}, {"get", 2, 2},
    {"mkdir", 1, 1}, {"rm", 1, 1}, {"mv", 2, 2}, {"df", 0, 0},   {"check", 0, 0},
};

const Command* find_command(const std::string& name) {
    for (const Command& c : kCommands)
        if (name == c.name) return &c;
    return nullptr;
}

// A bad argument: one line and status 2, before anything is touched.
int usage(const std::string& why) {
    fail(why + " (see vukra-ufs --help)");
    return 2;
}

bool parse_number(const std::string& text, std::uint32_t& out) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos || text.size() > 10) return false;
    const unsigned long long value = std::strtoull(text.c_str(), nullptr, 10);
    if (value > 0xFFFFFFFFull) return false;
    out = static_cast<std::uint32_t>(value);
    return true;
}

// mkfs's options, read before anything is touched: "" or what is wrong.
std::string parse_make(const std::vector<std::string>& args, UfsMakeArgument& a) {
    a = UfsMakeArgument{256, 0xFFFFFFFF, 512, 0};
    for (std::size_t i = 0; i < args.size(); i += 2) {
        std::uint32_t* field = args[i] == "--nodes"        ? &a.nodes
                               : args[i] == "--blocks"     ? &a.blocks
                               : args[i] == "--block-size" ? &a.block_size
                                                           : nullptr;
        if (field == nullptr) return "mkfs: unknown option " + args[i];
        if (i + 1 >= args.size() || !parse_number(args[i + 1], *field)) return "mkfs: " + args[i] + " takes a number";
    }
    if (a.nodes == 0 || a.nodes > 0xFFFF) return "mkfs: --nodes takes 1 to 65535";
    if (a.blocks == 0) return "mkfs: --blocks takes at least 1";
    return "";
}

// Makes the volume; when the result does not mount, the image's first
// bytes (all that mkfs writes) are put back as they were.
int make(const fs::path& image, UfsMakeArgument a) {
    const std::uintmax_t size = fs::file_size(image);
    a.device_size = static_cast<std::uint32_t>(tools::card_size(size));
    UfsLayout layout{};
    if (!ufs_layout(a, layout))
        return fail(image.string() + " is too small for a volume of " + std::to_string(a.nodes) + " nodes");

    std::vector<char> before(static_cast<std::size_t>(std::min<std::uintmax_t>(layout.written, size)));
    {
        std::ifstream in(image, std::ios::binary);
        if (!in.read(before.data(), static_cast<std::streamsize>(before.size())))
            return fail("cannot read " + image.string());
    }
    if (kernel::mkfs(kUfsx, "/dev/sdcard0", &a) == 0 && kernel::mount(kUfsx, "/dev/sdcard0", "/mem") == 0)
        return kernel::umount("/mem") == 0 ? 0 : fail("the volume could not be written");
    std::fstream back(image, std::ios::binary | std::ios::in | std::ios::out);
    back.write(before.data(), static_cast<std::streamsize>(before.size()));
    back.flush();
    return fail(std::string("mkfs: no volume that mounts can be made with these sizes") +
                (layout.block_size == 1024 ? " (a volume of 1024-byte blocks does not mount)" : "") +
                (back ? "; the image is as it was" : "; the image could not be put back"));
}

// The image must be a regular file this program can read and write.
bool usable_image(const fs::path& image) {
    std::error_code e;
    const fs::file_status status = fs::status(image, e);
    if (!fs::exists(status)) return fail("no image " + image.string()) == 0;
    if (fs::is_directory(status)) return fail(image.string() + " is a directory, not an image") == 0;
    if (!fs::is_regular_file(status)) return fail(image.string() + " is not a regular file") == 0;
    if (!std::fstream(image, std::ios::binary | std::ios::in | std::ios::out))
        return fail("cannot open " + image.string() + " for reading and writing") == 0;
    if (fs::file_size(image, e) > 0x7FFFFFFF) return fail(image.string() + " is too large for a card") == 0;
    return true;
}

int run(const fs::path& image, const std::string& command, std::vector<std::string> rest,
        const UfsMakeArgument& make_argument) {
    if (command == "mkfs") return make(image, make_argument);
    if (kernel::mount(kUfsx, "/dev/sdcard0", "/mem") != 0)
        return fail(image.string() + " holds no volume that mounts (error " + std::to_string(kernel_error()) + ")");
    int status = 1;
    if (command == "ls") {
        const bool long_form = !rest.empty() && rest[0] == "-l";
        if (long_form) rest.erase(rest.begin());
        status = ufs_tool::list(rest.empty() ? "/" : rest[0], long_form);
    } else if (command == "tree") {
        status = ufs_tool::tree();
    } else if (command == "cat") {
        status = ufs_tool::cat(rest[0]);
    } else if (command == "put") {
        status = ufs_tool::put(rest[0], rest[1]);
    } else if (command == "get") {
        status = ufs_tool::get(rest[0], rest[1]);
    } else if (command == "mkdir") {
        status = ufs_tool::make_directory(rest[0]);
    } else if (command == "rm") {
        status = ufs_tool::remove(rest[0]);
    } else if (command == "mv") {
        status = ufs_tool::move(rest[0], rest[1]);
    } else if (command == "df") {
        status = ufs_tool::disk_free();
    } else if (command == "check") {
        status = ufs_tool::check();
    }
    if (kernel::umount("/mem") != 0 && status == 0) status = fail("the volume could not be written back");
    return status;
}

int tool(std::vector<std::string> args) {
    bool verbose = false;
    if (!args.empty() && args[0] == "-v") {
        verbose = true;
        args.erase(args.begin());
    }
    if (args.empty() || args[0] == "-h" || args[0] == "--help") {
        std::fputs(kUsage, args.empty() ? stderr : stdout);
        return args.empty() ? 2 : 0;
    }
    if (args[0] == "--version") {
        std::puts("vukra-ufs " VUKRA_VERSION);
        return 0;
    }
    if (args.size() < 2) return usage("a command is needed");
    const std::string command = args[1];
    std::vector<std::string> rest(args.begin() + 2, args.end());
    const Command* known = find_command(command);
    if (known == nullptr) return usage("unknown command " + command);
    const std::size_t paths = rest.size() - (command == "ls" && !rest.empty() && rest[0] == "-l" ? 1 : 0);
    if (rest.size() < known->least || rest.size() > known->most || (command == "ls" && paths > 1))
        return usage(command + ": wrong number of arguments");
    UfsMakeArgument make_argument{};
    std::string why;
    if (command == "mkfs" && !(why = parse_make(rest, make_argument)).empty()) return usage(why);
    // SOURCE_DATE_EPOCH, as for reproducible builds: the time of every node
    // made or changed, so that the same commands make the same image.
    std::uint32_t epoch = 0;
    const char* epoch_text = std::getenv("SOURCE_DATE_EPOCH");
    if (epoch_text != nullptr && *epoch_text != '\0' && (!parse_number(epoch_text, epoch) || epoch == 0))
        return fail("SOURCE_DATE_EPOCH is not a number of seconds from 1 to 4294967295");

    // Host paths are the caller's: made absolute before the workspace changes directory.
    fs::path image = fs::absolute(args[0]);
    bool made = false;
    std::error_code e;
    if (command == "mkfs" && !fs::exists(fs::symlink_status(image, e))) {
        if (!tools::make_image(image)) return fail("cannot make " + image.string());
        made = true;
    }
    // Whatever fails below leaves no new image behind.
    struct Unmake {
        const fs::path& image;
        bool& made;
        int status = 1;
        ~Unmake() {
            std::error_code ignored;
            if (made && status != 0) fs::remove(image, ignored);
        }
    } unmake{image, made};
    if (!usable_image(image)) return 1;
    image = fs::canonical(image);
    if (command == "put") rest[0] = fs::absolute(rest[0]).string();
    if (command == "get" && rest[1] != "-") rest[1] = fs::absolute(rest[1]).string();

    platform::FileLockHolder lock(image.c_str());
    if (lock.result() == platform::FileLockResult::kInUse)
        return fail(image.string() + ": image in use by another program");
    if (lock.result() != platform::FileLockResult::kHeld) return fail("cannot lock " + image.string());

    set_diagnostic_stream(verbose ? stderr : nullptr);
    tools::Workspace work;
    if (!work.enter("vukra-ufs", image).empty()) return fail("cannot set up a workspace for " + image.string());
    kernel_start();
    if (epoch != 0) set_kernel_seconds(epoch);
    tools::size_card(tools::card_size(fs::file_size(image)));
    unmake.status = run(image, command, rest, make_argument);
    return unmake.status;
}

} // namespace

int main(int argc, char** argv) {
    try {
        return tool(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const std::exception& e) {
        return fail(e.what());
    } catch (...) {
        return fail("unexpected failure");
    }
}
