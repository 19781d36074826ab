#include "examples/support/route.h"

#include <netdb.h>
#include <stdio.h>
#include <sys/socket.h>
#include <unistd.h>

/* Connecting a datagram socket looks up the route and no more. */
static int has_route(const struct addrinfo *address)
{
    int sock = socket(address->ai_family, SOCK_DGRAM, 0);
    int found = sock >= 0 && connect(sock, address->ai_addr, address->ai_addrlen) == 0;
    if (sock >= 0)
        close(sock);
    return found;
}

zqerror example_check_route(const char *host, uint32_t port)
{
    char service[16];
    struct addrinfo hints = {0};
    struct addrinfo *addresses = NULL;
    hints.ai_flags = AI_ADDRCONFIG | AI_V4MAPPED;
    hints.ai_socktype = SOCK_DGRAM;
    snprintf(service, sizeof(service), "%u", (unsigned int)port);
    if (getaddrinfo(host, service, &hints, &addresses) != 0)
        return ZQ_ERROR_NONE;

    zqerror result = ZQ_ERROR_NETWORK_UNREACHABLE;
    for (struct addrinfo *address = addresses; address; address = address->ai_next) {
        if (has_route(address))
            result = ZQ_ERROR_NONE;
    }
    freeaddrinfo(addresses);
    return result;
}
