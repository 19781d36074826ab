/* zqicap asks an ICAP server about a file: what the service offers (OPTIONS), or what becomes of
 * the file as the body of an HTTP request (REQMOD) or response (RESPMOD). */
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "examples/support/net_tool.h"
#include "examples/support/route.h"
#include "zq/zq.h"

static const char footer[] =
    "\n"
    "The ICAP status, its headers and the encapsulated HTTP headers go to standard\n"
    "error, the body to standard output or FILE.\n"
    "Exit status: 0 done, 1 other failure, 2 usage, 3 unusable URL, 4 no connection,\n"
    "5 timeout, 6 protocol error, 7 the server answered with an error status,\n"
    "8 output failed, 9 input cannot be read.\n";

struct settings {
    const char *url;
    const char *reqmod;
    const char *respmod;
    const char *output;
    int options;
    int allow_204;
    int timeout;
    int verbose;
};

static int add_options(zqgetopt *options, void *context)
{
    struct settings *settings = context;
    return zq_getopt_set_synopsis(options, "usage: zqicap [OPTIONS] icap://HOST[:PORT]/SERVICE") ||
           zq_getopt_set_footer(options, footer) ||
           zq_getopt_flag_set(options, "options", 'O', &settings->options,
                              "Ask what the service offers (the default).") ||
           zq_getopt_const_string(options, "reqmod", 'q', &settings->reqmod, "FILE",
                                  "Send FILE as the body of an HTTP request.") ||
           zq_getopt_const_string(options, "respmod", 'r', &settings->respmod, "FILE",
                                  "Send FILE as the body of an HTTP response.") ||
           zq_getopt_flag_set(options, "allow-204", 'a', &settings->allow_204,
                              "Let the server answer 204 when it changes nothing.") ||
           zq_getopt_int(options, "timeout", 't', &settings->timeout, "SECONDS",
                         "Give up when the exchange takes longer.") ||
           zq_getopt_const_string(options, "output", 'o', &settings->output, "FILE",
                                  "Save the body to FILE.") ||
           zq_getopt_flag_set(options, "verbose", 'v', &settings->verbose,
                              "Show the library's log lines.") ||
           zq_getopt_help(options, "help", 'h');
}

/* Options may stand before and after the URL. Returns -1 to go on, else an exit status. */
static int read_arguments(zqgetopt *options, void *context, int argc, char **argv)
{
    struct settings *settings = context;
    while (argc > 1) {
        int result = zq_getopt_parse(options, argc, argv);
        if (result != 0)
            return result > 0 ? EXIT_DONE : EXIT_USAGE;
        argv += zq_getopt_optind(options);
        argc -= zq_getopt_optind(options);
        if (argc > 0 && settings->url) {
            fprintf(stderr, "zqicap: one URL at a time, please\n");
            return EXIT_USAGE;
        }
        if (argc > 0)
            settings->url = argv[0];
    }
    if (!settings->url || settings->options + !!settings->reqmod + !!settings->respmod > 1) {
        zq_getopt_usage(options, stderr);
        return EXIT_USAGE;
    }
    return -1;
}

/* ---- the request ---- */

static zqerror set_request(zqicap *icap, const void *body, size_t size)
{
    char *headers = zq_strdupf("POST http://localhost/ HTTP/1.1\r\nHost: localhost\r\n"
                               "Content-Length: %lu\r\n\r\n",
                               (unsigned long)size);
    zqerror error = ZQ_ERROR_NO_MEMORY;
    if (headers)
        error = zq_icap_set_request_headers(icap, headers, strlen(headers));
    if (error == ZQ_ERROR_NONE && size > 0)
        error = zq_icap_set_request_body(icap, body, size);
    zq_free(headers);
    zq_icap_set_method_reqmod(icap);
    return error;
}

static zqerror set_response(zqicap *icap, const void *body, size_t size)
{
    char *headers = zq_strdupf("HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\n"
                               "Content-Length: %lu\r\n\r\n",
                               (unsigned long)size);
    zqerror error = ZQ_ERROR_NO_MEMORY;
    if (headers)
        error = zq_icap_set_response_headers(icap, headers, strlen(headers));
    if (error == ZQ_ERROR_NONE && size > 0)
        error = zq_icap_set_response_body(icap, body, size);
    zq_free(headers);
    zq_icap_set_method_respmod(icap);
    return error;
}

