// The image transfer: header and metadata, the data groups the allocation
// map marks as used, and the signature last, between the device's card
// (through the remote file operations) and the local card (through the
// simulated kernel).
#include "remotefs/image_transfer.h"

#include "kernel/kernel_diagnostics.h"
#include "kernel/vfs.h"
#include "remotefs/file_operations.h"
#include "remotefs/image_layout.h"
#include "remotefs/local_card.h"
#include "remotefs/local_server.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

namespace vukra::remotefs {

namespace {

constexpr std::size_t kPiece = 1024; // what one remote read or write moves at most
constexpr std::uint32_t kOpenReadWrite = 3;
constexpr std::uint32_t kSizeRequest = 1;

// One end of the transfer: the device's card through the session's
// current handle, or the local card through a kernel descriptor.
struct Side {
    session::Session* remote; // null for the local card
    kernel::Descriptor fd;
};

// Why a transfer stopped: the error word to leave, or kKeepError to leave
// the word as it stands (what the failing remote operation stored, or,
// for an image the transfer does not take, the lookup's 0).
constexpr std::int32_t kKeepError = 1;

struct Failed {
    std::int32_t error;
};

class Transfer {
public:
    Transfer(session::Session& s, Side source, Side destination, TransferDirection direction)
        : s_(s), source_(source), destination_(destination), direction_(direction) {}

    // Throws Failed.
    void run();

private:
    void set_state(std::int32_t phase, std::int32_t progress);
    void set_progress(std::int32_t progress);
    void crossed(std::size_t bytes);
    void set_line_total();
    bool cancelled();
    void check_cancel() {
        if (cancelled()) throw Failed{kTransferCancelled};
    }

    void seek(Side& side, std::uint32_t offset);
    std::size_t read_some(Side& side, void* buffer, std::size_t count);
    void read_exact(Side& side, void* buffer, std::size_t count);
    void write_all(Side& side, const void* bytes, std::size_t count);
    void copy(std::uint32_t offset, std::uint8_t* buffer, std::uint32_t length);

    void header();
    void map_and_metadata();
    void data();
    void signature();

    session::Session& s_;
    Side source_;
    Side destination_;
    TransferDirection direction_;

