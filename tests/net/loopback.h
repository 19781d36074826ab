#ifndef TESTS_NET_LOOPBACK_H
#define TESTS_NET_LOOPBACK_H

#include <arpa/inet.h>
#include <memory>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

// The other end: plain sockets on loopback addresses.

class Fd {
  public:
    explicit Fd(int fd = -1) : owner(new int(fd), close_and_delete) {}
    int get() const { return *owner; }
    void reset() { *this = Fd(); }

  private:
    static void close_and_delete(const int *fd)
    {
        if (*fd >= 0)
            close(*fd);
        delete fd;
    }
    std::shared_ptr<const int> owner;
};

struct Address {
    sockaddr_in6 storage = {}; // of either family, whose ports stand in the same place
    socklen_t size = sizeof(storage);

    Address(const std::string &text, uint32_t port)
    {
        auto *ipv4 = reinterpret_cast<sockaddr_in *>(&storage);
        storage.sin6_family = AF_INET6;
        if (inet_pton(AF_INET6, text.c_str(), &storage.sin6_addr) != 1) {
            inet_pton(AF_INET, text.c_str(), &ipv4->sin_addr);
            ipv4->sin_family = AF_INET;
            size = sizeof(*ipv4);
        }
        storage.sin6_port = htons(static_cast<uint16_t>(port));
    }
    sockaddr *get() { return reinterpret_cast<sockaddr *>(&storage); }
};

// Holds a port of an address; connections to it are refused until it listens.
class Port {
  public:
    explicit Port(const std::string &text = "127.0.0.1", uint32_t port = 0) : address(text, port)
    {
        sock = Fd(socket(address.storage.sin6_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
        timeval limit = {2, 0}; // an accept that would wait for ever is a failure
        setsockopt(sock.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        bind(sock.get(), address.get(), address.size);
        getsockname(sock.get(), address.get(), &address.size);
    }
    // 0 when it is not held.
    uint32_t number() const { return ntohs(address.storage.sin6_port); }
    Port &listening(int backlog = 16)
    {
        listen(sock.get(), backlog);
        return *this;
    }
    Fd accept() { return Fd(::accept(sock.get(), nullptr, nullptr)); }

  private:
    Address address;
    Fd sock;
};

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

inline Fd connect_to(uint32_t port)
{
    Fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    timeval limit = {10, 0}; // a server that says nothing is a failure
    setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    Address address("127.0.0.1", port);
    if (connect(fd.get(), address.get(), address.size) != 0)
        fd.reset();
    return fd;
}

// Makes the end of the descriptor a reset of its connection.
inline void reset_at_close(const Fd &fd)
{
    linger at_once = {1, 0};
    setsockopt(fd.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
}

// What comes until the end of the stream.
inline std::string receive_all(const Fd &fd)
{
    std::string all;
    for (std::string part = receive_text(fd); !part.empty(); part = receive_text(fd))
        all += part;
    return all;
}

// All that a client receives for what it sends.
inline std::string ask(const Fd &client, const std::string &text)
{
    send_text(client, text);
    return receive_all(client);
}
inline std::string ask(uint32_t port, const std::string &text)
{
    return ask(connect_to(port), text);
}

#endif
