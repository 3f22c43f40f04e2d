// The link between a device's registers and an MQTT broker, on libmosquitto
// (vukra poll --mqtt).
//
// The URL is mqtt://HOST[:PORT]/PREFIX (port 1883) or mqtts://HOST[:PORT]/PREFIX
// (TLS, port 8883), HOST a name, an IPv4 or an IPv6 address in brackets.
// Topics:
//
//   PREFIX/status                 "online" (retained) while connected, "offline"
//                                 at the end and as the last will
//   PREFIX/register/NAME          each value, retained
//   PREFIX/register/NAME/set      a value to write; never a retained one
//   PREFIX/register/NAME/error    why a set was refused or failed
//
// Register names live one level below "register", so that no name can take
// a topic of the bridge's own; a name that cannot be a topic level (empty,
// holding / + # or bytes that are not UTF-8) is refused at the start.
//
// The connection runs on libmosquitto's own thread: publishing never waits
// for the network, and a broker that goes away is tried again after 1, 2,
// 4 ... seconds, at most 30 apart, while the registers are still read. A
// broker that takes the connection but does not answer it, and a TLS
// handshake that fails, are told on standard error with the reason.
//
// User name and password: from the file given, its first line the name and
// its second the password, or else from VUKRA_MQTT_USERNAME and
// VUKRA_MQTT_PASSWORD; never from the command line, which others see.
#pragma once

#include "modbus_vukra.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace vukra::cli {

struct MqttSettings {
    std::string url;
    std::string credentials_file; // "" for the environment
    std::string ca_file;          // mqtts: the certificate authority ("" for the system's)
};

// A set message waiting to be written: the register's name and the payload.
struct SetRequest {
    std::string name;
    std::string payload;
};

// At most this many set messages wait; one more is refused on its error
// topic. With the payload cap, the queue holds at most about 1.1 MB.
inline constexpr std::size_t kMaxWaitingSets = 256;
inline constexpr std::size_t kMaxSetPayload = 4096;

// A broker that has not answered the connection after this many seconds
// is told about (the keep-alive is 30 s).
inline constexpr int kConnectAnswerSeconds = 5;

struct Mqtt;

// What is wrong with an MQTT URL, or "": the command line's check.
std::string mqtt_url_problem(const std::string& url);

// "" when name can be a topic level of a register, else why not.
std::string mqtt_name_problem(const std::string& name);

// Starts the link (the broker need not be there yet): null, with why, when
// the URL, the credentials or the TLS settings are wrong.
Mqtt* mqtt_start(const MqttSettings& settings, std::string& why);

void mqtt_publish_value(Mqtt* m, const std::string& name, const std::string& json);
void mqtt_publish_error(Mqtt* m, const std::string& name, const std::string& text);

// Takes the oldest set message, waiting up to wait_ms for one; false when
// none came.
bool mqtt_next_set(Mqtt* m, SetRequest& request, std::uint32_t wait_ms);

// Writes the sets that are waiting, each checked first against the table
// and its register's type (a refusal or a failed write goes to its error
// topic and standard error), waiting up to wait_ms for the first one. A
// loop that reads registers calls it between two reads, so that a set waits
// at most for the read in progress.
void mqtt_apply_sets(Mqtt* m, modbus_vukra_session* s, std::uint32_t wait_ms);

// ---- for what is built on the bridge (Home Assistant discovery) ----

// Publishes at QoS 1.
void mqtt_publish(Mqtt* m, const std::string& topic, const std::string& payload, bool retain);

// The bridge's topic prefix.
const std::string& mqtt_prefix(const Mqtt* m);

// Subscribes to filter, now and at every connection; messages on it go to
// heard (on the link's thread) instead of the bridge.
using MqttHeard = std::function<void(const std::string& topic, const std::string& payload)>;
void mqtt_watch(Mqtt* m, const std::string& filter, MqttHeard heard);

// Called on the link's thread at every connection, after the bridge's own
// subscriptions and status.
void mqtt_on_connect(Mqtt* m, std::function<void()> connected);

// Tells each set still waiting that it was not written (standard error and
// its error topic), says "offline", disconnects and frees the link.
void mqtt_stop(Mqtt* m);

} // namespace vukra::cli
