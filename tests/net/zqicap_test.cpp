#include "zq/net/zqicap.h"

#include "tests/net/libc_faults.h"
#include "tests/support/fake_clock.h"
#include "tests/support/faults.h"
#include "tests/support/heap.h"
#include "tests/support/scripted_server.h"
#include "zq/util/zqsignal.h"

using Icap = Owned<zqicap, zq_icap_destroy>;

enum Method { NONE, REQMOD, RESPMOD, OPTIONS };
static const char *const method_names[] = {"", "REQMOD", "RESPMOD", "OPTIONS"};

static const std::string ABSENT = "(none)"; // what a getter has when there is nothing

// HTTP headers of 29, 30 and 50 bytes.
static const std::string reqhdr = "POST /p HTTP/1.1\r\nHost: h\r\n\r\n";
static const std::string reshdr = "HTTP/1.1 200 OK\r\nServer: s\r\n\r\n";
static const std::string chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: X, Chunked\r\n\r\n";
static const std::string no_memory = "12 (not enough memory)";
static const std::string status_204 = "ICAP/1.0 204 No Content\r\nISTag: \"a\"\r\n\r\n";

// What a client is told to send.
struct Parts {
    Method method = NONE;
    std::string reqhdr = {}, reshdr = {}, reqbody = {}, resbody = {};
    std::vector<std::string> pieces = {}; // from the body callback
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

static void skip() {}

// False when a part could not be set.
static bool prepare(zqicap *icap, Parts &parts, const std::function<void()> &step = skip)
{
    void (*const set_method[])(zqicap *) = {nullptr, zq_icap_set_method_reqmod,
                                            zq_icap_set_method_respmod, zq_icap_set_method_options};
    if (parts.method != NONE)
        set_method[parts.method](icap);
    bool complete = true;
    auto set = [&](auto function, const std::string &part) {
        if (!part.empty() && function(icap, part.data(), part.size()) != ZQ_ERROR_NONE)
            complete = false;
        step();
    };
    set(zq_icap_set_request_headers, parts.reqhdr);
    set(zq_icap_set_response_headers, parts.reshdr);
    set(zq_icap_set_request_body, parts.reqbody);
    set(zq_icap_set_response_body, parts.resbody);
    if (!parts.pieces.empty())
        zq_icap_set_request_body_callback(icap, next_piece, &parts.pieces);
    if (parts.allow204)
        zq_icap_set_allow_204(icap);
    return complete;
}

static std::string body_of(zqicap *icap)
{
    void *data = nullptr;
    size_t size = 1;
    if (zq_icap_get_response_body_and_size(icap, &data, &size) != ZQ_ERROR_NONE) {
        EXPECT_TRUE(data == nullptr && size == 0);
        return ABSENT;
    }
    ZqString owner(static_cast<char *>(data));
    return std::string(owner.get(), size);
}

static std::string text_of(zqicap *icap, zqerror (*get)(zqicap *, char **))
{
    char *headers = nullptr;
    get(icap, &headers);
    ZqString owner(headers);
    return headers ? std::string(headers) : ABSENT;
}

// One exchange with a scripted server, kept for inspection.
struct Exchange {
    Icap icap;
    zqerror error = ZQ_ERROR_COUNT;
    std::string url, request;
    Lines lines;

