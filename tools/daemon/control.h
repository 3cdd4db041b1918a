// The control socket between dhcpsnoopctl and dhcpsnoopd: a Unix stream
// socket, one request per connection.
//
// Request: the command's words separated by single blanks, ended by a
// newline (at most kRequestMax bytes with it). Reply: "ok" or "error" on the
// first line, then the body; the daemon closes the connection after it.
// "monitor" is the exception: after its "ok" the connection stays open and
// the daemon writes its events, one line each (see monitor.h).
// Plain text on purpose: `echo bindings | socat - UNIX:/run/dhcpsnoop/dhcpsnoopd.sock`
// works too.
#pragma once

#include <atomic>
#include <functional>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "tools/daemon/command.h"
#include "tools/daemon/monitor.h"

namespace ctl {

constexpr size_t kRequestMax = 1024;
// Enough for every binding and event the daemon keeps, with room to spare.
constexpr size_t kReplyMax = 8u << 20;
// A client that sends or reads slower than this is dropped, so one stuck
// client cannot hold the socket (or the daemon's shutdown) for long.
constexpr int kClientTimeoutMs = 2000;

// False when a word is empty or holds a blank or a control character.
bool encodeRequest(const std::vector<std::string>& words, std::string& out, std::string& error);
// The line without its newline.
bool decodeRequest(const std::string& line, std::vector<std::string>& words, std::string& error);
std::string encodeReply(const Reply& reply);
bool decodeReply(const std::string& text, Reply& reply, std::string& error);

enum class CallResult { Ok, Unreachable, BadReply };
// Sends one request and reads the whole reply, within timeoutMs.
CallResult call(const std::string& path, const std::vector<std::string>& words, Reply& reply,
                std::string& error, int timeoutMs = 10000);
// A monitor request: its status line within timeoutMs, then every line the
// daemon pushes goes to out (flushed) until the daemon closes the
// connection. Ok with reply.ok false: refused, reply.body says why; Ok with
// reply.ok true: the stream ended.
CallResult monitor(const std::string& path, const std::vector<std::string>& words, std::ostream& out,
                   Reply& reply, std::string& error, int timeoutMs = 10000);

class Server {
public:
    using Handler = std::function<Reply(const std::vector<std::string>&)>;

    Server();
    ~Server();  // stops
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Creates the socket (mode 0600). A lock on PATH.lock, held until stop,
    // makes sure one daemon at a time owns the path; an existing socket
    // file is replaced only under it and when nothing listens on it. Call
    // before other threads exist: the file mode is set through the
    // process's umask, never by a chmod that a link could redirect.
    bool listen(const std::string& path, std::string& error);
    // Clients are served only when their credentials (SO_PEERCRED) name one
    // of these users: by default root and the effective user when the server
    // was made. A daemon that changes its user later names it here, before
    // start.
    void allowUsers(std::vector<uint32_t> uids) { allowed_ = std::move(uids); }
    // Tests only: runs between the bind and the listen.
    std::function<void()> afterBindForTests;
    // Serves clients one at a time on a thread of its own; monitors stay
    // connected and are served beside them.
    bool start(Handler handler, std::string& error);
    // Where the daemon publishes the events its monitors get.
    MonitorHub& monitors() { return monitors_; }
    // Ends the thread (also in the middle of a client), closes and removes
    // the socket. Safe to call more than once.
    void stop();

private:
    void loop();
    // True when the connection was kept (a monitor).
    bool serve(int fd);

    std::string path_;
    uint64_t dev_ = 0;  // of the socket file we made
    uint64_t ino_ = 0;
    int listenFd_ = -1;
    int lockFd_ = -1;
    std::vector<uint32_t> allowed_;
    int wake_[2] = {-1, -1};
    Handler handler_;
    MonitorHub monitors_;
    std::thread thread_;
};

}  // namespace ctl
