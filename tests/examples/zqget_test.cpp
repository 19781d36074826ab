#include <csignal>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/scripted_server.h"
#include "tests/support/zqserve.h"

namespace fs = std::filesystem;

static Outcome zqget(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), example("zqget"));
    return run(arguments);
}

TEST(zqget, downloads)
{
    Zqserve server;
    Scratch scratch;
    std::string content(3 << 20, 'x');
    content[12345] = '\0';
    std::ofstream(server.www() + "/large.bin", std::ios::binary) << content;
    fs::create_directory(server.www() + "/data");
    std::ofstream(server.www() + "/data/index.json")
        << R"({"list": [1, {"name": "second"}], "pi": 3.25, "yes": true})";

    Outcome outcome = zqget({server.url() + "/large.bin", "-o", scratch.file("out")});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out + outcome.err, "");
    EXPECT_EQ(read_file(scratch.file("out")), content);
    EXPECT_EQ(zqget({server.url() + "/large.bin"}).out, content);

    const struct {
        std::vector<std::string> path;
        int status;
        std::string out;
    } queries[] = {
        {{"list", "#", "1", "name"}, 0, "second\n"},
        {{"pi"}, 0, "3.25\n"},
        {{"yes"}, 0, "true\n"},
        {{"no"}, 9, ""},
    };
    for (const auto &query : queries) {
        std::vector<std::string> arguments = {"--json", server.url() + "/data"};
        arguments.insert(arguments.end(), query.path.begin(), query.path.end());
        outcome = zqget(arguments);
        EXPECT_EQ(outcome.status, query.status);
        EXPECT_EQ(outcome.out, query.out);
    }

    outcome = zqget({"--head", server.url() + "/large.bin"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_NE(outcome.out.find("status: 200\n"), std::string::npos);
    EXPECT_NE(outcome.out.find("content-length: 3145728\n"), std::string::npos);
}

TEST(zqget, says_what_went_wrong)
{
    Zqserve server;
    Scratch scratch;
    const std::string nobody = "http://127.0.0.1:" + std::to_string(free_port()) + "/";
    const struct {
        std::vector<std::string> arguments;
        int status;
        std::string error;
    } rows[] = {
        {{nobody}, 4, "zqget: " + nobody + ": connection refused\n"},
        {{"--proxy", nobody.substr(7, nobody.size() - 8), "http://h/"},
         4,
         "zqget: http://h/: connection refused\n"},
        {{"https://h/"}, 3, "zqget: https://h/: unsupported operation\n"},
        {{"plain"}, 3, "zqget: plain: invalid argument\n"},
        {{server.url() + "/none"},
         7,
         "zqget: " + server.url() + "/none: the server answered with status 404\n"},
        {{server.url() + "/", "-o", "/nonexistent/file"},
         8,
         "zqget: unable to create '/nonexistent/file': No such file or directory\n"},
        {{"--proxy", "h", "http://h/"}, 2, "zqget: --proxy takes HOST:PORT, not 'h'\n"},
        {{"http://a/", "http://b/"}, 2, "zqget: one URL at a time, please\n"},
    };
    for (const auto &row : rows) {
        Outcome outcome = zqget(row.arguments);
        EXPECT_EQ(outcome.status, row.status);
        EXPECT_EQ(outcome.err, row.error);
    }
    Outcome verbose = zqget({"-v", nobody});
    EXPECT_NE(verbose.err.find("[7] connection refused\n"), std::string::npos) << verbose.err;
    EXPECT_EQ(zqget({}).status, 2);
    EXPECT_EQ(zqget({"--nonsense"}).status, 2);
    EXPECT_EQ(zqget({"-h"}).status, 0);
    EXPECT_TRUE(fs::is_empty(scratch.path()));
}

TEST(zqget, leaves_nothing_behind_when_interrupted_or_late)
{
    // Announces more than is sent, and then says nothing.
    const std::string part = "HTTP/1.0 200 OK\r\nContent-Length: 9999\r\n\r\npart";
    Scratch scratch, messages;
    auto start = [&](const ScriptedServer &server, const std::string &timeout) {
        std::string url = "http://127.0.0.1:" + std::to_string(server.port()) + "/";
        return std::make_unique<Process>(std::vector<std::string>{example("zqget"), url, "-t",
                                                                  timeout, "-o",
                                                                  scratch.file("out")},
                                         messages.file("text"));
    };
    ScriptedServer server(part, 0, ScriptedServer::STALL);
    auto interrupted = start(server, "20");
    while (fs::is_empty(scratch.path()))
        usleep(10000);
    usleep(100000);
    EXPECT_EQ(interrupted->stop(SIGINT), 130);
    EXPECT_EQ(read_file(messages.file("text")), "zqget: interrupted\n");

    ScriptedServer silent(part, 0, ScriptedServer::STALL);
    EXPECT_EQ(start(silent, "1")->stop(0), 5);
    EXPECT_TRUE(fs::is_empty(scratch.path()));

    // Silence alone is enough, and a body that keeps coming does not help.
    for (const char *option : {"-i", "-t"}) {
        const bool keeps_coming = option[1] == 't';
        ScriptedServer slow(part + std::string(keeps_coming ? 5000 : 0, 'x'), part.size(),
                            ScriptedServer::STALL, std::chrono::milliseconds(200));
        const std::string url = "http://127.0.0.1:" + std::to_string(slow.port()) + "/";
        Outcome outcome = run({"timeout", "20", example("zqget"), url, option, "1"});
        EXPECT_EQ(outcome.status, 5) << option;
        EXPECT_EQ(outcome.err, "zqget: " + url + ": timer expired\n") << option;
    }
}