    Exchange(Parts parts, const std::string &reply,
             ScriptedServer::Ending ending = ScriptedServer::CLOSE)
    {
        zq_signal_ignore_sigpipe();
        LogCapture log(8);
        ScriptedServer server(reply, 0, ending);
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

    std::string body() const { return body_of(icap.get()); }
    std::string text(zqerror (*get)(zqicap *, char **)) const { return text_of(icap.get(), get); }
};

static std::string reply(const std::string &encapsulated, const std::string &rest = "")
{
    return "ICAP/1.0 200 OK\r\nEncapsulated: " + encapsulated + "\r\n\r\n" + rest;
}

static const Parts options = {OPTIONS};
static const Parts respmod = {RESPMOD, "", reshdr};
static const Parts reqmod = {REQMOD, reqhdr};

// ---- requests ----

TEST(zqicap, requests_go_out_byte_for_byte)
{
    auto expect = [](const Parts &parts, const std::string &encapsulated, const std::string &rest) {
        Exchange exchange(parts, status_204);
        if (faults_injected())
            return;
        EXPECT_EQ(exchange.error, 0u);
        EXPECT_EQ(exchange.request, method_names[parts.method] + (" " + exchange.url) +
                                        " ICAP/1.0\r\nHost: 127.0.0.1\r\n" +
                                        (parts.allow204 ? "Allow: 204\r\n" : "") +
                                        "Encapsulated: " + encapsulated + "\r\n\r\n" + rest);
        EXPECT_EQ(exchange.body(), ABSENT);
        EXPECT_EQ(zq_icap_get_status_code(exchange.icap.get()), 204);
    };
    expect(options, "null-body=0", "");
    expect(reqmod, "req-hdr=0, null-body=29", reqhdr);
    expect({REQMOD, reqhdr, "", "0123456789", "", {}, true}, "req-hdr=0, req-body=29",
           reqhdr + "a\r\n0123456789\r\n0\r\n\r\n");
    expect({RESPMOD, reqhdr, reshdr, "", "body"}, "req-hdr=0, res-hdr=29, res-body=59",
           reqhdr + reshdr + "4\r\nbody\r\n0\r\n\r\n");
    expect({RESPMOD, "", chunked, "", "2\r\nab\r\n0\r\n\r\n"}, "res-hdr=0, res-body=50",
           chunked + "2\r\nab\r\n0\r\n\r\n");
    // The pieces of a callback follow each other without a line end and replace a stored body.
    const std::string x4096(4096, 'x');
    expect({REQMOD, reqhdr, "", "stored", "", {"abc", x4096}}, "req-hdr=0, req-body=29",
           reqhdr + "3\r\nabc1000\r\n" + x4096 + "\r\n0\r\n\r\n");
    expect({REQMOD, chunked, "", "", "", {"1\r\na\r\n", "0\r\n\r\n"}}, "req-hdr=0, req-body=50",
           chunked + "1\r\na\r\n0\r\n\r\n");
    // With RESPMOD a callback is announced and never called.
    expect({RESPMOD, "", reshdr, "", "", {"abc"}}, "res-hdr=0, res-body=30", reshdr);
}

static void expect_failure(const Parts &parts, const std::string &reply, zqerror error,
                           const Lines &lines)
{
    Exchange exchange(parts, reply);
    if (faults_injected())
        return;
    EXPECT_EQ(exchange.error, error) << reply;
    EXPECT_EQ(exchange.lines, lines) << reply;
    if (reply.empty() && error != ZQ_ERROR_END_OF_FILE) {
        EXPECT_EQ(exchange.request, "");
    }
}

TEST(zqicap, requests_that_break_the_rules_are_not_sent)
{
    const Lines bad_reqmod = {{7, "invalid set of encapsulated parts for REQMOD"}};
    const Lines bad_respmod = {{7, "invalid set of encapsulated parts for RESPMOD"}};
    expect_failure({REQMOD}, "", 71, bad_reqmod);
    expect_failure({REQMOD, reqhdr, reshdr}, "", 71, bad_reqmod);
    expect_failure({REQMOD, reqhdr, "", "", "b"}, "", 71, bad_reqmod);
    expect_failure({RESPMOD, reqhdr}, "", 71, bad_respmod);
    expect_failure({RESPMOD, "", reshdr, "b"}, "", 71, bad_respmod);
    expect_failure({OPTIONS, reqhdr}, "", 71, {{7, "no encapsulated parts allowed for OPTIONS"}});
    expect_failure({NONE, reqhdr}, "", 22, {{6, "INTERNAL ERROR: Unrecognized method 0"}});
}

// ---- replies ----

TEST(zqicap, replies)
{
    auto expect = [](const Parts &parts, const std::string &reply, const std::string &headers,
                     const std::string &body) {
        Exchange exchange(parts, reply);
        if (faults_injected())
            return;
        EXPECT_EQ(exchange.error, 0u) << reply;
        EXPECT_EQ(exchange.lines, Lines{}) << reply;
        EXPECT_EQ(exchange.body(), body) << reply;
        EXPECT_EQ(exchange.text(zq_icap_get_response_headers), headers) << reply;
    };
    const std::string hello = "5\r\nhello\r\n0\r\n\r\n";
    const std::string x30(30, 'x');
    expect(respmod, reply("res-hdr=0, res-body=3", "abc" + hello), "abc", "hello");
    expect(respmod, reply("res-hdr=0, null-body=3", "abcdef"), "abc", ABSENT);
    expect(respmod, reply("null-body=0"), ABSENT, ABSENT);
    expect(reqmod, reply("res-hdr=0, res-body=2", "ab1E\n" + x30 + "\n\n"), "ab", x30);
    expect(options, reply("opt-body=0", "1\r\na\r\n0\r\n"), ABSENT, "a");
    // The zero chunk is kept twice.
    expect({RESPMOD, "", chunked}, reply("res-body=0", hello), ABSENT, hello + "0\r\n\r\n");
}

TEST(zqicap, replies_that_break_the_protocol)
{
    const std::string ok = "ICAP/1.0 200 OK\r\n";
    const std::string long_line(4096, 'x');
    auto expect = [](const std::string &reply, zqerror error, const Lines &lines) {
        expect_failure(respmod, reply, error, lines);
    };
    expect("", 204, {{7, "unable to read ICAP result code, error 204 (end of file)"}});
    expect("ICAP/1.0 2", 208, {{6, "reading a line did not terminate at a linefeed"}});
    expect(long_line, 90,
           {{6, "The result code line was too long to fit the buffer (4096 bytes)"}});
    expect("HTTP/1.0 200 OK\n", 71,
           {{6, "The ICAP response 'HTTP/1.0 200 OK' did not start with 'ICAP/'"}});
    expect("ICAP/1.0\r\n", 71, {{6, "The ICAP response 'ICAP/1.0' did not have the result code"}});
    expect("ICAP/1.0 2x0\r\n", 71,
           {{6, "Invalid result code digit 'x' in response 'ICAP/1.0 2x0'"}});
    expect(ok, 204, {{7, "unable to read ICAP headers, error 204 (end of file)"}});
    expect(ok + "A: b", 208, {{6, "reading a header line did not terminate at a linefeed"}});
    expect(ok + long_line, 90,
           {{6, "The header line was too long to fit the buffer (4096 bytes)"}});
    expect(ok + "Foo\r\n\r\n", 209,
           {{7, "no colon (:) found while parsing the headers"}, {7, "parsing headers failed"}});
    expect(ok + "\r\n", 71, {{6, "no Encapsulated header in the ICAP response"}});

    auto expect_body = [&](const std::string &body, zqerror error, const LogLine &line) {
        expect(reply("res-hdr=0, res-body=3", body), error,
               {line, {6, "unable to read encapsulated chunked body"}});
    };
    expect_body("ab", 204, {7, "unable to read chunk size, error 204 (end of file)"});
    expect_body("abc1e; ieof\r\n", 71, {7, "extra data after the chunk size in '1e; ieof'"});
    expect_body("abc11111111111111111\r\n", 71,
                {7, "unable to parse the chunk size '11111111111111111'"});
    expect_body("abc5\r\nhe", 204, {7, "unable to read chunk size, error 204 (end of file)"});
    expect_body("abc5", 208, {6, "reading a chunk size line did not terminate at a linefeed"});
    expect_body("abc" + long_line, 90,
                {6, "The chunk size line was too long to fit the buffer (4096 bytes)"});
}

TEST(zqicap, encapsulated_headers_that_break_the_protocol)
{
    // `text` is what is logged, "%" standing for the value.
    auto expect = [](const Parts &parts, const std::string &value, const std::string &text,
                     zqerror error = ZQ_ERROR_PROTOCOL, Lines lines = {}) {
        std::string line = text;
        if (size_t at = line.find('%'); at != line.npos)
            line.replace(at, 1, "'" + value + "'");
        if (!line.empty())
            lines.push_back({6, line});
        lines.push_back({6, "unable to parse Encapsulated header"});
        expect_failure(parts, reply(value), error, lines);
    };
    expect(respmod, "res-body=7, res-hdr=0", "");
    expect(respmod, "res-hdr=0,",
           "unexpected end of string after a comma in encapsulated header %");
    expect(respmod, "res-hdr=0;", "expected separator ',' in encapsulated header but got ';'");
    expect(respmod, "req-hdr=0,req-body=50",
           "expected space after a comma in encapsulated header but got 'r'");
    expect(respmod, "res-hdr=99999999999999999999",
           "converting the value in the encapsulated header % failed");
    expect(respmod, "res-body=0, null-body=0",
           "other kind of bodies cannot be given when null-body is given: %");
    expect(respmod, "opt-body=0", "opt-body can only be present in OPTIONS method: %");
    expect(options, "res-hdr=0, null-body=0",
           "OPTIONS method can only contain opt-body or null-body: %");
    const std::string both = "req-hdr=0, res-hdr=0, res-body=0";
    expect(respmod, both, "RESPMOD method can only contain res-hdr and res-body or null-body: %",
           71, {{6, "req-hdr and res-hdr cannot be present at the same time: '" + both + "'"}});
    expect(reqmod, "req-hdr=0, res-body=0",
           "REQMOD method can only contain req-hdr and req-body or res-hdr and res-body (or "
           "null-body): %");
    expect(respmod, "res-hdr=0", "no body for RESPMOD in encapsulated: %");
    expect(reqmod, "req-hdr=0", "no body for REQMOD in encapsulated: %");
    expect(respmod, "res-hdr=3, res-body=9",
           "XXX UNSUPPORTED: non-zero encapsulated body header offset: %", 205);
}

TEST(zqicap, a_reply_that_stops_coming_is_given_up)
{
    if (faults_injected())
        return;
    for (const auto &[value, part, what] :
         {std::tuple("res-body=0", "5\r\nhe", "encapsulated chunked body"),
          {"res-hdr=0, null-body=9", "abc", "icap header"}}) {
        const Exchange silent(respmod, reply(value, part), ScriptedServer::STALL);
        EXPECT_EQ(joined(silent.lines),
                  std::string("[7] a timeout occurred; [6] unable to read ") + what);
    }
    recv_waits = true;
    SystemCalls calls([](const SystemCall &call) {
        return call.name == "recv" && call.nth > 1 ? EIO : PASS; // the handle tries once more
    });
    const Exchange failed(respmod, reply("res-hdr=0, null-body=8192", std::string(8192, 'h')));
    recv_waits = false;
    EXPECT_EQ(failed.error, ZQ_ERROR_GENERIC + 0u);
    EXPECT_TRUE(joined(failed.lines)
                    .ends_with("; [7] unable to read encapsulated headers information, error 202 "
                               "(generic error); [6] unable to read icap header"));
}

// Neither side has room for what the other sends, so each waits for the other to read.
TEST(zqicap, an_early_reply_does_not_block_the_request)
{
    if (faults_injected())
        return; // nothing here that another test does not allocate
    const std::string large(5 << 20, 'x');
    Exchange exchange({RESPMOD, "", reshdr, "", large},
                      reply("res-hdr=0, null-body=3", "abc" + large));
    EXPECT_EQ(exchange.error, 0u);
    EXPECT_EQ(exchange.text(zq_icap_get_response_headers), "abc");
    EXPECT_TRUE(exchange.request.ends_with(large + "\r\n0\r\n\r\n"));
}

// ---- the object ----

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
    EXPECT_EQ(exchange.text(zq_icap_get_response_icap_headers), ABSENT);
}

TEST(zqicap, parts_and_urls_that_cannot_be_used)
{
    LogCapture log(8);
    Icap icap(zq_icap_create());
    ASSERT_TRUE(icap);
    zq_icap_set_method_options(icap.get());
    EXPECT_EQ(zq_icap_perform(icap.get()), ZQ_ERROR_INVALID_ARGUMENT + 0u);
    zq_icap_set_url(icap.get(), "icap//");
    zq_icap_set_method_options(icap.get());
    EXPECT_EQ(zq_icap_perform(icap.get()), ZQ_ERROR_INVALID_ARGUMENT + 0u);
    EXPECT_EQ(log.take(), (Lines{{6, "no URL set"},
                                 {6, "URL 'icap//' has no colon after scheme"},
                                 {7, "unable to parse the URL 'icap//'"}}));
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
    EXPECT_MISUSE(zq_icap_http_part_has_chunked_transfer(nullptr, &value), "net/zqicap",
                  "zq_icap_http_part_has_chunked_transfer", "part != NULL");
}

// ---- failures of the system ----

namespace {
// A client told what to send to a server that answers with the body "a".
struct Prepared {
    static inline Parts parts;

