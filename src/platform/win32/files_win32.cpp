// Raw binary files through the runtime's low-level calls.
#include "platform/platform.h"

#include <fcntl.h>
#include <cstdio>
#include <io.h>
#include <sys/stat.h>
#include <windows.h>

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

namespace vukra::platform {

namespace {

// The lock covers one byte far past any real content: LockFileEx locks are
// enforced on reads and writes, and the file's own bytes must stay free
// for the program's other handles.
constexpr DWORD kLockOffsetHigh = 0x7FFFFFFF;

} // namespace

FileLockResult file_lock_exclusive(const char* path, FileLock& lock) {
    HANDLE h = CreateFileA(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                           OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (h == INVALID_HANDLE_VALUE) return FileLockResult::kFailed;
    OVERLAPPED where{};
    where.OffsetHigh = kLockOffsetHigh;
    if (!LockFileEx(h, LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0, 1, 0, &where)) {
        const bool busy = GetLastError() == ERROR_LOCK_VIOLATION;
        CloseHandle(h);
        return busy ? FileLockResult::kInUse : FileLockResult::kFailed;
    }
    lock.handle = reinterpret_cast<std::intptr_t>(h);
    return FileLockResult::kHeld;
}

std::uint32_t file_lock_names(const FileLock& lock) {
    BY_HANDLE_FILE_INFORMATION info{};
    if (lock.handle == -1 || !GetFileInformationByHandle(reinterpret_cast<HANDLE>(lock.handle), &info)) return 1;
    return static_cast<std::uint32_t>(info.nNumberOfLinks);
}

bool file_remove(const char* path) { return DeleteFileA(path) != 0; }

void file_unlock(FileLock& lock) {
    if (lock.handle == -1) return;
    HANDLE h = reinterpret_cast<HANDLE>(lock.handle);
    OVERLAPPED where{};
    where.OffsetHigh = kLockOffsetHigh;
    UnlockFileEx(h, 0, 1, 0, &where);
    CloseHandle(h);
    lock.handle = -1;
}

} // namespace vukra::platform
