#include "mqtt_bridge.h"

#include "link/port_name.h"

#include <mosquitto.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <functional>
#include <mutex>
#include <vector>
#include <thread>

namespace vukra::cli {

using Clock = std::chrono::steady_clock;

struct Mqtt {
    mosquitto* client = nullptr;
    SSL_CTX* tls = nullptr; // mqtts: ours, so that a failed check tells why
    std::string host, prefix, ca_file;
    int port = 1883;
    std::mutex lock; // over what follows
    std::condition_variable arrived;
    std::deque<SetRequest> sets;
    bool said_lost = false;       // the loss was told once, until the next connection
    std::string said_tls;         // the TLS failure told last, until the next connection
    std::string certificate;      // why the broker's certificate was refused, from the check
    bool connected = false;
    bool stopping = false;
    Clock::time_point asked{};    // when CONNECT left, while no answer came
    bool waiting_answer = false;
    std::condition_variable watch;
    std::thread watchdog;
    // What others built on the bridge asked for (mqtt_watch, mqtt_on_connect).
    std::vector<std::pair<std::string, MqttHeard>> watches;
    std::function<void()> on_connected;
};

namespace {

constexpr int kKeepAliveSeconds = 30;
constexpr unsigned kBackOffFirst = 1, kBackOffMost = 30;
constexpr const char* kRegisterLevel = "/register/";

// "" when the prefix can lead every topic of the bridge, else why not.
std::string prefix_problem(const std::string& prefix, const std::string& given) {
    const std::string it = "the topic prefix \"" + given + "\" ";
    if (prefix.empty()) return "the URL names no topic prefix (mqtt://HOST:PORT/PREFIX)";
    if (prefix.find_first_of("+#") != std::string::npos) return it + "holds + or #, MQTT's wildcards";
    if (prefix.front() == '$') return it + "begins with $, which marks the broker's own topics ($SYS)";
    if (prefix.front() == '/' || prefix.find("//") != std::string::npos)
        return it + "has an empty level (a / at its start or two in a row)";
    if (mosquitto_validate_utf8(prefix.c_str(), static_cast<int>(prefix.size())) != MOSQ_ERR_SUCCESS)
        return it + "is not UTF-8 text";
    return "";
}

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
    const std::string given = url.substr(slash + 1);
    m.prefix = given;
    if (m.prefix.size() > 1 && m.prefix.back() == '/') m.prefix.pop_back();
    if (authority.find('@') != std::string::npos)
        return "no user name or password in the URL, where others see them: use VUKRA_MQTT_USERNAME and "
               "VUKRA_MQTT_PASSWORD or --mqtt-credentials FILE";
    const std::string problem = prefix_problem(m.prefix, given);
    if (!problem.empty()) return problem;
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

// OpenSSL's reason for the last failure, without its codes.
std::string openssl_reason() {
    const unsigned long code = ERR_peek_last_error();
    ERR_clear_error();
    const char* reason = code != 0 ? ERR_reason_error_string(code) : nullptr;
    return reason != nullptr ? reason : "unknown reason";
}

// Notes why the broker's certificate was refused, for the message that
// follows the failed handshake.
int check_certificate(int ok, X509_STORE_CTX* store) {
    if (ok) return ok;
    auto* ssl = static_cast<SSL*>(X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
    auto* m = static_cast<Mqtt*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(ssl)));
    const int error = X509_STORE_CTX_get_error(store);
    std::string why = X509_verify_cert_error_string(error);
    if (error == X509_V_ERR_HOSTNAME_MISMATCH || error == X509_V_ERR_IP_ADDRESS_MISMATCH)
        why = "the broker's certificate is for another host than " + m->host + " (" + why + ")";
    else if (!m->ca_file.empty())
        why = "the broker's certificate is not vouched for by the CA file " + m->ca_file + " (" + why + ")";
    else
        why = "the broker's certificate is not vouched for by the system's authorities (" + why + ")";
    std::lock_guard<std::mutex> hold(m->lock);
    m->certificate = why;
    return ok;
}

// The TLS settings: the broker's certificate checked against the CA file
// (or the system's authorities) and the host named in the URL. "" or what
// is wrong with them.
std::string make_tls(Mqtt& m) {
    m.tls = SSL_CTX_new(TLS_client_method());
    if (m.tls == nullptr) return "cannot set up TLS: " + openssl_reason();
    SSL_CTX_set_app_data(m.tls, &m);
    if (!m.ca_file.empty()) {
        std::FILE* f = std::fopen(m.ca_file.c_str(), "r");
        if (f == nullptr) return "cannot read the CA file " + m.ca_file + ": " + std::strerror(errno);
        std::fclose(f);
        if (SSL_CTX_load_verify_locations(m.tls, m.ca_file.c_str(), nullptr) != 1)
            return "the CA file " + m.ca_file + " holds no certificate OpenSSL can use: " + openssl_reason();
    } else if (SSL_CTX_load_verify_locations(m.tls, nullptr, "/etc/ssl/certs") != 1) {
        return "cannot use the system's certificate authorities in /etc/ssl/certs: " + openssl_reason();
    }
    X509_VERIFY_PARAM* param = SSL_CTX_get0_param(m.tls);
    if (X509_VERIFY_PARAM_set1_ip_asc(param, m.host.c_str()) != 1 &&
        X509_VERIFY_PARAM_set1_host(param, m.host.c_str(), 0) != 1)
        return "cannot check the broker's certificate against " + m.host;
    SSL_CTX_set_verify(m.tls, SSL_VERIFY_PEER, check_certificate);
    return "";
}

void on_log(mosquitto*, void* context, int level, const char* text) {
    auto* m = static_cast<Mqtt*>(context);
    if (level == MOSQ_LOG_DEBUG && std::strstr(text, "sending CONNECT") != nullptr) {
        std::lock_guard<std::mutex> hold(m->lock);
        m->asked = Clock::now();
        m->waiting_answer = true;
        m->watch.notify_all();
        return;
    }
    if (level != MOSQ_LOG_ERR || std::strncmp(text, "OpenSSL Error", 13) != 0) return;
    std::string why;
    {
        std::lock_guard<std::mutex> hold(m->lock);
        why = m->certificate;
        m->certificate.clear();
        if (why.empty()) {
            // "OpenSSL Error[0]: error:0A000086:SSL routines::certificate verify failed"
            const char* reason = std::strrchr(text, ':');
            why = reason != nullptr ? reason + 1 : text;
        }
        if (why == m->said_tls) return;
        m->said_tls = why;
    }
    std::fprintf(stderr, "vukra: TLS with the MQTT broker %s:%d failed: %s; it is tried again\n", m->host.c_str(),
                 m->port, why.c_str());
}

// Tells once a connection that the broker took but has not answered.
void watch_answers(Mqtt* m) {
    std::unique_lock<std::mutex> hold(m->lock);
    while (!m->stopping) {
        if (!m->waiting_answer) {
            m->watch.wait(hold);
            continue;
        }
        const Clock::time_point due = m->asked + std::chrono::seconds(kConnectAnswerSeconds);
        if (m->watch.wait_until(hold, due) != std::cv_status::timeout || !m->waiting_answer) continue;
        m->waiting_answer = false;
        std::fprintf(stderr,
                     "vukra: the MQTT broker %s:%d took the connection but has not answered it in %d s (is it an "
                     "MQTT broker? one that wants TLS is named mqtts://); it is tried again\n",
                     m->host.c_str(), m->port, kConnectAnswerSeconds);
    }
}

void on_connect(mosquitto* client, void* context, int rc) {
    auto* m = static_cast<Mqtt*>(context);
    {
        std::lock_guard<std::mutex> hold(m->lock);
        m->waiting_answer = false;
    }
    if (rc != 0) {
        std::fprintf(stderr, "vukra: the MQTT broker %s:%d refused the connection: %s\n", m->host.c_str(), m->port,
                     mosquitto_connack_string(rc));
        return;
    }
    {
        std::lock_guard<std::mutex> hold(m->lock);
        m->said_lost = false;
        m->said_tls.clear();
    }
    std::fprintf(stderr, "vukra: connected to the MQTT broker %s:%d\n", m->host.c_str(), m->port);
    const std::string sets = m->prefix + kRegisterLevel + "+/set";
    mosquitto_subscribe(client, nullptr, sets.c_str(), 1);
    const std::string status = m->prefix + "/status";
    mosquitto_publish(client, nullptr, status.c_str(), 6, "online", 1, true);
    std::function<void()> connected;
    std::vector<std::string> filters;
    {
        std::lock_guard<std::mutex> hold(m->lock);
        for (const auto& watched : m->watches) filters.push_back(watched.first);
        connected = m->on_connected;
        m->connected = true;
    }
    // Outside the lock: libmosquitto takes its own and may log (on_log).
    for (const std::string& filter : filters) mosquitto_subscribe(client, nullptr, filter.c_str(), 1);
    if (connected) connected();
}

void on_disconnect(mosquitto*, void* context, int rc) {
    auto* m = static_cast<Mqtt*>(context);
    std::lock_guard<std::mutex> hold(m->lock);
    m->connected = false;
    if (rc == 0) return; // asked for
    m->waiting_answer = false;
    if (m->said_lost) return;
    m->said_lost = true;
    std::fprintf(stderr, "vukra: lost the MQTT broker %s:%d; polling goes on and the broker is tried again\n",
                 m->host.c_str(), m->port);
}

// A set message, queued when it may be acted on; a refusal goes to its
// error topic at once.
void on_message(mosquitto*, void* context, const mosquitto_message* message) {
    auto* m = static_cast<Mqtt*>(context);
    const std::string topic = message->topic;
    MqttHeard heard;
    {
        std::lock_guard<std::mutex> hold(m->lock);
        for (const auto& [filter, callback] : m->watches) {
            bool match = false;
            if (mosquitto_topic_matches_sub(filter.c_str(), topic.c_str(), &match) == MOSQ_ERR_SUCCESS && match)
                heard = callback;
        }
    }
    if (heard) {
        const auto* bytes = static_cast<const char*>(message->payload);
        heard(topic, std::string(bytes, bytes + (message->payloadlen > 0 ? message->payloadlen : 0)));
        return;
    }
    // PREFIX/register/NAME/set: NAME is what lies between.
    const std::size_t first = m->prefix.size() + std::strlen(kRegisterLevel), last = topic.size() - 4;
    if (topic.size() < first + 4 || last <= first) return;
    const std::string name = topic.substr(first, last - first);
    const auto* bytes = static_cast<const char*>(message->payload);
    const std::size_t size = message->payloadlen > 0 ? static_cast<std::size_t>(message->payloadlen) : 0;
    if (size == 0) return; // how a retained set is cleared: nothing to write
    std::string why;
    if (message->retain)
        why = "a retained set is never applied (it would be written again at every start): publish the value "
              "without retain, and clear the retained one with an empty retained message";
    else if (size > kMaxSetPayload)
        why = "a value of more than " + std::to_string(kMaxSetPayload) + " bytes";
    else if (std::memchr(bytes, '\0', size) != nullptr)
        why = "the value holds a NUL byte";
    if (!why.empty()) {
        mqtt_publish_error(m, name, why + ": nothing was sent");
        return;
    }
    {
        std::lock_guard<std::mutex> hold(m->lock);
        if (m->sets.size() < kMaxWaitingSets) {
            m->sets.push_back(SetRequest{name, std::string(bytes, size)});
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

std::string mqtt_name_problem(const std::string& name) {
    const std::string it = "the register name \"" + name + "\" cannot be an MQTT topic level: it ";
    if (name.empty()) return "an empty register name cannot be an MQTT topic level";
    if (name.find('/') != std::string::npos) return it + "holds /, which splits topic levels";
    if (name.find_first_of("+#") != std::string::npos) return it + "holds + or #, MQTT's wildcards";
    if (mosquitto_validate_utf8(name.c_str(), static_cast<int>(name.size())) != MOSQ_ERR_SUCCESS)
        return it + "is not UTF-8 text";
    return "";
}

Mqtt* mqtt_start(const MqttSettings& settings, std::string& why) {
    static const int library = mosquitto_lib_init();
    (void)library;
    auto* m = new Mqtt;
    m->ca_file = settings.ca_file;
    bool tls = false;
    std::string user, password;
    if (!(why = parse_url(settings.url, *m, tls)).empty() || !(why = credentials(settings, user, password)).empty() ||
        (tls && !(why = make_tls(*m)).empty())) {
        mqtt_stop(m);
        return nullptr;
    }
    m->client = mosquitto_new(nullptr, true, m);
    if (m->client == nullptr) {
        mqtt_stop(m);
        why = "cannot make an MQTT client";
        return nullptr;
    }
    const std::string status = m->prefix + "/status";
    int rc = mosquitto_will_set(m->client, status.c_str(), 7, "offline", 1, true);
    if (rc == MOSQ_ERR_SUCCESS && !user.empty())
        rc = mosquitto_username_pw_set(m->client, user.c_str(), password.empty() ? nullptr : password.c_str());
    if (rc == MOSQ_ERR_SUCCESS && tls) rc = mosquitto_int_option(m->client, MOSQ_OPT_SSL_CTX_WITH_DEFAULTS, 0);
    if (rc == MOSQ_ERR_SUCCESS && tls) rc = mosquitto_void_option(m->client, MOSQ_OPT_SSL_CTX, m->tls);
    if (rc == MOSQ_ERR_SUCCESS) rc = mosquitto_reconnect_delay_set(m->client, kBackOffFirst, kBackOffMost, true);
    if (rc != MOSQ_ERR_SUCCESS) {
        why = std::string("cannot set up the MQTT client: ") + mosquitto_strerror(rc);
        mqtt_stop(m);
        return nullptr;
    }
    mosquitto_connect_callback_set(m->client, on_connect);
    mosquitto_disconnect_callback_set(m->client, on_disconnect);
    mosquitto_message_callback_set(m->client, on_message);
    mosquitto_log_callback_set(m->client, on_log);
    m->watchdog = std::thread(watch_answers, m);
    // A broker that is not there yet is tried again by the loop; a host
    // that does not resolve is an error of the URL.
    rc = mosquitto_connect_async(m->client, m->host.c_str(), m->port, kKeepAliveSeconds);
    if (rc == MOSQ_ERR_EAI || rc == MOSQ_ERR_INVAL) {
        why = "cannot find the MQTT broker " + m->host + ": " + mosquitto_strerror(rc);
        mqtt_stop(m);
        return nullptr;
    }
    // A failed TLS handshake has been told with its reason already.
    if (rc != MOSQ_ERR_SUCCESS && rc != MOSQ_ERR_TLS)
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
    const std::string topic = m->prefix + kRegisterLevel + name;
    // QoS 0: while the broker is away nothing piles up; the next round
    // publishes afresh.
    mosquitto_publish(m->client, nullptr, topic.c_str(), static_cast<int>(json.size()), json.data(), 0, true);
}

void mqtt_publish_error(Mqtt* m, const std::string& name, const std::string& text) {
    const std::string topic = m->prefix + kRegisterLevel + name + "/error";
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

void mqtt_publish(Mqtt* m, const std::string& topic, const std::string& payload, bool retain) {
    mosquitto_publish(m->client, nullptr, topic.c_str(), static_cast<int>(payload.size()), payload.data(), 1, retain);
}

const std::string& mqtt_prefix(const Mqtt* m) { return m->prefix; }

void mqtt_watch(Mqtt* m, const std::string& filter, MqttHeard heard) {
    {
        std::lock_guard<std::mutex> hold(m->lock);
        m->watches.emplace_back(filter, std::move(heard));
    }
    mosquitto_subscribe(m->client, nullptr, filter.c_str(), 1); // when connected; else at the connection
}

void mqtt_on_connect(Mqtt* m, std::function<void()> connected) {
    std::unique_lock<std::mutex> hold(m->lock);
    m->on_connected = connected;
    if (!m->connected) return;
    hold.unlock(); // connected before it was asked for: told now
    connected();
}

void mqtt_stop(Mqtt* m) {
    if (m == nullptr) return;
    if (m->client != nullptr) {
        SetRequest left;
        while (mqtt_next_set(m, left, 0)) {
            const std::string why = "the value \"" + left.payload + "\" came as the link stopped: nothing was sent";
            std::fprintf(stderr, "vukra: %s/set: %s\n", left.name.c_str(), why.c_str());
            mqtt_publish_error(m, left.name, why);
        }
        const std::string status = m->prefix + "/status";
        // Queued ahead of the disconnect, so it leaves first; a clean
        // disconnect does not send the last will.
        mosquitto_publish(m->client, nullptr, status.c_str(), 7, "offline", 1, true);
        mosquitto_disconnect(m->client);
        mosquitto_loop_stop(m->client, false);
    }
    if (m->watchdog.joinable()) {
        {
            std::lock_guard<std::mutex> hold(m->lock);
            m->stopping = true;
            m->watch.notify_all();
        }
        m->watchdog.join();
    }
    if (m->client != nullptr) mosquitto_destroy(m->client);
    if (m->tls != nullptr) SSL_CTX_free(m->tls); // the client held its own reference
    delete m;
}

} // namespace vukra::cli
