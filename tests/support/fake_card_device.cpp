#include "support/fake_card_device.h"

#include "remotefs/local_server_internal.h"
#include "support/wire_bytes.h"

#include <algorithm>

namespace vukra::test {

using namespace vukra::remotefs;
using namespace vukra::remotefs::server;

FakeCardDevice::FakeCardDevice(std::string image, std::uint32_t kind, std::uint32_t word2)
    : image_(std::move(image)), kind_(kind), word2_(word2) {
    thread_ = std::thread([this] { serve(); });
}

FakeCardDevice::~FakeCardDevice() {
    stop_ = true;
    thread_.join();
}

std::string FakeCardDevice::card() const {
    std::lock_guard<std::mutex> hold(lock_);
    return image_;
}

void FakeCardDevice::serve() {
    while (!stop_.load()) {
        const Bytes packet = pty_.receive_packet(50);
        if (!packet.empty()) answer(packet);
    }
}

std::vector<std::size_t> FakeCardDevice::write_positions() const {
    std::lock_guard<std::mutex> hold(lock_);
    return write_positions_;
}

void FakeCardDevice::poke(std::size_t at, const std::string& bytes) {
    std::lock_guard<std::mutex> hold(lock_);
    image_.replace(at, bytes.size(), bytes);
}

void FakeCardDevice::answer(const Bytes& packet) {
    if (packet.size() < kFrameHeaderSize) return;
    const std::uint8_t code = packet[1];
    const std::uint8_t* payload = packet.data() + kFrameHeaderSize;
    const auto length = static_cast<std::uint32_t>(packet.size() - kFrameHeaderSize);
    alignas(16) std::uint8_t reply[kPayloadCapacity];
    std::int32_t reply_length = -1;
    std::lock_guard<std::mutex> hold(lock_);
    ++requests_[code & 15];
    switch (code) {
    case kOpNull: reply_length = give(code, reply, StatusReply{0}); break;
    case kOpMount: reply_length = give(code, reply, MountReply{1, MountFlags{{0, 1, 1, 1}}, 0}); break;
    case kOpLookup: {
        LookupReply r{};
        r.handle = FileHandle{0, 1};
        r.attributes.words[1] = kind_;
        r.attributes.words[2] = word2_;
        reply_length = give(code, reply, r);
        break;
    }
    case kOpRead: {
        ReadRequest request;
        if (!take(code, payload, length, request)) return;
        const std::size_t at = std::min(static_cast<std::size_t>(request.position), image_.size());
        const std::size_t count = std::min<std::size_t>({request.count, 1024, image_.size() - at});
        ReadReply r{};
        r.count = static_cast<std::uint32_t>(count);
        r.data = WireBuffer{static_cast<std::int32_t>(count), reinterpret_cast<const std::uint8_t*>(image_.data() + at)};
        r.eof = count == 0 ? 1 : 0;
        reply_length = give(code, reply, r);
        break;
    }
    case kOpWrite: {
        WriteRequest request;
        if (!take(code, payload, length, request)) return;
        const std::size_t at = static_cast<std::size_t>(request.position);
        const std::size_t count = at < image_.size() ? std::min<std::size_t>(request.count, image_.size() - at) : 0;
        if (count > 0) image_.replace(at, count, reinterpret_cast<const char*>(request.data.data), count);
        written_ += static_cast<long>(count);
        write_positions_.push_back(at);
        reply_length = give(code, reply, WriteReply{static_cast<std::uint32_t>(count), 0});
        break;
    }
    default: reply_length = give_status(code, reply, 29); break;
    }
    if (reply_length < 0) return;
    pty_.send(slip_packet(frame(code, Bytes(reply, reply + reply_length))));
}

} // namespace vukra::test
