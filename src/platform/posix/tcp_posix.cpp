// TCP connections on POSIX sockets, for devices behind a serial device
// server and for the emulator's listening end.
//
// The socket stays blocking; waits are a poll() ahead of each transfer, as
// on the serial line. The connect alone runs non-blocking, so that it keeps
// to its time-out.
#include "platform/platform.h"
#include "platform/posix/fd_io.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace vukra::platform {

namespace {

int fd_of(NativePort socket) { return static_cast<int>(socket); }

void say(char* why, std::size_t size, const char* text) {
    if (why != nullptr && size > 0) std::snprintf(why, size, "%s", text);
}

void say_errno(char* why, std::size_t size, int code) {
    char text[200];
    const char* message = strerror_r(code, text, sizeof text);
    say(why, size, message);
}

void no_delay(int fd) {
    int on = 1;
    (void)::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

// Waits for a non-blocking connect to finish: 0, or the error code.
int finish_connect(int fd, int timeout_ms) {
    pollfd p{fd, POLLOUT, 0};
    int ready;
    do ready = ::poll(&p, 1, timeout_ms);
    while (ready < 0 && errno == EINTR);
    if (ready == 0) return ETIMEDOUT;
    if (ready < 0) return errno;
    int code = 0;
    socklen_t length = sizeof code;
    if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &code, &length) != 0) return errno;
    return code;
}

// One address of the name: the connected socket, or -1 with the error code.
int connect_one(const addrinfo* a, int timeout_ms, int& code) {
    int fd = ::socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
    if (fd < 0) {
        code = errno;
        return -1;
    }
    const int flags = ::fcntl(fd, F_GETFL);
    (void)::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    code = ::connect(fd, a->ai_addr, a->ai_addrlen) == 0 ? 0 : errno;
    if (code == EINPROGRESS) code = finish_connect(fd, timeout_ms);
    if (code != 0) {
        ::close(fd);
        return -1;
    }
    (void)::fcntl(fd, F_SETFL, flags);
    no_delay(fd);
    return fd;
}

int resolve(const char* host, const char* service, bool passive, addrinfo*& list, char* why, std::size_t size) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV | (passive ? AI_PASSIVE : 0);
    int rc = ::getaddrinfo(host, service, &hints, &list);
    if (rc == 0) return 0;
    if (rc == EAI_SYSTEM)
        say_errno(why, size, errno);
    else if (rc == EAI_NONAME || rc == EAI_NODATA || rc == EAI_FAIL)
        say(why, size, "no such host");
    else
        say(why, size, ::gai_strerror(rc));
    return -1;
}

} // namespace

NativePort tcp_connect(const char* host, const char* service, std::uint32_t timeout_ms, char* why,
                       std::size_t why_size) {
    addrinfo* list = nullptr;
    if (resolve(host, service, false, list, why, why_size) != 0) return kInvalidPort;
    const std::uint32_t start = clock_ms();
    int fd = -1, code = ETIMEDOUT;
    for (const addrinfo* a = list; a != nullptr && fd < 0; a = a->ai_next) {
        const std::uint32_t spent = clock_ms() - start;
        if (spent >= timeout_ms) break;
        fd = connect_one(a, static_cast<int>(timeout_ms - spent), code);
    }
    ::freeaddrinfo(list);
    if (fd < 0) say_errno(why, why_size, code);
    return fd < 0 ? kInvalidPort : fd;
}

long tcp_read_some(NativePort socket, void* buffer, std::size_t capacity, std::uint32_t timeout_ms) {
    const int fd = fd_of(socket);
    if (fd < 0) return -1;
    for (;;) {
        short events = 0;
        const int ready = wait_readable(fd, timeout_ms, events);
        if (ready <= 0) return ready;
        ssize_t got = ::recv(fd, buffer, capacity, 0);
        if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        return got > 0 ? static_cast<long>(got) : -1; // 0: closed by the other end
    }
}

long tcp_write(NativePort socket, const void* bytes, std::size_t count) {
    const int fd = fd_of(socket);
    if (fd < 0) return -1;
    // No SIGPIPE for a connection the other end has closed: -1 instead.
    return write_all(bytes, count,
                     [fd](const unsigned char* p, std::size_t n) { return ::send(fd, p, n, MSG_NOSIGNAL); });
}

bool tcp_drain(NativePort socket) {
    const int fd = fd_of(socket);
    if (fd < 0) return false;
    // What has arrived when asked, not what keeps coming: a device that
    // never stops talking cannot hold the purge.
    int queued = 0;
    if (::ioctl(fd, FIONREAD, &queued) != 0) queued = 0;
    unsigned char sink[4096];
    long left = queued;
    do {
        const std::size_t take = left > 0 && static_cast<std::size_t>(left) < sizeof sink ? static_cast<std::size_t>(left) : sizeof sink;
        const ssize_t got = ::recv(fd, sink, take, MSG_DONTWAIT);
        if (got == 0) return false;
        if (got < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
        left -= got;
    } while (left > 0);
    return true;
}

bool tcp_connected(NativePort socket) {
    const int fd = fd_of(socket);
    if (fd < 0) return false;
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 0) <= 0) return true;
    unsigned char byte;
    ssize_t got = ::recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    return got > 0 || (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR));
}

void tcp_close(NativePort socket) {
    if (socket >= 0) ::close(fd_of(socket));
}

NativePort tcp_listen(const char* host, const char* service, char* why, std::size_t why_size) {
    if (host != nullptr && (std::strcmp(host, "*") == 0 || *host == '\0')) host = nullptr;
    addrinfo* list = nullptr;
    if (resolve(host, service, true, list, why, why_size) != 0) return kInvalidPort;
    int fd = -1, code = EADDRNOTAVAIL;
    for (const addrinfo* a = list; a != nullptr && fd < 0; a = a->ai_next) {
        fd = ::socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
        if (fd < 0) {
            code = errno;
            continue;
        }
        int on = 1;
        (void)::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        if (::bind(fd, a->ai_addr, a->ai_addrlen) != 0 || ::listen(fd, 4) != 0) {
            code = errno;
            ::close(fd);
            fd = -1;
        }
    }
    ::freeaddrinfo(list);
    if (fd < 0) say_errno(why, why_size, code);
    return fd < 0 ? kInvalidPort : fd;
}

unsigned tcp_local_port(NativePort listener) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    if (::getsockname(fd_of(listener), reinterpret_cast<sockaddr*>(&address), &length) != 0) return 0;
    if (address.ss_family == AF_INET6) return ntohs(reinterpret_cast<sockaddr_in6*>(&address)->sin6_port);
    return ntohs(reinterpret_cast<sockaddr_in*>(&address)->sin_port);
}

NativePort tcp_accept(NativePort listener) {
    for (;;) {
        int fd = ::accept4(fd_of(listener), nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) {
            no_delay(fd);
            return fd;
        }
        if (errno != EINTR && errno != ECONNABORTED) return kInvalidPort;
    }
}

} // namespace vukra::platform
