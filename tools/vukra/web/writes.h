// A register written from its text, as `vukra reg write` does: checked
// against the table and its type before anything is sent, written on the
// line's thread, and read back when it can be read. What every door of
// the web (the JSON API, the live page's forms) and the MQTT sets share.
#pragma once

#include "line.h"

#include <string>

namespace vukra::web {

struct Written {
    int status = 200; // as HTTP says it: 400 bad value, 403 not writable, 404 no such
                      // register, 502 the device refused, 503 the queue is full, 504 no reply
    std::string why;  // when status is not 200
    bool read_back = false; // the value was read back into the board
};

Written write_text(Board& b, Line& line, const std::string& name, const std::string& text, bool read_only,
                   Clock::time_point deadline);

// A JSON value as the text the command line takes: a number, an array's
// elements separated by blanks, a string as it is. False for anything else.
bool value_text(const nlohmann::json& value, std::string& text);

} // namespace vukra::web
