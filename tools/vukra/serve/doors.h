// vukra serve's doors: each listens on its own address and puts what its
// clients ask of the device in the queue (queue.h). One fixed table, one
// entry per door; a door whose address was not given stays shut.
//
// A door's start() listens, prints its one line on standard error
// ("vukra: Modbus TCP on 127.0.0.1:1502"), starts its own threads and
// returns; stop() closes the door and its connections and returns when its
// threads have ended (the line's thread may still be running one of its
// jobs: done() then still finds what it captured alive).
#pragma once

#include "queue.h"

#include <cstdint>
#include <string>

namespace vukra::serve {

struct Settings {
    std::string modbus_tcp; // --modbus-tcp HOST:PORT
    std::string share;      // --share HOST:PORT
    std::string http;       // --http HOST:PORT (the web door)
    bool read_only = false;
    unsigned max_clients = 32;     // connections at once, per door
    std::uint32_t timeout_ms = 4000; // the line's time-out: a job's deadline counts from its arrival
    std::string table;             // the register table, for doors that read by name
    // The web door and the MQTT bridge (vukra/web/serve_doors.cpp).
    std::string http_token_file;   // --http-token-file FILE
    double every = 1.0;            // --every SECONDS: their reading round
    std::string mqtt;              // --mqtt URL
    std::string mqtt_credentials;  // --mqtt-credentials FILE
    std::string mqtt_cafile;       // --mqtt-cafile FILE
    std::string ha_discovery;      // --ha-discovery [PREFIX]; "" without it
    std::string name;              // --name: the device's name for Home Assistant
    std::string port;              // the device's port, for the default name
};

struct Door {
    const char* name;                   // as its listening line says it: "Modbus TCP"
    const char* option;                 // "--modbus-tcp"
    std::string Settings::*address;     // its option's value
    // Listens and starts serving; false after saying why on standard error.
    bool (*start)(const Settings& settings, Queue& queue);
    void (*stop)();
};

// The doors, in the order they open.
const Door* doors(std::size_t& count);

// --- one door each (modbus_tcp.cpp, share.cpp) ---
bool start_modbus_tcp(const Settings& settings, Queue& queue);
void stop_modbus_tcp();
bool start_share(const Settings& settings, Queue& queue);
void stop_share();
bool start_web(const Settings& settings, Queue& queue);
void stop_web();
bool start_mqtt(const Settings& settings, Queue& queue);
void stop_mqtt();

} // namespace vukra::serve
