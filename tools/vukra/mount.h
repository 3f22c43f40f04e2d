// vukra mount: the device's tree as a directory of the host, through FUSE 3
// (Linux only).
//
//   mount_command.cpp     the command: its options, the refusals told before
//                         the port opens, the mirror's get and put, the loop
//   mount_operations.cpp  what FUSE asks (getattr, readdir, read, ...) in the
//                         library's file operations
//   mount_cache.cpp       attributes and listings kept for a few seconds
//
// One session, one current handle: FUSE runs its loop on the main thread,
// one request at a time, and the loop holds the session's operations lock
// from the mount to the unmount, so nothing else uses the session meanwhile.
// The session's once-a-second status request is switched off for the same
// time: it would hold the line for a whole time-out when the device is gone,
// and a request waiting behind it would miss its own bound.
#pragma once

#define FUSE_USE_VERSION 35
#include <fuse.h>

#include "cli.h"
#include "modbus_vukra.h"
#include "remote_fs.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace vukra::cli::mount {

// Attributes and listings of device paths, kept for a short time.
class Cache {
public:
    using Clock = std::chrono::steady_clock;

    explicit Cache(Clock::duration keep = {}) : keep_(keep) {}

    // A fresh entry: the attributes (found = false: the path names nothing).
    bool attributes(const std::string& path, bool& found, modbus_vukra_attributes& out) const;
    void put_attributes(const std::string& path, bool found, const modbus_vukra_attributes& a);
    // Grows a file's cached size after a write.
    void grown(const std::string& path, std::uint32_t size);

    bool listing(const std::string& path, std::vector<std::string>& names) const;
    void put_listing(const std::string& path, const std::vector<std::string>& names);

    // What the mount changed itself: path, everything below it and its
    // parent's listing.
    void drop(const std::string& path);

private:
    struct Attributes {
        Clock::time_point when;
        bool found = false;
        modbus_vukra_attributes attributes{};
    };
    struct Listing {
        Clock::time_point when;
        std::vector<std::string> names;
    };
    bool fresh(Clock::time_point when) const { return Clock::now() - when < keep_; }

    Clock::duration keep_; // 0: nothing is kept
    std::map<std::string, Attributes> attributes_;
    std::map<std::string, Listing> listings_;
};

// What an operation was, where one status means different things: a lookup
// takes a status nobody knows for "no such file".
using tool::Doing;


// The longest device path sent: both paths of a rename must fit in one
// request (1968 bytes) beside its other fields.
inline constexpr std::size_t kLongestPath = 960;
inline constexpr std::size_t kLongestName = 255; // bytes of one name on the device

// What the operations share, for the life of the mount.
struct State {
    const Remote* remote = nullptr; // holds the session's operations lock
    modbus_vukra_session* session = nullptr;
    std::string root; // the device's directory shown as the mount's root
    Cache cache;
    // An open file: its device path and the node it was opened on. A path
    // that names another node, or none, is no longer this file.
    struct OpenFile {
        std::string path;
        std::uint32_t node = 0;
    };
    std::map<std::uint64_t, OpenFile> files; // by number
    std::uint64_t next_file = 1;
    // The open file the session's current handle designates, 0 for none:
    // every other request leaves it to what it looked up itself.
    std::uint64_t current = 0;
    bool written = false; // a request that changes the device's files was made
    std::function<void()> first_write; // called once, as written becomes true
    Cache::Clock::time_point silent_until{}; // the device did not answer a moment ago
    double cache_seconds = 0; // also the kernel's own time for attributes and names
    unsigned uid = 0, gid = 0;
};

// FUSE's table of operations; each finds the State as FUSE's private data.
const fuse_operations& operations();

} // namespace vukra::cli::mount
