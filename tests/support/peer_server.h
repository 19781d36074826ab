#ifndef TESTS_SUPPORT_PEER_SERVER_H
#define TESTS_SUPPORT_PEER_SERVER_H

#include <string>

#include "tests/support/process.h"
#include "tests/support/scratch.h"

// A server of other people, "nginx", "tinyproxy" or "c-icap", on a loopback port, with its template
// in tests/interop and all its files in the scratch directory; it is asked to end when the object
// goes.
class PeerServer {
  public:
    PeerServer(const std::string &name, const Scratch &scratch);
    ~PeerServer() { process.stop(SIGTERM); }

    // True once it listens; else standard error has what it said.
    bool listens() const { return is_listening; }
    int port() const { return own_port; }
    // "127.0.0.1:port"
    std::string address() const { return "127.0.0.1:" + std::to_string(own_port); }

  private:
    int own_port;
    Process process;
    bool is_listening;
};

#endif
