// The local server: the device's side of the remote filesystem, answering
// requests from the simulated kernel's filesystem. The library's /mem
// mirror uses it in-process; vukra-sim answers the packets of its line
// with it. One handler per operation code; each decodes the request
// payload with its operation's request table, acts on the kernel and
// encodes the reply with the reply table (docs/remote-fs.md, "The local
// server", tells what each one answers).
//
// The server's state (volume, flags, the open directory and file) is
// process-wide: there is one server, as there is one device.
#pragma once

#include "remotefs/messages.h"

#include <cstdint>

namespace vukra::remotefs {

// reply: the reply payload buffer, kPayloadCapacity (1968) bytes, word
// aligned; request: the request payload of length bytes.
// Result: the reply payload's length (0 to 1968), or -1 when the request is
// refused and no reply is written.
using LocalHandler = std::int32_t (*)(std::uint8_t* reply, const std::uint8_t* request, std::uint32_t length);

// Runs the handler of code: its result, or -1 for a code of 16 or more.
// Codes 3 and 14 are refused.
std::int32_t local_serve(std::uint8_t code, std::uint8_t* reply, const std::uint8_t* request, std::uint32_t length);

// Status words of the server's own (the kernel's errors travel as they are,
// negative).
inline constexpr std::int32_t kServerKernelSilent = 17; // the kernel failed and recorded no error
inline constexpr std::int32_t kServerBadRequest = 18;   // the request does not decode, or contradicts itself
inline constexpr std::int32_t kServerWrongVolume = 19;  // not the volume the server has mounted
inline constexpr std::int32_t kServerNotOpen = 20;      // the handle names nothing the server holds open
inline constexpr std::int32_t kServerOutside = 22;      // the path lies outside what the server serves
inline constexpr std::int32_t kServerMountRefused = 23; // mount flags other than 0, 1, 1
inline constexpr std::int32_t kServerIsDirectory = 24;  // remove of a directory (rmdir removes those)
inline constexpr std::int32_t kServerNotDevice = 25;    // mkfs on a handle that is not a device node

// The part of the kernel's namespace the server serves: "/mem" unless
// told otherwise (the library's mirror), "/" for the whole of it
// (vukra-sim). Paths outside get kServerOutside.
void set_served_root(const char* root);

// What the server tells the program that runs it, before or after acting,
// so that the program can keep a mounted volume and its raw device
// consistent (vukra-sim does).
enum class ServerEvent {
    kPathRequest,   // a request naming a path is about to act
    kDeviceRead,    // a device node is about to be read
    kDeviceWrite,   // a device node is about to be written (or made a new volume)
    kDeviceClosed,  // the server closed a device node it held open
    kFilesChanged,  // files, directories or their names changed
};
using ServerObserver = void (*)(ServerEvent event);
void set_server_observer(ServerObserver observer);

// Closes what the server holds open (the handles naming it go stale), as a
// program that runs the server does before it unmounts a volume: the kernel
// must not unmount under open descriptors.
// The statuses the server answers: its own (the device kernel's codes and
// the server's refusals, null: as they are), or another device's, for an
// emulator that stands for a device whose statuses are not ours.
using StatusVocabulary = std::int32_t (*)(std::int32_t status);
void set_server_statuses(StatusVocabulary translate);

void local_server_close();
// Closes what the server holds open and forgets its state, as before its
// first mount.
void local_server_reset();

} // namespace vukra::remotefs
