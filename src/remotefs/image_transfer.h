// The transfer of the device's whole filesystem image ("/dev/sdcard0", a
// ufs volume) to the local card of the simulated kernel and back, and the
// "/mem" mirror made from it. See docs/image-transfer.md.
#pragma once

#include "session/session.h"

#include <cstdint>

namespace vukra::remotefs {

// Error words of a failed transfer. Remote failures leave the error word
// the failing remote operation set (513 for a silent device, the device's
// status otherwise); an image the transfer does not take (neither a file
// nor a device node, an unknown signature, a block size above 512) and a
// local card that cannot be opened leave it as the lookup left it, 0.
inline constexpr std::int32_t kTransferCancelled = -11; // cancelfs
inline constexpr std::int32_t kImageRefused = -12;      // map, metadata or a group's start past the local card's end
inline constexpr std::int32_t kTransferStalled = -13;   // no byte came for the map, metadata or signature, or a write moved none
inline constexpr std::int32_t kLocalCardFailed = -14;   // the local card could not be read, written or mounted
inline constexpr std::int32_t kLocalCardInUse = -18;    // another process holds the local card of this directory
// Of the put of what changed (putfs_changed), before anything is written:
inline constexpr std::int32_t kNoGetfs = -15;           // no get in this process: what changed is not known
inline constexpr std::int32_t kDeviceCardChanged = -16; // the device's header, map or metadata changed since
inline constexpr std::int32_t kLocalCardChanged = -17;  // the local card changed outside the library since

inline constexpr const char* kCardPath = "/dev/sdcard0";
inline constexpr const char* kMirrorMount = "/mem";

enum TransferDirection : std::int32_t { kGet = 1, kPut = 2 };
enum TransferPhase : std::int32_t { kPhaseHeader = 1, kPhaseData = 2, kPhaseSignature = 3 };

// Copies the device's card into the local one, mounts it on "/mem" and
// makes the mirror session: 0 or -1.
std::int32_t getfs(session::Session& s);
// Copies the local card back to the device; -1 at once without a mirror.
std::int32_t putfs(session::Session& s);
// Writes to the device only what the library wrote on the local card
// since the last get or put of this process (changed_put.cpp): the bytes
// written (0: nothing changed), or -1 with the error word.
std::int32_t putfs_changed(session::Session& s);

// The local card as the device's card now holds it, after a get or a put:
// kept, and the card's writes noted from now on; forgotten after a failed get.
void remember_local_card();
void forget_local_card();

} // namespace vukra::remotefs
