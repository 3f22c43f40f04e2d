// Faults the emulated device stages on the line, for tests of the host's
// behaviour when the device misbehaves. Each is deterministic: the
// requests a fault hits are chosen by their count, and the random damage
// of --corrupt follows --seed.
//
// Counting: every request taken off the line counts (1, 2, ...), a Modbus
// request and a file request alike, except the status request (file
// operation 0, the null the host sends once a second while mounted), so
// that the count does not depend on the host's timer. A status request is
// answered normally, unless the device is silent at that moment. With
// --count-only CODE only file requests of that operation count, and only
// they take the faults; the others are answered normally.
#pragma once

#include <CLI/CLI.hpp>

#include <cstddef>
#include <cstdint>
#include <string>

namespace vukra::sim {

// What a wrong reply is, in place of the right one.
enum class WrongReply {
    kNone,
    kRegister, // a sound Modbus read reply (one word, 0x0BAD), whatever was asked
    kFile,     // a file reply of another operation (status 0), whatever was asked
    kFunction, // the right reply under another function (Modbus) or operation code (file)
    kAddress,  // the right Modbus reply from address 2; a file reply with marker 2
};

struct FaultOptions {
    bool silent = false;     // never answer
    bool dropping = false;   // --drop-after given
    std::uint32_t drop_after = 0;
    std::uint32_t drop_for = 0; // 0: silent for good once it starts
    // The requests the faults below hit: those after the first fault_after,
    // fault_for of them (0: all of them).
    std::uint32_t fault_after = 0;
    std::uint32_t fault_for = 0;
    int count_only = -1;        // an operation code: only its requests count
    long cut = -1;              // send only the first N bytes of a reply's packet
    bool cut_each = false;      // cut the k-th faulty reply after k - 1 bytes
    bool twice = false;         // send a reply twice
    std::uint32_t late_ms = 0;  // wait this long before sending a reply
    WrongReply wrong = WrongReply::kNone;
    bool endless_listing = false; // readdir: never the end, the cookie never moves
};

// The option texts as CLI11 leaves them, checked by read_fault_options.
struct FaultTexts {
    std::string drop_after, drop_for, fault_after, fault_for, count_only, cut, late, wrong;
};

void add_fault_options(CLI::App& app, FaultOptions& options, FaultTexts& texts);
// Refuses an option's empty value ("--cut ''"), which would else read as the option left out.
std::string not_empty(const std::string& value);
// Reads text, a whole decimal number from low to high and nothing else,
// into out; false with why ("NAME: ...") when it is not one. An empty text
// is the option left out: out stays as it was.
bool read_count(const std::string& name, const std::string& text, unsigned long long low, unsigned long long high,
                std::uint32_t& out, std::string& why);
// Checks and converts the texts: "" or what is wrong.
std::string read_fault_options(const FaultTexts& texts, FaultOptions& options);

// The fate of one request.
struct Turn {
    bool answer; // false: the device is silent
    bool faulty; // the request is in the faults' window
};

struct FaultCount {
    std::uint32_t counted = 0;
    std::uint32_t faulty = 0; // faulty replies sent so far
};

// Counts the request (code: the file operation, -1 for a Modbus request)
// and says what happens to it.
Turn next_turn(const FaultOptions& options, FaultCount& count, int code);

using SendBytes = void (*)(const std::uint8_t* bytes, std::size_t length);

// Sends the reply to a Modbus request (reply_text, length characters from
// ':' to LF), with the faults of a faulty turn: replaced, cut, late, twice.
void deliver_register_reply(const FaultOptions& options, FaultCount& count, const Turn& turn, const std::uint8_t* reply_text,
                            std::size_t length, SendBytes send);

// Sends the reply frame to a file request (request, request_length bytes
// of its frame), with the faults of a faulty turn; reply holds the reply
// frame of reply_length bytes and room for 2048.
void deliver_file_reply(const FaultOptions& options, FaultCount& count, const Turn& turn, const std::uint8_t* request,
                        std::size_t request_length, std::uint8_t* reply, std::size_t reply_length, SendBytes send);

} // namespace vukra::sim
