// vukra-ufs's commands on the volume mounted at "/mem". Each returns the
// exit status, having said on stderr what went wrong; none leaves the
// volume or a host file changed when it fails.
#pragma once

#include <string>

namespace vukra::ufs_tool {

// Prints "vukra-ufs: WHY" on stderr; returns 1.
int fail(const std::string& why);

// A path within the volume, as the user wrote it, made plain: "/" is the
// volume's root, "." and ".." are taken by name and ".." at the root stays
// there. The result starts with "/" and has no "." or ".." name.
std::string volume_path(const std::string& user_path);
// The kernel's path of a plain volume path.
std::string kernel_path(const std::string& plain);

int list(const std::string& path, bool long_form);
int tree();
int cat(const std::string& path);
// local "-" is standard output; otherwise a temporary file renamed at the end.
int get(const std::string& path, const std::string& local);
// Through a temporary name in the target's directory, renamed over the target at the end.
int put(const std::string& local, const std::string& path);
int make_directory(const std::string& path);
int remove(const std::string& path);
int move(const std::string& from, const std::string& to);
int disk_free();
int check();

} // namespace vukra::ufs_tool
