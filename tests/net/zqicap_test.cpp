#include "zq/net/zqicap.h"

#include <gtest/gtest.h>
#include <optional>
#include <vector>

#include "tests/support/expect.h"
#include "tests/support/log_capture.h"
#include "tests/support/scripted_server.h"
#include "zq/util/zqsignal.h"

using Icap = Owned<zqicap, zq_icap_destroy>;
using Lines = std::vector<LogLine>;

enum Method { NONE, REQMOD, RESPMOD, OPTIONS };

static const std::string reqhdr = "POST /p HTTP/1.1\r\nHost: h\r\n\r\n";
static const std::string reshdr = "HTTP/1.1 200 OK\r\nServer: s\r\n\r\n";
static const std::string chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: X, Chunked\r\n\r\n";
static const std::string status_204 = "ICAP/1.0 204 No Content\r\nISTag: \"a\"\r\n\r\n";

// What a client is told to send.
struct Parts {
    Method method = NONE;
    std::string reqhdr, reshdr, reqbody, resbody;
    std::vector<std::string> pieces; // from the body callback
    bool allow204 = false;
};

static size_t next_piece(void *buffer, size_t capacity, void *context)
{
    auto *pieces = static_cast<std::vector<std::string> *>(context);
    EXPECT_EQ(capacity, 4096u);
    if (pieces->empty())
        return 0;
    std::string piece = pieces->front();
    pieces->erase(pieces->begin());
    return piece.copy(static_cast<char *>(buffer), capacity);
}

static void prepare(zqicap *icap, Parts &parts)
{
    if (parts.method == REQMOD)
        zq_icap_set_method_reqmod(icap);
    else if (parts.method == RESPMOD)
        zq_icap_set_method_respmod(icap);
    else if (parts.method == OPTIONS)
        zq_icap_set_method_options(icap);
    if (!parts.reqhdr.empty())
        zq_icap_set_request_headers(icap, parts.reqhdr.data(), parts.reqhdr.size());
    if (!parts.reshdr.empty())
        zq_icap_set_response_headers(icap, parts.reshdr.data(), parts.reshdr.size());
    if (!parts.reqbody.empty())
        zq_icap_set_request_body(icap, parts.reqbody.data(), parts.reqbody.size());
    if (!parts.resbody.empty())
        zq_icap_set_response_body(icap, parts.resbody.data(), parts.resbody.size());
    if (!parts.pieces.empty())
        zq_icap_set_request_body_callback(icap, next_piece, &parts.pieces);
    if (parts.allow204)
        zq_icap_set_allow_204(icap);
}

// One exchange with a scripted server, kept for inspection.
struct Exchange {
    Icap icap;
    zqerror error = ZQ_ERROR_COUNT;
    std::string url, request;
    Lines lines;

    Exchange(Parts parts, const std::string &reply, size_t piece = 0,
             ScriptedServer::Ending ending = ScriptedServer::CLOSE)
    {
        zq_signal_ignore_sigpipe();
        LogCapture log(8);
        ScriptedServer server(reply, piece, ending);
        url = "icap://127.0.0.1:" + std::to_string(server.port()) + "/s?x";
        icap.reset(zq_icap_create());
        if (!icap)
            return;
        zq_icap_set_url(icap.get(), url.c_str());
        zq_icap_set_timeout(icap.get(), ending == ScriptedServer::STALL ? 0 : 10, 100000);
        prepare(icap.get(), parts);
        error = zq_icap_perform(icap.get());
        request = server.request();
        lines = log.take();
    }

    std::optional<std::string> body() const
    {
        void *data = nullptr;
        size_t size = 1;
        if (zq_icap_get_response_body_and_size(icap.get(), &data, &size) != ZQ_ERROR_NONE) {
            EXPECT_TRUE(data == nullptr && size == 0);
            return std::nullopt;
        }
        ZqString owner(static_cast<char *>(data));
        return std::string(static_cast<char *>(data), size);
    }
    std::string text(zqerror (*get)(zqicap *, char **)) const
    {
        char *headers = nullptr;
        get(icap.get(), &headers);
        ZqString owner(headers);
        return headers ? headers : "(none)";
    }
};

