// TCP connections on Winsock, for devices behind a serial device server
// and for a listening end.
//
// The socket stays blocking; waits are a select() ahead of each transfer.
// The connect alone runs non-blocking, so that it keeps to its time-out.
// Winsock is started once, at the first use, and left to the process's end.
#include "platform/platform.h"

#include <winsock2.h>
#include <ws2tcpip.h>

#include <cstdio>
#include <cstring>

namespace vukra::platform {

namespace {

SOCKET socket_of(NativePort port) { return static_cast<SOCKET>(port); }

bool winsock_ready() {
    static const bool ready = [] {
        WSADATA data;
        return WSAStartup(MAKEWORD(2, 2), &data) == 0;
    }();
    return ready;
}

void say(char* why, std::size_t size, const char* text) {
    if (why != nullptr && size > 0) std::snprintf(why, size, "%s", text);
}

void say_code(char* why, std::size_t size, int code) {
    switch (code) {
    case WSAECONNREFUSED: return say(why, size, "Connection refused");
    case WSAETIMEDOUT: return say(why, size, "Connection timed out");
    case WSAEHOSTUNREACH: return say(why, size, "No route to host");
    case WSAENETUNREACH: return say(why, size, "Network is unreachable");
    case WSAEADDRINUSE: return say(why, size, "Address already in use");
    default: break;
    }
    char text[64];
    std::snprintf(text, sizeof text, "Winsock error %d", code);
    say(why, size, text);
}

void no_delay(SOCKET s) {
    BOOL on = TRUE;
    (void)setsockopt(s, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&on), sizeof on);
}

// Waits for s to be readable (or writable): 1, 0 on time-out, -1 on failure.
int wait_for(SOCKET s, bool writing, std::uint32_t timeout_ms) {
    fd_set set, failed;
    FD_ZERO(&set);
    FD_ZERO(&failed);
    FD_SET(s, &set);
    FD_SET(s, &failed);
    timeval t{static_cast<long>(timeout_ms / 1000), static_cast<long>(timeout_ms % 1000) * 1000};
    int ready = select(0, writing ? nullptr : &set, writing ? &set : nullptr, &failed, &t);
    if (ready == SOCKET_ERROR) return -1;
    return ready > 0 ? 1 : 0;
}

SOCKET connect_one(const addrinfo* a, std::uint32_t timeout_ms, int& code) {
    SOCKET s = socket(a->ai_family, a->ai_socktype, a->ai_protocol);
    if (s == INVALID_SOCKET) {
        code = WSAGetLastError();
        return s;
    }
    u_long on = 1, off = 0;
    ioctlsocket(s, FIONBIO, &on);
    code = 0;
    if (connect(s, a->ai_addr, static_cast<int>(a->ai_addrlen)) == SOCKET_ERROR) {
        code = WSAGetLastError();
        if (code == WSAEWOULDBLOCK) {
            int ready = wait_for(s, true, timeout_ms);
            int error = 0, length = sizeof error;
            getsockopt(s, SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&error), &length);
            code = ready == 0 ? WSAETIMEDOUT : error != 0 ? error : ready < 0 ? WSAGetLastError() : 0;
        }
    }
    if (code != 0) {
        closesocket(s);
        return INVALID_SOCKET;
    }
    ioctlsocket(s, FIONBIO, &off);
    no_delay(s);
    return s;
}

int resolve(const char* host, const char* service, bool passive, addrinfo*& list, char* why, std::size_t size) {
    if (!winsock_ready()) {
        say(why, size, "Winsock cannot start");
        return -1;
    }
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    hints.ai_flags = AI_NUMERICSERV | (passive ? AI_PASSIVE : 0);
    int rc = getaddrinfo(host, service, &hints, &list);
    if (rc == 0) return 0;
    if (rc == WSAHOST_NOT_FOUND || rc == WSANO_DATA || rc == WSANO_RECOVERY)
        say(why, size, "no such host");
    else
        say_code(why, size, rc);
    return -1;
}

} // namespace

NativePort tcp_connect(const char* host, const char* service, std::uint32_t timeout_ms, char* why,
                       std::size_t why_size) {
    addrinfo* list = nullptr;
    if (resolve(host, service, false, list, why, why_size) != 0) return kInvalidPort;
    const std::uint32_t start = clock_ms();
    SOCKET s = INVALID_SOCKET;
    int code = WSAETIMEDOUT;
    for (const addrinfo* a = list; a != nullptr && s == INVALID_SOCKET; a = a->ai_next) {
        const std::uint32_t spent = clock_ms() - start;
        if (spent >= timeout_ms) break;
        s = connect_one(a, timeout_ms - spent, code);
    }
    freeaddrinfo(list);
    if (s == INVALID_SOCKET) {
        say_code(why, why_size, code);
        return kInvalidPort;
    }
    return static_cast<NativePort>(s);
}

