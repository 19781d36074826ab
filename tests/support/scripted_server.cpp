#include "tests/support/scripted_server.h"

#include <algorithm>
#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

ScriptedServer::ScriptedServer(std::string reply, size_t piece, Ending ending)
{
    listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    bind(listener, reinterpret_cast<sockaddr *>(&address), size);
    listen(listener, 1);
    getsockname(listener, reinterpret_cast<sockaddr *>(&address), &size);
    listening_port = ntohs(address.sin_port);
    thread = std::thread([this, reply = std::move(reply), piece, ending] {
        serve(reply, piece ? piece : reply.size(), ending);
    });
}

ScriptedServer::~ScriptedServer()
{
    request();
    close(listener);
}

std::string ScriptedServer::request()
{
    // A client that never came must not be waited for; one that is still queued is served.
    shutdown(listener, SHUT_RD);
    if (thread.joinable())
        thread.join();
    return received;
}

void ScriptedServer::serve(const std::string &reply, size_t piece, Ending ending)
{
    int connection = accept(listener, nullptr, nullptr);
    if (connection < 0)
        return;
    int on = 1;
    setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    for (size_t sent = 0; sent < reply.size(); sent += piece) {
        if (send(connection, reply.data() + sent, std::min(piece, reply.size() - sent),
                 MSG_NOSIGNAL) < 0)
            break;
    }
    if (ending == CLOSE)
        shutdown(connection, SHUT_WR);
    char buffer[65536];
    for (ssize_t count; (count = recv(connection, buffer, sizeof(buffer), 0)) > 0;)
        received.append(buffer, static_cast<size_t>(count));
    close(connection);
}
