/* zqserve is a small static file server: GET and HEAD over HTTP/1.0 and 1.1, one thread a
 * connection, persistent connections, directory listings, an access log. */
#include <dirent.h>
#include <errno.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "zq/zq.h"

enum {
    LINE_MAX_BYTES = 8192,
    HEADER_LINES_MAX = 100,
    FILE_PIECE = 65536,
    IDLE_SLICES = 25, /* of 200 ms each: how long a connection may wait for its next request */
    ANSWER_TIMEOUT = 30
};

struct server {
    char *root; /* real path of the served directory */
    zqlog *access_log;
    volatile sig_atomic_t stopping;
};

struct request {
    char line[LINE_MAX_BYTES + 1];
    char *method;
    char *target; /* as it came; `path` is its decoded path */
    char *path;
    int keep_alive;
    int is_head;
};

struct reply {
    zqhandle *handle;
    const struct request *request;
    int status;
    int64_t sent;
    int failed;
};

static struct server server;

static void on_stop(int signal_number, void *context)
{
    (void)signal_number;
    ((struct server *)context)->stopping = 1;
}

/* ---- reading a request ---- */

enum reading { READ_OK, READ_BAD, READ_CLOSED };

/* Reads one line without its line end. */
static enum reading read_line(zqhandle *handle, char *line, size_t size)
{
    size_t count = zq_handle_read_line(handle, line, size - 1);
    if (count == 0)
        return READ_CLOSED;
    if (line[count - 1] != '\n')
        return count == size - 1 ? READ_BAD : READ_CLOSED;
    count--;
    if (count > 0 && line[count - 1] == '\r')
        count--;
    line[count] = '\0';
    return strlen(line) == count ? READ_OK : READ_BAD;
}

/* Waits for the next request in slices, so that a stop is noticed. */
static enum reading read_first_line(zqhandle *handle, struct request *request)
{
    size_t count = 0;
    for (int slice = 0; slice < IDLE_SLICES && count == 0; slice++) {
        if (server.stopping)
            return READ_CLOSED;
        zq_handle_set_read_timeout(handle, 0, 200000);
        count = zq_handle_read(handle, request->line, 1);
        if (count == 0 && zq_handle_get_error(handle) != ZQ_ERROR_TIMED_OUT)
            return READ_CLOSED;
    }
    if (count == 0)
        return READ_CLOSED;
    zq_handle_set_read_timeout(handle, 10, 0);
    return read_line(handle, request->line + 1, LINE_MAX_BYTES);
}

static int hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    c = (char)(c | 0x20);
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

/* Decodes the path of a request target in place; -1 for what no file can be called. */
static int decode_path(char *path)
{
    char *out = path;
    for (const char *in = path; *in && *in != '?' && *in != '#'; in++) {
        char c = *in;
        if (c == '%') {
            int high = hex_digit(in[1]);
            int low = high < 0 ? -1 : hex_digit(in[2]);
            if (low < 0)
                return -1;
            c = (char)(high * 16 + low);
            in += 2;
        }
        if ((unsigned char)c < 0x20 || c == 0x7f)
            return -1;
        *out++ = c;
    }
    *out = '\0';
    return 0;
}

/* True for a path that climbs, however its dots were encoded. */
static int climbs(const char *path)
{
    for (const char *part = path; part; part = strchr(part, '/')) {
        part += strspn(part, "/");
        if (strncmp(part, "..", 2) == 0 && (part[2] == '/' || part[2] == '\0'))
            return 1;
    }
    return 0;
}

static enum reading parse_first_line(struct request *request)
{
    char *space = strchr(request->line, ' ');
    char *version = space ? strchr(space + 1, ' ') : NULL;
    if (!version || strncmp(version + 1, "HTTP/1.", 7) != 0)
        return READ_BAD;
    *space = '\0';
    *version = '\0';
    request->method = request->line;
    request->is_head = strcmp(request->method, "HEAD") == 0;
    request->keep_alive = strcmp(version + 1, "HTTP/1.0") != 0;
    request->target = space + 1;