    ImageLayout layout_;
    std::uint64_t card_size_ = 0; // where the local card ends
    std::unique_ptr<std::uint8_t[]> map_;
};

void Transfer::set_state(std::int32_t phase, std::int32_t progress) {
    platform::LockGuard state(s_.state_lock);
    s_.status[kStatusDirection] = direction_;
    s_.status[kStatusPhase] = phase;
    s_.status[kStatusProgress] = progress;
}

void Transfer::set_progress(std::int32_t progress) {
    platform::LockGuard state(s_.state_lock);
    s_.status[kStatusProgress] = progress;
}

// What crosses the line is what the device's side reads or writes.
void Transfer::crossed(std::size_t bytes) {
    platform::LockGuard state(s_.state_lock);
    s_.line_bytes[0] += bytes;
}

// Once the map is known: the header fields (a get reads the header from
// the device once more, to learn its sizes), the map, the metadata, the
// used groups (the last one cut at the local card's end) and the signature.
void Transfer::set_line_total() {
    const ImageLayout& l = layout_;
    std::uint64_t total =
        (direction_ == kGet ? l.map_start : 0u) + (l.map_start - kSignatureSize) + l.map_size + l.metadata_size + kSignatureSize;
    for (std::uint32_t i = 0; i < l.group_count && i < l.map_size; ++i)
        if (map_[i] != 0) total += std::min(l.chunk(), card_size_ - l.group_offset(i));
    platform::LockGuard state(s_.state_lock);
    s_.line_bytes[1] = total;
}

bool Transfer::cancelled() {
    platform::LockGuard state(s_.state_lock);
    return s_.cancel.load() != 0;
}

void Transfer::seek(Side& side, std::uint32_t offset) {
    if (side.remote != nullptr) {
        if (remotefs::seek(*side.remote, offset, 0) < 0) throw Failed{kKeepError};
        return;
    }
    if (kernel::lseek(side.fd, static_cast<long>(offset), 0) != static_cast<long>(offset))
        throw Failed{kLocalCardFailed};
}

// The device moves at most 1024 bytes per request; the local card takes a
// whole group at once (the kernel does not cut a transfer that starts
// inside the card at its end, and refuses one that starts past it: the
// copy never asks either).
std::size_t Transfer::read_some(Side& side, void* buffer, std::size_t count) {
    if (side.remote != nullptr) {
        count = std::min(count, kPiece);
        const std::int32_t got = remotefs::read(*side.remote, buffer, static_cast<std::int32_t>(count));
        if (got < 0) throw Failed{kKeepError};
        crossed(static_cast<std::size_t>(got));
        return static_cast<std::size_t>(got);
    }
    const long got = kernel::read(side.fd, buffer, count);
    if (got < 0) throw Failed{kLocalCardFailed};
    return static_cast<std::size_t>(got);
}

// Bytes that are due and do not come end the transfer: a source that keeps
// answering 0 is not waited for.
void Transfer::read_exact(Side& side, void* buffer, std::size_t count) {
    auto* p = static_cast<std::uint8_t*>(buffer);
    while (count > 0) {
        const std::size_t got = read_some(side, p, count);
        if (got == 0) throw Failed{kTransferStalled};
        p += got;
        count -= got;
    }
}

// A write that moves no byte ends the transfer: a device's card that ends
// before the image does answers so (or with its own status, which stays).
void Transfer::write_all(Side& side, const void* bytes, std::size_t count) {
    const auto* p = static_cast<const std::uint8_t*>(bytes);
    while (count > 0) {
        const std::size_t n = side.remote != nullptr ? std::min(count, kPiece) : count;
        long put;
        if (side.remote != nullptr) {
            put = remotefs::write(*side.remote, p, static_cast<std::int32_t>(n));
            if (put < 0) throw Failed{kKeepError};
            crossed(std::min(static_cast<std::size_t>(put), n));
        } else {
            put = kernel::write(side.fd, p, n);
            if (put < 0) throw Failed{kLocalCardFailed};
        }
        if (put == 0) throw Failed{kTransferStalled};
        const std::size_t moved = std::min(static_cast<std::size_t>(put), n);
        p += moved;
        count -= moved;
    }
}

// Copies length bytes at offset from the source to the same place on the
// destination through buffer, which keeps them, in the pieces the source
// gives.
void Transfer::copy(std::uint32_t offset, std::uint8_t* buffer, std::uint32_t length) {
    seek(source_, offset);
    seek(destination_, offset);
    for (std::uint32_t moved = 0; moved < length;) {
        const std::size_t got = read_some(source_, buffer + moved, length - moved);
        if (got == 0) throw Failed{kTransferStalled};
        write_all(destination_, buffer + moved, got);
        moved += static_cast<std::uint32_t>(got);
    }
}

// The local card's size: what every offset of the image must stay within.
std::uint32_t local_card_size(kernel::Descriptor fd) {
    std::int32_t size = 0;
    std::int32_t* target = &size;
    if (kernel::ioctl(fd, kSizeRequest, &target) != 0 || size <= 0) return 0;
    return static_cast<std::uint32_t>(size);
}

void Transfer::header() {
    set_state(kPhaseHeader, 0);
    seek(source_, 0);
    std::uint8_t head[kLongestHeader];
    read_exact(source_, head, kSignatureSize);
    const std::size_t field_bytes = header_field_bytes(head);
    if (field_bytes == 0) throw Failed{kKeepError};
    std::uint8_t* fields = head + kSignatureSize;
    if (field_bytes > kHeaderFields) {
        // The block size is checked before the other fields are asked for.
        read_exact(source_, fields, 2);
        if ((static_cast<std::uint32_t>(fields[0]) | static_cast<std::uint32_t>(fields[1]) << 8) > kMaxBlockSize)
            throw Failed{kKeepError};
        fields += 2;
    }
    read_exact(source_, fields, kHeaderFields);
    decode_layout(head, layout_);

    // The one check of the header's sizes: the image must fit the local
    // card, whose end is fixed. Its map and metadata lie within it, and so
    // does the start of every group (the last group may reach past the
    // end: the map counts blocks in groups of 8; its copy ends there). A
    // get would otherwise write outside the local card, and a put would
    // send the device a volume whose parts the local card does not hold.
    // The device's card is not measured: its own replies tell where it ends.
    card_size_ = local_card_size(direction_ == kGet ? destination_.fd : source_.fd);
    if (!fits_card(layout_, card_size_)) throw Failed{kImageRefused};

    // The header fields as the source holds them, in one read; the
    // signature comes last.
    std::uint8_t again[kLongestHeader];
    copy(static_cast<std::uint32_t>(kSignatureSize), again, static_cast<std::uint32_t>(field_bytes));
}

void Transfer::map_and_metadata() {
    map_.reset(new (std::nothrow) std::uint8_t[layout_.map_size == 0 ? 1 : layout_.map_size]());
    if (!map_) throw Failed{kLocalCardFailed};
    copy(layout_.map_start, map_.get(), layout_.map_size); // the map stays for the data groups
    set_line_total();

    const std::uint32_t metadata_start = layout_.metadata_start();
    seek(source_, metadata_start);
    seek(destination_, metadata_start);
    std::uint8_t piece[kPiece];
    for (std::uint32_t done = 0; done < layout_.metadata_size;) {
        const std::size_t got = read_some(source_, piece, std::min<std::size_t>(layout_.metadata_size - done, kPiece));
        if (got == 0) throw Failed{kTransferStalled};
        write_all(destination_, piece, got);
        done += static_cast<std::uint32_t>(got);
        set_progress(static_cast<std::int32_t>(static_cast<std::uint64_t>(done) * 100 / layout_.metadata_size));
        check_cancel();
    }
}

void Transfer::data() {
    set_state(kPhaseData, 0);
    const std::uint64_t chunk = layout_.chunk();
    auto staging = std::make_unique<std::uint8_t[]>(kMaxBlockSize * kBlocksPerGroup);
    for (std::uint32_t i = 0; i < layout_.group_count; ++i) {
        const std::uint64_t offset = layout_.group_offset(i);
        // The local card's end cuts the last group's copy (the header
        // check keeps every group's start inside the card).
        const auto length = static_cast<std::uint32_t>(std::min(chunk, card_size_ - offset));
        const auto at = static_cast<std::uint32_t>(offset);
        std::memset(staging.get(), 0, length);
        // A map shorter than the group count leaves the groups past it
        // unused.
        if (i < layout_.map_size && map_[i] != 0) {
            seek(source_, at);
            seek(destination_, at);
            // A read that gives no byte ends the group's copy (the device's
            // card ends there); the next group goes on. On a get the rest
            // of the group is zeros on the local card.
            std::uint32_t moved = 0;
            while (moved < length) {
                const std::size_t got = read_some(source_, staging.get() + moved, length - moved);
                if (got == 0) break;
                write_all(destination_, staging.get() + moved, got);
                moved += static_cast<std::uint32_t>(got);
            }
            if (direction_ == kGet && moved < length) write_all(destination_, staging.get() + moved, length - moved);
        } else if (direction_ == kGet) {
            // An unused group reads as zeros on the local card, without
            // asking the device.
            seek(destination_, at);
            write_all(destination_, staging.get(), length);
        }
        // 100 belongs to the finished transfer: the last group shows 99.
        const std::int32_t progress =
            layout_.group_count <= 1 ? 100 : static_cast<std::int32_t>(static_cast<std::uint64_t>(i) * 100 / (layout_.group_count - 1));
        set_progress(std::min(progress, 99));
        check_cancel();
    }
}

void Transfer::signature() {
    set_state(kPhaseSignature, 0);
    seek(source_, 0);
    seek(destination_, 0);
    char signature[kSignatureSize];
    read_exact(source_, signature, sizeof signature);
    write_all(destination_, signature, sizeof signature);
}

void Transfer::run() {
    header();
    map_and_metadata();
    data();
    signature();
    set_state(kPhaseDone, 100);
}

// Shows what "/mem" holds, on the kernel's diagnostic stream.
void list_mirror() {
    const kernel::Descriptor dir = kernel::open(kMirrorMount, kernel::kOpenRead);
    if (dir < 0) return;
    kernel::DirEntry entry{};
    while (kernel::readdir(dir, entry) == 1) kernel::diagnostic("%s\n", entry.name);
    kernel::close(dir);
}

// The local card goes back to being a plain device: the server lets go of
// what it holds open in it, then "/mem" is unmounted.
void unmount_mirror() {
    local_server_close();
    kernel::umount(kMirrorMount);
}

// The common run of both directions; 0 or -1 with the error word set.
std::int32_t transfer(session::Session& s, TransferDirection direction) {
    {
        platform::LockGuard state(s.state_lock);
        s.cancel = 0;
        s.line_bytes[0] = s.line_bytes[1] = 0;
    }
    // The local card is about to be overwritten: "/mem" goes first, whether
    // this Session mounted it or one closed before it in this process (the
    // kernel outlives Sessions).
    if (direction == kGet) unmount_mirror();

    modbus_vukra_attributes attributes{};
    if (remotefs::lookup(s, kCardPath, &attributes) != 0) return -1;
    // Only the kind bits of the second word are the transfer's business:
    // what the device says in the other words is its own. An object that
    // is neither a file nor a device node, and a local card that cannot be
    // opened, leave the error word as the lookup left it.
    if ((attributes.words[1] & 3u) == 0) return -1;
    const kernel::Descriptor fd = kernel::open(kCardPath, kOpenReadWrite);
    if (fd < 0) return -1;
    const Side remote{&s, -1};
    const Side local{nullptr, fd};
    Transfer run(s, direction == kGet ? remote : local, direction == kGet ? local : remote, direction);
    std::int32_t result = 0;
    try {
        run.run();
    } catch (const Failed& failed) {
        if (failed.error != kKeepError) s.error = failed.error;
        result = -1;
    }
    kernel::close(fd);
    // A failed transfer leaves the phase where it stopped; the host reads
    // it with the error word.
    if (result == 0) s.error = 0;
    return result;
}

} // namespace

std::int32_t getfs(session::Session& s) {
    if (!hold_local_card(s)) return -1;
    forget_local_card();
    if (transfer(s, kGet) != 0) {
        // The local card is partly written: "/mem" stays unmounted and its
        // paths go to the device again until a get succeeds.
        s.mirror_enabled = 0;
        s.mirror_selected = 0;
        return -1;
    }
    remember_local_card(); // before the mount: what it writes is a change
    if (kernel::mount(kernel::kUfsx, kCardPath, kMirrorMount) != 0) {
        s.mirror_enabled = 0;
        s.mirror_selected = 0;
        s.error = kLocalCardFailed;
        return -1;
    }
    list_mirror();

    session::Session* mirror = session::open(nullptr, 0);
    if (mirror == nullptr) {
        unmount_mirror();
        s.mirror_enabled = 0;
        s.error = kLocalCardFailed;
        return -1;
    }
    mirror->mirror_enabled = 3;
    mirror->mirror_selected = 1;
    delete s.mirror; // the one a previous get made: only memory
    s.mirror = mirror;
    s.mirror_enabled = 3;
    mount(*mirror);
    return 0;
}

std::int32_t putfs(session::Session& s) {
    if (s.mirror_enabled == 0) return -1;
    // What the mounted volume keeps in memory goes to the card first, or
    // the device would receive a card that does not match its files.
    kernel::flush_mounts();
    if (transfer(s, kPut) != 0) return -1;
    remember_local_card();
    return 0;
}

} // namespace vukra::remotefs
