/* zqget downloads a document over HTTP/1.0, shows its progress on a terminal, saves or prints it,
 * and answers questions about JSON documents. */
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "examples/support/json_path.h"
#include "examples/support/net_tool.h"
#include "examples/support/route.h"
#include "zq/zq.h"

static const char footer[] =
    "\n"
    "Exit status: 0 done, 1 other failure, 2 usage, 3 unusable URL, 4 no connection,\n"
    "5 timeout, 6 protocol error, 7 the server answered with an error status,\n"
    "8 output failed, 9 not JSON or no such value, 130 interrupted.\n";

struct settings {
    const char *url;
    const char *output;
    const char *proxy;
    char **path; /* what follows the URL: the path of a JSON value */
    int path_count;
    int json;
    int head;
    int timeout;
    int idle;
    int quiet;
    int verbose;
};

struct download {
    zqhttp *http;
    FILE *file;
    zqtimer *timer;
    int timeout;
    int late;
    int show_progress;
    int shown;
    int write_failed;
};

static volatile sig_atomic_t interrupted;

static void on_interrupt(int signal_number, void *context)
{
    (void)signal_number;
    (void)context;
    interrupted = 1;
}

/* ---- the command line ---- */

static int add_options(zqgetopt *options, void *context)
{
    struct settings *settings = context;
    return zq_getopt_set_synopsis(options, "usage: zqget [OPTIONS] URL [PATH...]") ||
           zq_getopt_set_footer(options, footer) ||
           zq_getopt_const_string(options, "output", 'o', &settings->output, "FILE",
                                  "Save to FILE instead of printing. FILE appears only when the "
                                  "download is complete.") ||
           zq_getopt_flag_set(options, "json", 'j', &settings->json,
                              "Print the value at PATH of a JSON document: member names, and # "
                              "followed by an index for array elements.") ||
           zq_getopt_flag_set(options, "head", 'I', &settings->head,
                              "Print status and headers only.") ||
           zq_getopt_int(options, "timeout", 't', &settings->timeout, "SECONDS",
                         "Give up when the transfer takes longer.") ||
           zq_getopt_int(options, "idle", 'i', &settings->idle, "SECONDS",
                         "Give up when no answer begins, or no more of it comes, for so long "
                         "(30).") ||
           zq_getopt_const_string(options, "proxy", 'p', &settings->proxy, "HOST:PORT",
                                  "Ask this HTTP proxy.") ||
           zq_getopt_flag_set(options, "quiet", 'q', &settings->quiet, "No progress bar.") ||
           zq_getopt_flag_set(options, "verbose", 'v', &settings->verbose,
                              "Show the library's log lines.") ||
           zq_getopt_help(options, "help", 'h');
}

/* Options may stand before and after the URL; after --json URL the rest is the path. Returns -1 to
 * go on, else an exit status. */
static int read_arguments(zqgetopt *options, void *context, int argc, char **argv)
{
    struct settings *settings = context;
    while (argc > 1) {
        int result = zq_getopt_parse(options, argc, argv);
        if (result != 0)
            return result > 0 ? EXIT_DONE : EXIT_USAGE;
        int used = zq_getopt_optind(options);
        argc -= used;
        argv += used;
        if (argc > 0 && settings->url && settings->json) {
            settings->path = argv;
            settings->path_count = argc;
            break;
        }
        if (argc > 0 && settings->url) {
            fprintf(stderr, "zqget: one URL at a time, please\n");
            return EXIT_USAGE;
        }
        if (argc > 0)
            settings->url = argv[0]; /* which stands where the parser expects the program's name */
    }
    if (!settings->url) {
        zq_getopt_usage(options, stderr);
        return EXIT_USAGE;
    }
    return -1;
}

/* ---- progress ---- */

static const char *scaled(double bytes, char *text, size_t size)
{
    static const char *const units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    size_t unit = 0;
    while (bytes >= 1024 && unit + 1 < sizeof(units) / sizeof(units[0])) {
        bytes /= 1024;
        unit++;
    }
    zq_snprintf(text, size, unit ? "%.1f %s" : "%.0f %s", bytes, units[unit]);
    return text;
}

/* The library's own limit does not end a body that keeps coming. */
static int is_late(const struct download *download)
{
    int32_t seconds;
    zq_timer_split(download->timer);
    zq_timer_gettotal(download->timer, 0, &seconds, NULL, NULL);
    return download->timeout >= 0 && seconds >= download->timeout;
}