long tcp_read_some(NativePort port, void* buffer, std::size_t capacity, std::uint32_t timeout_ms) {
    if (port == kInvalidPort) return -1;
    SOCKET s = socket_of(port);
    int ready = wait_for(s, false, timeout_ms);
    if (ready <= 0) return ready;
    int got = recv(s, static_cast<char*>(buffer), static_cast<int>(capacity), 0);
    return got > 0 ? got : -1; // 0: closed by the other end
}

long tcp_write(NativePort port, const void* bytes, std::size_t count) {
    if (port == kInvalidPort) return -1;
    SOCKET s = socket_of(port);
    const char* p = static_cast<const char*>(bytes);
    std::size_t done = 0;
    while (done < count) {
        int n = send(s, p + done, static_cast<int>(count - done), 0);
        if (n == SOCKET_ERROR) return -1;
        done += static_cast<std::size_t>(n);
    }
    return static_cast<long>(done);
}

bool tcp_drain(NativePort port) {
    if (port == kInvalidPort) return false;
    SOCKET s = socket_of(port);
    // What has arrived when asked, not what keeps coming: a device that
    // never stops talking cannot hold the purge.
    u_long queued = 0;
    if (ioctlsocket(s, FIONREAD, &queued) != 0) queued = 0;
    char sink[4096];
    long left = static_cast<long>(queued);
    do {
        int ready = wait_for(s, false, 0);
        if (ready < 0) return false;
        if (ready == 0) return true;
        const int take = left > 0 && left < static_cast<long>(sizeof sink) ? static_cast<int>(left) : static_cast<int>(sizeof sink);
        const int got = recv(s, sink, take, 0);
        if (got <= 0) return false;
        left -= got;
    } while (left > 0);
    return true;
}

bool tcp_connected(NativePort port) {
    if (port == kInvalidPort) return false;
    SOCKET s = socket_of(port);
    int ready = wait_for(s, false, 0);
    if (ready <= 0) return ready == 0;
    char byte;
    return recv(s, &byte, 1, MSG_PEEK) > 0;
}

void tcp_close(NativePort port) {
    if (port != kInvalidPort) closesocket(socket_of(port));
}

NativePort tcp_listen(const char* host, const char* service, char* why, std::size_t why_size) {
    if (host != nullptr && (std::strcmp(host, "*") == 0 || *host == '\0')) host = nullptr;
    addrinfo* list = nullptr;
    if (resolve(host, service, true, list, why, why_size) != 0) return kInvalidPort;
    SOCKET s = INVALID_SOCKET;
    int code = WSAEADDRNOTAVAIL;
    for (const addrinfo* a = list; a != nullptr && s == INVALID_SOCKET; a = a->ai_next) {
        s = socket(a->ai_family, a->ai_socktype, a->ai_protocol);
        if (s == INVALID_SOCKET) {
            code = WSAGetLastError();
            continue;
        }
        if (bind(s, a->ai_addr, static_cast<int>(a->ai_addrlen)) == SOCKET_ERROR || listen(s, 4) == SOCKET_ERROR) {
            code = WSAGetLastError();
            closesocket(s);
            s = INVALID_SOCKET;
        }
    }
    freeaddrinfo(list);
    if (s == INVALID_SOCKET) {
        say_code(why, why_size, code);
        return kInvalidPort;
    }
    return static_cast<NativePort>(s);
}

unsigned tcp_local_port(NativePort listener) {
    sockaddr_storage address{};
    int length = sizeof address;
    if (getsockname(socket_of(listener), reinterpret_cast<sockaddr*>(&address), &length) != 0) return 0;
    if (address.ss_family == AF_INET6) return ntohs(reinterpret_cast<sockaddr_in6*>(&address)->sin6_port);
    return ntohs(reinterpret_cast<sockaddr_in*>(&address)->sin_port);
}

NativePort tcp_accept(NativePort listener) {
    SOCKET s = accept(socket_of(listener), nullptr, nullptr);
    if (s == INVALID_SOCKET) return kInvalidPort;
    no_delay(s);
    return static_cast<NativePort>(s);
}

} // namespace vukra::platform
