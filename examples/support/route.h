#ifndef EXAMPLES_SUPPORT_ROUTE_H
#define EXAMPLES_SUPPORT_ROUTE_H

#include "zq/util/zqerror.h"

/* Tells, without sending anything, whether a host can be connected to as far as this machine knows:
 * ZQ_ERROR_NONE or ZQ_ERROR_NETWORK_UNREACHABLE. A TCP handle stops the program when the system
 * refuses a connection at once, so a tool that wants to say so itself has to ask before. A host
 * that does not resolve passes: the library has a result for that. */
zqerror example_check_route(const char *host, uint32_t port);

#endif
