// The put of what changed: after a get (or a put) the library keeps the
// local card's header, map and metadata as they were then, with a digest
// of each 64-byte unit of the used groups, and the SD card's driver notes
// every write since (kernel/card_changes.h). A put of the changed parts
// sends only the units of the groups that the library wrote, and the
// pieces of the map and metadata that differ, once it has made sure that
// neither card changed behind its back: the local card outside the
// library (what differs but was not written through it), the device's
// card by another program (its header, map and metadata read back and
// compared). See docs/image-transfer.md.
#include "remotefs/image_transfer.h"

#include "kernel/card_changes.h"
#include "kernel/vfs.h"
#include "remotefs/file_operations.h"
#include "remotefs/image_layout.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace vukra::remotefs {

namespace {

constexpr std::uint32_t kOpenReadWrite = 3;
constexpr std::uint32_t kSizeRequest = 1;
constexpr std::size_t kPiece = 1024; // what one remote read or write moves at most
constexpr std::uint32_t kUnit = kernel::kCardChangeUnit;

// The local card as the device's card held it after the last get or put.
struct Baseline {
    bool kept = false;
    ImageLayout layout;
    std::uint64_t card_size = 0;
    std::vector<std::uint8_t> head;    // bytes 0 to the data start: header, map, metadata
    // Of each group the map marked used, a digest of each change unit's
    // part in it: what tells a change by hand from the library's.
    std::vector<std::vector<std::uint32_t>> sums;
};

Baseline baseline;

// FNV-1a: a digest to notice a unit changed by hand, not a protection
// against a crafted one.
std::uint32_t digest(const std::uint8_t* p, std::size_t n) {
    std::uint32_t h = 0x811c9dc5u;
    for (std::size_t i = 0; i < n; ++i) h = (h ^ p[i]) * 0x01000193u;
    return h;
}

// Calls each(from, to) for the parts of [offset, offset + length) that
// lie in one change unit each, in order.
template <typename Each>
void for_each_unit(std::uint64_t offset, std::uint64_t length, Each&& each) {
    for (std::uint64_t at = offset, end = offset + length; at < end;) {
        const std::uint64_t to = std::min(end, (at / kUnit + 1) * kUnit);
        each(at, to);
        at = to;
    }
}

bool map_used(const ImageLayout& l, const std::vector<std::uint8_t>& head, std::uint32_t group) {
    return group < l.map_size && head[l.map_start + group] != 0;
}

std::uint32_t group_length(const ImageLayout& l, std::uint64_t card_size, std::uint32_t group) {
    return static_cast<std::uint32_t>(std::min(l.chunk(), card_size - l.group_offset(group)));
}

// The local card through a kernel descriptor, closed at the end of scope.
struct LocalCard {
    kernel::Descriptor fd = kernel::open(kCardPath, kOpenReadWrite);
    ~LocalCard() {
        if (fd >= 0) kernel::close(fd);
    }
    bool read_at(std::uint64_t offset, std::uint8_t* buffer, std::size_t length) const {
        if (kernel::lseek(fd, static_cast<long>(offset), 0) != static_cast<long>(offset)) return false;
        for (std::size_t done = 0; done < length;) {
            const long got = kernel::read(fd, buffer + done, length - done);
            if (got <= 0) return false;
            done += static_cast<std::size_t>(got);
        }
        return true;
    }
    std::uint64_t size() const {
        std::int32_t size = 0;
        std::int32_t* target = &size;
        return kernel::ioctl(fd, kSizeRequest, &target) == 0 && size > 0 ? static_cast<std::uint64_t>(size) : 0;
    }
    // The header, map and metadata, with their layout; false when the card
    // does not hold an image the transfer takes.
    bool read_head(ImageLayout& layout, std::vector<std::uint8_t>& head) const {
        std::uint8_t header[kLongestHeader] = {};
        if (fd < 0 || !read_at(0, header, sizeof header) || !decode_layout(header, layout) ||
            !fits_card(layout, size()))
            return false;
        head.resize(static_cast<std::size_t>(layout.data_start()));
        return read_at(0, head.data(), head.size());
    }
};

// Why the put of what changed stopped: the error word to leave, or
// kKeepError for what the failing remote operation stored.
constexpr std::int32_t kKeepError = 1;
struct Stopped {
    std::int32_t error;
};

void set_state(session::Session& s, std::int32_t phase, std::int32_t progress) {
    platform::LockGuard state(s.state_lock);
    s.status[kStatusDirection] = kPut;
    s.status[kStatusPhase] = phase;
    s.status[kStatusProgress] = progress;
}

// The progress; true when a cancel was asked.
bool progress_and_cancel(session::Session& s, std::uint64_t done, std::uint64_t total) {
    platform::LockGuard state(s.state_lock);
    s.status[kStatusProgress] = total == 0 ? 99 : static_cast<std::int32_t>(std::min<std::uint64_t>(done * 100 / total, 99));
    return s.cancel.load() != 0;
}

// The bytes that cross the line, as a user is shown them (line_bytes).
void line_crossed(session::Session& s, std::uint64_t bytes) {
    platform::LockGuard state(s.state_lock);
    s.line_bytes[0] += bytes;
}

void remote_seek(session::Session& s, std::uint64_t offset) {
    if (remotefs::seek(s, static_cast<std::uint32_t>(offset), 0) < 0) throw Stopped{kKeepError};
}

// Writes length bytes at offset on the device's card, at most 1024 a
// request; a write that moves no byte ends the put.
void remote_write(session::Session& s, std::uint64_t offset, const std::uint8_t* bytes, std::size_t length,
                  std::uint64_t& written) {
    remote_seek(s, offset);
    while (length > 0) {
        const auto n = static_cast<std::int32_t>(std::min(length, kPiece));
        const std::int32_t put = remotefs::write(s, bytes, n);
        if (put < 0) throw Stopped{kKeepError};
        if (put == 0) throw Stopped{kTransferStalled};
        const auto moved = std::min(static_cast<std::size_t>(put), static_cast<std::size_t>(n));
        bytes += moved;
        length -= moved;
        written += moved;
        line_crossed(s, moved);
    }
}

// A run of bytes to send, as offsets on the card.
struct Run {
    std::uint64_t from, to;
};

// Appends [from, to) to runs, joined to the last run when they meet.
void add_run(std::vector<Run>& runs, std::uint64_t from, std::uint64_t to) {
    if (!runs.empty() && runs.back().to == from)
        runs.back().to = to;
    else
        runs.push_back({from, to});
}

// The runs of one data group to send.
struct GroupRuns {
    std::uint32_t group;
    std::vector<Run> runs;
};

// What the put sends, and whether the local card changed outside the
// library.
struct Plan {
    std::vector<std::uint8_t> head; // the local card's header, map and metadata now
    std::vector<GroupRuns> groups;
    std::vector<Run> metadata, map, header, signature;
    bool changed_by_hand = false;
    bool empty() const {
        return groups.empty() && metadata.empty() && map.empty() && header.empty() && signature.empty();
    }
};

// The runs of [from, to) to send: the change units the library wrote
// whose bytes differ from the baseline's, next ones joined. A unit that
// differs but was not written marks the card changed by hand.
std::vector<Run> head_runs(Plan& plan, std::uint64_t from, std::uint64_t to) {
    std::vector<Run> runs;
    for_each_unit(from, to - from, [&](std::uint64_t at, std::uint64_t end) {
        if (std::memcmp(plan.head.data() + at, baseline.head.data() + at, end - at) == 0) return;
        if (!kernel::card_changed(at, end - at)) plan.changed_by_hand = true;
        add_run(runs, at, end);
    });
    return runs;
}

// The blocks in use of group i, as runs.
std::vector<Run> used_blocks(const ImageLayout& l, const std::vector<std::uint8_t>& head, std::uint32_t i) {
    std::vector<Run> runs;
    const std::uint64_t start = l.group_offset(i), end = start + group_length(l, baseline.card_size, i);
    for (std::uint32_t b = 0; b < kBlocksPerGroup; ++b) {
        const std::uint64_t from = start + std::uint64_t{b} * l.block_size;
        if ((head[l.map_start + i] >> b & 1) != 0 && from < end) add_run(runs, from, std::min(end, from + l.block_size));
    }
    return runs;
}

// The runs of a group used at the get and now: the units the library
// wrote. The others must be as they were (their digests tell).
bool group_runs(const LocalCard& card, std::uint32_t i, std::vector<std::uint8_t>& bytes, Plan& plan) {
    const ImageLayout& l = baseline.layout;
    const std::uint64_t offset = l.group_offset(i);
    const std::uint32_t length = group_length(l, baseline.card_size, i);
    if (!card.read_at(offset, bytes.data(), length)) return false;
    GroupRuns g{i, {}};
    std::size_t k = 0;
    for_each_unit(offset, length, [&](std::uint64_t at, std::uint64_t end) {
        if (kernel::card_changed(at, end - at))
            add_run(g.runs, at, end);
        else if (digest(bytes.data() + (at - offset), end - at) != baseline.sums[i][k])
            plan.changed_by_hand = true;
        ++k;
    });
    if (!g.runs.empty()) plan.groups.push_back(std::move(g));
    return true;
}

// Compares the local card with the baseline; false when it cannot be read
// or its layout changed.
bool make_plan(const LocalCard& card, Plan& plan) {
    ImageLayout l;
    if (!card.read_head(l, plan.head) || plan.head.size() != baseline.head.size()) return false;
    const ImageLayout& b = baseline.layout;
    if (l.block_size != b.block_size || l.map_size != b.map_size || l.group_count != b.group_count ||
        l.metadata_size != b.metadata_size || l.map_start != b.map_start)
        return false;
    plan.signature = head_runs(plan, 0, kSignatureSize);
    plan.header = head_runs(plan, kSignatureSize, l.map_start);
    plan.map = head_runs(plan, l.map_start, l.metadata_start());
    plan.metadata = head_runs(plan, l.metadata_start(), l.data_start());

    std::vector<std::uint8_t> group(l.chunk());
    for (std::uint32_t i = 0; i < l.group_count; ++i) {
        if (!map_used(l, plan.head, i)) continue; // an unused group is not sent, as a full put skips it
        // A group that was unused at the get holds, on the device, bytes
        // the get did not fetch: each of its blocks in use goes whole (bit
        // b of the group's map byte is its block b).
        if (!map_used(l, baseline.head, i))
            plan.groups.push_back({i, used_blocks(l, plan.head, i)});
        else if (!group_runs(card, i, group, plan))
            return false;
    }
    return true;
}

// Reads the device's header, map and metadata back: each byte must be
// what the get fetched or what this put writes there (a put stopped half
// way wrote some of the latter). Cancel is seen after each piece.
void check_device(session::Session& s, const Plan& plan) {
    modbus_vukra_attributes attributes{};
    if (remotefs::lookup(s, kCardPath, &attributes) != 0) throw Stopped{kKeepError};
    if ((attributes.words[1] & 3u) == 0) throw Stopped{kDeviceCardChanged};
    remote_seek(s, 0);
    std::uint8_t piece[kPiece];
    const std::size_t total = baseline.head.size();
    for (std::size_t at = 0; at < total;) {
        const std::int32_t got = remotefs::read(s, piece, static_cast<std::int32_t>(std::min(kPiece, total - at)));
        if (got < 0) throw Stopped{kKeepError};
        if (got == 0) throw Stopped{kTransferStalled};
        line_crossed(s, static_cast<std::uint64_t>(got));
        for (std::size_t i = 0; i < static_cast<std::size_t>(got); ++i)
            if (piece[i] != baseline.head[at + i] && piece[i] != plan.head[at + i]) throw Stopped{kDeviceCardChanged};
        at += static_cast<std::size_t>(got);
        if (progress_and_cancel(s, at, total)) throw Stopped{kTransferCancelled};
    }
}

std::uint64_t send(session::Session& s, const LocalCard& card, const Plan& plan) {
    const ImageLayout& l = baseline.layout;
    std::uint64_t written = 0;
    // The data first: until the metadata and the map follow, the device's
    // volume does not reach the groups that were free on it.
    set_state(s, kPhaseData, 0);
    std::vector<std::uint8_t> group(l.chunk());
    for (std::size_t n = 0; n < plan.groups.size(); ++n) {
        const std::uint64_t offset = l.group_offset(plan.groups[n].group);
        const std::uint32_t length = group_length(l, baseline.card_size, plan.groups[n].group);
        if (!card.read_at(offset, group.data(), length)) throw Stopped{kLocalCardFailed};
        for (const Run& r : plan.groups[n].runs)
            remote_write(s, r.from, group.data() + (r.from - offset), r.to - r.from, written);
        if (progress_and_cancel(s, n + 1, plan.groups.size())) throw Stopped{kTransferCancelled};
    }
    // Then the metadata, the map and the header, the signature last; no
    // cancel between them.
    set_state(s, kPhaseSignature, 0);
    for (const auto* runs : {&plan.metadata, &plan.map, &plan.header, &plan.signature})
        for (const Run& r : *runs) remote_write(s, r.from, plan.head.data() + r.from, r.to - r.from, written);
    return written;
}

} // namespace

