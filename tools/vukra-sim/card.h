// The emulated device's SD card and filesystem: a kernel of the device's
// system running in a private working directory (a fresh temporary
// directory, removed at the end), whose "/dev/sdcard0" is the card image
// and whose "/mem" is the card's volume, as the device mounts it
// ("ufsx /dev/sdcard0 /mem"). The local server answers the line's file
// requests on the whole of this namespace.
//
// The raw device and the mounted volume are kept consistent: the volume is
// written back before "/dev/sdcard0" is read, unmounted before the device
// is first written (or made a new volume), and mounted again when the
// device is closed or the next request names a path.
#pragma once

#include <string>

namespace vukra::sim {

struct CardOptions {
    std::string image; // empty: a fresh temporary card
    bool verbose = false; // the kernel's messages on standard error
};

// Sets the card up and starts serving files. False, with the reason on
// standard error, when it cannot (the image is in use, is no regular file,
// cannot be made ...); nothing is left changed then.
bool card_open(const CardOptions& options);

// Writes the volume back, unmounts it, releases the image and removes the
// working directory.
void card_close();

} // namespace vukra::sim