TEST(zqicap, requests_go_out_byte_for_byte)
{
    const std::string request_size = std::to_string(reqhdr.size());
    const std::string chunked_request = "POST / HTTP/1.1\r\nTransfer-encoding: chunked\r\n\r\n";
    const struct {
        Parts parts;
        std::string method, allow, encapsulated, rest;
    } rows[] = {
        {{OPTIONS, "", "", "", "", {}}, "OPTIONS", "", "null-body=0", ""},
        {{REQMOD, reqhdr, "", "", "", {}},
         "REQMOD",
         "",
         "req-hdr=0, null-body=" + request_size,
         reqhdr},
        {{REQMOD, reqhdr, "", "0123456789", "", {}, true},
         "REQMOD",
         "Allow: 204\r\n",
         "req-hdr=0, req-body=" + request_size,
         reqhdr + "a\r\n0123456789\r\n0\r\n\r\n"},
        {{RESPMOD, reqhdr, reshdr, "", "body", {}},
         "RESPMOD",
         "",
         "req-hdr=0, res-hdr=" + request_size +
             ", res-body=" + std::to_string(reqhdr.size() + reshdr.size()),
         reqhdr + reshdr + "4\r\nbody\r\n0\r\n\r\n"},
        {{RESPMOD, "", chunked, "", "2\r\nab\r\n0\r\n\r\n", {}},
         "RESPMOD",
         "",
         "res-hdr=0, res-body=" + std::to_string(chunked.size()),
         chunked + "2\r\nab\r\n0\r\n\r\n"},
        // The pieces of a callback follow each other without a line end and replace a stored body.
        {{REQMOD, reqhdr, "", "stored", "", {"abc", std::string(4096, 'x')}},
         "REQMOD",
         "",
         "req-hdr=0, req-body=" + request_size,
         reqhdr + "3\r\nabc1000\r\n" + std::string(4096, 'x') + "\r\n0\r\n\r\n"},
        {{REQMOD, chunked_request, "", "", "", {"1\r\na\r\n", "0\r\n\r\n"}},
         "REQMOD",
         "",
         "req-hdr=0, req-body=" + std::to_string(chunked_request.size()),
         chunked_request + "1\r\na\r\n0\r\n\r\n"},
        // With RESPMOD a callback is announced and never called.
        {{RESPMOD, "", reshdr, "", "", {"abc"}},
         "RESPMOD",
         "",
         "res-hdr=0, res-body=" + std::to_string(reshdr.size()),
         reshdr},
    };
    for (const auto &row : rows) {
        Exchange exchange(row.parts, status_204);
        if (faults_injected())
            continue;
        EXPECT_EQ(exchange.error, 0u);
        EXPECT_EQ(exchange.request,
                  row.method + " " + exchange.url + " ICAP/1.0\r\nHost: " + "127.0.0.1\r\n" +
                      row.allow + "Encapsulated: " + row.encapsulated + "\r\n\r\n" + row.rest);
        EXPECT_EQ(exchange.body(), std::nullopt);
        EXPECT_EQ(zq_icap_get_status_code(exchange.icap.get()), 204);
    }
}

TEST(zqicap, requests_that_break_the_rules_are_not_sent)
{
    const std::string reqmod = "invalid set of encapsulated parts for REQMOD";
    const std::string respmod = "invalid set of encapsulated parts for RESPMOD";
    const std::string options = "no encapsulated parts allowed for OPTIONS";
    const struct {
        Parts parts;
        zqerror error;
        LogLine line;
    } rows[] = {
        {{REQMOD, "", "", "", "", {}}, 71, {7, reqmod}},
        {{REQMOD, reqhdr, reshdr, "", "", {}}, 71, {7, reqmod}},
        {{REQMOD, reqhdr, "", "", "b", {}}, 71, {7, reqmod}},
        {{RESPMOD, reqhdr, "", "", "", {}}, 71, {7, respmod}},
        {{RESPMOD, "", reshdr, "b", "", {}}, 71, {7, respmod}},
        {{OPTIONS, reqhdr, "", "", "", {}}, 71, {7, options}},
        {{NONE, reqhdr, "", "", "", {}}, 22, {6, "INTERNAL ERROR: Unrecognized method 0"}},
    };
    for (const auto &row : rows) {
        Exchange exchange(row.parts, "");
        EXPECT_EQ(exchange.request, "");
        if (faults_injected())
            continue;
        EXPECT_EQ(exchange.error, row.error);
        EXPECT_EQ(exchange.lines, Lines{row.line});
    }
}

