#include "faults.h"

#include "link/ascii_frame.h"
#include "remotefs/message_codec.h"
#include "remotefs/messages.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

namespace vukra::sim {

namespace {

bool in_window(std::uint32_t n, std::uint32_t after, std::uint32_t length) {
    return n > after && (length == 0 || n - after <= length);
}

// The bytes of a Modbus frame's text, from the address to the last data
// byte (the LRC left out).
std::vector<std::uint8_t> frame_bytes(const std::uint8_t* text, std::size_t length) {
    std::vector<std::uint8_t> bytes(length >= 7 ? (length - 5) / 2 : 0);
    for (std::size_t i = 0; i < bytes.size(); ++i) link::hex_decode(text + 1 + 2 * i, 1, 0, &bytes[i]);
    return bytes;
}

// A sound frame of these bytes into text (kFrameCapacity characters):
// its length.
std::size_t frame_text(const std::vector<std::uint8_t>& bytes, std::uint8_t* text) {
    link::AsciiFrame frame;
    link::frame_init(frame, text, link::kFrameCapacity);
    for (std::uint8_t b : bytes) link::frame_put_byte(frame, b);
    link::frame_put_lrc(frame);
    link::frame_end(frame);
    return static_cast<std::size_t>(frame.length);
}

// A file reply of the operation code with a payload of one status item (0).
std::size_t status_only_reply(std::uint8_t code, std::uint8_t* reply) {
    std::memset(reply, 0, remotefs::kFrameHeaderSize + 8);
    reply[0] = remotefs::kFrameMarker;
    reply[1] = code;
    remotefs::store_le32(reply + 4, 8);
    remotefs::store_le32(reply + remotefs::kFrameHeaderSize, 4);
    return remotefs::kFrameHeaderSize + 8;
}

constexpr std::uint8_t kWrongRegisterReply[] = {1, 3, 2, 0x0B, 0xAD};

// A code that is not this one's and is an operation's (13 is fsstat).
std::uint8_t other_code(std::uint8_t code) { return code == remotefs::kOpMount ? remotefs::kOpFsstat : remotefs::kOpMount; }

void send_faulty(const FaultOptions& options, FaultCount& count, const std::uint8_t* bytes, std::size_t length,
                 SendBytes send) {
    if (options.cut_each)
        length = count.faulty % length;
    else if (options.cut >= 0)
        length = std::min(length, static_cast<std::size_t>(options.cut));
    ++count.faulty;
    if (options.late_ms > 0) std::this_thread::sleep_for(std::chrono::milliseconds(options.late_ms));
    send(bytes, length);
    if (options.twice) send(bytes, length);
}

// The readdir reply's payload ends in three items: cookie, end flag and
// status, 8 bytes each (length word, value); the request's cookie is the
// value of its fourth item (volume, directory, descriptor, cookie).
void never_the_end(const std::uint8_t* request, std::size_t request_length, std::uint8_t* reply, std::size_t length) {
    constexpr std::size_t kRequestCookie = remotefs::kFrameHeaderSize + 28;
    if (request_length < kRequestCookie + 4 || length < remotefs::kFrameHeaderSize + 24) return;
    if (remotefs::load_le32(reply + length - 4) != 0) return; // a refusal stays one
    std::memcpy(reply + length - 20, request + kRequestCookie, 4);
    reply[length - 12] = 0;
}

} // namespace

std::string not_empty(const std::string& value) { return value.empty() ? "an empty value" : ""; }

bool read_count(const std::string& name, const std::string& text, unsigned long long low, unsigned long long high,
                std::uint32_t& out, std::string& why) {
    if (text.empty()) return true;
    if (text.find_first_not_of("0123456789") != std::string::npos) {
        why = name + ": \"" + text + "\" is not a decimal number";
        return false;
    }
    // More than ten digits (leading zeros aside) is beyond any high.
    const std::size_t first = text.find_first_not_of('0');
    const unsigned long long v = first != std::string::npos && text.size() - first > 10 ? high + 1 : std::stoull(text);
    if (v < low || v > high) {
        why = name + ": " + text + " is not from " + std::to_string(low) + " to " + std::to_string(high);
        return false;
    }
    out = static_cast<std::uint32_t>(v);
    return true;
}

void add_fault_options(CLI::App& app, FaultOptions& o, FaultTexts& t) {
    app.add_flag("--silent", o.silent, "never answer");
    app.add_option("--drop-after", t.drop_after,
                   "answer the first N requests, then none (a device that vanishes); status requests\n"
                   "(file operation 0) are not counted, and go unanswered while the device is silent")->check(not_empty);
    app.add_option("--drop-for", t.drop_for,
                   "with --drop-after: stay silent for M requests only, then answer again (a device\n"
                   "that comes back)")->check(not_empty);
    app.add_option("--fault-after", t.fault_after,
                   "the faults below hit the requests after the first N (default 0), counted as\n"
                   "--drop-after counts them")->check(not_empty);
    app.add_option("--fault-for", t.fault_for, "the faults below hit M requests only (default: all that follow)")->check(not_empty);
    app.add_option("--count-only", t.count_only,
                   "count only file requests of the operation CODE (0 to 15, e.g. 5 read, 6 write); only\n"
                   "they go unanswered or take the faults, the others are answered normally")->check(not_empty);
    app.add_option("--cut", t.cut,
                   "send only the first N bytes of each faulty reply's packet (a reply cut short); \"each\":\n"
                   "the first faulty reply after 0 bytes, the next after 1, and so on")->check(not_empty);
    app.add_flag("--twice", o.twice, "send each faulty reply twice");
    app.add_option("--late", t.late, "send each faulty reply MS milliseconds late (later than the\n"
                   "host's time-out: a late reply)")->check(not_empty);
    app.add_option("--wrong", t.wrong,
                   "answer each faulty request with a wrong reply: \"register\" (a sound Modbus read reply,\n"
                   "whatever was asked), \"file\" (a file reply of another operation), \"function\" (the\n"
                   "right reply under another function or operation code), \"address\" (the right\n"
                   "Modbus reply from address 2; a file reply with marker 2)")->check(not_empty);
    app.add_flag("--endless-listing", o.endless_listing,
                 "answer each faulty readdir with its first page, never the end, the cookie unmoved");
}

std::string read_fault_options(const FaultTexts& t, FaultOptions& o) {
    constexpr unsigned long long kAll = 0xFFFFFFFFull;
    std::string why;
    if (!read_count("--drop-after", t.drop_after, 0, kAll, o.drop_after, why)) return why;
    o.dropping = !t.drop_after.empty();
    if (!t.drop_for.empty() && !o.dropping) return "--drop-for needs --drop-after";
    if (!read_count("--drop-for", t.drop_for, 1, kAll, o.drop_for, why) ||
        !read_count("--fault-after", t.fault_after, 0, kAll, o.fault_after, why) ||
        !read_count("--fault-for", t.fault_for, 1, kAll, o.fault_for, why))
        return why;
    std::uint32_t count_only = 0, cut = 0;
    if (!read_count("--count-only", t.count_only, 0, 15, count_only, why)) return why;
    if (!t.count_only.empty()) o.count_only = static_cast<int>(count_only);
    o.cut_each = t.cut == "each";
    if (!o.cut_each && !read_count("--cut", t.cut, 0, 2048, cut, why)) return why;
    if (!o.cut_each && !t.cut.empty()) o.cut = cut;
    if (!read_count("--late", t.late, 1, 600000, o.late_ms, why)) return why;
    if (t.wrong == "register")
        o.wrong = WrongReply::kRegister;
    else if (t.wrong == "file")
        o.wrong = WrongReply::kFile;
    else if (t.wrong == "function")
        o.wrong = WrongReply::kFunction;
    else if (t.wrong == "address")
        o.wrong = WrongReply::kAddress;
    else if (!t.wrong.empty())
        return "--wrong: \"" + t.wrong + "\" is none of register, file, function, address";
    // Options that would never act are refused rather than ignored.
    const bool fault = o.cut >= 0 || o.cut_each || o.twice || o.late_ms > 0 || o.wrong != WrongReply::kNone || o.endless_listing;
    if (o.silent && (o.dropping || fault || !t.fault_after.empty() || !t.fault_for.empty() || !t.count_only.empty()))
        return "--silent answers nothing: it takes no other fault option";
    if (!fault && (!t.fault_after.empty() || !t.fault_for.empty()))
        return std::string(t.fault_after.empty() ? "--fault-for" : "--fault-after") +
               " chooses the requests of a fault: give --cut, --twice, --late, --wrong or --endless-listing";
    if (!fault && !o.dropping && !t.count_only.empty()) return "--count-only needs --drop-after or a fault to count for";
    return "";
}

Turn next_turn(const FaultOptions& o, FaultCount& count, int code) {
    if (o.silent) return Turn{false, false};
    if (o.count_only >= 0 && code != o.count_only) return Turn{true, false};
    if (o.count_only < 0 && code == remotefs::kOpNull) {
        // Silent from the last answered request before the silence until
        // the silence's requests have gone unanswered.
        const bool silent = o.dropping && count.counted >= o.drop_after &&
                            (o.drop_for == 0 || count.counted - o.drop_after < o.drop_for);
        return Turn{!silent, false};
    }
    const std::uint32_t n = ++count.counted;
    if (o.dropping && in_window(n, o.drop_after, o.drop_for)) return Turn{false, false};
    return Turn{true, in_window(n, o.fault_after, o.fault_for)};
}

void deliver_register_reply(const FaultOptions& o, FaultCount& count, const Turn& turn, const std::uint8_t* reply_text,
                            std::size_t length, SendBytes send) {
    if (!turn.faulty) return send(reply_text, length);
    std::uint8_t text[link::kFrameCapacity];
    std::vector<std::uint8_t> bytes = frame_bytes(reply_text, length);
    switch (o.wrong) {
    case WrongReply::kNone:
        std::memcpy(text, reply_text, length);
        break;
    case WrongReply::kRegister:
        length = frame_text({std::begin(kWrongRegisterReply), std::end(kWrongRegisterReply)}, text);
        break;
    case WrongReply::kFile: {
        std::uint8_t frame[remotefs::kFrameHeaderSize + 8];
        length = status_only_reply(remotefs::kOpMount, frame);
        return send_faulty(o, count, frame, length, send);
    }
    case WrongReply::kFunction:
        if (bytes.size() >= 2) bytes[1] = static_cast<std::uint8_t>(bytes[1] + 1);
        length = frame_text(bytes, text);
        break;
    case WrongReply::kAddress:
        if (!bytes.empty()) bytes[0] = 2;
        length = frame_text(bytes, text);
        break;
    }
    send_faulty(o, count, text, length, send);
}

void deliver_file_reply(const FaultOptions& o, FaultCount& count, const Turn& turn, const std::uint8_t* request,
                        std::size_t request_length, std::uint8_t* reply, std::size_t length, SendBytes send) {
    if (!turn.faulty) return send(reply, length);
    const std::uint8_t code = request[1];
    if (o.endless_listing && code == remotefs::kOpReaddir) never_the_end(request, request_length, reply, length);
    std::uint8_t text[link::kFrameCapacity];
    switch (o.wrong) {
    case WrongReply::kNone: break;
    case WrongReply::kRegister:
        length = frame_text({std::begin(kWrongRegisterReply), std::end(kWrongRegisterReply)}, text);
        return send_faulty(o, count, text, length, send);
    case WrongReply::kFile: length = status_only_reply(other_code(code), reply); break;
    case WrongReply::kFunction: reply[1] = other_code(code); break;
    case WrongReply::kAddress: reply[0] = 2; break;
    }
    send_faulty(o, count, reply, length, send);
}

} // namespace vukra::sim
