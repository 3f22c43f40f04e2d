#include "mqtt_bridge.h"

#include "link/port_name.h"

#include <mosquitto.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <mutex>

namespace vukra::cli {

struct Mqtt {
    mosquitto* client = nullptr;
    std::string host, prefix;
    int port = 1883;
    std::mutex lock; // over what follows
    std::condition_variable arrived;
    std::deque<SetRequest> sets;
    bool said_lost = false; // the loss was told once, until the next connection
};

namespace {

constexpr int kKeepAliveSeconds = 30;
constexpr unsigned kBackOffFirst = 1, kBackOffMost = 30;

// mqtt[s]://HOST[:PORT]/PREFIX into its parts; "" or what is wrong.
std::string parse_url(const std::string& url, Mqtt& m, bool& tls) {
    const std::string form = " (mqtt://HOST:PORT/PREFIX or mqtts://...)";
    std::size_t rest;
    if (url.rfind("mqtt://", 0) == 0) {
        tls = false;
        rest = 7;
    } else if (url.rfind("mqtts://", 0) == 0) {
        tls = true;
        rest = 8;
        m.port = 8883;
    } else {
        return "\"" + url + "\" is not an MQTT URL" + form;
    }
    const std::size_t slash = url.find('/', rest);
    if (slash == std::string::npos || slash + 1 >= url.size()) return "\"" + url + "\" names no topic prefix" + form;
    std::string authority = url.substr(rest, slash - rest);
    m.prefix = url.substr(slash + 1);
    if (m.prefix.back() == '/') m.prefix.pop_back();
    if (authority.find('@') != std::string::npos)
        return "no user name or password in the URL, where others see them: use VUKRA_MQTT_USERNAME and "
               "VUKRA_MQTT_PASSWORD or --mqtt-credentials FILE";
    if (m.prefix.find_first_of("+#") != std::string::npos || m.prefix.empty())
        return "the topic prefix \"" + m.prefix + "\" may not hold + or #";
    // HOST or HOST:PORT, an IPv6 address in brackets: the port's colon is
    // the one after ']'.
    const bool has_port = !authority.empty() && authority.front() == '[' ? authority.find("]:") != std::string::npos
                                                   : authority.find(':') != std::string::npos;
    link::TcpAddress address;
    if (!link::parse_host_port(has_port ? authority : authority + ":" + std::to_string(m.port), address))
        return "\"" + url + "\" is not an MQTT URL: HOST or HOST:PORT, a port from 1 to 65535, an IPv6 address "
               "goes in brackets, as in mqtt://[::1]:1883/PREFIX";
    m.host = address.host;
    m.port = std::atoi(address.service);
    return "";
}

// The user name and password, from the file or the environment: "" or
// what is wrong.
std::string credentials(const MqttSettings& settings, std::string& user, std::string& password) {
    if (!settings.credentials_file.empty()) {
        std::ifstream file(settings.credentials_file);
        if (!file) return "cannot read the credentials file " + settings.credentials_file;
        std::getline(file, user);
        std::getline(file, password);
        // A file written on Windows ends its lines with CR LF.
        for (std::string* line : {&user, &password})
            if (!line->empty() && line->back() == '\r') line->pop_back();
        if (user.empty()) return "the credentials file " + settings.credentials_file + " has no user name on its first line";
        return "";
    }
    const char* u = std::getenv("VUKRA_MQTT_USERNAME");
    const char* p = std::getenv("VUKRA_MQTT_PASSWORD");
    if (u != nullptr) user = u;
    if (p != nullptr) password = p;
    return "";
}

void on_connect(mosquitto* client, void* context, int rc) {
    auto* m = static_cast<Mqtt*>(context);
    if (rc != 0) {
        std::fprintf(stderr, "vukra: the MQTT broker %s:%d refused the connection: %s\n", m->host.c_str(), m->port,
                     mosquitto_connack_string(rc));
        return;
    }
    {
        std::lock_guard<std::mutex> hold(m->lock);
        m->said_lost = false;
    }
    std::fprintf(stderr, "vukra: connected to the MQTT broker %s:%d\n", m->host.c_str(), m->port);
    const std::string sets = m->prefix + "/+/set";
    mosquitto_subscribe(client, nullptr, sets.c_str(), 1);
    const std::string status = m->prefix + "/status";
    mosquitto_publish(client, nullptr, status.c_str(), 6, "online", 1, true);
}

void on_disconnect(mosquitto*, void* context, int rc) {
    auto* m = static_cast<Mqtt*>(context);
    if (rc == 0) return; // asked for
    std::lock_guard<std::mutex> hold(m->lock);
    if (m->said_lost) return;
    m->said_lost = true;
    std::fprintf(stderr, "vukra: lost the MQTT broker %s:%d; polling goes on and the broker is tried again\n",
                 m->host.c_str(), m->port);
}

void on_message(mosquitto*, void* context, const mosquitto_message* message) {
    auto* m = static_cast<Mqtt*>(context);
    // PREFIX/NAME/set: NAME is what lies between.
    const std::string topic = message->topic;
    const std::size_t first = m->prefix.size() + 1, last = topic.size() - 4;
    if (topic.size() < first + 4 || last <= first) return;
    const std::string name = topic.substr(first, last - first);
    if (message->payloadlen < 0 || static_cast<std::size_t>(message->payloadlen) > kMaxSetPayload) {
        mqtt_publish_error(m, name, "a value of more than " + std::to_string(kMaxSetPayload) + " bytes: nothing was sent");
        return;
    }
    std::string payload(static_cast<const char*>(message->payload), static_cast<std::size_t>(message->payloadlen));
    {
        std::lock_guard<std::mutex> hold(m->lock);
        if (m->sets.size() < kMaxWaitingSets) {
            m->sets.push_back(SetRequest{name, std::move(payload)});
            m->arrived.notify_one();
            return;
        }
    }
    mqtt_publish_error(m, name, std::to_string(kMaxWaitingSets) + " writes are already waiting: nothing was sent");
}

} // namespace

std::string mqtt_url_problem(const std::string& url) {
    Mqtt scratch;
    bool tls = false;
    return parse_url(url, scratch, tls);
}

Mqtt* mqtt_start(const MqttSettings& settings, std::string& why) {
    static const int library = mosquitto_lib_init();
    (void)library;
    auto* m = new Mqtt;
    bool tls = false;
    std::string user, password;
    if (!(why = parse_url(settings.url, *m, tls)).empty() || !(why = credentials(settings, user, password)).empty()) {
        delete m;
        return nullptr;
    }
    m->client = mosquitto_new(nullptr, true, m);
    if (m->client == nullptr) {
        delete m;
        why = "cannot make an MQTT client";
        return nullptr;
    }
    const std::string status = m->prefix + "/status";
    int rc = mosquitto_will_set(m->client, status.c_str(), 7, "offline", 1, true);
    if (rc == MOSQ_ERR_SUCCESS && !user.empty())
        rc = mosquitto_username_pw_set(m->client, user.c_str(), password.empty() ? nullptr : password.c_str());
    if (rc == MOSQ_ERR_SUCCESS && tls)
        rc = mosquitto_tls_set(m->client, settings.ca_file.empty() ? nullptr : settings.ca_file.c_str(),
                               settings.ca_file.empty() ? "/etc/ssl/certs" : nullptr, nullptr, nullptr, nullptr);
    if (rc == MOSQ_ERR_SUCCESS) rc = mosquitto_reconnect_delay_set(m->client, kBackOffFirst, kBackOffMost, true);
    if (rc != MOSQ_ERR_SUCCESS) {
        why = std::string("cannot set up the MQTT client: ") + mosquitto_strerror(rc);
        mqtt_stop(m);
        return nullptr;
    }
    mosquitto_connect_callback_set(m->client, on_connect);
    mosquitto_disconnect_callback_set(m->client, on_disconnect);
    mosquitto_message_callback_set(m->client, on_message);
    // A broker that is not there yet is tried again by the loop; a host
    // that does not resolve is an error of the URL.
    rc = mosquitto_connect_async(m->client, m->host.c_str(), m->port, kKeepAliveSeconds);
    if (rc == MOSQ_ERR_EAI || rc == MOSQ_ERR_INVAL) {
        why = "cannot find the MQTT broker " + m->host + ": " + mosquitto_strerror(rc);
        mqtt_stop(m);
        return nullptr;
    }
    if (rc != MOSQ_ERR_SUCCESS)
        std::fprintf(stderr, "vukra: the MQTT broker %s:%d is not there yet (%s); it is tried again\n",
                     m->host.c_str(), m->port, mosquitto_strerror(rc));
    if (mosquitto_loop_start(m->client) != MOSQ_ERR_SUCCESS) {
        why = "cannot start the MQTT client's thread";
        mqtt_stop(m);
        return nullptr;
    }
    return m;
}

void mqtt_publish_value(Mqtt* m, const std::string& name, const std::string& json) {
    const std::string topic = m->prefix + "/" + name;
    // QoS 0: while the broker is away nothing piles up; the next round
    // publishes afresh.
    mosquitto_publish(m->client, nullptr, topic.c_str(), static_cast<int>(json.size()), json.data(), 0, true);
}

void mqtt_publish_error(Mqtt* m, const std::string& name, const std::string& text) {
    const std::string topic = m->prefix + "/" + name + "/error";
    mosquitto_publish(m->client, nullptr, topic.c_str(), static_cast<int>(text.size()), text.data(), 1, false);
}

bool mqtt_next_set(Mqtt* m, SetRequest& request, std::uint32_t wait_ms) {
    std::unique_lock<std::mutex> hold(m->lock);
    if (!m->arrived.wait_for(hold, std::chrono::milliseconds(wait_ms), [m] { return !m->sets.empty(); }))
        return false;
    request = std::move(m->sets.front());
    m->sets.pop_front();
    return true;
}

void mqtt_stop(Mqtt* m) {
    if (m == nullptr) return;
    if (m->client != nullptr) {
        const std::string status = m->prefix + "/status";
        // Queued ahead of the disconnect, so it leaves first; a clean
        // disconnect does not send the last will.
        mosquitto_publish(m->client, nullptr, status.c_str(), 7, "offline", 1, true);
        mosquitto_disconnect(m->client);
        mosquitto_loop_stop(m->client, false);
        mosquitto_destroy(m->client);
    }
    delete m;
}

} // namespace vukra::cli
