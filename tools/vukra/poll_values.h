// What vukra poll and reg read --format share: reading registers by name
// into records, and writing a round of them as text, CSV or JSON.
//
//   text  2026-11-24T11:40:00.125Z  TEMP = 21  SPEED = error: no reply ...
//   csv   time,TEMP,SPEED                      (a header line first)
//         2026-11-24T11:40:00.125Z,21,error: no reply ...
//   json  {"time":"...","values":{"TEMP":{"value":21,"type":"int16","status":"ok"},
//          "SPEED":{"value":null,"type":"uint16","status":"error","error":"..."}}}
//
// Times are UTC, ISO 8601 with milliseconds. In JSON a value is a number,
// an array of numbers for a buffer, or a string where the type's text is
// not a number; null when the read failed.
#pragma once

#include "cli.h"

#include "table/register_table.h"

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

namespace vukra::cli {

enum class Format { kText, kCsv, kJson };

// The --format option of a command, read into format: "text", "csv" or
// "json"; anything else is a usage error, told before the command runs.
CLI::Option* add_format_option(CLI::App* command, Format& format, const std::string& help);

// --mqtt-credentials FILE and --mqtt-cafile FILE, as poll and serve take them.
void add_mqtt_options(CLI::App* command, std::string& credentials, std::string& ca_file);

// A register to read, looked up in the loaded table.
struct Polled {
    std::string name;
    table::RegisterRecord reg{};
    table::TypeRecord type{};
};

// Looks the register up and checks that it may be read in one request: ""
// or why not. Again after a session opens: the open loads the table anew.
std::string look_up(Polled& p, bool writing);

struct Reading {
    std::string name, type;
    bool ok = false;
    std::string text;  // the value for a person, when ok
    nlohmann::ordered_json value; // the value in JSON, when ok: a number, an array for a buffer, else a string
    std::string error; // why not, when not ok
};

// A value's text (format_value's) in JSON: a buffer's elements as an
// array, a number as a number, any other text as a string.
nlohmann::ordered_json value_json(const table::TypeRecord& type, const std::string& text);

// The JSON object of one reading, the one shape every output uses:
//   {"value":21.5,"type":"real","status":"ok"}
//   {"value":null,"type":"uint16","status":"error","error":"..."}
// with "time" after "type" when a time is given.
nlohmann::ordered_json reading_object(const Reading& r, const std::string& time = "");

// JSON as text on one line; bytes that are not UTF-8 become U+FFFD.
std::string json_text(const nlohmann::ordered_json& json);

// One register read by its name (the library's named read).
Reading read_register(modbus_vukra_session* s, const Polled& p);
// The reading of a value read (host-order words, as the named read gives).
Reading reading_of(const Polled& p, const std::uint8_t* value);

// Now, UTC, as 2026-11-24T11:40:00.125Z.
std::string timestamp();

// The CSV header line (csv only; "" for the others) and one round's line,
// each with its line feed.
std::string header_line(Format format, const std::vector<Polled>& polled);
std::string round_line(Format format, const std::string& time, const std::vector<Reading>& readings);

// Reads the registers once, grouped with gaps of at most gap words, and
// writes the round in the format (reg read): 0, or 1 when a register could
// not be read.
int read_once(Options& o, const std::vector<std::string>& names, Format format, unsigned gap);

} // namespace vukra::cli