static zqerror show_progress(int64_t current, int64_t total, void *context)
{
    struct download *download = context;
    download->late = is_late(download);
    if (interrupted || download->late) {
        zq_http_abort(download->http);
        return ZQ_ERROR_NONE;
    }
    if (!download->show_progress)
        return ZQ_ERROR_NONE;

    char done[32];
    char speed[32];
    double rate;
    zq_timer_gettotal(download->timer, (uint64_t)current, NULL, NULL, &rate);
    scaled((double)current, done, sizeof(done));
    scaled(rate, speed, sizeof(speed));
    if (total > 0) {
        char bar[31];
        size_t filled = (size_t)((double)current / (double)total * 30);
        memset(bar, ' ', 30);
        memset(bar, '=', filled < 30 ? filled : 30);
        bar[30] = '\0';
        double left = rate > 0 ? (double)(total - current) / rate : 0;
        fprintf(stderr, "\r[%s] %3d%%  %s  %s/s  ETA %d:%02d\033[K", bar,
                (int)((double)current / (double)total * 100), done, speed, (int)left / 60,
                (int)left % 60);
    } else {
        fprintf(stderr, "\r%s  %s/s\033[K", done, speed);
    }
    fflush(stderr);
    download->shown = 1;
    return ZQ_ERROR_NONE;
}

/* ---- the transfer ---- */

/* The bodies of redirects and error pages are not what was asked for. */
static zqerror save_piece(const void *data, size_t size, void *context)
{
    struct download *download = context;
    if (interrupted)
        zq_http_abort(download->http);
    int status = zq_http_get_status_code(download->http);
    if (status < 200 || status > 299)
        return ZQ_ERROR_NONE;
    if (zq_file_write(download->file, data, size) != size) {
        download->write_failed = 1;
        return ZQ_ERROR_WRITE;
    }
    return ZQ_ERROR_NONE;
}

/* Asked before each attempt, so also for the host that a redirect leads to. */
static zqerror check_route(zqhttp *http, const char *scheme, const char *host, uint32_t port,
                           void *context)
{
    (void)scheme;
    (void)context;
    const char *proxy;
    uint32_t proxy_port;
    zq_http_get_proxy(http, &proxy, &proxy_port);
    if (proxy)
        return example_check_route(proxy, proxy_port);
    return example_check_route(host, port);
}

static int set_proxy(zqhttp *http, const char *proxy)
{
    const char *colon = strrchr(proxy, ':');
    int64_t port = 0;
    if (!colon || zq_strtoi64(colon + 1, &port) != ZQ_ERROR_NONE || port < 1 || port > 65535) {
        fprintf(stderr, "zqget: --proxy takes HOST:PORT, not '%s'\n", proxy);
        return EXIT_USAGE;
    }
    char *host = zq_strndup(proxy, (size_t)(colon - proxy));
    zqerror error = host ? zq_http_set_proxy(http, host, (uint32_t)port) : ZQ_ERROR_NO_MEMORY;
    zq_free(host);
    return error ? EXIT_FAILED : EXIT_DONE;
}

static int perform(struct download *download, const struct settings *settings)
{
    zqhttp *http = download->http;
    zqerror error = zq_http_set_url(http, settings->url);
    if (error == ZQ_ERROR_NONE)
        error = zq_http_perform(http);
    if (error == ZQ_ERROR_CANCELED && download->late)
        error = ZQ_ERROR_TIMER_EXPIRED;
    if (download->shown)
        fprintf(stderr, "\r\033[K");
    if (interrupted) {
        fprintf(stderr, "zqget: interrupted\n");
        return EXIT_INTERRUPTED;
    }
    if (download->write_failed) {
        fprintf(stderr, "zqget: the output cannot be written: %s\n", zq_error_string(error));
        return EXIT_OUTPUT;
    }
    if (error != ZQ_ERROR_NONE) {
        fprintf(stderr, "zqget: %s: %s\n", settings->url, zq_error_string(error));
        return net_tool_exit_status(error);
    }
    int status = zq_http_get_status_code(http);
    if (status < 200 || status > 299) {
        fprintf(stderr, "zqget: %s: the server answered with status %d\n", settings->url, status);
        return EXIT_STATUS;
    }
    return EXIT_DONE;
}

/* ---- what to do with the document ---- */

static int print_head(struct download *download, const struct settings *settings)
{
    static const char *const names[] = {"date",         "server",         "location",
                                        "content-type", "content-length", "last-modified",
                                        "etag",         "cache-control"};
    if (zq_http_set_method(download->http, "HEAD") != ZQ_ERROR_NONE)
        return EXIT_FAILED;
    int result = perform(download, settings);
    if (result != EXIT_DONE && result != EXIT_STATUS)
        return result;
    printf("status: %d\n", (int)zq_http_get_status_code(download->http));
    for (size_t i = 0; i < sizeof(names) / sizeof(names[0]); i++) {
        const char *value = zq_http_get_response_header(download->http, names[i]);
        if (value)
            printf("%s: %s\n", names[i], value);
    }
    return result;
}