    Prepared()
    {
        zq_signal_ignore_sigpipe();
        recv_waits = true;
        const std::string url = "icap://127.0.0.1:" + std::to_string(server.port());
        zq_icap_set_url(icap.get(), url.c_str());
        prepare(icap.get(), given);
    }
    ~Prepared() { recv_waits = false; }

    ScriptedServer server{reply("res-hdr=0, res-body=3", "abc1\r\na\r\n0\r\n\r\n")};
    Parts given = parts;
    Icap icap{zq_icap_create()};
};
} // namespace

// Each call fails in each way, but for connect(): a TCP handle asserts that it does not fail at
// once. `sends` are the ends of what is logged of a failing send, by its number.
static void expect_exchanges(const Parts &parts, const std::vector<std::string> &sends,
                             const std::string &request, const std::string &body)
{
    Prepared::parts = parts;
    walk_system_faults<Prepared>(
        [](Prepared &world) { return zq_icap_perform(world.icap.get()); },
        [&](Prepared &world, const SystemFault &fault, zqerror result, const Lines &lines) {
            if (!expect_exchange(fault, result, lines, sends))
                return;
            EXPECT_EQ(body_of(world.icap.get()), body);
            EXPECT_TRUE(world.server.request().ends_with(request));
        },
        {.left_out = {"connect"}});
}

TEST(zqicap, calls_of_the_system_may_fail_anywhere)
{
    const std::string length = "[7] unable to send chunk length, error %; ";
    const std::string data = "[7] unable to send chunk data, error %; ";
    const std::string chunk = "[7] unable to send chunk, error %";
    const std::string part = "[7] unable to send encapsulated part, error %";
    const std::string end = "[7] unable to send the chunk end, error %";
    const std::string request = "4\r\nbody\r\n0\r\n\r\n";
    expect_exchanges({RESPMOD, "", reshdr, "", "body"},
                     {"bytes written", part, length + chunk, data + chunk, end}, request, "a");
    expect_exchanges({REQMOD, reqhdr, "", "", "", {"body"}},
                     {"bytes written", part, length + part, data + part, end}, request, "a");
    expect_exchanges({REQMOD, chunked, "", "", "", {"body"}}, {"bytes written", part, part},
                     chunked + "body", "1\r\na\r\n0\r\n\r\n0\r\n\r\n");
}

// The clock moves on by a second with each look at it: the n-th look finds n seconds over.
TEST(zqicap, time_may_be_over_anywhere)
{
    if (faults_injected())
        return;
    std::set<std::string> found;
    Prepared::parts = {RESPMOD, "", reshdr, "", "body"};
    for (int32_t seconds = 0; seconds < 100; seconds++) {
        Prepared world;
        FakeClock clock;
        LogCapture log(8);
        clock.advance_with_each_read(1000000);
        zq_icap_set_timeout(world.icap.get(), seconds, 0);
        const zqerror result = zq_icap_perform(world.icap.get());
        const std::string lines = joined(log.take());
        EXPECT_EQ(result, lines.empty() ? 0u : ZQ_ERROR_TIMED_OUT + 0u);
        found.insert(lines);
    }
    const std::string over = "[7] a timeout occurred";
    EXPECT_EQ(found, (std::set<std::string>{"", over, over + "; [6] unable to read icap header",
                                            over + "; [6] unable to read encapsulated chunked body",
                                            "[7] unable to read ICAP result code, error " +
                                                code_text(201)}));
}

// ---- lack of memory ----

// The blocks that grow with the reply are reallocated.
TEST(zqicap, a_reply_may_find_no_room_to_grow)
{
    if (!heap_is_watched())
        return;
    std::vector<std::string> failures;
    for (long nth = 1; nth < 20; nth++) {
        HeapFailure failure(nth, HeapFailure::REALLOCATIONS);
        Exchange exchange({RESPMOD, "", chunked},
                          reply("res-hdr=0, res-body=3", "abc2\r\nde\r\n0\r\n\r\n"));
        EXPECT_EQ(exchange.error, exchange.lines.empty() ? 0u : ZQ_ERROR_NO_MEMORY + 0u);
        failures.push_back(joined(exchange.lines));
    }
    std::erase(failures, ""); // those that libc can do without, and those that were not made
    std::vector<std::string> expected;
    for (const char *size : {"37", "39"})
        expected.push_back(std::string("[7] not enough memory for raw ICAP response headers (") +
                           size + " bytes)");
    for (const char *size : {"3", "1", "3", "5", "7", "8", "10", "12", "17"})
        expected.push_back(
            std::string("[7] not enough memory for response body (") + size +
            " bytes); [7] the write callback did not accept the data, error " + no_memory +
            (expected.size() == 2 ? "; [6] unable to read icap header"
                                  : "; [6] unable to read encapsulated chunked body"));
    EXPECT_EQ(failures, expected);
}

// A server that stops reading makes the client take the reply while it sends.
TEST(zqicap, an_early_reply_may_find_no_room)
{
    if (!heap_is_watched())
        return;
    Prepared::parts = {RESPMOD, "", reshdr, "", "body"};
    std::set<std::string> found;
    for (const long nth : {1, 2}) { // the first may be one of libc
        Prepared world;
        LogCapture log(8);
        SystemCalls calls([](const SystemCall &call) {
            return call.name == "send" && call.nth == 3   ? EAGAIN
                   : call.name == "poll" && call.nth == 2 ? NOTHING
                                                          : PASS;
        });
        HeapFailure failure(nth, HeapFailure::REALLOCATIONS);
        zq_icap_perform(world.icap.get());
        found.insert(joined(log.take()));
    }
    EXPECT_TRUE(found.contains("[7] unable to send chunk length, error " + no_memory +
                               "; [7] unable to send chunk, error " + no_memory));
}

TEST(zqicap, lines_without_memory)
{
    if (!faults_injected()) {
        const std::string none = "[7] not enough memory for ";
        const std::string callback = "[7] call request body callback; ";
        const std::string table = "; " + none + "the response header hashtable";
        const std::string failed = "; [7] connection failed, error " + no_memory;
        expect_lines_without_memory(
            "zqicap.lines_without_memory",
            {none + "the zqicap context", none + "receive buffer (4096 bytes)",
             none + "zqtimeout context", none + "zqhttpheaders structure" + table,
             "[7] not enough memory to set icap url to 'icap://h/'",
             none + "the encapsulated part (30 bytes)", none + "the encapsulated part (4 bytes)",
             none + "header name", none + "request",
             none + "zqhandle; [7] unable to create an zqhandle; [7] unable to create zqhandle",
             "[7] unable to create timeout context" + failed,
             none + "chunk length; [7] unable to send chunk, error " + no_memory,
             callback + none + "chunk length; [7] unable to send encapsulated part, error " +
                 no_memory,
             callback + "[7] zq_icap_part_is_chunk_encoded() returned error " + no_memory,
             callback + none + "chunk send buffer",
             none + "header name; [7] parsing headers failed", none + "the ICAP response headers",
             none + "the encapsulated response headers", none + "response body (1 bytes)"});
        return;
    }
    zq_signal_ignore_sigpipe();
    FaultLines lines(7);
    const struct {
        Parts parts;
        std::string sent, kept; // the ends of the request and of what the reply leaves behind
    } rows[] = {{{RESPMOD, "", reshdr, "", "body"}, "4\r\nbody\r\n0\r\n\r\n", "a"},
                {{REQMOD, reqhdr, "", "", "", {"a"}}, "1\r\na\r\n0\r\n\r\n", "a"},
                {{REQMOD, chunked, "", "", "", {"a"}}, chunked + "a", "0\r\n\r\n0\r\n\r\n"}};
    for (const auto &row : rows) {
        for (bool failed = true; failed;) {
            Icap icap(lines.step(zq_icap_create()));
            if (!icap)
                continue;
            lines.step(zq_icap_set_url(icap.get(), "icap://h/"));
            ScriptedServer server(reply("res-hdr=0, res-body=3", "abc1\r\na\r\n0\r\n\r\n"));
            const std::string url = "icap://127.0.0.1:" + std::to_string(server.port());
            while (zq_icap_set_url(icap.get(), url.c_str()) != ZQ_ERROR_NONE) {
            }
            lines.step();
            Parts parts = row.parts;
            failed = !prepare(icap.get(), parts, [&lines] { lines.step(); });
            const zqerror result = lines.step(zq_icap_perform(icap.get()));
            if (failed)
                continue;
            failed = result != ZQ_ERROR_NONE;
            CHECK_PROMISE(failed ? result == ZQ_ERROR_NO_MEMORY || result == ZQ_ERROR_CANNOT_CONNECT
                                 : server.request().ends_with(row.sent));
            text_of(icap.get(), zq_icap_get_response_icap_headers);
            lines.step();
            text_of(icap.get(), zq_icap_get_response_headers);
            lines.step();
            const std::string body = lines.step(body_of(icap.get()));
            CHECK_PROMISE(failed || body == ABSENT || body.ends_with(row.kept));
            failed |= body == ABSENT;
        }
    }
}
