#include "tests/support/zqserve.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <sys/resource.h>
#include <thread>

#include "tests/net/tcp_server.h"

namespace fs = std::filesystem;

static void write(const std::string &path, const std::string &content)
{
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

// What curl makes of a request, as "status type\nbody".
static std::string curl(const std::string &url, const std::vector<std::string> &options = {})
{
    std::vector<std::string> command = {"curl",
                                        "-s",
                                        "--path-as-is",
                                        "--max-time",
                                        "20",
                                        "-w",
                                        "%{stderr}%{http_code} %{content_type}"};
    command.insert(command.end(), options.begin(), options.end());
    command.push_back(url);
    Outcome outcome = run(command);
    return outcome.err + "\n" + outcome.out;
}

TEST(zqserve, answers_requests)
{
    Zqserve server;
    ASSERT_FALSE(server.url().empty());
    write(server.www() + "/index.html", "<p>home");
    write(server.www() + "/docs/a b.txt", "text");
    write(server.www() + "/docs/x&<y>.bin", "bin");
    write(server.www() + "/../outside.txt", "secret");
    write(server.www() + "/data/index.json", "{}");
    fs::create_symlink("../outside.txt", server.www() + "/link.txt");

    const std::string html = "text/html; charset=utf-8\n";
    const std::string text = "text/plain; charset=utf-8\n";
    const struct {
        std::string target;
        std::vector<std::string> options;
        std::string answer;
    } rows[] = {
        {"/", {}, "200 " + html + "<p>home"},
        {"/?query", {}, "200 " + html + "<p>home"},
        {"/index.html", {"-I", "-o", "/dev/null"}, "200 " + html},
        {"/docs/a%20b.txt", {}, "200 " + text + "text"},
        {"/docs/a%20b.txt", {"-r", "1-2"}, "200 " + text + "text"},
        {"/docs", {}, "301 " + text + "301 Moved Permanently\n"},
        {"/docs?q", {"-L"}, ""},
        {"/data", {"-L"}, "200 application/json\n{}"},
        {"/missing", {}, "404 " + text + "404 Not Found\n"},
        {"/index.html/", {}, "404 " + text + "404 Not Found\n"},
        {"/link.txt", {}, "404 " + text + "404 Not Found\n"},
        {"/", {"-d", "x"}, "405 " + text + "405 Method Not Allowed\n"},
        {"/", {"-X", "DELETE"}, "405 " + text + "405 Method Not Allowed\n"},
        {"/../outside.txt", {}, "400 " + text + "400 Bad Request\n"},
        {"/%2e%2e/outside.txt", {}, "400 " + text + "400 Bad Request\n"},
        {"/docs/..%2f../outside.txt", {}, "400 " + text + "400 Bad Request\n"},
        {"/%00", {}, "400 " + text + "400 Bad Request\n"},
        {"/%zz", {}, "400 " + text + "400 Bad Request\n"},
        {"/" + std::string(9000, 'a'), {}, "400 " + text + "400 Bad Request\n"},
    };
    for (const auto &row : rows) {
        if (!row.answer.empty()) {
            EXPECT_EQ(curl(server.url() + row.target, row.options), row.answer) << row.target;
        }
    }
    std::string listing = curl(server.url() + "/docs?q", {"-L"});
    EXPECT_NE(listing.find("<a href=\"./a%20b.txt\">a b.txt</a>"), std::string::npos) << listing;
    EXPECT_NE(listing.find("<a href=\"./x%26%3Cy%3E.bin\">x&amp;&lt;y&gt;.bin</a>"),
              std::string::npos)
        << listing;
    EXPECT_EQ(server.stop(SIGTERM), 0);
    EXPECT_NE(server.access_log().find(" GET /docs/a%20b.txt 200 4\n"), std::string::npos)
        << server.access_log();
}

TEST(zqserve, keeps_connections_and_serves_wget)
{
    Zqserve server;
    write(server.www() + "/a.txt", "first");
    write(server.www() + "/b.txt", "second");
    Outcome outcome = run(
        {"curl", "-s", "-w", "%{num_connects}", server.url() + "/a.txt", server.url() + "/b.txt"});
    EXPECT_EQ(outcome.out, "first1second0");
    EXPECT_EQ(run({"wget", "-q", "-O", "-", server.url() + "/a.txt"}).out, "first");
}

TEST(zqserve, finishes_what_is_running_when_stopped)
{
    Zqserve server;
    write(server.www() + "/large.bin", std::string(12 << 20, 'x')); // more than the system buffers
    const Fd client = connect_to(server.port());
    send_text(client, "GET /large.bin HTTP/1.0\r\n\r\n");
    std::string answer = receive_text(client);
    std::thread reader([&] { answer += receive_all(client); });
    EXPECT_EQ(server.stop(SIGINT), 0);
    reader.join();
    EXPECT_EQ(answer.size() - answer.find("\r\n\r\n"), 4 + (12u << 20));
}

TEST(zqserve, holds_64_connections)
{
    Zqserve server;
    write(server.www() + "/a.txt", std::string(1000, 'x'));
    Outcome outcome = run({"wrk", "-t", "2", "-c", "64", "-d", "2s", server.url() + "/a.txt"});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_NE(outcome.out.find("Requests/sec"), std::string::npos) << outcome.out;
    EXPECT_EQ(outcome.out.find("Socket errors"), std::string::npos) << outcome.out;
    EXPECT_EQ(outcome.out.find("Non-2xx"), std::string::npos) << outcome.out;
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

// Asks on a connection that stays open: the status, or "" when it was closed.
static std::string status_of(const Fd &client, const std::string &target)
{
    send_text(client, "HEAD " + target + " HTTP/1.1\r\n\r\n");
    const std::string head = receive_text(client);
    return head.substr(0, 9) == "HTTP/1.1 " ? head.substr(9, 3) : head;
}

// The descriptor that a process gets next.
static rlim_t next_descriptor(pid_t pid)
{
    rlim_t next = 0;
    while (fs::exists(
        fs::symlink_status("/proc/" + std::to_string(pid) + "/fd/" + std::to_string(next))))
        next++;
    return next;
}

TEST(zqserve, goes_on_when_a_limit_is_raised_again)
{
    Zqserve server;
    write(server.www() + "/page.txt", "a page");
    rlimit before = {};
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // they need all of it
    prlimit(server.pid(), RLIMIT_AS, nullptr, &before);
    const rlimit space = {address_space(server.pid()) + (1 << 20), before.rlim_max};
    ASSERT_EQ(prlimit(server.pid(), RLIMIT_AS, &space, nullptr), 0);
    EXPECT_EQ(status_of(connect_to(server.port()), "/page.txt"), "") << "no room for a stack";
    prlimit(server.pid(), RLIMIT_AS, &before, nullptr);
#endif
    Fd open = connect_to(server.port());
    for (int i = 0; i < 2; i++) // with the second one, the first is in the log
        EXPECT_EQ(status_of(open, "/missing"), "404");
    prlimit(server.pid(), RLIMIT_NOFILE, nullptr, &before);
    const rlimit descriptors = {next_descriptor(server.pid()), before.rlim_max};
    ASSERT_EQ(prlimit(server.pid(), RLIMIT_NOFILE, &descriptors, nullptr), 0);
    EXPECT_EQ(status_of(open, "/page.txt"), "500") << "the file cannot be opened";
    Fd waiting = connect_to(server.port());
    auto has_said = [&](const char *text) {
        return server.messages().find(text) != std::string::npos;
    };
    for (int tries = 0; tries < 1000 && !has_said("accept returned 202"); tries++)
        usleep(10000);
    EXPECT_TRUE(has_said("accept() returned error 24"));
    prlimit(server.pid(), RLIMIT_NOFILE, &before, nullptr);
    EXPECT_EQ(status_of(waiting, "/page.txt"), "200");
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

TEST(zqserve, refuses_what_it_cannot_serve)
{
    Scratch scratch;
    const struct {
        std::vector<std::string> arguments;
        int status;
        std::string error;
    } rows[] = {
        {{"/nonexistent"},
         1,
         "zqserve: unable to serve '/nonexistent': No such file or directory\n"},
        {{scratch.path(), "--port", "70000"}, 2, "zqserve: a port is a number from 0 to 65535\n"},
    };
    for (const auto &row : rows) {
        std::vector<std::string> command = {example("zqserve")};
        command.insert(command.end(), row.arguments.begin(), row.arguments.end());
        Outcome outcome = run(command);
        EXPECT_EQ(outcome.status, row.status);
        EXPECT_EQ(outcome.err, row.error);
    }
    EXPECT_EQ(run({example("zqserve")}).status, 2);
    EXPECT_EQ(run({example("zqserve"), "--help"}).status, 0);
}
