// Which parts of the local card ("/dev/sdcard0") were written since a
// moment the image transfer chooses (the end of a getfs, the end of a
// put): the SD card's driver notes every write that passes through it, in
// units of kCardChangeUnit bytes. Process-wide, as the card is; callers are
// serialised as every kernel call is.
//
// 64 bytes: a node record is 18 bytes and an allocation map change one bit,
// so a unit stays close to what one change of the filesystem writes, while
// the marks of a whole 8 MiB card take 16 KiB.
#pragma once

#include <cstdint>

namespace vukra::kernel {

inline constexpr std::uint32_t kCardChangeUnit = 64;

// Forgets every mark and notes the writes from now on.
void card_changes_start();
// Stops noting (the card's content is no longer known: a failed get, an erase).
void card_changes_stop();
// True between a start and a stop.
bool card_changes_noted();
// True when a write touched a byte of [offset, offset + length) since the start.
bool card_changed(std::uint64_t offset, std::uint64_t length);

// The SD card's driver: length bytes written at offset.
void note_card_write(std::uint64_t offset, std::uint64_t length);

} // namespace vukra::kernel