static std::string reply(const std::string &encapsulated, const std::string &rest = "")
{
    return "ICAP/1.0 200 OK\r\nEncapsulated: " + encapsulated + "\r\n\r\n" + rest;
}

static const Parts options = {OPTIONS, "", "", "", "", {}};
static const Parts respmod = {RESPMOD, "", reshdr, "", "", {}};
static const Parts reqmod = {REQMOD, reqhdr, "", "", "", {}};
static const Parts keeping = {RESPMOD, "", chunked, "", "", {}};

TEST(zqicap, replies)
{
    const struct {
        Parts parts;
        std::string reply;
        std::optional<std::string> body;
        std::string headers;
    } rows[] = {
        {respmod, reply("res-hdr=0, res-body=3", "abc5\r\nhello\r\n0\r\n\r\n"), "hello", "abc"},
        {respmod, reply("res-hdr=0, null-body=3", "abcdef"), {}, "abc"},
        {respmod, reply("null-body=0"), {}, "(none)"},
        {reqmod, reply("res-hdr=0, res-body=2", "ab1E\n" + std::string(30, 'x') + "\n\n"),
         std::string(30, 'x'), "ab"},
        {options, reply("opt-body=0", "1\r\na\r\n0\r\n"), "a", "(none)"},
        // The zero chunk is kept twice.
        {keeping, reply("res-body=0", "5\r\nhello\r\n0\r\n\r\n"),
         "5\r\nhello\r\n0\r\n\r\n0\r\n\r\n", "(none)"},
    };
    for (const auto &row : rows) {
        for (size_t piece : {0, 1}) {
            Exchange exchange(row.parts, row.reply, piece);
            if (faults_injected())
                continue;
            EXPECT_EQ(exchange.error, 0u) << row.reply;
            EXPECT_EQ(exchange.lines, Lines{}) << row.reply;
            EXPECT_EQ(exchange.body(), row.body) << row.reply;
            EXPECT_EQ(exchange.text(zq_icap_get_response_headers), row.headers) << row.reply;
        }
    }
}

