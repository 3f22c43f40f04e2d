// vukra fs getfs|putfs: the device's whole card into the library's local
// card, which from then on serves every "/mem" path of the session, and
// back. The transfer runs on the main thread and holds the session's
// operations lock throughout; a follower thread reads the transfer's state
// (which takes only the state lock) to draw the progress line, and turns
// a Ctrl-C into cancelfs, asked again at each look until the transfer ends
// (a transfer clears the cancel word when it starts). The line counts the
// bytes of the image that cross the line (the used groups of the card's
// map), not the session's progress word, which runs over every group.
#include "cli.h"
#include "device.h"
#include "interrupt.h"
#include "remote_fs.h"

#include "platform/platform.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

namespace vukra::cli {

namespace {

struct Follower {
    modbus_vukra_session* session = nullptr;
    std::atomic<bool> done{false};
    // Written by the follower, read once it ended.
    Progress progress;
    std::int32_t bytes_per_second = 0;
};

void follow(void* argument) {
    Follower& f = *static_cast<Follower*>(argument);
    while (!f.done.load()) {
        if (interrupted()) modbus_vukra_op_cancelfs(f.session);
        std::int32_t info[MODBUS_VUKRA_INFO_WORDS] = {};
        if (modbus_vukra_op_session_info(f.session, info) == 0 && info[MODBUS_VUKRA_INFO_BITS_PER_SECOND] > 0)
            f.bytes_per_second = info[MODBUS_VUKRA_INFO_BITS_PER_SECOND] / 8;
        std::uint64_t bytes[2] = {};
        if (modbus_vukra_transfer_bytes(f.session, bytes) == 0 && bytes[1] > 0)
            progress_set(f.progress, bytes[0], bytes[1]);
        platform::sleep_ms(100);
    }
}

// What a failed transfer leaves behind, for the message. An image the
// library does not take and a local card it cannot open leave the error
// word as the lookup before them left it, 0; so does a reply that cannot
// be read, which may come later.
const char* left_behind(bool get, std::int32_t error) {
    if (error == -12) return get ? "neither card was changed" : "the device's card was not changed";
    if (error == 0) return get ? "when refused, neither card was changed; /mem stays on the device"
                               : "when refused, the device's card was not changed";
    return get ? "the local card is partly written and /mem stays on the device"
               : "the device's card is partly rewritten: put it again before the device uses it";
}

// Why a put of the changed parts refused to start, and what to do; null
// for the other failures.
const char* refusal(std::int32_t error) {
    switch (error) {
    case -15: return "no getfs in this run made the local copy, so what changed is not known: "
                     "vukra -p PORT fs getfs + ... + fs putfs --changed";
    case -16: return "the device's card changed since getfs (another program wrote it); nothing was written. "
                     "fs putfs --full overwrites the device's changes with the local copy; a new fs getfs takes "
                     "them (and drops what was changed here)";
    case -17: return "the local card (sdcard0.o) was changed outside vukra since getfs; nothing was written. "
                     "fs putfs --full sends the local card as it is; a new fs getfs starts again from the device";
    default: return nullptr;
    }
}

// Why a transfer failed, for the message.
std::string failure(modbus_vukra_session* s) {
    if (modbus_vukra_op_session_error(s) != 0) return device_status(s);
    return "the image was refused (not a file or device node, a signature other than \"ufs 1.2\" or \"ufs 1.5\", "
           "or a block size above 512), the local card could not be opened, or a reply could not be read";
}

} // namespace

int card_transfer(Options& o, bool get, bool changed) {
    const char* label = get ? "getfs" : changed ? "putfs --changed" : "putfs";
    // A putfs runs only after a getfs of the same run succeeded: the chain
    // refuses it otherwise, and stops at the first command that fails.
    data_stream(o); // the listing of /mem after a get is one of the library's lines
    // Caught from before the mount: a Ctrl-C that comes before the transfer
    // starts cancels it as it begins.
    const InterruptCaught caught;
    const Remote r(o);
    if (!r.ok()) return 1;

    Follower f;
    f.session = r.session;
    f.progress = progress_start(label, kTotalUnknown, o.quiet);
    platform::Thread thread;
    const bool following = platform::thread_start(thread, follow, &f);
    const auto start = std::chrono::steady_clock::now();
    const std::int32_t result = get       ? modbus_vukra_op_protected_getfs(r.session)
                                : changed ? modbus_vukra_protected_putfs_changed(r.session)
                                          : modbus_vukra_op_protected_putfs(r.session);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    f.done = true;
    if (following) platform::thread_join(thread, 5000);
    const bool drawn = f.progress.shown;
    if (result >= 0) { // done, though a device's card that ended early sent fewer
        std::uint64_t bytes[2] = {};
        if (modbus_vukra_transfer_bytes(r.session, bytes) == 0) progress_set(f.progress, bytes[1], bytes[1]);
    }
    progress_end(f.progress);

    if (result < 0) {
        const std::int32_t error = modbus_vukra_op_session_error(r.session);
        if (changed && refusal(error) != nullptr) return fail(std::string(label) + " refused: " + refusal(error));
        if (changed && error != -11 && error != 0)
            return fail(std::string(label) + " failed: " + failure(r.session) +
                        "; the device's card is partly rewritten: put it again (--changed sends all of it again) "
                        "before the device uses it");
        if (error == -11)
            return fail(std::string(label) + " cancelled at Ctrl-C (status -11): " + left_behind(get, error));
        if (error == -18) {
            std::error_code e;
            return fail(std::string(label) + " refused: the local card sdcard0.o in " +
                        shown(std::filesystem::current_path(e)) +
                        " is held by another process (a mount --mirror or getfs running in that directory); "
                        "neither card was changed: start this one in another directory");
        }
        return fail(std::string(label) + " failed: " + failure(r.session) + "; " + left_behind(get, error));
    }
    // Said even without -v: a put that wrote nothing is not mistaken for one that did.
    if (changed && result == 0 && !o.quiet) {
        std::fprintf(stderr, "%s: nothing was changed under /mem since getfs: nothing written\n", label);
        return 0;
    }
    // The summary ends the progress line of a terminal, or answers -v.
    if (o.verbose || drawn) {
        std::fflush(stdout);
        std::fprintf(stderr, "%s: done in %.2f s (last exchange at %d bytes/s)%s\n", label, seconds, f.bytes_per_second,
                     get       ? "; /mem is now the local copy"
                     : changed ? (", " + std::to_string(result) + " bytes written").c_str()
                               : "");
    }
    return 0;
}

void add_image_commands(CLI::App& fs_group, Options& options) {
    CLI::App* getfs = fs_group.add_subcommand(
        "getfs", "copy the device's card into the library's local card; /mem paths then go to that copy");
    choose(getfs, options, [&options] { return card_transfer(options, true); });
    CLI::App* putfs = fs_group.add_subcommand(
        "putfs", "copy the local card back to the device (after a getfs in the same run)");
    auto changed = std::make_shared<bool>(false);
    CLI::Option* only = putfs->add_flag(
        "--changed", *changed,
        "write only what was changed under /mem since the getfs: its data, then metadata and map, the header last; "
        "refused when the device's card changed meanwhile");
    auto full = std::make_shared<bool>(false); // the default, named for scripts that say so
    putfs->add_flag("--full", *full, "the whole card, every used group (the default)")->excludes(only);
    choose(putfs, options, [&options, changed, full] { return card_transfer(options, false, *changed); });
}

} // namespace vukra::cli