static int print_json_value(struct download *download, const struct settings *settings)
{
    int result = perform(download, settings);
    if (result != EXIT_DONE)
        return result;
    char *body = NULL;
    zqjson *json = NULL;
    result = EXIT_JSON;
    if (zq_http_get_response_body(download->http, &body) == ZQ_ERROR_NONE)
        json = zq_json_create();
    if (!json || zq_json_parse(json, body) != 0)
        fprintf(stderr, "zqget: %s: not a JSON document\n", settings->url);
    else if (example_json_print(json, settings->path_count, settings->path) == 0)
        result = EXIT_DONE;
    if (json)
        zq_json_destroy(json);
    zq_free(body);
    return result;
}

static int save_to_stream(struct download *download, const struct settings *settings, FILE *file)
{
    download->file = file;
    zq_http_set_response_body_callback(download->http, save_piece, download);
    return perform(download, settings);
}

/* Downloads beside the final name and moves the file there only when it is complete. */
static int save_to_file(struct download *download, const struct settings *settings)
{
    char *part = zq_strdupf("%s.part.%ld", settings->output, (long)getpid());
    FILE *file = part ? zq_file_create_binary(part) : NULL;
    if (!file) {
        fprintf(stderr, "zqget: unable to create '%s': %s\n", settings->output, strerror(errno));
        zq_free(part);
        return EXIT_OUTPUT;
    }
    int result = save_to_stream(download, settings, file);
    int closed = zq_file_close(file);
    if (result == EXIT_DONE && (closed != 0 || zq_rename(part, settings->output) != 0)) {
        fprintf(stderr, "zqget: unable to save '%s': %s\n", settings->output, strerror(errno));
        result = EXIT_OUTPUT;
    }
    if (result != EXIT_DONE)
        zq_deletefile(part);
    zq_free(part);
    return result;
}

static int save_to_stdout(struct download *download, const struct settings *settings)
{
    int result = save_to_stream(download, settings, stdout);
    if (fflush(stdout) != 0 && result == EXIT_DONE) {
        fprintf(stderr, "zqget: the output cannot be written: %s\n", strerror(errno));
        result = EXIT_OUTPUT;
    }
    return result;
}

/* Each read of a body may take as long as the whole transfer, and its silence ends in no other way:
 * the idle limit has to be that of the transfer too. */
static void set_limits(zqhttp *http, int timeout, int idle)
{
    int limit = timeout < 0 || (idle >= 0 && idle < timeout) ? idle : timeout;
    zq_http_set_timeout(http, limit, 0);
    zq_http_set_idle_timeout(http, idle, 0);
}

static int get(const void *context)
{
    const struct settings *settings = context;
    struct download download = {0};
    download.http = zq_http_lite_create();
    download.timer = zq_timer_create();
    int result = EXIT_FAILED;
    if (!download.http || !download.timer)
        fprintf(stderr, "zqget: %s\n", zq_error_string(ZQ_ERROR_NO_MEMORY));
    else
        result = settings->proxy ? set_proxy(download.http, settings->proxy) : EXIT_DONE;

    if (result == EXIT_DONE) {
        int to_terminal = !settings->output && !settings->json && isatty(STDOUT_FILENO);
        download.show_progress = !settings->quiet && !to_terminal && isatty(STDERR_FILENO);
        download.timeout = settings->timeout;
        set_limits(download.http, settings->timeout, settings->idle);
        zq_http_set_proxy_callback(download.http, check_route, NULL);
        zq_http_set_download_progress_callback(download.http, show_progress, &download);
        if (settings->head)
            result = print_head(&download, settings);
        else if (settings->json)
            result = print_json_value(&download, settings);
        else if (settings->output)
            result = save_to_file(&download, settings);
        else
            result = save_to_stdout(&download, settings);
    }
    if (download.timer)
        zq_timer_destroy(download.timer);
    if (download.http)
        zq_http_destroy(download.http);
    return result;
}

int main(int argc, char **argv)
{
    struct settings settings = {0};
    struct net_tool tool = {add_options, read_arguments, get, &settings, &settings.verbose};
    settings.timeout = -1;
    settings.idle = 30;

    zq_signal_register_sigint(on_interrupt, NULL);
    zq_signal_register_sigterm(on_interrupt, NULL);
    return net_tool_main(&tool, argc, argv);
}
