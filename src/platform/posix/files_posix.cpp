// Raw binary files.
#include "platform/platform.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vukra::platform {

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
