// vukra mount DIR: the device's card (or, without one, its whole tree)
// under DIR until it is unmounted (fusermount3 -u DIR, Ctrl-C or SIGTERM).
// A mount point that cannot be used is refused before the port opens. With
// --mirror the whole card is copied into the library's local card first,
// the mount serves that copy, and the copy goes back to the device after
// the unmount when anything was written; from the first write until that
// put succeeds the local card has a second name of its own, which stays
// when vukra ends before (a failed put, a signal, a crash).
#include "chain.h"
#include "cli.h"
#include "device.h"
#include "mount.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <filesystem>
#include <memory>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vukra::cli {

namespace {

// Where the tools' package put docs/mount.md: beside the prefix vukra runs
// from; a vukra run from its build folder names the source's file.
std::string mount_doc() {
    std::error_code e;
    const std::filesystem::path installed =
        std::filesystem::canonical("/proc/self/exe", e).parent_path().parent_path() / VUKRA_MOUNT_DOC;
    return !e && std::filesystem::exists(installed, e) ? installed.string() : std::string("docs/mount.md");
}

struct Settings {
    std::string directory, root;
    // Long enough for the burst of requests one command makes on the same
    // names (ls -l, cp -r, find ask each name several times), short enough
    // that what the device's own programs change shows within a moment.
    double cache_seconds = 2;
    bool mirror = false, no_put = false;
};

// The local card of the library's kernel, in the working directory.
constexpr const char* kLocalCard = "sdcard0.o";
// Where the device shows its card's files.
constexpr const char* kCardRoot = "/mem";

// 0 when directory can be mounted on, else the failure status after saying why.
int refuse_mount_point(const std::string& directory) {
    const std::string cannot = "cannot mount on " + directory + ": ";
    struct stat here {}, up {};
    if (stat(directory.c_str(), &here) != 0) {
        if (errno == ENOTCONN)
            return fail(cannot + "a mount whose program ended is still there (fusermount3 -u " + directory + ")");
        return fail(cannot + std::strerror(errno));
    }
    if (!S_ISDIR(here.st_mode)) return fail(cannot + "not a directory");
    if (stat((directory + "/..").c_str(), &up) == 0 && (up.st_dev != here.st_dev || up.st_ino == here.st_ino))
        return fail(cannot + "something is mounted there already");
    std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(directory.c_str()), closedir);
    if (!dir) return fail(cannot + std::strerror(errno));
    while (const dirent* e = readdir(dir.get()))
        if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0)
            return fail(cannot + "not an empty directory");
    if (access("/dev/fuse", R_OK | W_OK) != 0)
        return fail(cannot + "no /dev/fuse on this host (modprobe fuse, or fuse3 is not installed)");
    return 0;
}

// A mount option's value: commas would start another option.
std::string option_text(std::string text) {
    std::replace(text.begin(), text.end(), ',', '_');
    return text;
}

// Serves the device's tree under directory until the unmount; the status.
int serve(Options& o, const Settings& settings, mount::State& st) {
    const Remote remote(o);
    if (!remote.ok()) return 1;
    // No status requests while mounted (see mount.h).
    tool::pause_timer(remote.session);
    st.remote = &remote;
    st.session = remote.session;
    st.cache = mount::Cache(std::chrono::duration_cast<mount::Cache::Clock::duration>(
        std::chrono::duration<double>(settings.cache_seconds)));
    st.cache_seconds = settings.cache_seconds;
    st.uid = getuid();
    st.gid = getgid();

    modbus_vukra_attributes a{};
    if (st.root.empty()) {
        // By default the card's files: they outlive a restart of the device,
        // and df tells their size and use. A device without a card shows
        // its whole tree.
        const bool card = modbus_vukra_op_protected_lookup(st.session, kCardRoot, &a) == 0 && is_directory(a);
        st.root = card ? kCardRoot : "/";
    }
    if (modbus_vukra_op_protected_lookup(st.session, st.root.c_str(), &a) != 0)
        return device_fail(remote, "mount", st.root);
    if (!is_directory(a)) return fail("cannot mount " + st.root + ": not a directory");

    const std::string options = "fsname=vukra:" + option_text(o.port + ":" + st.root) +
                                ",subtype=vukra,nodev,default_permissions,auto_unmount";
    const char* words[] = {"vukra", "-o", options.c_str()};
    fuse_args args = FUSE_ARGS_INIT(3, const_cast<char**>(words));
    fuse* f = fuse_new(&args, &mount::operations(), sizeof(fuse_operations), &st);
    fuse_opt_free_args(&args); // what fuse_new added to them
    if (f == nullptr) return fail("cannot mount on " + settings.directory + ": FUSE refused the options");
    if (fuse_mount(f, settings.directory.c_str()) != 0) {
        fuse_destroy(f);
        return fail("cannot mount on " + settings.directory);
    }
    fuse_session* session = fuse_get_session(f);
    fuse_set_signal_handlers(session);
    if (!o.quiet) {
        std::fflush(stdout);
        std::fprintf(stderr, "vukra: %s of %s mounted on %s%s; fusermount3 -u %s or Ctrl-C unmounts it\n",
                     st.root.c_str(), o.port.c_str(), settings.directory.c_str(),
                     settings.mirror ? " (the local copy)" : "", settings.directory.c_str());
    }
    const int looped = fuse_loop(f); // single-threaded: one request at a time
    fuse_remove_signal_handlers(session);
    fuse_unmount(f);
    fuse_destroy(f);
    // A signal ends the loop as an unmount does; only a failure of FUSE itself counts.
    return looped < 0 ? fail("the mount on " + settings.directory + " failed: " + std::strerror(-looped)) : 0;
}

