// Raw binary files through the runtime's low-level calls.
#include "platform/platform.h"

#include <fcntl.h>
#include <cstdio>
#include <io.h>
#include <sys/stat.h>

namespace vukra::platform {

int file_open(const char* path, unsigned mode) {
    int flags = _O_BINARY;
    if ((mode & kFileRead) && (mode & kFileWrite))
        flags |= _O_RDWR;
    else if (mode & kFileWrite)
        flags |= _O_WRONLY;
    else
        flags |= _O_RDONLY;
    if (mode & kFileCreate) flags |= _O_CREAT;
    if (mode & kFileTruncate) flags |= _O_TRUNC;
    if (mode & kFileExclusive) flags |= _O_EXCL;
    return _open(path, flags, _S_IREAD | _S_IWRITE);
}

bool file_exists(const char* path) {
    struct _stat info {};
    return _stat(path, &info) == 0;
}

long file_seek(int file, long offset, SeekOrigin origin) {
    int whence = origin == kSeekSet ? SEEK_SET : origin == kSeekCurrent ? SEEK_CUR : SEEK_END;
    return _lseek(file, offset, whence);
}

long file_read(int file, void* buffer, std::size_t count) {
    return _read(file, buffer, static_cast<unsigned>(count));
}

long file_write(int file, const void* bytes, std::size_t count) {
    return _write(file, bytes, static_cast<unsigned>(count));
}

int file_close(int file) { return _close(file); }

} // namespace vukra::platform
