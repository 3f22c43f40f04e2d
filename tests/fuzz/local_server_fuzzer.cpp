// Feeds arbitrary request payloads to every handler of the local server on
// a mounted ufs volume: none may crash it, write outside its reply buffer,
// or answer more than a reply payload holds. The first byte picks the
// operation code; the rest is the payload, in a word-aligned buffer as the
// transport's request buffer is. Before each input the server is mounted
// and holds a file of the volume open, so that requests naming the
// descriptor the file has reach the handlers' work too.
#include "kernel/kernel_diagnostics.h"
#include "kernel/kernel_start.h"
#include "kernel/vfs.h"
#include "remotefs/local_server.h"
#include "remotefs/messages.h"
#include "../support/kernel_helpers.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <unistd.h>
#include <vector>

using namespace vukra;
using namespace vukra::remotefs;

namespace {

constexpr std::int32_t kCardSize = 64 * 1024;

void put(const char* path, std::size_t bytes) {
    kernel::Descriptor fd = kernel::open(path, kernel::kOpenWrite | kernel::kOpenCreate);
    std::vector<char> data(bytes, 'v');
    kernel::write(fd, data.data(), data.size());
    kernel::close(fd);
}

template <typename Request>
void serve_valid(std::uint8_t code, const Request& request) {
    alignas(8) std::uint8_t in[kPayloadCapacity];
    alignas(8) std::uint8_t out[kPayloadCapacity];
    std::uint32_t size = kOperations[code].request_size;
    const std::int32_t n = encode(in, sizeof in, &request, size, kOperations[code].request);
    if (n < 0 || local_serve(code, out, in, static_cast<std::uint32_t>(n)) < 0) std::abort();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    char dir[] = "/tmp/vukra-fuzz-XXXXXX";
    if (mkdtemp(dir) == nullptr || chdir(dir) != 0) std::abort();
    kernel::set_diagnostic_stream(nullptr);
    kernel::kernel_start();
    if (!test::mount_card(kCardSize, kernel::UfsMakeArgument{64, 0xFFFF, 128, kCardSize})) std::abort();
    kernel::mkdir("/mem/d");
    put("/mem/d/f", 3000);
    put("/mem/g", 10);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1 || size > kPayloadCapacity + 1) return 0;
    serve_valid(kOpMount, MountRequest{"fuzz", MountFlags{{0, 1, 1, 1}}});
    serve_valid(kOpLookup, LookupRequest{1, FileHandle{0, -1}, "/mem/d/f"});

    const std::size_t length = size - 1;
    std::vector<std::uint32_t> words(length / 4 + 1);
    auto* payload = reinterpret_cast<std::uint8_t*>(words.data());
    std::memcpy(payload, data + 1, length);
    alignas(8) static std::uint8_t reply[kPayloadCapacity];
    const std::int32_t n = local_serve(data[0] % kOperationCodes, reply, payload, static_cast<std::uint32_t>(length));
    if (n > static_cast<std::int32_t>(kPayloadCapacity)) __builtin_trap();
    return 0;
}
