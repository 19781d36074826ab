#ifndef EXAMPLES_SUPPORT_NET_TOOL_H
#define EXAMPLES_SUPPORT_NET_TOOL_H

#include "zq/util/zqerror.h"
#include "zq/util/zqgetopt.h"

/* What the tools that talk to servers have in common: a script can tell from the exit status what
 * went wrong, whichever tool it was. */
enum {
    EXIT_DONE = 0,
    EXIT_FAILED = 1,
    EXIT_USAGE = 2,
    EXIT_URL = 3,
    EXIT_CONNECT = 4,
    EXIT_TIMEOUT = 5,
    EXIT_PROTOCOL = 6,
    EXIT_STATUS = 7,
    EXIT_OUTPUT = 8,
    EXIT_JSON = 9,
    EXIT_INPUT = 9,
    EXIT_INTERRUPTED = 130
};

int net_tool_exit_status(zqerror error);

/* One tool: its options, what to make of the arguments (-1 to go on, else an exit status) and what
 * to do then, all with the same settings. */
struct net_tool {
    int (*add_options)(zqgetopt *options, void *settings);
    int (*read_arguments)(zqgetopt *options, void *settings, int argc, char **argv);
    int (*work)(const void *settings);
    void *settings;
    const int *verbose; /* whether the library's log lines are shown */
};

int net_tool_main(const struct net_tool *tool, int argc, char **argv);

#endif
