#ifndef TESTS_NET_LOOPBACK_H
#define TESTS_NET_LOOPBACK_H

#include <arpa/inet.h>
#include <cstring>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

// The other end: plain sockets on loopback addresses.

class Fd {
  public:
    explicit Fd(int fd = -1) : number(fd) {}
    ~Fd() { reset(); }
    Fd(Fd &&other) noexcept : number(std::exchange(other.number, -1)) {}
    Fd &operator=(Fd &&other) noexcept
    {
        std::swap(number, other.number);
        return *this;
    }

    int get() const { return number; }
    bool is_open() const { return number >= 0; }
    void reset()
    {
        if (number >= 0)
            close(number);
        number = -1;
    }

  private:
    int number;
};

struct Address {
    sockaddr_storage storage = {};
    socklen_t size = 0;

    Address(const std::string &text, uint32_t port)
    {
        auto *ipv4 = reinterpret_cast<sockaddr_in *>(&storage);
        auto *ipv6 = reinterpret_cast<sockaddr_in6 *>(&storage);
        if (inet_pton(AF_INET, text.c_str(), &ipv4->sin_addr) == 1) {
            storage.ss_family = AF_INET;
            ipv4->sin_port = htons(static_cast<uint16_t>(port));
            size = sizeof(*ipv4);
        } else {
            inet_pton(AF_INET6, text.c_str(), &ipv6->sin6_addr);
            storage.ss_family = AF_INET6;
            ipv6->sin6_port = htons(static_cast<uint16_t>(port));
            size = sizeof(*ipv6);
        }
    }
    sockaddr *get() { return reinterpret_cast<sockaddr *>(&storage); }
};

// Holds a port of an address; connections to it are refused until it listens.
class Port {
  public:
    explicit Port(const std::string &text = "127.0.0.1", uint32_t number = 0)
    {
        Address address(text, number);
        sock = Fd(socket(address.storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
        timeval limit = {2, 0}; // an accept that would wait for ever is a failure
        setsockopt(sock.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        held = bind(sock.get(), address.get(), address.size) == 0;
        getsockname(sock.get(), address.get(), &address.size);
        // The port stands in the same place for both families.
        port = ntohs(reinterpret_cast<sockaddr_in *>(&address.storage)->sin_port);
    }

    bool is_held() const { return held; }
    uint32_t number() const { return port; }
    Port &listening(int backlog = 16)
    {
        listen(sock.get(), backlog);
        return *this;
    }
    Fd accept() { return Fd(::accept(sock.get(), nullptr, nullptr)); }

  private:
    Fd sock;
    bool held = false;
    uint32_t port = 0;
};

inline bool has_ipv6()
{
    return Port("::1").is_held();
}

inline bool send_text(const Fd &fd, const std::string &text)
{
    return send(fd.get(), text.data(), text.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(text.size());
}

// What the next recv() gives.
inline std::string receive_text(const Fd &fd)
{
    char buffer[4096];
    ssize_t count = recv(fd.get(), buffer, sizeof(buffer), 0);
    return count > 0 ? std::string(buffer, static_cast<size_t>(count)) : "";
}

// Closes with a reset instead of an orderly end.
inline void reset_connection(Fd &fd)
{
    linger at_once = {1, 0};
    setsockopt(fd.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
    fd.reset();
}

#endif
