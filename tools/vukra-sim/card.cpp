#include "card.h"

#include "../common/card_image.h"
#include "kernel/kernel_diagnostics.h"
#include "kernel/kernel_errors.h"
#include "kernel/kernel_start.h"
#include "kernel/ufs_check.h"
#include "kernel/vfs.h"
#include "platform/platform.h"
#include "remotefs/local_server.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

namespace vukra::sim {

namespace {

namespace fs = std::filesystem;

struct Card {
    tools::Workspace workspace;
    fs::path image;
    bool made_image = false;
    std::unique_ptr<platform::FileLockHolder> lock;
    bool mounted = false;
    bool remount_due = false; // the device was written since /mem was unmounted
    bool dirty = false;       // /mem changed since the device last saw it
};

Card card;

bool say(const std::string& what) {
    std::fprintf(stderr, "vukra-sim: %s\n", what.c_str());
    return false;
}

void mount_volume() {
    card.remount_due = false;
    card.mounted = kernel::mount(kernel::kUfsx, "/dev/sdcard0", "/mem") == 0;
    if (!card.mounted)
        say("/dev/sdcard0 holds no volume that mounts (error " + std::to_string(kernel::kernel_error()) +
            "); /mem is a plain directory until it does");
}

// A damaged card is served as it is, for what can still be read from it,
// with a warning that names what the check finds.
void warn_if_damaged(const fs::path& image) {
    kernel::CheckReport report;
    if (!card.mounted || !kernel::check_volume("/mem", report) || report.problems.empty()) return;
    std::string what = report.problems.front();
    if (report.problems.size() > 1) what += " and " + std::to_string(report.problems.size() - 1) + " more";
    const std::string name = image.empty() ? std::string("the temporary card") : image.string();
    say("warning: " + name + " is damaged: " + what + " (vukra-ufs " + (image.empty() ? "IMAGE" : name) +
        " check tells all); it is served as it is, and the device may fail on what is damaged");
}

// The server holds nothing open on /mem here: it unmounts when the device
// node is its open file, or when it has been reset at the end.
void unmount_volume() {
    if (!card.mounted) return;
    if (kernel::umount("/mem") != 0) say("/mem could not be written back");
    card.mounted = false;
    card.dirty = false;
}

// Keeps /mem and the raw device consistent as the server works.
void observe(remotefs::ServerEvent event) {
    switch (event) {
    case remotefs::ServerEvent::kPathRequest:
    case remotefs::ServerEvent::kDeviceClosed:
        if (card.remount_due) mount_volume();
        break;
    case remotefs::ServerEvent::kDeviceRead:
        if (card.mounted && card.dirty) {
            kernel::flush_mounts();
            card.dirty = false;
        }
        break;
    case remotefs::ServerEvent::kDeviceWrite:
        if (card.mounted) unmount_volume();
        card.remount_due = true;
        break;
    case remotefs::ServerEvent::kFilesChanged: card.dirty = true; break;
    }
}

bool make_volume(std::int32_t size) {
    kernel::UfsMakeArgument make{256, 0xFFFFFFFF, 512, static_cast<std::uint32_t>(size)};
    return kernel::mkfs(kernel::kUfsx, "/dev/sdcard0", &make) == 0;
}

// A new image file of the default size; false when it cannot be made.
bool make_image(const fs::path& image) {
    if (!tools::make_image(image)) return say("cannot make " + image.string());
    card.made_image = true;
    return true;
}

bool usable_image(const fs::path& image) {
    std::error_code e;
    const fs::file_status status = fs::status(image, e);
    if (fs::is_directory(status)) return say(image.string() + " is a directory, not an image");
    if (!fs::is_regular_file(status)) return say(image.string() + " is not a regular file");
    if (fs::file_size(image, e) > 0x7FFFFFFF) return say(image.string() + " is too large for a card");
    // The device writes its card: an image it cannot write is refused now,
    // not reported later as a card that holds no volume.
    std::FILE* f = std::fopen(image.c_str(), "r+b");
    if (f == nullptr) return say("cannot write " + image.string() + ": " + std::strerror(errno));
    std::fclose(f);
    return true;
}

bool fail_open() {
    card.workspace.leave();
    card.lock.reset();
    std::error_code e;
    if (card.made_image) fs::remove(card.image, e);
    return false;
}

} // namespace

bool card_open(const CardOptions& options) {
    kernel::set_diagnostic_stream(options.verbose ? stderr : nullptr);
    std::error_code e;
    if (!options.image.empty()) {
        card.image = fs::absolute(options.image);
        if (!fs::exists(fs::symlink_status(card.image, e)) && !make_image(card.image)) return fail_open();
        if (!usable_image(card.image)) return fail_open();
        card.image = fs::canonical(card.image, e);
        card.lock = std::make_unique<platform::FileLockHolder>(card.image.c_str());
        if (card.lock->result() == platform::FileLockResult::kInUse) {
            say(card.image.string() + ": image in use by another program");
            card.made_image = false; // another's
            return fail_open();
        }
        if (card.lock->result() != platform::FileLockResult::kHeld) {
            say("cannot lock " + card.image.string());
            return fail_open();
        }
    }

    const std::string why = card.workspace.enter("vukra-sim", card.image);
    if (!why.empty()) return say(why) || fail_open();

    kernel::kernel_start();
    const std::int32_t size =
        card.image.empty() ? tools::kDefaultCardSize : tools::card_size(fs::file_size(card.image, e));
    tools::size_card(size);
    if ((card.image.empty() || card.made_image) && !make_volume(size))
        return say("cannot make a volume on the card") || fail_open();
    mount_volume();
    warn_if_damaged(card.image);
    remotefs::set_served_root("/");
    remotefs::set_server_observer(observe);
    return true;
}

void card_close() {
    remotefs::set_server_observer(nullptr);
    remotefs::local_server_reset();
    unmount_volume();
    card.workspace.leave();
    card.lock.reset();
}

} // namespace vukra::sim
