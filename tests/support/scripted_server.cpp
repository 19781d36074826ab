#include "tests/support/scripted_server.h"

#include <algorithm>
#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

ScriptedServer::ScriptedServer(std::string reply, size_t piece, Ending ending,
                               std::chrono::milliseconds pause)
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
    thread = std::thread([this, reply = std::move(reply), piece, ending, pause] {
        serve(reply, piece ? piece : reply.size(), ending, pause);
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

// False when the client has closed by the end of the pause.
static bool stays(int connection, std::chrono::milliseconds pause)
{
    pollfd client = {connection, POLLRDHUP, 0};
    return pause.count() == 0 || poll(&client, 1, static_cast<int>(pause.count())) == 0;
}

void ScriptedServer::serve(const std::string &reply, size_t piece, Ending ending,
                           std::chrono::milliseconds pause)
{
    int connection = accept(listener, nullptr, nullptr);
    if (connection < 0)
        return;
    int on = 1;
    setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    char buffer[65536];
    if (ending == RESET)
        recv(connection, buffer, 1, MSG_PEEK);
    for (size_t sent = 0; sent < reply.size() && stays(connection, pause); sent += piece) {
        if (send(connection, reply.data() + sent, std::min(piece, reply.size() - sent),
                 MSG_NOSIGNAL) < 0)
            break;
    }
    if (ending == CLOSE)
        shutdown(connection, SHUT_WR);
    if (ending == RESET) {
        linger at_once = {1, 0};
        setsockopt(connection, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
        close(connection);
        return;
    }
    for (ssize_t count; (count = recv(connection, buffer, sizeof(buffer), 0)) > 0;)
        received.append(buffer, static_cast<size_t>(count));
    close(connection);
}