    /* A proxy's client sends the whole URL. */
    char *path = request->target;
    if (strncasecmp(path, "http://", 7) == 0) {
        path = strchr(path + 7, '/');
        if (!path)
            return READ_BAD;
    }
    request->path = zq_strdup(path);
    if (!request->path || *path != '/' || decode_path(request->path) != 0)
        return READ_BAD;
    return READ_OK;
}

static enum reading read_headers(zqhandle *handle, struct request *request)
{
    char line[LINE_MAX_BYTES];
    for (int i = 0; i < HEADER_LINES_MAX; i++) {
        enum reading result = read_line(handle, line, sizeof(line));
        if (result != READ_OK || line[0] == '\0')
            return result;
        if (strncasecmp(line, "connection:", 11) == 0) {
            const char *value = line + 11 + strspn(line + 11, " \t");
            request->keep_alive = strcasecmp(value, "keep-alive") == 0 ||
                                  (request->keep_alive && strcasecmp(value, "close") != 0);
        }
        /* Nothing here takes a body; what follows one could not be told from the next request. */
        if ((strncasecmp(line, "content-length:", 15) == 0 && strtol(line + 15, NULL, 10) != 0) ||
            strncasecmp(line, "transfer-encoding:", 18) == 0)
            request->keep_alive = 0;
    }
    return READ_BAD;
}

static enum reading read_request(zqhandle *handle, struct request *request)
{
    enum reading result = read_first_line(handle, request);
    if (result == READ_OK)
        result = parse_first_line(request);
    if (result == READ_OK)
        result = read_headers(handle, request);
    return result;
}

/* ---- answering ---- */

static const char *reason(int status)
{
    switch (status) {
    case 200:
        return "OK";
    case 301:
        return "Moved Permanently";
    case 400:
        return "Bad Request";
    case 403:
        return "Forbidden";
    case 404:
        return "Not Found";
    case 405:
        return "Method Not Allowed";
    default:
        return "Internal Server Error";
    }
}

static void send_bytes(struct reply *reply, const void *data, size_t size)
{
    if (!reply->failed && size > 0) {
        size_t count = zq_handle_write(reply->handle, data, size);
        reply->sent += (int64_t)count;
        reply->failed = count != size;
    }
}

/* `headers` are further header lines, each with its line end. */
static void send_head(struct reply *reply, int status, const char *type, int64_t length,
                      const char *headers)
{
    char date[40];
    time_t now = zq_time(NULL);
    struct tm tm;
    strftime(date, sizeof(date), "%a, %d %b %Y %H:%M:%S GMT", gmtime_r(&now, &tm));
    char *head = zq_strdupf("HTTP/1.1 %d %s\r\n"
                            "Date: %s\r\n"
                            "Server: zqserve\r\n"
                            "Content-Type: %s\r\n"
                            "Content-Length: %lld\r\n"
                            "Accept-Ranges: none\r\n"
                            "Connection: %s\r\n"
                            "%s\r\n",
                            status, reason(status), date, type, (long long)length,
                            reply->request->keep_alive ? "keep-alive" : "close", headers);
    reply->status = status;
    if (head)
        send_bytes(reply, head, strlen(head));
    else
        reply->failed = 1;
    reply->sent = 0;
    zq_free(head);
}

static void send_text(struct reply *reply, int status, const char *headers)
{
    char text[64];
    zq_snprintf(text, sizeof(text), "%d %s\n", status, reason(status));
    send_head(reply, status, "text/plain; charset=utf-8", (int64_t)strlen(text), headers);
    if (!reply->request->is_head)
        send_bytes(reply, text, strlen(text));
}

