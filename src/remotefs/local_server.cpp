// The local server's table of handlers, indexed by operation code.
#include "remotefs/local_server.h"

namespace vukra::remotefs {

namespace {

std::int32_t refuse(std::uint8_t*, const std::uint8_t*, std::uint32_t) { return -1; }

constexpr LocalHandler kHandlers[kOperationCodes] = {
    refuse, refuse, refuse, refuse, refuse, refuse, refuse, refuse,
    refuse, refuse, refuse, refuse, refuse, refuse, refuse, refuse,
};

} // namespace

std::int32_t local_serve(std::uint8_t code, std::uint8_t* reply, const std::uint8_t* request, std::uint32_t length) {
    if (code >= kOperationCodes) return -1;
    return kHandlers[code](reply, request, length);
}

} // namespace vukra::remotefs
