// Memory handed to the host: the process heap through LocalAlloc, which a
// host releases with LocalFree (or Marshal.FreeHGlobal) whatever C runtime
// it was built with.
#include "platform/platform.h"

#include <windows.h>

namespace vukra::platform {

void* host_alloc(std::size_t size) { return LocalAlloc(LPTR, size); }
void host_free(void* block) {
    if (block != nullptr) LocalFree(block);
}

} // namespace vukra::platform
