// What the vukra fs commands share: a mounted session on the device, the
// device's answers put into words, and whole files moved 1024 bytes per
// transaction.
//
// Paths on the device are always taken from its root: a path without a
// leading "/" gets one, so that no lookup resolves from whatever directory
// the previous operation left current.
#pragma once

#include "cli.h"
#include "modbus_vukra.h"
#include "progress.h"
#include "../common/paths.h"
#include "session/tool_interface.h"

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

namespace vukra::cli {

// Attribute word 1: what kind of object a node is.
inline constexpr std::uint32_t kKindFile = 1u << 0;
inline constexpr std::uint32_t kKindDevice = 1u << 1;
inline constexpr std::uint32_t kKindCharacter = 1u << 2; // with kKindDevice
inline constexpr std::uint32_t kKindDirectory = 1u << 3;
inline constexpr std::uint32_t kKindFifo = 1u << 4;
inline constexpr std::uint32_t kKindLink = 1u << 5;

// The four attribute words by their meaning.
enum AttributeWord { kAttrNode = 0, kAttrKind = 1, kAttrSize = 2, kAttrTime = 3 };
// The four usage words by their meaning.
enum UsageWord { kUsageBlockSize = 0, kUsageBlocks = 1, kUsageFreeBlocks = 2, kUsageFreeNodes = 3 };

// The invocation's session with the device's filesystem mounted (the
// mount is made once); null after saying why.
modbus_vukra_session* mounted_session(Options& options);

// The mounted session a command works on; ok() is false (after a message
// on stderr) when the open or the mount failed. The session stays open for
// the commands that follow.
//
// While it lives it holds the session's operations lock, the lock every
// protected call takes as well (again, on the same thread): the timer's
// once-a-second status request, which overwrites the error word, then
// runs only between commands, and a failure's status is still there when
// the command puts it into words.
struct Remote {
    modbus_vukra_session* session = nullptr;

    tool::Hold hold;

    explicit Remote(Options& options);
    Remote(const Remote&) = delete;
    Remote& operator=(const Remote&) = delete;
    bool ok() const { return session != nullptr; }
};

// A device path from the root, without repeated or trailing slashes.
std::string remote_path(const std::string& user_path);
using tools::joined;
using tools::name_of;
using tools::parent_of;

// The session's error word in words: "status N (meaning)", or what went
// wrong when no status came.
std::string device_status(modbus_vukra_session* s);
// A status in words: "status N (meaning)", "status 0 (ok)".
std::string status_words(std::int32_t status);
// fail() with "cannot WHAT PATH: <device_status>".
int device_fail(const Remote& r, const std::string& what, const std::string& path);

// One letter for ls -l and a few words for stat, from attribute word 1.
char kind_letter(std::uint32_t kind);
std::string kind_words(std::uint32_t kind);
bool is_directory(const modbus_vukra_attributes& a);

// Looks path up (it becomes the current object); false leaves the status
// in the session's error word.
bool look_up(const Remote& r, const std::string& path, modbus_vukra_attributes& out);

// After a failed look_up: whether the device said the path names nothing
// (its own status for that, or one nobody knows), not that it failed.
bool missing(const Remote& r);

// Every name in the directory path, in the device's order, page after page
// until the end, each listing entry freed. 0, or the status of fail() with
// the reason when the lookup or a page failed or the listing does not end
// (a page that is not the last brings no entry or a cookie seen before);
// names holds what came.
int list_names(const Remote& r, const std::string& path, std::vector<std::string>& names);

// How a whole-file transfer ended.
enum class Moved {
    kAll,     // every byte
    kDevice,  // the device refused (its status in the error word)
    kStalled, // the device took no byte of a write, without a status
    kLocal,   // the local file could not be read or written
};

// Moves the current file's bytes from its start to out until the device
// reports the end, counting them on the progress line. After kLocal, errno
// tells why (for this and write_from).
Moved read_to(const Remote& r, Progress& progress, std::FILE* out);

// Writes in's bytes to the current file from its start.
Moved write_from(const Remote& r, Progress& progress, std::FILE* in);

// Checks of the path words, run as the command line is read (a refused
// word is a usage error): a device path must not be a Windows one
// ("C:\x", "a\b"), and an absolute local path must not read as a device
// path, one whose first directory does not exist here ("/mem/x").
std::string device_path_check(const std::string& word);
std::string local_path_check(const std::string& word);

// A local path for messages, in UTF-8 on every build.
std::string shown(const std::filesystem::path& p);

// Opens a local file by its path (wide names on Windows); "new" creates
// a file that must not exist yet, for writing.
std::FILE* open_local(const std::filesystem::path& p, const char* mode);
std::FILE* create_local(const std::filesystem::path& p);

// The copies of one file, each through a temporary name renamed over the
// final one once complete (fs_commands.cpp): the device's path to a local
// target, and a local file of size bytes to the device's path; local is
// the local name for messages. Status 0, or 1 after a message.
int get_file(const Remote& r, Progress& progress, const std::string& path, const std::string& local,
             const std::filesystem::path& target);
int put_file(const Remote& r, Progress& progress, const std::string& path, const std::string& local,
             std::uint64_t size, std::FILE* in);

// fs get -r REMOTEDIR LOCALDIR and fs put -r LOCALDIR REMOTEDIR (tree_copy.cpp).
int get_tree(Options& o, const std::string& remote, const std::string& local);
int put_tree(Options& o, const std::string& local, const std::string& remote);

} // namespace vukra::cli
