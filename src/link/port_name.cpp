#include "link/port_name.h"

#include <cstring>

namespace vukra::link {

namespace {

constexpr char kScheme[] = "tcp://";
constexpr std::size_t kSchemeLength = sizeof kScheme - 1;

} // namespace

bool is_tcp_name(const char* name) { return name != nullptr && std::strncmp(name, kScheme, kSchemeLength) == 0; }

bool parse_tcp_name(const char* name, TcpAddress& address) {
    return is_tcp_name(name) && parse_host_port(name + kSchemeLength, address);
}

bool parse_host_port(std::string_view text, TcpAddress& address, bool zero_port) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string_view::npos) return false;
    std::string_view host = text.substr(0, colon);
    if (!host.empty() && host.front() == '[') {
        // An IPv6 address: everything up to the closing bracket, which the
        // port's colon follows at once.
        if (host.size() < 3 || host.back() != ']') return false;
        host = host.substr(1, host.size() - 2);
        if (host.find(']') != std::string_view::npos) return false;
    } else if (host.find(':') != std::string_view::npos) {
        return false; // an IPv6 address without its brackets
    }
    if (host.empty() || host.size() >= sizeof address.host || host.find_first_of("/[") != std::string_view::npos)
        return false;

    const std::string_view digits = text.substr(colon + 1);
    if (digits.empty() || digits.size() >= sizeof address.service ||
        digits.find_first_not_of("0123456789") != std::string_view::npos)
        return false;
    unsigned long port = 0;
    for (char d : digits) port = port * 10 + static_cast<unsigned long>(d - '0');
    if (port > 65535 || (port == 0 && !zero_port)) return false;

    std::memcpy(address.host, host.data(), host.size());
    address.host[host.size()] = '\0';
    std::memcpy(address.service, digits.data(), digits.size());
    address.service[digits.size()] = '\0';
    return true;
}

} // namespace vukra::link
