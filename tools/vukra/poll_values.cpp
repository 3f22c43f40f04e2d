#include "poll_values.h"

#include "device.h"
#include "register_reads.h"

#include "session/named_registers.h"
#include "session/tool_interface.h"
#include "table/value_format.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vukra::cli {

namespace {


bool is_number(const std::string& word) {
    if (word.empty()) return false;
    char* end = nullptr;
    const double v = std::strtod(word.c_str(), &end);
    // JSON's own shape: no "0x", no leading "+", no "inf" or "nan".
    return *end == '\0' && std::isfinite(v) && word.find_first_not_of("0123456789.eE+-") == std::string::npos &&
           word[0] != '+';
}

// The value's text in JSON: a buffer's elements as an array.
std::string json_value(const table::TypeRecord& type, const std::string& text) {
    const bool buffer = type.name != nullptr && std::strncmp(type.name, "buffer", 6) == 0 &&
                        std::strcmp(type.name, "buffer2float") != 0;
    if (!buffer) return is_number(text) ? text : json_string(text);
    std::string out = "[";
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find(' ', start);
        if (end == std::string::npos) end = text.size();
        const std::string word = text.substr(start, end - start);
        if (out.size() > 1) out += ',';
        out += is_number(word) ? word : json_string(word);
        start = end + 1;
    }
    return out + "]";
}

std::string csv_cell(const std::string& text) {
    if (text.find_first_of(",\"\n") == std::string::npos) return text;
    std::string out = "\"";
    for (char c : text) out += c == '"' ? std::string("\"\"") : std::string(1, c);
    return out + "\"";
}

} // namespace

namespace {

// "text", "csv" or "json"; false for anything else.
bool parse_format(const std::string& word, Format& format) {
    if (word == "text") format = Format::kText;
    else if (word == "csv") format = Format::kCsv;
    else if (word == "json") format = Format::kJson;
    else return false;
    return true;
}

} // namespace

CLI::Option* add_format_option(CLI::App* command, Format& format, const std::string& help) {
    // The check runs before the function: it sees only the three words.
    return command
        ->add_option_function<std::string>(
            "--format", [&format](const std::string& text) { parse_format(text, format); }, help)
        ->check(CLI::Validator(
            [](std::string& text) {
                Format seen;
                return parse_format(text, seen) ? std::string() : "is text, csv or json, not \"" + text + "\"";
            },
            "text|csv|json"));
}

std::string look_up(Polled& p, bool writing) {
    if (!table::find_register(p.reg, p.type, p.name.c_str()))
        return "no register " + p.name + " in " + table::file_name();
    if (writing && !(p.reg.access & table::kAccessWrite))
        return p.name + " is read-only (access \"R\" in the table): nothing was sent";
    if (!writing && !(p.reg.access & table::kAccessRead))
        return p.name + " is write-only (access \"W\" in the table): nothing was sent";
    const auto limit = static_cast<std::int32_t>(writing ? tool::kMaxWriteWords : tool::kMaxReadWords);
    if (p.type.words <= 0 || p.type.words > limit)
        return p.name + "'s type " + (p.type.name ? p.type.name : "?") + " has " + std::to_string(p.type.words) +
               " words; one Modbus " + (writing ? "write" : "read") + " carries 1 to " + std::to_string(limit) +
               ": nothing was sent";
    return "";
}

Reading read_register(modbus_vukra_session* s, const Polled& p) {
    std::uint8_t value[session::kTransferSize] = {};
    const std::int32_t count = 2 * p.type.words;
    if (modbus_vukra_op_protected_readreg(s, p.name.c_str(), value, count) != count) {
        Reading r;
        r.name = p.name;
        r.type = p.type.name ? p.type.name : "?";
        r.error = transaction_failure();
        return r;
    }
    return reading_of(p, value);
}

Reading reading_of(const Polled& p, const std::uint8_t* value) {
    Reading r;
    r.name = p.name;
    r.type = p.type.name ? p.type.name : "?";
    if (!table::format_value(p.type, value, r.text)) {
        r.error = "its type " + r.type + " has no text form";
        return r;
    }
    r.json = json_value(p.type, r.text);
    r.ok = true;
    return r;
}

std::string timestamp() {
    using namespace std::chrono;
    const auto now = system_clock::now();
    const auto day = floor<days>(now);
    const year_month_day date{day};
    const hh_mm_ss<milliseconds> time{floor<milliseconds>(now - day)};
    char text[40];
    std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                  static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
                  static_cast<int>(time.seconds().count()), static_cast<int>(time.subseconds().count()));
    return text;
}

std::string json_string(const std::string& text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
            out += escaped;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

std::string header_line(Format format, const std::vector<Polled>& polled) {
    if (format != Format::kCsv) return "";
    std::string line = "time";
    for (const Polled& p : polled) line += "," + csv_cell(p.name);
    return line + "\n";
}

std::string round_line(Format format, const std::string& time, const std::vector<Reading>& readings) {
    std::string line;
    switch (format) {
    case Format::kText:
        line = time;
        for (const Reading& r : readings) line += "  " + r.name + " = " + (r.ok ? r.text : "error: " + r.error);
        break;
    case Format::kCsv:
        line = time;
        for (const Reading& r : readings) line += "," + csv_cell(r.ok ? r.text : "error: " + r.error);
        break;
    case Format::kJson:
        line = "{\"time\":\"" + time + "\",\"values\":{";
        for (std::size_t i = 0; i < readings.size(); ++i) {
            const Reading& r = readings[i];
            line += (i ? "," : "") + json_string(r.name) + ":{\"value\":" + (r.ok ? r.json : "null") +
                    ",\"type\":" + json_string(r.type) + ",\"status\":" + (r.ok ? "\"ok\"" : "\"error\"") +
                    (r.ok ? "" : ",\"error\":" + json_string(r.error)) + "}";
        }
        line += "}}";
        break;
    }
    return line + "\n";
}

std::string reading_json(const Reading& r, const std::string& time) {
    return "{\"value\":" + (r.ok ? r.json : std::string("null")) + ",\"type\":" + json_string(r.type) +
           ",\"time\":\"" + time + "\",\"status\":" + (r.ok ? "\"ok\"" : "\"error\"") +
           (r.ok ? "" : ",\"error\":" + json_string(r.error)) + "}";
}

int read_once(Options& o, const std::vector<std::string>& names, Format format, unsigned gap) {
    std::FILE* out = data_stream(o);
    std::vector<Polled> polled;
    modbus_vukra_session* s = open_for_reading(o, names, polled);
    if (s == nullptr) return 1;
    Grouping grouping;
    grouping.gap = gap;
    const std::string time = timestamp();
    const std::vector<Reading> readings = read_registers(s, polled, grouping);
    int status = 0;
    for (const Reading& r : readings)
        if (!r.ok) status = fail("cannot read " + r.name + ": " + r.error);
    if (format == Format::kText) {
        for (const Reading& r : readings)
            if (r.ok) std::fprintf(out, "%s = %s\n", r.name.c_str(), r.text.c_str());
    } else {
        std::fputs((header_line(format, polled) + round_line(format, time, readings)).c_str(), out);
    }
    if (std::fflush(out) != 0) status = fail("cannot write the values");
    return status;
}

} // namespace vukra::cli
