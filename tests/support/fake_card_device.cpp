#include "support/fake_card_device.h"

#include "link/slip.h"
#include "remotefs/local_server_internal.h"

#include <algorithm>
#include <cstring>
#include <poll.h>
#include <unistd.h>
#include <vector>

namespace vukra::test {

using namespace vukra::remotefs;
using namespace vukra::remotefs::server;

FakeCardDevice::FakeCardDevice(std::string image, std::uint32_t kind) : image_(std::move(image)), kind_(kind) {
    thread_ = std::thread([this] { serve(); });
}

FakeCardDevice::~FakeCardDevice() {
    stop_ = true;
    thread_.join();
}

void FakeCardDevice::serve() {
    std::string packet;
    bool escaped = false;
    while (!stop_.load()) {
        pollfd p{pty_.master, POLLIN, 0};
        if (::poll(&p, 1, 50) <= 0) continue;
        std::uint8_t bytes[4096];
        const ssize_t n = ::read(pty_.master, bytes, sizeof bytes);
        if (n <= 0) continue;
        for (ssize_t i = 0; i < n; ++i) {
            const std::uint8_t byte = bytes[i];
            if (byte == link::kSlipEnd) {
                if (!packet.empty()) answer(packet);
                packet.clear();
            } else if (escaped) {
                packet.push_back(static_cast<char>(byte == link::kSlipEscEnd ? link::kSlipEnd : link::kSlipEsc));
                escaped = false;
            } else if (byte == link::kSlipEsc) {
                escaped = true;
            } else {
                packet.push_back(static_cast<char>(byte));
            }
        }
    }
}

void FakeCardDevice::answer(const std::string& packet) {
    if (packet.size() < kFrameHeaderSize) return;
    const auto code = static_cast<std::uint8_t>(packet[1]);
    const auto* payload = reinterpret_cast<const std::uint8_t*>(packet.data()) + kFrameHeaderSize;
    const auto length = static_cast<std::uint32_t>(packet.size() - kFrameHeaderSize);
    alignas(16) std::uint8_t reply[kPayloadCapacity];
    std::int32_t reply_length = -1;
    switch (code) {
    case kOpNull:
        ++nulls_;
        reply_length = give(code, reply, StatusReply{0});
        break;
    case kOpMount: reply_length = give(code, reply, MountReply{1, MountFlags{{0, 1, 1, 1}}, 0}); break;
    case kOpLookup: {
        LookupReply r{};
        r.handle = FileHandle{0, 1};
        r.attributes.words[1] = kind_;
        r.attributes.words[2] = static_cast<std::uint32_t>(image_.size());
        reply_length = give(code, reply, r);
        break;
    }
    case kOpRead: {
        ReadRequest request;
        if (!take(code, payload, length, request)) return;
        ++reads_;
        const std::size_t at = std::min(static_cast<std::size_t>(request.position), image_.size());
        const std::size_t count = std::min<std::size_t>({request.count, 1024, image_.size() - at});
        ReadReply r{};
        r.count = static_cast<std::uint32_t>(count);
        r.data = WireBuffer{static_cast<std::int32_t>(count), reinterpret_cast<const std::uint8_t*>(image_.data() + at)};
        r.eof = count == 0 ? 1 : 0;
        reply_length = give(code, reply, r);
        break;
    }
    default: reply_length = give_status(code, reply, 29); break;
    }
    if (reply_length < 0) return;
    std::vector<std::uint8_t> frame(kFrameHeaderSize + static_cast<std::size_t>(reply_length), 0);
    frame[0] = 1;
    frame[1] = code;
    for (int i = 0; i < 4; ++i) frame[4 + i] = static_cast<std::uint8_t>(static_cast<std::uint32_t>(reply_length) >> (8 * i));
    std::memcpy(frame.data() + kFrameHeaderSize, reply, static_cast<std::size_t>(reply_length));
    std::vector<std::uint8_t> wire(2 * frame.size() + 2);
    wire[0] = link::kSlipEnd;
    const std::size_t n = link::slip_escape(frame.data(), frame.size(), wire.data() + 1);
    wire[n + 1] = link::kSlipEnd;
    wire.resize(n + 2);
    pty_.send(wire);
}

} // namespace vukra::test
