#include "tests/support/peer_server.h"

#include <cstdio>
#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

// Where c-icap has its services, below a folder that is named after the processor.
static std::string modules_directory()
{
    for (const auto &entry : fs::directory_iterator("/usr/lib")) {
        if (fs::exists(entry.path() / "c_icap"))
            return (entry.path() / "c_icap").string();
    }
    return "";
}

// Fills the template of the server's name, replacing every @KEY@, and returns the file.
static std::string configuration(const std::string &name, const Scratch &scratch, int port)
{
    std::string text = read_file(ZQ_TEST_SOURCE "/tests/interop/" + name + ".conf.in");
    const std::pair<std::string, std::string> values[] = {{"@DIR@", scratch.path()},
                                                          {"@PORT@", std::to_string(port)},
                                                          {"@MODULES@", modules_directory()}};
    for (const auto &[key, value] : values) {
        for (size_t at = text.find(key); at != std::string::npos; at = text.find(key, at))
            text.replace(at, key.size(), value);
    }
    return scratch.write(name + ".conf", text);
}

static std::vector<std::string> command(const std::string &name, const Scratch &scratch, int port)
{
    const std::string file = configuration(name, scratch, port);
    // Where servers are, for ordinary users too.
    const std::string program = (fs::exists("/usr/sbin/" + name) ? "/usr/sbin/" : "") + name;
    if (name == "tinyproxy")
        return {program, "-d", "-c", file};
    if (name == "c-icap")
        return {program, "-N", "-f", file};
    fs::create_directories(scratch.file("temp"));
    return {program, "-p", scratch.path(), "-e", scratch.file("error.log"), "-c", file};
}

PeerServer::PeerServer(const std::string &name, const Scratch &scratch)
    : own_port(free_port()), process(command(name, scratch, own_port), scratch.file(name + ".out")),
      is_listening(wait_for_port(own_port))
{
    if (!is_listening)
        fprintf(stderr, "%s: %s\n", name.c_str(), read_file(scratch.file(name + ".out")).c_str());
}