TEST(zqicap, replies_that_break_the_protocol)
{
    const LogLine bad_body = {6, "unable to read encapsulated chunked body"};
    const LogLine bad_value = {6, "unable to parse Encapsulated header"};
    const std::string ok = "ICAP/1.0 200 OK\r\n";
    const std::string long_line(4096, 'x');
    const struct {
        Parts parts;
        std::string reply;
        zqerror error;
        Lines lines;
    } rows[] = {
        {respmod, "", 204, {{7, "unable to read ICAP result code, error 204 (end of file)"}}},
        {respmod, "ICAP/1.0 2", 208, {{6, "reading a line did not terminate at a linefeed"}}},
        {respmod,
         long_line,
         90,
         {{6, "The result code line was too long to fit the buffer (4096 bytes)"}}},
        {respmod,
         "HTTP/1.0 200 OK\n",
         71,
         {{6, "The ICAP response 'HTTP/1.0 200 OK' did not start with 'ICAP/'"}}},
        {respmod,
         "ICAP/1.0\r\n",
         71,
         {{6, "The ICAP response 'ICAP/1.0' did not have the result code"}}},
        {respmod,
         "ICAP/1.0 2x0\r\n",
         71,
         {{6, "Invalid result code digit 'x' in response 'ICAP/1.0 2x0'"}}},
        {respmod, ok, 204, {{7, "unable to read ICAP headers, error 204 (end of file)"}}},
        {respmod, ok + "A: b", 208, {{6, "reading a header line did not terminate at a linefeed"}}},
        {respmod,
         ok + long_line,
         90,
         {{6, "The header line was too long to fit the buffer (4096 bytes)"}}},
        {respmod,
         ok + "Foo\r\n\r\n",
         209,
         {{7, "no colon (:) found while parsing the headers"}, {7, "parsing headers failed"}}},
        {respmod, ok + "\r\n", 71, {{6, "no Encapsulated header in the ICAP response"}}},
        {respmod, reply("res-body=7, res-hdr=0"), 71, {bad_value}},
        {respmod,
         reply("res-hdr=0,"),
         71,
         {{6, "unexpected end of string after a comma in encapsulated header 'res-hdr=0,'"},
          bad_value}},
        {respmod,
         reply("res-hdr=0;"),
         71,
         {{6, "expected separator ',' in encapsulated header but got ';'"}, bad_value}},
        {respmod,
         reply("req-hdr=0,req-body=50"),
         71,
         {{6, "expected space after a comma in encapsulated header but got 'r'"}, bad_value}},
        {respmod,
         reply("res-hdr=99999999999999999999"),
         71,
         {{6, "converting the value in the encapsulated header 'res-hdr=99999999999999999999' "
              "failed"},
          bad_value}},
        {respmod,
         reply("res-body=0, null-body=0"),
         71,
         {{6, "other kind of bodies cannot be given when null-body is given: 'res-body=0, "
              "null-body=0'"},
          bad_value}},
        {respmod,
         reply("opt-body=0"),
         71,
         {{6, "opt-body can only be present in OPTIONS method: 'opt-body=0'"}, bad_value}},
        {options,
         reply("res-hdr=0, null-body=0"),
         71,
         {{6, "OPTIONS method can only contain opt-body or null-body: 'res-hdr=0, null-body=0'"},
          bad_value}},
        {respmod,
         reply("req-hdr=0, res-hdr=0, res-body=0"),
         71,
         {{6, "req-hdr and res-hdr cannot be present at the same time: 'req-hdr=0, res-hdr=0, "
              "res-body=0'"},
          {6, "RESPMOD method can only contain res-hdr and res-body or null-body: 'req-hdr=0, "
              "res-hdr=0, res-body=0'"},
          bad_value}},
        {reqmod,
         reply("req-hdr=0, res-body=0"),
         71,
         {{6, "REQMOD method can only contain req-hdr and req-body or res-hdr and res-body (or "
              "null-body): 'req-hdr=0, res-body=0'"},
          bad_value}},
        {respmod,
         reply("res-hdr=0"),
         71,
         {{6, "no body for RESPMOD in encapsulated: 'res-hdr=0'"}, bad_value}},
        {reqmod,
         reply("req-hdr=0"),
         71,
         {{6, "no body for REQMOD in encapsulated: 'req-hdr=0'"}, bad_value}},
        {respmod,
         reply("res-hdr=3, res-body=9"),
         205,
         {{6, "XXX UNSUPPORTED: non-zero encapsulated body header offset: 'res-hdr=3, "
              "res-body=9'"},
          bad_value}},
        {respmod,
         reply("res-body=0", "1e; ieof\r\n"),
         71,
         {{7, "extra data after the chunk size in '1e; ieof'"}, bad_body}},
        {respmod,
         reply("res-body=0", "11111111111111111\r\n"),
         71,
         {{7, "unable to parse the chunk size '11111111111111111'"}, bad_body}},
        {respmod,
         reply("res-body=0", "5\r\nhe"),
         204,
         {{7, "unable to read chunk size, error 204 (end of file)"}, bad_body}},
        {respmod,
         reply("res-body=0", "5"),
         208,
         {{6, "reading a chunk size line did not terminate at a linefeed"}, bad_body}},
        {respmod,
         reply("res-body=0", long_line),
         90,
         {{6, "The chunk size line was too long to fit the buffer (4096 bytes)"}, bad_body}},
    };
    for (const auto &row : rows) {
        Exchange exchange(row.parts, row.reply);
        if (faults_injected())
            continue;
        EXPECT_EQ(exchange.error, row.error) << row.reply;
        EXPECT_EQ(exchange.lines, row.lines) << row.reply;
    }
}

