// The statuses this project knows: the ones a vukra device answers (its
// kernel's errors, negative, and its file server's own refusals), the
// library's own local values, and what each means to a person and to a
// POSIX program. The one table; the mount, the tools' messages and the
// Python package (through modbus_vukra_explain) take it from here.
//
// A device is free to answer other statuses: their meaning is its own.
// What the project makes of one it does not know:
//   - a lookup (or an open for reading) answered with it: no such file,
//     which lets a copy create the file it looked for first;
//   - any other operation: EIO, its number in the message.
// A failure of the line (no reply, a reply that does not decode, a dropped
// connection) is EIO too, with what happened on the line in words.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vukra::remotefs {

struct StatusEntry {
    std::int32_t value;
    const char* name; // a short name ("ENOENT", "NOREPLY")
    int error;        // the errno a POSIX program sees
    const char* text; // for a person
};

// The whole table, in the order of the values.
const StatusEntry* status_table(std::size_t& count);

// The entry of a status, or null when the project does not know it. read
// and readdir replies carry only a status's low byte (-44 arrives as 212):
// such a value is looked up as the negative status it stands for.
const StatusEntry* find_status(std::int32_t status);

// What the operation that got the status was doing: a lookup takes an
// unknown status for "no such file"; rmdir and rename read "exists, or not
// empty" as "not empty".
enum class Doing : std::int32_t { kOther = 0, kLookup = 1, kRemovingDirectory = 2 };

// The errno for the status of a failed call by the rule above; status 0
// (the call failed without one: a reply that does not decode) is EIO.
int errno_of(std::int32_t status, Doing doing = Doing::kOther);

// "status N (text)", "status N" for one the project does not know.
// Writes at most size bytes, NUL included; returns the length it wanted.
std::size_t status_words(std::int32_t status, char* text, std::size_t size);

} // namespace vukra::remotefs
