// Raw binary files.
#include "platform/platform.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vukra::platform {

// Large files and inode numbers on every build (32-bit: _FILE_OFFSET_BITS=64).
static_assert(sizeof(off_t) == 8, "a 32-bit build needs 64-bit file offsets");

int file_open(const char* path, unsigned mode) {
    int flags = O_CLOEXEC;
    if ((mode & kFileRead) && (mode & kFileWrite))
        flags |= O_RDWR;
    else if (mode & kFileWrite)
        flags |= O_WRONLY;
    else
        flags |= O_RDONLY;
    if (mode & kFileCreate) flags |= O_CREAT;
    if (mode & kFileTruncate) flags |= O_TRUNC;
    if (mode & kFileExclusive) flags |= O_EXCL;
    return ::open(path, flags, 0600);
}

bool file_exists(const char* path) {
    struct stat info {};
    return ::stat(path, &info) == 0;
}

long file_seek(int file, long offset, SeekOrigin origin) {
    int whence = origin == kSeekSet ? SEEK_SET : origin == kSeekCurrent ? SEEK_CUR : SEEK_END;
    return static_cast<long>(::lseek(file, offset, whence));
}

long file_read(int file, void* buffer, std::size_t count) { return static_cast<long>(::read(file, buffer, count)); }

long file_write(int file, const void* bytes, std::size_t count) {
    return static_cast<long>(::write(file, bytes, count));
}

int file_close(int file) { return ::close(file); }

} // namespace vukra::platform

namespace vukra::platform {

// flock: the lock belongs to this open file description, so it is neither
// dropped when the program closes another handle of the file, nor shared
// with another open of the file in the same program.
FileLockResult file_lock_exclusive(const char* path, FileLock& lock) {
    int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return FileLockResult::kFailed;
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        const bool busy = errno == EWOULDBLOCK;
        ::close(fd);
        return busy ? FileLockResult::kInUse : FileLockResult::kFailed;
    }
    lock.handle = fd;
    return FileLockResult::kHeld;
}

std::uint32_t file_lock_names(const FileLock& lock) {
    struct stat info {};
    if (lock.handle < 0 || ::fstat(static_cast<int>(lock.handle), &info) != 0) return 1;
    return static_cast<std::uint32_t>(info.st_nlink);
}

bool file_remove(const char* path) { return ::unlink(path) == 0; }

void file_unlock(FileLock& lock) {
    if (lock.handle < 0) return;
    ::close(static_cast<int>(lock.handle)); // releases the lock
    lock.handle = -1;
}

} // namespace vukra::platform