static const char *content_type(const char *path)
{
    static const struct {
        const char *suffix;
        const char *type;
    } types[] = {
        {".html", "text/html; charset=utf-8"},
        {".htm", "text/html; charset=utf-8"},
        {".txt", "text/plain; charset=utf-8"},
        {".md", "text/plain; charset=utf-8"},
        {".css", "text/css; charset=utf-8"},
        {".js", "text/javascript; charset=utf-8"},
        {".json", "application/json"},
        {".xml", "application/xml"},
        {".svg", "image/svg+xml"},
        {".png", "image/png"},
        {".jpg", "image/jpeg"},
        {".jpeg", "image/jpeg"},
        {".gif", "image/gif"},
        {".webp", "image/webp"},
        {".ico", "image/x-icon"},
        {".pdf", "application/pdf"},
        {".wasm", "application/wasm"},
        {".gz", "application/gzip"},
        {".mp4", "video/mp4"},
        {".woff2", "font/woff2"},
    };
    for (size_t i = 0; i < sizeof(types) / sizeof(types[0]); i++) {
        if (zq_endswith(path, types[i].suffix))
            return types[i].type;
    }
    return "application/octet-stream";
}

static void send_file(struct reply *reply, const char *path, int64_t size)
{
    FILE *file = zq_file_open_binary(path);
    char *piece = file ? zq_malloc(FILE_PIECE) : NULL;
    if (!piece) {
        send_text(reply, errno == EACCES ? 403 : 500, "");
    } else {
        send_head(reply, 200, content_type(path), size, "");
        int64_t left = reply->request->is_head ? 0 : size;
        while (left > 0 && !reply->failed) {
            size_t want = left < FILE_PIECE ? (size_t)left : FILE_PIECE;
            size_t count = zq_file_read(file, piece, want);
            send_bytes(reply, piece, count);
            left -= (int64_t)count;
            if (count == 0)
                reply->failed = 1; /* the file shrank: only closing tells the client */
        }
    }
    zq_free(piece);
    if (file)
        zq_file_close(file);
}

static void print_escaped(FILE *out, const char *text)
{
    for (; *text; text++) {
        const char *entity = *text == '<'   ? "&lt;"
                             : *text == '>' ? "&gt;"
                             : *text == '&' ? "&amp;"
                             : *text == '"' ? "&quot;"
                                            : NULL;
        if (entity)
            fputs(entity, out);
        else
            fputc(*text, out);
    }
}

/* Prints a name as part of a URL path, where a space is not written as a plus. */
static void print_url_name(FILE *out, const char *name)
{
    char *encoded = zq_urlencode(name);
    for (const char *c = encoded ? encoded : ""; *c; c++)
        fputs(*c == '+' ? "%20" : (char[]){*c, '\0'}, out);
    zq_free(encoded);
}

static int visible(const struct dirent *entry)
{
    return entry->d_name[0] != '.';
}

static void send_listing(struct reply *reply, const char *path)
{
    struct dirent **entries = NULL;
    int count = scandir(path, &entries, visible, alphasort);
    char *page = NULL;
    size_t size = 0;
    FILE *out = count >= 0 ? open_memstream(&page, &size) : NULL;
    if (out) {
        fputs("<!doctype html>\n<meta charset=\"utf-8\">\n<title>", out);
        print_escaped(out, reply->request->path);
        fputs("</title>\n<h1>", out);
        print_escaped(out, reply->request->path);
        fputs("</h1>\n<ul>\n", out);
        for (int i = 0; i < count; i++) {
            fputs("<li><a href=\"./", out);
            print_url_name(out, entries[i]->d_name);
            fputs(entries[i]->d_type == DT_DIR ? "/\">" : "\">", out);
            print_escaped(out, entries[i]->d_name);
            fputs("</a></li>\n", out);
        }
        fputs("</ul>\n", out);
    }
    for (int i = 0; i < count; i++)
        free(entries[i]);
    free(entries);
    if (!out || fclose(out) != 0) {
        send_text(reply, 500, "");
    } else {
        send_head(reply, 200, "text/html; charset=utf-8", (int64_t)size, "");
        if (!reply->request->is_head)
            send_bytes(reply, page, size);
    }
    free(page);
}

