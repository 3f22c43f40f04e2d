// Builds remote-filesystem item streams and message frames byte by byte,
// and puts frames on the line as SLIP packets and takes them off it.
#pragma once

#include "link/slip.h"

#include <cstdint>
#include <string>
#include <vector>

namespace vukra::test {

using Bytes = std::vector<std::uint8_t>;

struct Wire {
    Bytes bytes;

    Wire& word(std::uint32_t v) {
        for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
        return *this;
    }
    // A 4-byte item holding v.
    Wire& item(std::uint32_t v) { return word(4).word(v); }
    // An item of length L holding these data bytes, then zeros up to L.
    Wire& item(std::uint32_t length, const Bytes& data) {
        word(length);
        bytes.insert(bytes.end(), data.begin(), data.end());
        bytes.resize(bytes.size() + (length - data.size()), 0);
        return *this;
    }
    // A string item: the text, its NUL, zeros up to L.
    Wire& text(std::uint32_t length, const std::string& s) {
        Bytes data(s.begin(), s.end());
        data.push_back(0);
        return item(length, data);
    }
};

// A message frame: marker 1, the code, two zero bytes, the stated payload
// length, a zero word, then the payload.
inline Bytes frame(std::uint8_t code, const Bytes& payload, std::uint32_t stated_length) {
    Bytes f{1, code, 0, 0};
    const Bytes words = Wire{}.word(stated_length).word(0).bytes;
    f.insert(f.end(), words.begin(), words.end());
    f.insert(f.end(), payload.begin(), payload.end());
    return f;
}
inline Bytes frame(std::uint8_t code, const Bytes& payload) {
    return frame(code, payload, static_cast<std::uint32_t>(payload.size()));
}

// Bytes as one SLIP packet on the line: END, the bytes escaped, END.
inline Bytes slip_packet(const Bytes& bytes) {
    Bytes wire(2 * bytes.size() + 2);
    wire[0] = link::kSlipEnd;
    const std::size_t n = link::slip_escape(bytes.data(), bytes.size(), wire.data() + 1);
    wire[n + 1] = link::kSlipEnd;
    wire.resize(n + 2);
    return wire;
}

// Takes line bytes one at a time and puts the SLIP packets back together;
// the ENDs around an empty packet are skipped.
struct SlipReader {
    Bytes packet;
    bool escaped = false;
    bool complete = false;

    // True when byte ended a packet: packet holds it until the next call.
    bool take(std::uint8_t byte) {
        if (complete) packet.clear();
        complete = false;
        if (byte == link::kSlipEnd) return complete = !packet.empty();
        if (escaped) {
            packet.push_back(byte == link::kSlipEscEnd ? link::kSlipEnd : link::kSlipEsc);
            escaped = false;
        } else if (byte == link::kSlipEsc) {
            escaped = true;
        } else {
            packet.push_back(byte);
        }
        return false;
    }
};

} // namespace vukra::test
