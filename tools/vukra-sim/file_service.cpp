#include "file_service.h"

#include "remotefs/local_server.h"
#include "remotefs/messages.h"

#include <algorithm>
#include <cstring>

namespace vukra::sim {

std::size_t answer_file_request(const std::uint8_t* frame, std::size_t length, std::uint8_t* reply) {
    using namespace remotefs;
    if (length < 2) return 0;
    // The payload is what came after the header, whatever its length word says.
    alignas(8) static std::uint8_t request[kPayloadCapacity];
    const std::size_t payload = length > kFrameHeaderSize ? std::min<std::size_t>(length - kFrameHeaderSize, kPayloadCapacity) : 0;
    if (payload > 0) std::memcpy(request, frame + kFrameHeaderSize, payload);
    alignas(8) static std::uint8_t answer[kPayloadCapacity];
    const std::int32_t n = local_serve(frame[1], answer, request, static_cast<std::uint32_t>(payload));
    if (n < 0) return 0;
    const auto count = static_cast<std::uint32_t>(n);
    reply[0] = kFrameMarker;
    reply[1] = frame[1];
    reply[2] = reply[3] = 0;
    for (int i = 0; i < 4; ++i) reply[4 + i] = static_cast<std::uint8_t>(count >> (8 * i));
    std::memset(reply + 8, 0, 4);
    std::memcpy(reply + kFrameHeaderSize, answer, count);
    return kFrameHeaderSize + count;
}

} // namespace vukra::sim