static void send_slash_redirect(struct reply *reply)
{
    const char *target = reply->request->target;
    char *header = zq_strdupf("Location: %.*s/\r\n", (int)strcspn(target, "?#"), target);
    if (header)
        send_text(reply, 301, header);
    else
        send_text(reply, 500, "");
    zq_free(header);
}

static void send_directory(struct reply *reply, const char *path)
{
    static const char *const indexes[] = {"index.html", "index.json"};
    if (!zq_endswith(reply->request->path, "/")) {
        send_slash_redirect(reply);
        return;
    }
    for (size_t i = 0; i < sizeof(indexes) / sizeof(indexes[0]); i++) {
        char *index = zq_strdupf("%s/%s", path, indexes[i]);
        struct stat status;
        int found = index && stat(index, &status) == 0 && S_ISREG(status.st_mode);
        if (found)
            send_file(reply, index, status.st_size);
        zq_free(index);
        if (found)
            return;
    }
    send_listing(reply, path);
}

static int is_below_root(const char *path)
{
    size_t len = strlen(server.root);
    return strncmp(path, server.root, len) == 0 &&
           (path[len] == '/' || path[len] == '\0' || strcmp(server.root, "/") == 0);
}

static void answer_path(struct reply *reply)
{
    char *joined = zq_strdupf("%s%s", server.root, reply->request->path);
    /* Resolved, so that a link cannot lead out of the served directory either. */
    char *path = joined ? realpath(joined, NULL) : NULL;
    struct stat status;
    if (!joined)
        send_text(reply, 500, "");
    else if (!path || !is_below_root(path) || stat(path, &status) != 0)
        send_text(reply, 404, "");
    else if (S_ISDIR(status.st_mode))
        send_directory(reply, path);
    else if (S_ISREG(status.st_mode) && !zq_endswith(reply->request->path, "/"))
        send_file(reply, path, status.st_size);
    else
        send_text(reply, 404, "");
    free(path);
    zq_free(joined);
}

static void answer(struct reply *reply, enum reading reading)
{
    const struct request *request = reply->request;
    if (reading == READ_BAD || climbs(request->path))
        send_text(reply, 400, "");
    else if (!request->is_head && strcmp(request->method, "GET") != 0)
        send_text(reply, 405, "Allow: GET, HEAD\r\n");
    else
        answer_path(reply);
}

/* One request and its answer; 0 to go on with this connection. */
static int serve_request(zqhandle *handle)
{
    struct request request = {{0}, NULL, NULL, NULL, 0, 0};
    enum reading reading = read_request(handle, &request);
    int done = 1;
    if (reading != READ_CLOSED) {
        struct reply reply = {handle, &request, 0, 0, 0};
        if (reading == READ_BAD || server.stopping)
            request.keep_alive = 0;
        answer(&reply, reading);
        zq_log(server.access_log, 9, "%s %s %d %lld", request.method ? request.method : "-",
               request.target ? request.target : "-", reply.status, (long long)reply.sent);
        done = reply.failed || !request.keep_alive;
    }
    zq_free(request.path);
    return done;
}

static void serve_connection(zqtcpserver *tcpserver, zqhandle *handle, void *context)
{
    (void)tcpserver;
    (void)context;
    zq_handle_set_write_timeout(handle, ANSWER_TIMEOUT, 0);
    while (serve_request(handle) == 0) {
    }
}

/* ---- the server ---- */

