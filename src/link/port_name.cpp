#include "link/port_name.h"

#include <cstring>

namespace vukra::link {

namespace {

constexpr char kScheme[] = "tcp://";
constexpr std::size_t kSchemeLength = sizeof kScheme - 1;

} // namespace

bool is_tcp_name(const char* name) { return name != nullptr && std::strncmp(name, kScheme, kSchemeLength) == 0; }

bool parse_tcp_name(const char* name, TcpAddress& address) {
    if (!is_tcp_name(name)) return false;
    const char* host = name + kSchemeLength;
    const char* colon = std::strrchr(host, ':');
    if (colon == nullptr) return false;
    const char* end = colon; // one past the host
    if (*host == '[') {
        // An IPv6 address: everything up to the closing bracket, which the
        // port's colon follows at once.
        if (end - host < 3 || end[-1] != ']') return false;
        ++host;
        --end;
        if (std::memchr(host, ']', static_cast<std::size_t>(end - host)) != nullptr) return false;
    } else if (std::memchr(host, ':', static_cast<std::size_t>(end - host)) != nullptr) {
        return false; // an IPv6 address without its brackets
    }
    const std::size_t host_length = static_cast<std::size_t>(end - host);
    if (host_length == 0 || host_length >= sizeof address.host) return false;
    if (std::memchr(host, '/', host_length) != nullptr || std::memchr(host, '[', host_length) != nullptr) return false;

    const char* digits = colon + 1;
    const std::size_t count = std::strlen(digits);
    if (count == 0 || count >= sizeof address.service || std::strspn(digits, "0123456789") != count) return false;
    unsigned long port = 0;
    for (const char* d = digits; *d; ++d) port = port * 10 + static_cast<unsigned long>(*d - '0');
    if (port < 1 || port > 65535) return false;

    std::memcpy(address.host, host, host_length);
    address.host[host_length] = '\0';
    std::memcpy(address.service, digits, count + 1);
    return true;
}

} // namespace vukra::link
