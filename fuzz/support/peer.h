#ifndef FUZZ_SUPPORT_PEER_H
#define FUZZ_SUPPORT_PEER_H

// Stands in front of zq_handle_tcp_create() in the fuzzer that includes it (once): each TCP
// connection is one to the living Peer, and the clock moves only while the library waits for that.

#include <algorithm>
#include <sstream>
#include <vector>

#include "fuzz/support/clock.h"
#include "fuzz/support/fuzz.h"
#include "zq/net/zqhandle_tcp.h"

// What a server says, and how the network carries it: each call that connects, reads, writes or
// waits takes one step of a plan; without a step left everything goes at once. A step is
//   '.'      nothing happens for as long as the call may wait (a connect or write: it would block)
//   '-'      half of that time passes first; what happens then is the next step
//   '!'      to writes: the connection is reset
//   another  this moves as many bytes as its code, those beyond ASCII 64 times what they exceed it
struct Script {
    zqerror ending = ZQ_ERROR_END_OF_FILE; // comes behind each reply; or ZQ_ERROR_TIMED_OUT:
                                           // silence, and after more than a minute the end
    std::string reads, writes;             // the plans
    std::vector<std::string> replies;      // one a connection; the next connect is refused

    Script() = default;
    // Takes the whole input, where the replies have a record separator between them.
    explicit Script(Input &input)
    {
        static const zqerror endings[] = {ZQ_ERROR_END_OF_FILE, ZQ_ERROR_TIMED_OUT,
                                          ZQ_ERROR_CONNECTION_RESET};
        ending = endings[input.below(3)];
        reads = input.text();
        writes = input.text();
        for (std::istringstream texts(input.rest()); !texts.eof();)
            std::getline(texts, replies.emplace_back(), '\x1e');
    }
    Script without_plans() const
    {
        Script script = *this;
        script.reads = script.writes = "";
        return script;
    }
};

// Plays a script, from the start of time on.
class Peer {
  public:
    std::vector<std::string> requests; // what each connection has received
    bool reset = false;                // a write has failed
    int64_t quiet = 0;                 // microseconds without a byte, at present
    int64_t deadline = INT64_MAX;      // no read may begin then or later

    explicit Peer(const Script &plans) : script(plans)
    {
        current = this;
        fake_time = 0;
    }
    ~Peer() { current = nullptr; }
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;

    static inline Peer *current = nullptr;

    zqhandle *make_handle()
    {
        zqhandle *handle = zq_handle_create();
        zq_handle_set_connect_callback(handle, connect);
        zq_handle_set_connect_wait_callback(handle, poll_write);
        zq_handle_set_read_callback(handle, read);
        zq_handle_set_write_callback(handle, write);
        zq_handle_set_poll_write_callback(handle, poll_write);
        return handle;
    }
    // What came over the last connection, or would have.
    const std::string &reply() const { return script.replies[requests.size() - 1]; }

  private:
    using Limit = void (*)(zqhandle *, int32_t *, uint32_t *);
    static constexpr char AT_ONCE = '\0';
    static constexpr size_t ALL = SIZE_MAX;

    const Script script;
    size_t next_read = 0, next_write = 0, sent = 0;

    // Lets 1/`divisor` of the time pass that a call may wait. False when it waits for ever, which
    // no server does: then things go on at once.
    bool pass_time(zqhandle *handle, Limit limit, int divisor)
    {
        int32_t seconds;
        uint32_t microseconds;
        limit(handle, &seconds, &microseconds);
        if (seconds < 0)
            return false;
        const int64_t passed = (int64_t{seconds} * 1000000 + microseconds) / divisor;
        quiet += passed;
        fake_time += passed;
        return true;
    }
    char step(zqhandle *handle, Limit limit, const std::string &plan, size_t *next)
    {
        // Once a call: none may take longer than its limit.
        if (*next < plan.size() && plan[*next] == '-') {
            pass_time(handle, limit, 2);
            ++*next;
        }
        return *next < plan.size() ? plan[(*next)++] : AT_ONCE;
    }
    char write_step(zqhandle *handle)
    {
        return step(handle, zq_handle_get_write_timeout, script.writes, &next_write);
    }
    static size_t size_of(char step)
    {
        const size_t code = static_cast<unsigned char>(step);
        return step == AT_ONCE ? ALL : code < 128 ? code : (code - 127) * 64;
    }

    static zqerror connect(zqhandle *handle, const char *, uint32_t)
    {
        Peer &peer = *current;
        if (peer.requests.size() == peer.script.replies.size())
            return ZQ_ERROR_CONNECTION_REFUSED;
        peer.requests.emplace_back();
        peer.sent = 0;
        return peer.write_step(handle) == '.' ? ZQ_ERROR_IN_PROGRESS : ZQ_ERROR_NONE;
    }
    static size_t read(zqhandle *handle, void *buf, size_t count)
    {
        Peer &peer = *current;
        const std::string &reply = peer.reply();
        FUZZ_CHECK(fake_time < peer.deadline);
        const char step =
            peer.step(handle, zq_handle_get_read_timeout, peer.script.reads, &peer.next_read);
        const bool ended = peer.sent == reply.size() && peer.script.ending == ZQ_ERROR_TIMED_OUT;
        const bool silent = step == '.' || (ended && peer.quiet <= 60000000);
        if (silent && peer.pass_time(handle, zq_handle_get_read_timeout, 1)) {
            zq_handle_set_error(handle, ZQ_ERROR_TIMED_OUT);
            return 0;
        }
        const size_t size =
            reply.copy(static_cast<char *>(buf), std::min(count, size_of(step)), peer.sent);
        if (size == 0)
            zq_handle_set_error(handle, ended ? zqerror{ZQ_ERROR_END_OF_FILE} : peer.script.ending);
        else
            peer.quiet = 0;
        peer.sent += size;
        return size;
    }
    static size_t write(zqhandle *handle, const void *buf, size_t count)
    {
        Peer &peer = *current;
        const char step = peer.write_step(handle);
        peer.reset = peer.reset || step == '!';
        if (peer.reset || step == '.') {
            zq_handle_set_error(handle,
                                peer.reset ? ZQ_ERROR_CONNECTION_RESET : ZQ_ERROR_WOULD_BLOCK);
            return 0;
        }
        const size_t size = std::min(count, size_of(step));
        peer.requests.back().append(static_cast<const char *>(buf), size);
        peer.quiet = 0;
        return size;
    }
    static zqerror poll_write(zqhandle *handle)
    {
        Peer &peer = *current;
        return peer.write_step(handle) == '.' &&
                       peer.pass_time(handle, zq_handle_get_write_timeout, 1)
                   ? ZQ_ERROR_TIMED_OUT
                   : ZQ_ERROR_NONE;
    }
};

zqhandle *zq_handle_tcp_create(void)
{
    return Peer::current->make_handle();
}

#endif
