#include "poll_values.h"

#include "device.h"
#include "register_reads.h"

#include "session/named_registers.h"
#include "session/tool_interface.h"
#include "table/value_format.h"

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vukra::cli {

namespace {


// A number as JSON has it: no "0x", no leading "+", no "inf" or "nan";
// integers stay integers.
bool json_number(const std::string& word, nlohmann::ordered_json& number) {
    if (word.empty() || word[0] == '+' || word.find_first_not_of("0123456789.eE+-") != std::string::npos)
        return false;
    char* end = nullptr;
    if (word.find_first_of(".eE") == std::string::npos) {
        errno = 0;
        const long long v = std::strtoll(word.c_str(), &end, 10);
        if (*end == '\0' && errno == 0) number = v;
        return *end == '\0' && errno == 0;
    }
    const double v = std::strtod(word.c_str(), &end);
    if (*end != '\0' || !std::isfinite(v)) return false;
    number = v;
    return true;
}

nlohmann::ordered_json json_word(const std::string& word) {
    nlohmann::ordered_json number;
    return json_number(word, number) ? number : nlohmann::ordered_json(word);
}

std::string csv_cell(const std::string& text) {
    if (text.find_first_of(",\"\n") == std::string::npos) return text;
    std::string out = "\"";
    for (char c : text) out += c == '"' ? std::string("\"\"") : std::string(1, c);
    return out + "\"";
}

} // namespace

nlohmann::ordered_json value_json(const table::TypeRecord& type, const std::string& text) {
    const bool buffer = type.name != nullptr && std::strncmp(type.name, "buffer", 6) == 0 &&
                        std::strcmp(type.name, "buffer2float") != 0;
    if (!buffer) return json_word(text);
    nlohmann::ordered_json elements = nlohmann::ordered_json::array();
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find(' ', start);
        if (end == std::string::npos) end = text.size();
        elements.push_back(json_word(text.substr(start, end - start)));
        start = end + 1;
    }
    return elements;
}

nlohmann::ordered_json reading_object(const Reading& r, const std::string& time) {
    nlohmann::ordered_json object;
    object["value"] = r.ok ? r.value : nullptr;
    object["type"] = r.type;
    if (!time.empty()) object["time"] = time;
    object["status"] = r.ok ? "ok" : "error";
    if (!r.ok) object["error"] = r.error;
    return object;
}

std::string json_text(const nlohmann::ordered_json& json) {
    return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

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

void add_mqtt_options(CLI::App* command, std::string& credentials, std::string& ca_file) {
    command->add_option("--mqtt-credentials", credentials,
                        "a file: the broker's user name on its first line, the password on its second (else "
                        "VUKRA_MQTT_USERNAME and VUKRA_MQTT_PASSWORD)");
    command->add_option("--mqtt-cafile", ca_file, "mqtts: the certificate authority's file (default: the system's)");
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
    r.value = value_json(p.type, r.text);
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
    case Format::kJson: {
        nlohmann::ordered_json round;
        round["time"] = time;
        round["values"] = nlohmann::ordered_json::object();
        for (const Reading& r : readings) round["values"][r.name] = reading_object(r);
        line = json_text(round);
        break;
    }
    }
    return line + "\n";
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