void remember_local_card() {
    forget_local_card();
    const LocalCard card;
    Baseline b;
    if (!card.read_head(b.layout, b.head)) return;
    b.card_size = card.size();
    b.sums.resize(b.layout.group_count);
    std::vector<std::uint8_t> group(b.layout.chunk());
    for (std::uint32_t i = 0; i < b.layout.group_count; ++i) {
        if (!map_used(b.layout, b.head, i)) continue;
        const std::uint64_t offset = b.layout.group_offset(i);
        const std::uint32_t length = group_length(b.layout, b.card_size, i);
        if (!card.read_at(offset, group.data(), length)) return;
        for_each_unit(offset, length, [&](std::uint64_t at, std::uint64_t end) {
            b.sums[i].push_back(digest(group.data() + (at - offset), end - at));
        });
    }
    b.kept = true;
    baseline = std::move(b);
    kernel::card_changes_start();
}

void forget_local_card() {
    baseline = Baseline{};
    kernel::card_changes_stop();
}

std::int32_t putfs_changed(session::Session& s) {
    {
        platform::LockGuard state(s.state_lock);
        s.cancel = 0;
        s.line_bytes[0] = s.line_bytes[1] = 0;
    }
    if (s.mirror_enabled == 0 || !baseline.kept || !kernel::card_changes_noted()) {
        s.error = kNoGetfs;
        return -1;
    }
    // What the mounted volume keeps in memory goes to the card first.
    kernel::flush_mounts();
    set_state(s, kPhaseHeader, 0);
    const LocalCard card;
    Plan plan;
    if (card.fd < 0) {
        s.error = kLocalCardFailed;
        return -1;
    }
    if (!make_plan(card, plan) || plan.changed_by_hand) {
        s.error = kLocalCardChanged;
        return -1;
    }
    std::uint64_t written = 0;
    if (!plan.empty()) {
        // What crosses: the device's head read for the check, then every run.
        std::uint64_t total = baseline.head.size();
        for (const GroupRuns& g : plan.groups)
            for (const Run& r : g.runs) total += r.to - r.from;
        for (const auto* runs : {&plan.metadata, &plan.map, &plan.header, &plan.signature})
            for (const Run& r : *runs) total += r.to - r.from;
        {
            platform::LockGuard state(s.state_lock);
            s.line_bytes[1] = total;
        }
        try {
            check_device(s, plan);
            written = send(s, card, plan);
        } catch (const Stopped& stopped) {
            // The marks stay: a put after this one sends all of it again.
            if (stopped.error != kKeepError) s.error = stopped.error;
            return -1;
        }
    }
    set_state(s, kPhaseDone, 100);
    s.error = 0;
    remember_local_card(); // the device's card is the local one now
    return static_cast<std::int32_t>(written);
}

} // namespace vukra::remotefs
