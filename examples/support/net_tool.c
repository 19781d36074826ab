#include "examples/support/net_tool.h"

#include "zq/zq.h"

int net_tool_exit_status(zqerror error)
{
    switch (error) {
    case ZQ_ERROR_INVALID_ARGUMENT:
    case ZQ_ERROR_UNSUPPORTED:
        return EXIT_URL;
    case ZQ_ERROR_CANNOT_CONNECT:
    case ZQ_ERROR_CONNECTION_REFUSED:
    case ZQ_ERROR_CONNECTION_TIMED_OUT:
    case ZQ_ERROR_NETWORK_UNREACHABLE:
        return EXIT_CONNECT;
    case ZQ_ERROR_TIMED_OUT:
    case ZQ_ERROR_TIMER_EXPIRED:
        return EXIT_TIMEOUT;
    case ZQ_ERROR_NO_MEMORY:
    case ZQ_ERROR_GENERIC:
        return EXIT_FAILED;
    default:
        return EXIT_PROTOCOL;
    }
}

int net_tool_main(const struct net_tool *tool, int argc, char **argv)
{
    zq_signal_ignore_sigpipe();
    int result = EXIT_FAILED;
    zqgetopt *options = zq_getopt_create();
    if (options && tool->add_options(options, tool->settings) == 0)
        result = tool->read_arguments(options, tool->settings, argc, argv);
    if (options)
        zq_getopt_destroy(options);
    if (result < 0) {
        /* Failures are told in one line of the tool's own. */
        if (*tool->verbose)
            zq_log_stderr_set_level(NULL, 10);
        else
            zq_log_stderr_disable(NULL);
        result = tool->work(tool->settings);
    }
    zq_uninit();
    return result;
}
