// Remote-filesystem packets of several clients relayed to one device (vukra
// serve's shared line). The device keeps one current handle, the object
// the last lookup opened, which its getattr, read, write, readdir and mkfs
// requests name. When clients take turns, one client's lookup would move
// the handle from under another's reads; so the relay remembers, per
// client, the request that opened its object (a lookup, a create or a
// mkdir, replayed as a lookup), and before a request of a client that
// names a handle while the device's handle is another's, it sends that
// lookup again and puts the handle it gives into the request.
#pragma once

#include "link/serial_port.h"

#include <cstddef>
#include <cstdint>

namespace vukra::remotefs {

// One packet of client to the device and its reply into reply (capacity
// bytes): the reply's length, or -1 when none came within the time-out.
// Callers serialise the calls (the Session's operations lock).
long relay_packet(link::Port* port, int client, const std::uint8_t* packet, std::size_t length, std::uint8_t* reply,
                  std::size_t capacity);

// The client has gone: what the relay remembers of it is dropped.
void relay_forget(int client);

} // namespace vukra::remotefs
