#include "connections.h"

#include "link/port_name.h"
#include "platform/platform.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace vukra::serve {

struct Pending {
    std::shared_ptr<Job> job;
    Bytes at_deadline;
};

struct Connection : std::enable_shared_from_this<Connection> {
    Server* server = nullptr;
    int fd = -1;
    int wake = -1; // an eventfd: answers are waiting, or the door closes
    int client = 0;
    std::mutex mutex;
    Bytes outbox;
    std::vector<Pending> pending;
    bool hanging_up = false;
    bool finished = false; // its thread has ended
    std::shared_ptr<void> door_data;

    ~Connection() {
        if (wake >= 0) ::close(wake);
    }
    void rouse() const {
        const std::uint64_t one = 1;
        (void)!::write(wake, &one, sizeof one);
    }
};

struct Server {
    Protocol protocol;
    Queue* queue = nullptr;
    unsigned max_clients = 0;
    int listener = -1;
    int stop = -1; // an eventfd
    std::atomic<bool> stopping{false};
    std::thread acceptor;
    std::mutex mutex;
    std::vector<std::pair<std::shared_ptr<Connection>, std::thread>> connections;
};

namespace {

using std::chrono::milliseconds;

bool is_loopback(const sockaddr_storage& a) {
    if (a.ss_family == AF_INET)
        return (ntohl(reinterpret_cast<const sockaddr_in&>(a).sin_addr.s_addr) >> 24) == 127;
    if (a.ss_family == AF_INET6) {
        const in6_addr& v6 = reinterpret_cast<const sockaddr_in6&>(a).sin6_addr;
        if (IN6_IS_ADDR_LOOPBACK(&v6)) return true;
        return IN6_IS_ADDR_V4MAPPED(&v6) && v6.s6_addr[12] == 127;
    }
    return false;
}

bool send_all(int fd, const Bytes& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

void serve_connection(Connection& c) {
    Server& s = *c.server;
    const Protocol& p = s.protocol;
    Bytes in;
    in.reserve(p.most_bytes);
    std::uint8_t chunk[4096];
    Clock::time_point heard = Clock::now();
    bool open = true;
    while (open && !s.stopping) {
        // Sleep until the client sends, an answer comes, or the next deadline.
        Clock::time_point until = Clock::time_point::max();
        {
            std::lock_guard lock(c.mutex);
            for (const Pending& w : c.pending) until = std::min(until, w.job->deadline);
            if (c.pending.empty() && p.idle.count() > 0) until = heard + p.idle;
        }
        int wait = -1;
        if (until != Clock::time_point::max()) {
            const auto left = std::chrono::ceil<milliseconds>(until - Clock::now()).count();
            wait = static_cast<int>(std::clamp<long long>(left, 0, 60000));
        }
        pollfd fds[2] = {{c.fd, static_cast<short>(c.hanging_up ? 0 : POLLIN), 0}, {c.wake, POLLIN, 0}};
        if (::poll(fds, 2, wait) < 0 && errno != EINTR) break;
        if (fds[1].revents & POLLIN) {
            std::uint64_t count;
            (void)!::read(c.wake, &count, sizeof count);
        }
        if (fds[0].revents & (POLLIN | POLLHUP | POLLERR)) {
            const ssize_t n = ::recv(c.fd, chunk, std::min(sizeof chunk, p.most_bytes - in.size()), 0);
            if (n == 0 || (n < 0 && errno != EINTR && errno != EAGAIN)) break;
            if (n > 0) {
                heard = Clock::now();
                in.insert(in.end(), chunk, chunk + n);
                long length;
                while (open && (length = p.frame(in.data(), in.size())) != 0) {
                    if (length < 0) {
                        open = false;
                        break;
                    }
                    p.take(c, in.data(), static_cast<std::size_t>(length));
                    in.erase(in.begin(), in.begin() + length);
                }
                if (in.size() >= p.most_bytes) open = false; // a message longer than any
            }
        }
        // Jobs past their deadline are answered here, whatever the line does.
        Bytes out;
        {
            std::lock_guard lock(c.mutex);
            const Clock::time_point now = Clock::now();
            for (auto w = c.pending.begin(); w != c.pending.end();) {
                if (now < w->job->deadline || !abandon(*w->job)) {
                    ++w;
                    continue;
                }
                c.outbox.insert(c.outbox.end(), w->at_deadline.begin(), w->at_deadline.end());
                w = c.pending.erase(w);
            }
            out.swap(c.outbox);
            if (c.hanging_up && out.empty()) open = false;
        }
        if (!out.empty() && !send_all(c.fd, out)) break;
        if (open && p.idle.count() > 0 && Clock::now() - heard >= p.idle) {
            std::lock_guard lock(c.mutex);
            if (c.pending.empty()) open = false;
        }
    }
    close_client(*s.queue, c.client);
    if (p.closed != nullptr) p.closed(c);
    std::lock_guard lock(c.mutex);
    for (Pending& w : c.pending) abandon(*w.job);
    c.pending.clear();
    ::shutdown(c.fd, SHUT_RDWR);
    ::close(c.fd);
    c.fd = -1;
}

void reap(Server& s, bool all) {
    std::vector<std::thread> ended;
    {
        std::lock_guard lock(s.mutex);
        for (auto i = s.connections.begin(); i != s.connections.end();) {
            bool finished;
            {
                std::lock_guard c(i->first->mutex);
                finished = i->first->finished;
            }
            if (!all && !finished) {
                ++i;
                continue;
            }
            if (all) i->first->rouse();
            ended.push_back(std::move(i->second));
            i = s.connections.erase(i);
        }
    }
    for (std::thread& t : ended) t.join();
}

void accept_loop(Server& s) {
    for (;;) {
        pollfd fds[2] = {{s.listener, POLLIN, 0}, {s.stop, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0 && errno != EINTR) return;
        if (fds[1].revents != 0 || s.stopping) return;
        if (!(fds[0].revents & POLLIN)) continue;
        const int fd = ::accept4(s.listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            // Out of descriptors: let the connections end before taking more.
            if (errno == EMFILE || errno == ENFILE) std::this_thread::sleep_for(milliseconds(100));
            continue;
        }
        reap(s, false);
        std::lock_guard lock(s.mutex);
        if (s.connections.size() >= s.max_clients) {
            ::close(fd); // full: the client is told by the connection's close
            continue;
        }
        const int on = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        // A client that stops reading its answers is dropped after a while
        // rather than holding its thread.
        const timeval patience{5, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
        auto c = std::make_shared<Connection>();
        c->server = &s;
        c->fd = fd;
        c->wake = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        c->client = open_client(*s.queue);
        std::thread t([c] {
            serve_connection(*c);
            std::lock_guard finished(c->mutex);
            c->finished = true;
        });
        s.connections.emplace_back(std::move(c), std::move(t));
    }
}

} // namespace

namespace {

// HOST:PORT as a client names it; port 0 asks the system for a free one.
bool parse_address(const std::string& address, link::TcpAddress& where, bool& any_port) {
    std::string name = "tcp://" + address;
    any_port = name.ends_with(":0");
    if (any_port) name.back() = '1';
    return link::parse_tcp_name(name.c_str(), where);
}

} // namespace

bool address_reads(const std::string& address) {
    link::TcpAddress where;
    bool any_port;
    return parse_address(address, where, any_port);
}

Server* listen_on(const std::string& address, const Protocol& protocol, Queue& queue, unsigned max_clients) {
    link::TcpAddress where;
    bool any_port = false;
    char why[256] = "not HOST:PORT (an IPv6 address in brackets)";
    platform::NativePort listener = platform::kInvalidPort;
    if (parse_address(address, where, any_port))
        listener = platform::tcp_listen(where.host, any_port ? "0" : where.service, why, sizeof why);
    if (listener == platform::kInvalidPort) {
        std::fprintf(stderr, "vukra: cannot listen for %s on %s: %s\n", protocol.name, address.c_str(), why);
        return nullptr;
    }
    // Room for many clients connecting at once (the platform's listener
    // keeps a few waiting, enough for one client at a time).
    ::listen(listener, SOMAXCONN);
    sockaddr_storage bound{};
    socklen_t size = sizeof bound;
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&bound), &size);
    const bool v6 = std::strchr(where.host, ':') != nullptr;
    const std::string shown = std::string(v6 ? "[" : "") + where.host + (v6 ? "]" : "") + ":" +
                              std::to_string(platform::tcp_local_port(listener));
    std::fprintf(stderr, "vukra: %s on %s\n", protocol.name, shown.c_str());
    if (!is_loopback(bound))
        std::fprintf(stderr,
                     "vukra: warning: %s on %s is open beyond this computer and carries no authentication: "
                     "whoever reaches it can read and write the device\n",
                     protocol.name, shown.c_str());
    auto* s = new Server;
    s->protocol = protocol;
    s->queue = &queue;
    s->max_clients = max_clients;
    s->listener = listener;
    s->stop = ::eventfd(0, EFD_CLOEXEC);
    s->acceptor = std::thread(accept_loop, std::ref(*s));
    return s;
}

void close_server(Server* s) {
    if (s == nullptr) return;
    s->stopping = true;
    const std::uint64_t one = 1;
    (void)!::write(s->stop, &one, sizeof one);
    s->acceptor.join();
    reap(*s, true);
    ::close(s->listener);
    ::close(s->stop);
    delete s;
}

int client(const Connection& c) { return c.client; }
Queue& queue_of(Connection& c) { return *c.server->queue; }
std::shared_ptr<Connection> shared(Connection& c) { return c.shared_from_this(); }
std::shared_ptr<void>& door_data(Connection& c) { return c.door_data; }

void send(Connection& c, Bytes bytes) {
    {
        std::lock_guard lock(c.mutex);
        c.outbox.insert(c.outbox.end(), bytes.begin(), bytes.end());
    }
    c.rouse();
}

Submitted submit(Connection& c, const std::shared_ptr<Job>& job, Bytes at_deadline) {
    job->client = c.client;
    {
        // Pending first: the job may finish before submit returns.
        std::lock_guard lock(c.mutex);
        c.pending.push_back(Pending{job, std::move(at_deadline)});
    }
    if (run_now(*c.server->queue, job)) return Submitted::kQueued;
    const Submitted result = serve::submit(*c.server->queue, job);
    if (result != Submitted::kQueued) {
        std::lock_guard lock(c.mutex);
        c.pending.pop_back();
    }
    return result;
}

void answer(Connection& c, const Job& job, Bytes bytes) {
    {
        std::lock_guard lock(c.mutex);
        const auto w = std::find_if(c.pending.begin(), c.pending.end(),
                                    [&job](const Pending& p) { return p.job.get() == &job; });
        if (w == c.pending.end()) return;
        c.pending.erase(w);
        c.outbox.insert(c.outbox.end(), bytes.begin(), bytes.end());
    }
    c.rouse();
}

void hang_up(Connection& c) {
    {
        std::lock_guard lock(c.mutex);
        c.hanging_up = true;
    }
    c.rouse();
}

} // namespace vukra::serve
