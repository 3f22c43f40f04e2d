// Memory handed to the host: the C library's heap, released with free().
#include "platform/platform.h"

#include <cstdlib>

namespace vukra::platform {

void* host_alloc(std::size_t size) { return std::calloc(1, size); }
void host_free(void* block) { std::free(block); }

} // namespace vukra::platform
