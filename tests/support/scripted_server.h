#ifndef TESTS_SUPPORT_SCRIPTED_SERVER_H
#define TESTS_SUPPORT_SCRIPTED_SERVER_H

#include <chrono>
#include <string>
#include <thread>

// Accepts one connection on a loopback port, sends what it was told to whatever is asked, and keeps
// all it receives until the client closes.
class ScriptedServer {
  public:
    enum Ending {
        CLOSE, // ends the stream behind the reply
        STALL, // says nothing more
        RESET, // waits for a request and resets the connection behind the reply
    };
    // `piece` bytes are sent at a time, 0 sends all at once, and the pause comes before each.
    explicit ScriptedServer(std::string reply, size_t piece = 0, Ending ending = CLOSE,
                            std::chrono::milliseconds pause = {});
    ~ScriptedServer();
    ScriptedServer(const ScriptedServer &) = delete;
    ScriptedServer &operator=(const ScriptedServer &) = delete;

    uint32_t port() const { return listening_port; }
    // Waits for the client to close; the bytes that it had sent.
    std::string request();

  private:
    void serve(const std::string &reply, size_t piece, Ending ending,
               std::chrono::milliseconds pause);
    int listener;
    uint32_t listening_port;
    std::string received;
    std::thread thread;
};

#endif
