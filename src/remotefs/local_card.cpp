#include "remotefs/local_card.h"

#include "kernel/vfs.h"
#include "platform/platform.h"
#include "remotefs/image_transfer.h"

#include <string>

namespace vukra::remotefs {

namespace {

platform::FileLock held; // for the life of the process once taken

} // namespace

bool hold_local_card(session::Session& s) {
    if (held.handle != -1) return true;
    const std::string path = std::string(platform::kWorkingDirPrefix) + "sdcard0.o";
    // Twice at most: a kept card's name is let go once, and the new card
    // has no other name (unless another process keeps one at that moment).
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (!platform::file_exists(path.c_str())) {
            // The kernel makes a new card on the first open of its node.
            const kernel::Descriptor fd = kernel::open(kCardPath, kernel::kOpenRead | kernel::kOpenWrite);
            if (fd >= 0) kernel::close(fd);
        }
        const platform::FileLockResult taken = platform::file_lock_exclusive(path.c_str(), held);
        if (taken != platform::FileLockResult::kHeld) {
            s.error = taken == platform::FileLockResult::kInUse ? kLocalCardInUse : kLocalCardFailed;
            return false;
        }
        if (platform::file_lock_names(held) <= 1) return true;
        const bool removed = platform::file_remove(path.c_str());
        platform::file_unlock(held);
        if (!removed) break;
    }
    s.error = kLocalCardFailed;
    return false;
}

} // namespace vukra::remotefs