static int serve(const char *address, int port)
{
    zqtcpserver *tcpserver = zq_tcpserver_create();
    if (!tcpserver)
        return 1;
    int result = 1;
    uint32_t actual_port = 0;
    if (address && zq_tcpserver_set_address(tcpserver, address) != ZQ_ERROR_NONE) {
        zq_tcpserver_destroy(tcpserver);
        return 1;
    }
    zq_tcpserver_set_port(tcpserver, (uint32_t)port);
    zq_tcpserver_set_callback(tcpserver, serve_connection, NULL);
    zqerror error = zq_tcpserver_start(tcpserver);
    if (error == ZQ_ERROR_NONE) {
        zq_tcpserver_get_port(tcpserver, &actual_port);
        printf("serving %s on http://%s:%u/\n", server.root, address ? address : "0.0.0.0",
               (unsigned int)actual_port);
        fflush(stdout);
        while (!server.stopping)
            zq_sleep(0, 200000);
        zq_tcpserver_stop(tcpserver);
        zq_tcpserver_wait(tcpserver);
        result = 0;
    } else {
        fprintf(stderr, "zqserve: unable to listen on %s port %d: %s\n",
                address ? address : "0.0.0.0", port, zq_error_string(error));
    }
    zq_tcpserver_destroy(tcpserver);
    return result;
}

struct settings {
    const char *address;
    const char *log_file;
    int port;
    int quiet;
};

/* Returns the directory to serve, or null with *status set. */
static const char *read_arguments(struct settings *settings, int argc, char **argv, int *status)
{
    zqgetopt *options = zq_getopt_create();
    const char *directory = NULL;
    *status = 2;
    if (options &&
        !(zq_getopt_set_synopsis(options, "usage: zqserve [OPTIONS] DIR") ||
          zq_getopt_const_string(options, "address", 'a', &settings->address, "ADDRESS",
                                 "The IPv4 address to listen on (127.0.0.1).") ||
          zq_getopt_int(options, "port", 'p', &settings->port, "PORT",
                        "The port to listen on; 0 lets the system pick one (8080).") ||
          zq_getopt_const_string(options, "log", 'l', &settings->log_file, "FILE",
                                 "Write the access log to FILE instead of standard output.") ||
          zq_getopt_flag_set(options, "quiet", 'q', &settings->quiet, "No access log.") ||
          zq_getopt_help(options, "help", 'h'))) {
        int result = zq_getopt_parse(options, argc, argv);
        int rest = zq_getopt_optind(options);
        /* Options may also follow the directory. */
        if (result == 0 && rest < argc) {
            directory = argv[rest];
            result = zq_getopt_parse(options, argc - rest, argv + rest);
            if (result == 0 && zq_getopt_optind(options) < argc - rest)
                result = -1;
        }
        if (result != 0)
            directory = NULL;
        if (result > 0)
            *status = 0;
        else if (!directory)
            zq_getopt_usage(options, stderr);
    }
    if (options)
        zq_getopt_destroy(options);
    return directory;
}

static int open_access_log(const struct settings *settings)
{
    server.access_log = zq_log_create();
    if (!server.access_log)
        return -1;
    zq_log_stderr_disable(server.access_log);
    if (settings->quiet)
        return 0;
    if (!settings->log_file) {
        zq_log_stdout_enable(server.access_log);
        zq_log_stdout_set_level(server.access_log, 9);
        return 0;
    }
    zq_log_logfile_enable(server.access_log);
    zq_log_logfile_set_level(server.access_log, 9);
    return zq_log_logfile_set_name(server.access_log, settings->log_file);
}

int main(int argc, char **argv)
{
    struct settings settings = {"127.0.0.1", NULL, 8080, 0};
    int status;
    const char *directory = read_arguments(&settings, argc, argv, &status);
    if (directory && (settings.port < 0 || settings.port > 65535)) {
        fprintf(stderr, "zqserve: a port is a number from 0 to 65535\n");
        status = 2;
    } else if (directory && !(server.root = realpath(directory, NULL))) {
        fprintf(stderr, "zqserve: unable to serve '%s': %s\n", directory, strerror(errno));
        status = 1;
    } else if (directory) {
        zq_signal_ignore_sigpipe();
        zq_signal_register_sigint(on_stop, &server);
        zq_signal_register_sigterm(on_stop, &server);
        status = 1;
        if (open_access_log(&settings) == 0)
            status = serve(settings.address, settings.port);
    }
    if (server.access_log)
        zq_log_destroy(server.access_log);
    free(server.root);
    zq_uninit();
    return status;
}
