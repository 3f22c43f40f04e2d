// Home Assistant's MQTT discovery for vukra serve --mqtt --ha-discovery:
// a retained config per register at DISCOVERY/COMPONENT/NODE/OBJECT/config,
// where NODE is the device's --name and OBJECT the register's name, each
// made of letters, digits and "_" only (any other byte written as "-XX",
// its hexadecimal, so that two names never meet):
//
//   sensor         a readable number (read-only)
//   number         a writable number, min and max from its type
//   switch         a writable boolean
//   binary_sensor  a read-only boolean
//   sensor         a buffer, as text (its elements separated by blanks)
//
// All in one device block (name from --name), available while the bridge
// says "online" at BRIDGE/status, the line says "online" at BRIDGE/line
// (the device answers) and the register's last read succeeded. The configs
// are sent again when DISCOVERY/status says "online" (Home Assistant
// started), and a config of this node that names no register of the table
// (one renamed or gone) is cleared.
#pragma once

#include "board.h"

#include <string>
#include <vector>

namespace vukra::web {

struct Discovery {
    std::string prefix = "homeassistant"; // --ha-discovery [PREFIX]
    std::string bridge;                   // the bridge's topic prefix
    std::string name;                     // the device's name
};

// A name as a discovery topic level and unique id: letters, digits and
// "_" kept, any other byte as "-XX".
std::string object_id(const std::string& name);

// What the name turns into when none is given: the port's last part
// ("/dev/ttyUSB0" gives "ttyUSB0", "tcp://10.0.0.7:4001" "10.0.0.7:4001").
std::string default_device_name(const std::string& port);

struct Config {
    std::string topic;   // .../config
    std::string payload; // the JSON
};

// The configs of the registers (those that fit a component; a write-only
// buffer does not).
std::vector<Config> discovery_configs(const Discovery& d, const Board& b);

// The topic filter that finds this node's retained configs, and whether a
// config topic found there is stale (names no register's config).
std::string node_filter(const Discovery& d);
bool stale(const std::vector<Config>& current, const std::string& topic);

} // namespace vukra::web
