#include "ha_discovery.h"

#include <algorithm>
#include <cstdio>
#include <cctype>

namespace vukra::web {

namespace {

struct Range {
    double min, max;
    bool integer;
};

// A writable number's range, from its type; false for a type HA cannot set.
bool type_range(const std::string& type, Range& r) {
    if (type == "int16") r = {-32768, 32767, true};
    else if (type == "uint16") r = {0, 65535, true};
    else if (type == "int32") r = {-2147483648.0, 2147483647.0, true};
    else if (type == "uint32") r = {0, 4294967295.0, true};
    else if (type == "real" || type == "buffer2float") r = {-3.4028234e38, 3.4028234e38, false};
    else return false;
    return true;
}

bool is_buffer(const std::string& type) { return type.compare(0, 6, "buffer") == 0 && type != "buffer2float"; }

} // namespace

std::string object_id(const std::string& name) {
    std::string out;
    for (unsigned char c : name) {
        if (std::isalnum(c) != 0 || c == '_') {
            out += static_cast<char>(c);
        } else {
            char hex[4];
            std::snprintf(hex, sizeof hex, "-%02X", c);
            out += hex;
        }
    }
    return out;
}

std::string default_device_name(const std::string& port) {
    std::string name = port;
    if (name.compare(0, 6, "tcp://") == 0) return name.substr(6);
    const std::size_t slash = name.find_last_of("/\\");
    return slash == std::string::npos ? name : name.substr(slash + 1);
}

std::string node_filter(const Discovery& d) { return d.prefix + "/+/" + object_id(d.name) + "/+/config"; }

std::vector<Config> discovery_configs(const Discovery& d, const Board& b) {
    const std::string node = object_id(d.name);
    nlohmann::ordered_json device;
    device["identifiers"] = nlohmann::ordered_json::array({"vukra_" + node});
    device["name"] = d.name;
    device["manufacturer"] = "vukra";
    device["model"] = "vukra serve";
    std::vector<Config> configs;
    for (const Entry& e : b.entries) {
        const std::string type = e.reg.type.name ? e.reg.type.name : "?";
        const std::string object = object_id(e.reg.name);
        const std::string topic = d.bridge + "/register/" + e.reg.name;
        const bool buffer = is_buffer(type), boolean = type == "boolean";
        Range range{};
        std::string component;
        if (buffer) component = e.readable ? "sensor" : "";
        else if (boolean) component = e.writable ? "switch" : "binary_sensor";
        else if (e.writable && type_range(type, range)) component = "number";
        else if (e.readable) component = "sensor";
        if (component.empty()) continue;

        nlohmann::ordered_json c;
        c["name"] = e.reg.name;
        c["unique_id"] = "vukra_" + node + "_" + object;
        c["object_id"] = node + "_" + object;
        c["device"] = device;
        nlohmann::ordered_json availability = nlohmann::ordered_json::array();
        availability.push_back({{"topic", d.bridge + "/status"}});
        availability.push_back({{"topic", d.bridge + "/line"}});
        if (e.readable) {
            c["state_topic"] = topic;
            c["value_template"] = buffer ? "{{ value_json.value | join(' ') }}" : "{{ value_json.value }}";
            availability.push_back({{"topic", topic},
                                    {"value_template", "{{ 'online' if value_json.status == 'ok' else 'offline' }}"}});
        }
        c["availability"] = availability;
        c["availability_mode"] = "all";
        if (e.writable) c["command_topic"] = topic + "/set";
        if (boolean) {
            c["payload_on"] = "1";
            c["payload_off"] = "0";
            if (component == "switch") {
                c["state_on"] = "1";
                c["state_off"] = "0";
            }
        }
        if (component == "number") {
            c["min"] = range.min;
            c["max"] = range.max;
            c["step"] = range.integer ? 1.0 : 0.001;
            c["mode"] = "box";
        }
        if (component == "sensor" && !buffer) c["state_class"] = "measurement";
        if (!e.readable) c["optimistic"] = true;
        configs.push_back(Config{d.prefix + "/" + component + "/" + node + "/" + object + "/config", cli::json_text(c)});
    }
    return configs;
}

bool stale(const std::vector<Config>& current, const std::string& topic) {
    return std::none_of(current.begin(), current.end(), [&topic](const Config& c) { return c.topic == topic; });
}

} // namespace vukra::web