static int prepare(zqicap *icap, const struct settings *settings)
{
    zqerror error = zq_icap_set_url(icap, settings->url);
    zq_icap_set_timeout(icap, settings->timeout, 0);
    if (settings->allow_204)
        zq_icap_set_allow_204(icap);

    const char *name = settings->reqmod ? settings->reqmod : settings->respmod;
    if (!name) {
        zq_icap_set_method_options(icap);
        return error ? EXIT_FAILED : EXIT_DONE;
    }
    char *data = NULL;
    size_t size = 0;
    if (zq_file_data_load(name, &data, &size) != 0) {
        fprintf(stderr, "zqicap: unable to read '%s': %s\n", name, strerror(errno));
        return EXIT_INPUT;
    }
    if (error == ZQ_ERROR_NONE)
        error = settings->reqmod ? set_request(icap, data, size) : set_response(icap, data, size);
    zq_free(data);
    if (error != ZQ_ERROR_NONE)
        fprintf(stderr, "zqicap: %s\n", zq_error_string(error));
    return error ? EXIT_FAILED : EXIT_DONE;
}

/* ---- the reply ---- */

static void print_headers(zqicap *icap, zqerror (*get)(zqicap *, char **))
{
    char *headers;
    if (get(icap, &headers) == ZQ_ERROR_NONE)
        fputs(headers, stderr);
    zq_free(headers);
}

static int save_body(zqicap *icap, const char *output)
{
    void *body;
    size_t size;
    if (zq_icap_get_response_body_and_size(icap, &body, &size) != ZQ_ERROR_NONE)
        return EXIT_DONE; /* there is none */
    int failed = output ? zq_file_data_save(output, body, size) != 0
                        : fwrite(body, 1, size, stdout) != size || fflush(stdout) != 0;
    zq_free(body);
    if (failed) {
        fprintf(stderr, "zqicap: the output cannot be written: %s\n", strerror(errno));
        return EXIT_OUTPUT;
    }
    return EXIT_DONE;
}

static int perform(zqicap *icap, const struct settings *settings)
{
    zqerror error = zq_icap_perform(icap);
    int status = zq_icap_get_status_code(icap);
    if (status != 0) {
        fprintf(stderr, "ICAP status %d\n", status);
        print_headers(icap, zq_icap_get_response_icap_headers);
        print_headers(icap, zq_icap_get_response_headers);
    }
    if (status >= 300) {
        fprintf(stderr, "zqicap: %s: the server answered with status %d\n", settings->url, status);
        return EXIT_STATUS;
    }
    if (error != ZQ_ERROR_NONE) {
        fprintf(stderr, "zqicap: %s: %s\n", settings->url, zq_error_string(error));
        return net_tool_exit_status(error);
    }
    return save_body(icap, settings->output);
}

/* What is unusable is told before anything is sent; a scheme without a port has no service. */
static int check_url(const char *url)
{
    uint32_t port = 0;
    char *host = NULL;
    zqerror error = zq_http_parse_url(url, NULL, &host, &port, NULL);
    if (error == ZQ_ERROR_NONE && port == 0)
        error = ZQ_ERROR_INVALID_ARGUMENT;
    if (error == ZQ_ERROR_NONE)
        error = example_check_route(host, port);
    zq_free(host);
    if (error == ZQ_ERROR_NONE)
        return EXIT_DONE;
    fprintf(stderr, "zqicap: %s: %s\n", url, zq_error_string(error));
    return net_tool_exit_status(error);
}

static int ask(const void *context)
{
    const struct settings *settings = context;
    int result = check_url(settings->url);
    zqicap *icap = result == EXIT_DONE ? zq_icap_create() : NULL;
    if (icap) {
        result = prepare(icap, settings);
        if (result == EXIT_DONE)
            result = perform(icap, settings);
        zq_icap_destroy(icap);
    } else if (result == EXIT_DONE) {
        fprintf(stderr, "zqicap: %s\n", zq_error_string(ZQ_ERROR_NO_MEMORY));
        result = EXIT_FAILED;
    }
    return result;
}

int main(int argc, char **argv)
{
    struct settings settings = {0};
    struct net_tool tool = {add_options, read_arguments, ask, &settings, &settings.verbose};
    settings.timeout = -1;
    return net_tool_main(&tool, argc, argv);
}
