// vukra poll's link to an MQTT broker, on libmosquitto.
//
// The URL is mqtt://HOST[:PORT]/PREFIX (port 1883) or mqtts://HOST[:PORT]/PREFIX
// (TLS, port 8883), HOST a name, an IPv4 or an IPv6 address in brackets.
// Each value goes, retained, to PREFIX/NAME; PREFIX/status holds "online"
// while connected and "offline" (the last will, or said at the end).
// Messages to PREFIX/NAME/set are queued for the poll to act on; its
// refusals go to PREFIX/NAME/error.
//
// The connection runs on libmosquitto's own thread: publishing never waits
// for the network, and a broker that goes away is tried again after 1, 2,
// 4 ... seconds, at most 30 apart, while the poll goes on.
//
// User name and password: from the file given, its first line the name and
// its second the password, or else from VUKRA_MQTT_USERNAME and
// VUKRA_MQTT_PASSWORD; never from the command line, which others see.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace vukra::cli {

struct MqttSettings {
    std::string url;
    std::string credentials_file; // "" for the environment
    std::string ca_file;          // mqtts: the certificate authority ("" for the system's)
};

// A set message waiting for the poll: the register's name and the payload.
struct SetRequest {
    std::string name;
    std::string payload;
};

// At most this many set messages wait; one more is refused on its error
// topic. With the payload cap, the queue holds at most about 1.1 MB.
inline constexpr std::size_t kMaxWaitingSets = 256;
inline constexpr std::size_t kMaxSetPayload = 4096;

struct Mqtt;

// What is wrong with an MQTT URL, or "": the command line's check.
std::string mqtt_url_problem(const std::string& url);

// Starts the link (the broker need not be there yet): null, with why, when
// the URL, the credentials or the TLS settings are wrong.
Mqtt* mqtt_start(const MqttSettings& settings, std::string& why);

void mqtt_publish_value(Mqtt* m, const std::string& name, const std::string& json);
void mqtt_publish_error(Mqtt* m, const std::string& name, const std::string& text);

// Takes the oldest set message, waiting up to wait_ms for one; false when
// none came.
bool mqtt_next_set(Mqtt* m, SetRequest& request, std::uint32_t wait_ms);

// Says "offline", disconnects and frees the link.
void mqtt_stop(Mqtt* m);

} // namespace vukra::cli
