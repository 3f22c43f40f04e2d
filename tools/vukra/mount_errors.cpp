// The device's statuses as the errno values programs on the mount see. The
// same table is in docs/mount.md; keep the two alike.
#include "mount.h"

#include <cerrno>

namespace vukra::cli::mount {

namespace {

struct StatusErrno {
    std::int32_t status;
    int error;          // what a request gets
    int removing_error; // what rmdir gets instead, 0: the same
};

constexpr StatusErrno kStatusErrnos[] = {
    {-20, EEXIST, ENOTEMPTY}, // the node exists, or a directory is not empty
    {-22, EINVAL, 0},         // a directory moved into itself
    {-29, EACCES, 0},         // refused by the device or filesystem
    {-40, EMFILE, 0},         // the device has no free descriptor
    {-43, ENODEV, 0},         // not a device
    {-44, ENOENT, 0},         // no such file or directory
    {-56, ENOTDIR, 0},  // not a directory
    {17, EIO, 0},             // the device's kernel failed without saying why
    {18, EIO, 0},             // the device could not read the request
    {19, EIO, 0},             // not the mounted volume (the device restarted)
    {20, EIO, 0},             // the handle names nothing the device holds open
    {21, EIO, 0},             // nothing open
    {22, EXDEV, 0},           // outside the filesystem the device serves
    {23, EIO, 0},             // mount refused
    {24, EISDIR, 0},          // remove of a directory
    {25, ENOTBLK, 0},         // not a device node
    {513, EIO, 0},            // no reply within the port's time-out
};

} // namespace

int errno_of(std::int32_t status, Doing doing) {
    // read and readdir replies carry the status's low byte only.
    if (status >= 128 && status <= 255) status -= 256;
    for (const StatusErrno& s : kStatusErrnos)
        if (s.status == status) return doing == Doing::kRemovingDirectory && s.removing_error != 0 ? s.removing_error
                                                                                                     : s.error;
    // No status (a reply that could not be decoded) or one nobody knows.
    return EIO;
}

} // namespace vukra::cli::mount