// A name for the local card that no later run overwrites, and no other
// card bears yet.
std::string unsaved_name() {
    char stamp[32];
    const std::time_t now = std::time(nullptr);
    std::strftime(stamp, sizeof stamp, "%Y%m%d-%H%M%S", std::localtime(&now));
    std::string name = std::string("sdcard0-unsaved-") + stamp + ".o";
    for (int n = 2; std::filesystem::exists(name); ++n)
        name = std::string("sdcard0-unsaved-") + stamp + "-" + std::to_string(n) + ".o";
    return name;
}

// From the first write under the mirror until its put succeeds, the local
// card has a second name: whatever ends vukra meanwhile (a signal, even
// SIGKILL, a crash) leaves the card kept under it, and the next getfs here
// leaves it alone (it makes a new sdcard0.o). Empty, after a warning, when
// the directory cannot give a file two names.
std::string second_name() {
    const std::string kept = unsaved_name();
    if (::link(kLocalCard, kept.c_str()) == 0) return kept;
    std::fprintf(stderr, "vukra: cannot give the local card a second name (%s): should vukra end before its put, "
                         "what was written is only in %s\n", std::strerror(errno), kLocalCard);
    return "";
}

// Keeps the local card under a name no later run overwrites; empty when the copy failed.
std::string keep_local_card() {
    const std::string kept = unsaved_name();
    std::error_code e;
    std::filesystem::copy_file(kLocalCard, kept, e);
    return e ? "" : kept;
}

int run(Options& o, const Settings& settings) {
    mount::State st;
    // Without --root: the card (kCardRoot) when the device has one, else "/".
    st.root = settings.root.empty() ? (settings.mirror ? kCardRoot : "") : remote_path(settings.root);
    if (settings.mirror && st.root != "/mem" && st.root.compare(0, 5, "/mem/") != 0)
        usage_error("mount --mirror serves the local copy of the card, /mem: --root must be /mem or below it");
    if (const int refused = refuse_mount_point(settings.directory)) return refused;
    data_stream(o); // the library's lines go to stderr from here on
    if (settings.mirror && card_transfer(o, true) != 0) return 1;

    std::string kept;
    if (settings.mirror) st.first_write = [&kept] { kept = second_name(); };
    const int status = serve(o, settings, st);
    if (!settings.mirror) return status;
    // The put ends with the local card's second name gone: what was written
    // is on the device, or (--no-put) only in the local card, as asked.
    const auto let_go = [&kept] {
        if (!kept.empty()) unlink(kept.c_str());
    };
    if (!st.written) {
        if (!o.quiet) std::fprintf(stderr, "vukra: nothing was written under %s: the device's card is as it was\n",
                                   settings.directory.c_str());
        return status;
    }
    if (settings.no_put) {
        let_go();
        // Asked for: not a failure, but never silent.
        std::fprintf(stderr, "vukra: --no-put: what was written under %s is only in the local card %s, which the "
                             "next getfs or mount --mirror here overwrites\n",
                     settings.directory.c_str(), kLocalCard);
        return status;
    }
    // The put runs to its end: SIGTERM or SIGHUP now would leave the
    // device's card half-written (Ctrl-C still cancels it, and says so).
    struct sigaction ignore {}, term {}, hang_up {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGTERM, &ignore, &term);
    sigaction(SIGHUP, &ignore, &hang_up);
    const int put = card_transfer(o, false, true); // only what was written under the mount
    sigaction(SIGTERM, &term, nullptr);
    sigaction(SIGHUP, &hang_up, nullptr);
    if (put == 0) {
        let_go();
        return status;
    }
    if (kept.empty()) kept = keep_local_card();
    return fail("what was written under " + settings.directory + " did not reach the device; " +
                (kept.empty() ? std::string("the local card ") + kLocalCard + " holds it (copy it aside now)"
                              : "the local card is kept as " + kept) +
                ": see " + mount_doc() + " for the way back");
}

} // namespace

void add_mount_command(CLI::App& app, Options& options) {
    auto settings = std::make_shared<Settings>();
    CLI::App* command = app.add_subcommand(
        "mount", "the device's files as the directory DIR of this host until it is unmounted (Linux, FUSE 3)");
    command->add_option("DIR", settings->directory, "an empty directory")->required();
    command->add_option("--root", settings->root,
                        "the device's directory shown as DIR (default: its card, /mem, when it has one, else /)");
    command->add_option("--cache", settings->cache_seconds,
                        "seconds that attributes and listings are reused (default 2; 0: ask the device every time); "
                        "what the mount changes itself is forgotten at once")
        ->check(CLI::Validator(
            [](std::string& text) -> std::string {
                // Range alone lets "nan" through and words its message in floats.
                char* end = nullptr;
                const double seconds = std::strtod(text.c_str(), &end);
                if (text.empty() || *end != '\0' || !(seconds >= 0 && seconds <= 3600))
                    return text + " is not a number of seconds from 0 to 3600";
                return {};
            },
            ""))
        ->type_name("SECONDS");
    CLI::Option* mirror = command->add_flag(
        "--mirror", settings->mirror,
        "copy the whole card here first (fs getfs), serve that copy at local speed, and copy it back at the unmount "
        "when anything was written (fs putfs)");
    command->add_flag("--no-put", settings->no_put, "with --mirror: never copy back; what was written stays local")
        ->needs(mirror);
    command->footer(
        "vukra stays in the foreground while mounted; fusermount3 -u DIR, Ctrl-C or SIGTERM unmounts.\n"
        "The device's statuses reach programs as errno values (mount.md, installed with the tools' documentation);\n"
        "a device that stops "
        "answering makes each request fail with EIO within the port's time-out and a second.");
    choose(command, options, [&options, settings] { return run(options, *settings); });
}

} // namespace vukra::cli