TEST(zqicap, replies_cut_off_anywhere_end_without_a_wait)
{
    const std::string whole =
        reply("res-hdr=0, res-body=7", "headers3\r\nabc\r\n2\r\nde\r\n0\r\n\r\n");
    for (size_t size = 0; size < whole.size() && !faults_injected(); size++) {
        Exchange exchange(respmod, whole.substr(0, size));
        // Behind the zero chunk nothing is missed.
        bool complete = size >= whole.size() - 2;
        EXPECT_EQ(exchange.error == 0, complete) << size;
        EXPECT_EQ(exchange.lines.empty(), complete) << size;
    }
    Exchange stalled(respmod, whole.substr(0, whole.size() - 12), 0, ScriptedServer::STALL);
    if (!faults_injected()) {
        EXPECT_EQ(stalled.error, ZQ_ERROR_TIMED_OUT + 0u);
        EXPECT_FALSE(stalled.lines.empty());
    }
}

TEST(zqicap, settings_serve_one_exchange_and_raw_headers_accumulate)
{
    Exchange exchange(options, status_204);
    ASSERT_EQ(exchange.error, 0u);
    zqicap *icap = exchange.icap.get();
    LogCapture log;
    EXPECT_EQ(zq_icap_perform(icap), ZQ_ERROR_INVALID_ARGUMENT + 0u);
    ScriptedServer server(status_204);
    std::string url = "icap://127.0.0.1:" + std::to_string(server.port()) + "/";
    zq_icap_set_url(icap, url.c_str());
    zq_icap_set_method_options(icap);
    EXPECT_EQ(zq_icap_perform(icap), 0u);
    const std::string block = "ISTag: \"a\"\r\n\r\n";
    EXPECT_EQ(exchange.text(zq_icap_get_response_icap_headers), block + block);
    zq_icap_reset(icap);
    EXPECT_EQ(exchange.text(zq_icap_get_response_icap_headers), "(none)");
}

TEST(zqicap, parts_and_urls_that_cannot_be_used)
{
    LogCapture log(8);
    Icap icap(zq_icap_create());
    ASSERT_TRUE(icap);
    zq_icap_set_method_options(icap.get());
    EXPECT_EQ(zq_icap_perform(icap.get()), ZQ_ERROR_INVALID_ARGUMENT + 0u);
    EXPECT_EQ(log.take(), (Lines{{6, "no URL set"}}));

    // The part stays set, its headers are not known.
    const std::string odd = "GET / HTTP/1.0\r\nodd\r\n\r\n";
    zqerror error = zq_icap_set_request_headers(icap.get(), odd.data(), odd.size());
    if (!faults_injected()) {
        EXPECT_EQ(error, ZQ_ERROR_SYNTAX + 0u);
        EXPECT_STREQ(zq_icap_build_encapsulated_header(icap.get()), "req-hdr=0, null-body=23");
    }
    int value = 7;
    EXPECT_EQ(zq_icap_part_is_chunk_encoded(icap.get(), 9, &value), 0u);
    EXPECT_EQ(value, 0);

    EXPECT_MISUSE(zq_icap_perform(nullptr), "net/zqicap", "zq_icap_perform", "zqicap != NULL");
    EXPECT_MISUSE(zq_icap_set_response_headers(icap.get(), nullptr, 1), "net/zqicap",
                  "zq_icap_set_response_headers", "reshdr != NULL");
    EXPECT_MISUSE(zq_icap_set_response_body(icap.get(), "", 0), "net/zqicap",
                  "zq_icap_set_response_body", "size > 0");
    EXPECT_MISUSE(zq_icap_http_part_has_chunked_transfer(nullptr, &value), "net/zqicap",
                  "zq_icap_http_part_has_chunked_transfer", "part != NULL");
}
