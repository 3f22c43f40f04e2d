#include "remotefs/statuses.h"

#include <cerrno>
#include <cstdio>

// Windows' C library lacks these two; a POSIX program would see Linux's.
#ifndef ESTALE
#define ESTALE 116
#endif
#ifndef ENOTBLK
#define ENOTBLK 15
#endif

namespace vukra::remotefs {

namespace {

// Negative: the device kernel's errors and the library's transfer endings;
// 17 to 25: the device's file server; 21 and 513: the library's own.
constexpr StatusEntry kStatuses[] = {
    {-56, "ENOTDIR", ENOTDIR, "not a directory"},
    {-44, "ENOENT", ENOENT, "no such file or directory"},
    {-43, "ENODEV", ENODEV, "not a device"},
    {-40, "EMFILE", EMFILE, "no free descriptor"},
    {-31, "NOTFILE", EISDIR, "a directory is open, not a file"},
    {-29, "EACCES", EACCES, "refused by the device or filesystem"},
    {-22, "EINVAL", EINVAL, "a directory cannot move into itself"},
    {-20, "EEXIST", EEXIST, "exists, or not empty"},
    {-18, "CARDHELD", EBUSY, "the local card is held by another process"},
    {-17, "LOCALCHANGED", EIO, "the local card changed outside the library since getfs"},
    {-16, "CARDCHANGED", EIO, "the device's card changed since getfs"},
    {-15, "NOGETFS", EINVAL, "no getfs in this process: what changed is not known"},
    {-14, "LOCALCARD", EIO, "the local card could not be read, written or mounted"},
    {-13, "STALLED", EIO, "the device stopped giving or taking bytes"},
    {-12, "IMAGE", EINVAL, "not an image the local card takes"},
    {-11, "CANCELLED", ECANCELED, "cancelled"},
    {17, "KERNEL", EIO, "the device's kernel failed"},
    {18, "BADREQUEST", EIO, "the device could not read the request"},
    {19, "VOLUME", ESTALE, "not the mounted volume (the device restarted?)"},
    {20, "NOTOPEN", EBADF, "the handle names nothing the device holds open"},
    {21, "NOTHINGOPEN", EBADF, "nothing is open"},
    {22, "OUTSIDE", EACCES, "outside what the device serves"},
    {23, "MOUNT", EACCES, "mount refused"},
    {24, "EISDIR", EISDIR, "is a directory"},
    {25, "ENOTBLK", ENOTBLK, "not a device node"},
    {513, "LINE", EIO, "no reply from the device"},
};

} // namespace

const StatusEntry* status_table(std::size_t& count) {
    count = sizeof kStatuses / sizeof *kStatuses;
    return kStatuses;
}

const StatusEntry* find_status(std::int32_t status) {
    for (int pass = 0; pass < 2; ++pass) {
        for (const StatusEntry& e : kStatuses)
            if (e.value == status) return &e;
        if (status < 128 || status > 255) break;
        status -= 256;
    }
    return nullptr;
}

int errno_of(std::int32_t status, Doing doing) {
    if (status == 0) return EIO;
    const StatusEntry* e = find_status(status);
    if (e == nullptr) return doing == Doing::kLookup ? ENOENT : EIO;
    if (e->error == EEXIST && doing == Doing::kRemovingDirectory) return ENOTEMPTY;
    return e->error;
}

std::size_t status_words(std::int32_t status, char* text, std::size_t size) {
    if (status == 0) return static_cast<std::size_t>(std::snprintf(text, size, "status 0 (ok)"));
    const StatusEntry* e = find_status(status);
    int n = e == nullptr ? std::snprintf(text, size, "status %d", static_cast<int>(status))
                         : std::snprintf(text, size, "status %d (%s)", static_cast<int>(status), e->text);
    return n < 0 ? 0 : static_cast<std::size_t>(n);
}

} // namespace vukra::remotefs
