// The file that swallows what is written to it, by its name on each system.
#pragma once

namespace vukra::tools {

#if defined(_WIN32)
inline constexpr const char* kNullDevice = "NUL";
#else
inline constexpr const char* kNullDevice = "/dev/null";
#endif

} // namespace vukra::tools
