// The HTTP client against servers of other people: nginx and tinyproxy.

#include <csignal>
#include <filesystem>
#include <tuple>

#include "tests/net/http.h"
#include "tests/support/log_capture.h"
#include "tests/support/peer_server.h"
#include "tests/support/random_bytes.h"
#include "tests/support/zqserve.h"
#include "zq/net/zqhttp_lite.h"

class http_interop : public testing::Test {
  protected:
    static void SetUpTestSuite()
    {
        signal(SIGPIPE, SIG_IGN);
        scratch = std::make_unique<Scratch>();
        std::filesystem::create_directories(scratch->file("www/put"));
        scratch->write("www/page.txt", "a page\n");
        scratch->write("www/ssi.html",
                       R"([<!--# set var="a" value="b" --><!--# echo var="a" -->])");
        scratch->write("www/slow", random_bytes(24 << 10));
        scratch->write("www/medium", random_bytes(1 << 20));
        nginx = std::make_unique<PeerServer>("nginx", *scratch);
        tinyproxy = std::make_unique<PeerServer>("tinyproxy", *scratch);
    }
    static void TearDownTestSuite()
    {
        tinyproxy.reset();
        nginx.reset();
        scratch.reset();
    }

    static std::string url(const std::string &target)
    {
        return "http://" + nginx->address() + target;
    }

    void SetUp() override { ASSERT_TRUE(http && nginx->listens() && tinyproxy->listens()); }

    zqerror get(const std::string &target)
    {
        const zqerror result = zq_http_set_url(http.get(), url(target).c_str());
        return result == ZQ_ERROR_NONE ? zq_http_perform(http.get()) : result;
    }
    std::string body() { return body_of(http.get()); }

    static std::unique_ptr<Scratch> scratch;
    static std::unique_ptr<PeerServer> nginx, tinyproxy;
    LogCapture log;
    Http http{zq_http_lite_create()};
};

std::unique_ptr<Scratch> http_interop::scratch;
std::unique_ptr<PeerServer> http_interop::nginx, http_interop::tinyproxy;

TEST_F(http_interop, statuses_and_redirects)
{
    const std::tuple<const char *, zqerror, int32_t, const char *> rows[] = {
        {"/page.txt", 0, 200, "a page\n"}, {"/absolute", 0, 200, "a page\n"},
        {"/full", 0, 200, "a page\n"},     {"/relative", 0, 200, "a page\n"},
        {"/204", 0, 204, "(none)"},        {"/500", 0, 500, "sorry"},
        {"/ssi/ssi.html", 0, 200, "[b]"},  {"/closed", ZQ_ERROR_END_OF_FILE, 0, "(none)"}};
    for (const auto &[target, result, status, text] : rows) {
        EXPECT_EQ(get(target), result) << target;
        EXPECT_EQ(zq_http_get_status_code(http.get()), status) << target;
        EXPECT_EQ(body(), text) << target;
    }
    EXPECT_EQ(get("/loop"), ZQ_ERROR_OUT_OF_RANGE);
    zq_http_set_method_post(http.get());
    zq_http_lite_set_request_body(http.get(), "12345", 5);
    zq_http_lite_add_header(http.get(), "X-Test: yes");
    EXPECT_EQ(get("/echo?a=b%20c"), ZQ_ERROR_NONE);
    EXPECT_EQ(body(), "POST /echo?a=b%20c 127.0.0.1 yes 5");
}

TEST_F(http_interop, uploads_downloads_and_deletes)
{
    const std::string content = random_bytes(16 << 20);
    zq_http_set_method_put(http.get());
    zq_http_lite_set_request_body(http.get(), content.data(), content.size());
    EXPECT_EQ(get("/put/a/b"), ZQ_ERROR_NONE);
    EXPECT_EQ(zq_http_get_status_code(http.get()), 201);
    EXPECT_TRUE(read_file(scratch->file("www/put/a/b")) == content);

    const std::string file = scratch->file("downloaded");
    const auto download = [&] {
        return zq_http_generic_get_url_to_file(url("/put/a/b").c_str(), file.c_str(),
                                               zq_http_lite_create);
    };
    EXPECT_EQ(download(), ZQ_ERROR_NONE);
    EXPECT_TRUE(read_file(file) == content);
    zq_http_set_method_delete(http.get());
    EXPECT_EQ(get("/put/a/b"), ZQ_ERROR_NONE);
    EXPECT_EQ(zq_http_get_status_code(http.get()), 204);
    EXPECT_EQ(download(), ZQ_ERROR_GENERIC);
}

// Each read of a body has the whole transfer's time, however long the body takes.
TEST_F(http_interop, slow_bodies)
{
    zq_http_set_timeout(http.get(), 1, 500000);
    zq_http_set_idle_timeout(http.get(), 0, 500000);
    EXPECT_EQ(get("/slow/slow"), ZQ_ERROR_NONE);
    EXPECT_TRUE(body() == read_file(scratch->file("www/slow")));
    zq_http_set_timeout(http.get(), 0, 300000);
    EXPECT_EQ(get("/slow/slow"), ZQ_ERROR_TIMER_EXPIRED);
}

TEST_F(http_interop, proxies)
{
    zq_http_set_proxy(http.get(), "127.0.0.1", static_cast<uint32_t>(tinyproxy->port()));
    EXPECT_EQ(get("/medium"), ZQ_ERROR_NONE);
    EXPECT_NE(zq_http_get_response_header(http.get(), "via"), nullptr);
    EXPECT_TRUE(body() == read_file(scratch->file("www/medium")));
    EXPECT_EQ(get("/relative"), ZQ_ERROR_NONE);
    EXPECT_EQ(body(), "a page\n");
    // The same through the example.
    const Outcome example_run =
        run({example("zqget"), "--proxy", tinyproxy->address(), url("/medium")});
    EXPECT_EQ(example_run.status, 0) << example_run.err;
    EXPECT_TRUE(example_run.out == read_file(scratch->file("www/medium")));
    // Nobody listens there: the proxy says so in its own words.
    const std::string closed = "http://127.0.0.1:" + std::to_string(free_port()) + "/";
    EXPECT_EQ(zq_http_set_url(http.get(), closed.c_str()), ZQ_ERROR_NONE);
    EXPECT_EQ(zq_http_perform(http.get()), ZQ_ERROR_NONE);
    EXPECT_EQ(zq_http_get_status_code(http.get()), 500);
}
