// The shared door: the library's own line protocol over TCP. A program
// that opens tcp://HOST:PORT on it (vukra, vukra mount, the Python
// package, a C host) talks to the device through serve: each SLIP packet
// it sends is one job in the queue, and the device's reply packet goes back
// to it. The device's one current file handle is kept to each client's own
// (tool::packet_exchange), so a mount, a poll and a script can work at once.
//
// A client waits for each reply up to its own time-out; a packet that could
// not be sent by its deadline (the time-out less a margin, counted from its
// arrival) is not sent at all, and its reply never comes, as on a line that
// lost it: the client's next exchange starts afresh. A client with more
// packets queued than its share is disconnected.
#include "connections.h"
#include "doors.h"

#include "link/slip.h"
#include "remotefs/messages.h"
#include "session/tool_interface.h"

#include <utility>

namespace vukra::serve {

namespace {

// A reply must reach the client before its own time-out runs out.
constexpr std::chrono::milliseconds kMargin{250};

Settings settings;
Server* server = nullptr;

// One packet: from its first byte that is not END to the END after it.
long frame(const std::uint8_t* b, std::size_t size) {
    std::size_t start = 0;
    while (start < size && b[start] == link::kSlipEnd) ++start;
    if (start == size) return static_cast<long>(size); // only END bytes: taken, and nothing done
    for (std::size_t i = start; i < size; ++i)
        if (b[i] == link::kSlipEnd) return static_cast<long>(i + 1);
    return 0;
}

Bytes unescape(const std::uint8_t* b, std::size_t size) {
    Bytes packet;
    for (std::size_t i = 0; i < size; ++i) {
        if (b[i] == link::kSlipEnd) continue;
        if (b[i] == link::kSlipEsc && i + 1 < size) {
            ++i;
            packet.push_back(b[i] == link::kSlipEscEnd ? link::kSlipEnd : b[i] == link::kSlipEscEsc ? link::kSlipEsc : b[i]);
        } else {
            packet.push_back(b[i]);
        }
    }
    return packet;
}

bool changes_files(std::uint8_t code) {
    using namespace remotefs;
    return code == kOpWrite || code == kOpCreate || code == kOpRemove || code == kOpRename || code == kOpMkdir ||
           code == kOpRmdir || code == kOpMkfs;
}

void take(Connection& c, const std::uint8_t* m, std::size_t length) {
    const Bytes packet = unescape(m, length);
    if (packet.empty()) return;
    // The library's packets are file frames (from 1) and register frames
    // (from ':'); anything else is not this protocol, and never sent.
    if (packet.size() > remotefs::kFrameSize || (packet[0] != remotefs::kFrameMarker && packet[0] != ':'))
        return hang_up(c);
    auto job = std::make_shared<Job>();
    job->priority = packet.size() > 1 && changes_files(packet[1]) ? Priority::kWrite : Priority::kRead;
    job->deadline = Clock::now() + std::chrono::milliseconds(settings.timeout_ms) - kMargin;
    auto out = std::make_shared<Bytes>();
    const int who = client(c);
    job->work = [packet, out, who](modbus_vukra_session* s) {
        std::uint8_t reply[remotefs::kFrameSize];
        const long n = tool::packet_exchange(s, who, packet.data(), packet.size(), reply, sizeof reply);
        if (n < 0) return; // no reply: the client's own time-out tells it
        out->assign(2 * static_cast<std::size_t>(n) + 2, link::kSlipEnd);
        const std::size_t escaped = link::slip_escape(reply, static_cast<std::size_t>(n), out->data() + 1);
        (*out)[escaped + 1] = link::kSlipEnd;
        out->resize(escaped + 2);
    };
    std::weak_ptr<Job> weak = job;
    job->done = [c = shared(c), weak, out](Outcome outcome) {
        if (outcome != Outcome::kDone) return;
        if (const auto j = weak.lock()) answer(*c, *j, std::move(*out));
    };
    if (submit(c, job, {}) != Submitted::kQueued) hang_up(c);
}

void closed(Connection& c) { tool::packet_client_gone(client(c)); }

} // namespace

bool start_share(const Settings& s, Queue& queue) {
    static const Protocol protocol{"the shared line", frame, take, std::chrono::seconds(0),
                                   2 * remotefs::kFrameSize + 16, closed};
    settings = s;
    return (server = listen_on(s.share, protocol, queue, s.max_clients)) != nullptr;
}

void stop_share() { close_server(std::exchange(server, nullptr)); }

} // namespace vukra::serve
