#include "tools/daemon/control.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <string.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

namespace ctl {

namespace {

int64_t nowMs()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

int leftMs(int64_t deadline)
{
    int64_t left = deadline - nowMs();
    if (left > INT32_MAX)
        return -1;  // no end: poll waits for ever
    return left < 0 ? 0 : (int)left;
}

bool socketAddress(const std::string& path, struct sockaddr_un& addr, std::string& error)
{
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof addr.sun_path || path.find('\0') != std::string::npos) {
        error = "control socket path \"" + path + "\" is empty or longer than " +
                std::to_string(sizeof addr.sun_path - 1) + " bytes";
        return false;
    }
    memcpy(addr.sun_path, path.data(), path.size());
    return true;
}

std::string sysError(const std::string& what)
{
    return what + ": " + strerror(errno);
}

void closeFd(int& fd)
{
    if (fd >= 0)
        close(fd);
    fd = -1;
}

// Waits for events on fd, or for the wake pipe when one is given. 1 ready,
// 0 timed out or woken, -1 error.
int waitFor(int fd, short events, int wakeFd, int64_t deadline)
{
    for (;;) {
        struct pollfd p[2] = {{fd, events, 0}, {wakeFd, POLLIN, 0}};
        int n = poll(p, wakeFd >= 0 ? 2 : 1, leftMs(deadline));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return -1;
        if (n == 0 || (wakeFd >= 0 && p[1].revents != 0))
            return 0;
        return 1;
    }
}

// Writes all of data before the deadline; false otherwise.
bool writeAll(int fd, const std::string& data, int wakeFd, int64_t deadline)
{
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
        if (n > 0) {
            done += (size_t)n;
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) && waitFor(fd, POLLOUT, wakeFd, deadline) == 1)
            continue;
        return false;
    }
    return true;
}

}  // namespace

bool encodeRequest(const std::vector<std::string>& words, std::string& out, std::string& error)
{
    std::string text;
    for (const std::string& w : words) {
        if (w.empty()) {
            error = "empty argument";
            return false;
        }
        for (char ch : w) {
            unsigned char c = (unsigned char)ch;
            if (c <= ' ' || c == 0x7F) {
                error = "argument with a blank or control character";
                return false;
            }
        }
        text += (text.empty() ? "" : " ") + w;
    }
    text += "\n";
    if (text.size() > kRequestMax) {
        error = "command longer than " + std::to_string(kRequestMax) + " bytes";
        return false;
    }
    out = text;
    return true;
}

bool decodeRequest(const std::string& line, std::vector<std::string>& words, std::string& error)
{
    std::vector<std::string> out;
    std::string word;
    for (size_t i = 0; i <= line.size(); ++i) {
        unsigned char c = i < line.size() ? (unsigned char)line[i] : ' ';
        if (c == ' ') {
            if (!word.empty())
                out.push_back(word);
            word.clear();
        } else if (c < ' ' || c == 0x7F) {
            error = "request with a control character";
            return false;
        } else {
            word += (char)c;
        }
    }
    words = out;
    return true;
}

std::string encodeReply(const Reply& reply)
{
    return (reply.ok ? "ok\n" : "error\n") + reply.body;
}

bool decodeReply(const std::string& text, Reply& reply, std::string& error)
{
    size_t nl = text.find('\n');
    std::string status = nl == std::string::npos ? text : text.substr(0, nl);
    if (status != "ok" && status != "error") {
        error = "the daemon's reply has no status line";
        return false;
    }
    reply.ok = status == "ok";
    reply.body = nl == std::string::npos ? std::string() : text.substr(nl + 1);
    return true;
}

namespace {

// Connects to the daemon at path and sends the request; the socket, or -1
// with error and how it failed.
int openCall(const std::string& path, const std::vector<std::string>& words, int64_t deadline, std::string& error,
             CallResult& failed)
{
    failed = CallResult::BadReply;
    std::string request;
    if (!encodeRequest(words, request, error))
        return -1;
    failed = CallResult::Unreachable;
    struct sockaddr_un addr;
    if (!socketAddress(path, addr, error))
        return -1;
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        error = sysError("socket");
        return -1;
    }
    int rc;
    // A full backlog answers EAGAIN: the daemon is busy with another client.
    while ((rc = connect(fd, (struct sockaddr*)&addr, sizeof addr)) != 0 && (errno == EAGAIN || errno == EINTR) &&
           leftMs(deadline) > 0)
        poll(nullptr, 0, 20);
    if (rc != 0) {
        error = sysError("cannot reach the daemon at " + path);
        close(fd);
        return -1;
    }
    if (!writeAll(fd, request, -1, deadline)) {
        error = "cannot reach the daemon at " + path + ": the request was not taken";
        close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

CallResult call(const std::string& path, const std::vector<std::string>& words, Reply& reply,
                std::string& error, int timeoutMs)
{
    int64_t deadline = nowMs() + timeoutMs;
    CallResult result;
    int fd = openCall(path, words, deadline, error, result);
    if (fd < 0)
        return result;
    result = CallResult::Unreachable;
    std::string text;
    for (;;) {
        char buf[4096];
        ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n > 0) {
            if (text.size() + (size_t)n > kReplyMax) {
                error = "the daemon's reply is longer than " + std::to_string(kReplyMax) + " bytes";
                result = CallResult::BadReply;
                break;
            }
            text.append(buf, (size_t)n);
            continue;
        }
        if (n == 0) {
            result = decodeReply(text, reply, error) ? CallResult::Ok : CallResult::BadReply;
            break;
        }
        if (errno == EINTR)
            continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            int w = waitFor(fd, POLLIN, -1, deadline);
            if (w == 1)
                continue;
            error = w == 0 ? "the daemon at " + path + " did not answer within " + std::to_string(timeoutMs / 1000) +
                                 " s"
                           : sysError("poll");
        } else {
            error = sysError("reading the daemon's reply");
        }
        break;
    }
    close(fd);
    return result;
}

CallResult monitor(const std::string& path, const std::vector<std::string>& words, std::ostream& out,
                   Reply& reply, std::string& error, int timeoutMs)
{
    int64_t deadline = nowMs() + timeoutMs;
    CallResult failed;
    int fd = openCall(path, words, deadline, error, failed);
    if (fd < 0)
        return failed;
    // The status line within the time; the events then for as long as they come.
    std::string text;
    bool streaming = false;
    CallResult result = CallResult::Unreachable;
    for (;;) {
        char buf[4096];
        ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n > 0) {
            if (streaming) {
                out.write(buf, n);
                out.flush();
                continue;
            }
            text.append(buf, (size_t)n);
            size_t nl = text.find('\n');
            if (nl == std::string::npos && text.size() < kReplyMax)
                continue;
            if (text.compare(0, 3, "ok\n") == 0) {
                streaming = true;
                reply.ok = true;
                if (text.size() > 3) {
                    out.write(text.data() + 3, (std::streamsize)(text.size() - 3));
                    out.flush();
                }
                text.clear();
            }
            // A refusal: read to its end.
            continue;
        }
        if (n == 0) {
            if (streaming) {
                reply.body.clear();
                result = CallResult::Ok;
            } else {
                result = decodeReply(text, reply, error) ? CallResult::Ok : CallResult::BadReply;
            }
            break;
        }
        if (errno == EINTR)
            continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            int w = waitFor(fd, POLLIN, -1, streaming ? INT64_MAX : deadline);
            if (w == 1)
                continue;
            error = w == 0 ? "the daemon at " + path + " did not answer within " + std::to_string(timeoutMs / 1000) +
                                 " s"
                           : sysError("poll");
        } else {
            error = sysError("reading from the daemon");
        }
        break;
    }
    close(fd);
    return result;
}

Server::Server()
{
    allowed_ = {0u, (uint32_t)geteuid()};
    if (pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0)
        wake_[0] = wake_[1] = -1;
}

Server::~Server()
{
    stop();
    closeFd(wake_[0]);
    closeFd(wake_[1]);
    closeFd(lockFd_);
}

bool Server::listen(const std::string& path, std::string& error)
{
    struct sockaddr_un addr;
    if (listenFd_ >= 0) {
        error = "control socket already open";
        return false;
    }
    if (wake_[0] < 0) {
        error = "control socket: no wake-up pipe";
        return false;
    }
    if (!socketAddress(path, addr, error))
        return false;
    // One daemon per socket path: whoever holds the lock may replace a stale
    // socket file; without it, two daemons starting at once could each find
    // the other's bound but not yet listening socket "stale" and both serve.
    // The lock file stays: removing it would let a third daemon lock a new
    // file while the second still holds the old one.
    std::string lockPath = path + ".lock";
    if (lockFd_ < 0) {
        int lfd = open(lockPath.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (lfd < 0) {
            error = sysError("control socket lock " + lockPath);
            return false;
        }
        if (flock(lfd, LOCK_EX | LOCK_NB) != 0) {
            int err = errno;
            close(lfd);
            if (err == EWOULDBLOCK) {
                error = "another daemon is listening on " + path + " (it holds " + lockPath + ")";
            } else {
                errno = err;
                error = sysError("control socket lock " + lockPath);
            }
            return false;
        }
        lockFd_ = lfd;
    }
    auto unlock = [this] { closeFd(lockFd_); };
    struct stat st;
    if (lstat(path.c_str(), &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) {
            error = "control socket " + path + " exists and is not a socket";
            unlock();
            return false;
        }
        // Replace the file only when nothing answers on it: a daemon that
        // predates the lock file must not lose its socket either.
        int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (probe < 0) {
            error = sysError("socket");
            unlock();
            return false;
        }
        int rc = connect(probe, (struct sockaddr*)&addr, sizeof addr);
        int err = errno;
        close(probe);
        if (rc == 0) {
            error = "another daemon is listening on " + path;
            unlock();
            return false;
        }
        if (err != ECONNREFUSED) {
            errno = err;
            error = sysError("control socket " + path);
            unlock();
            return false;
        }
        if (unlink(path.c_str()) != 0 && errno != ENOENT) {
            error = sysError("removing the stale control socket " + path);
            unlock();
            return false;
        }
    }
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        error = sysError("socket");
        unlock();
        return false;
    }
    // The socket file is created with the umask's mode: never readable by
    // others. No chmod afterwards: it would follow a link put in its place.
    mode_t old = umask(0177);
    int rc = bind(fd, (struct sockaddr*)&addr, sizeof addr);
    int err = errno;
    umask(old);
    if (rc != 0) {
        errno = err;
        error = sysError("control socket " + path);
        close(fd);
        unlock();
        return false;
    }
    if (afterBindForTests)
        afterBindForTests();
    if (lstat(path.c_str(), &st) != 0 || !S_ISSOCK(st.st_mode) || st.st_uid != geteuid() ||
        (st.st_mode & 0077) != 0) {
        error = "control socket " + path + " was replaced while it was being made";
        close(fd);
        unlock();
        return false;
    }
    if (::listen(fd, 8) != 0) {
        error = sysError("control socket " + path);
        unlink(path.c_str());
        close(fd);
        unlock();
        return false;
    }
    dev_ = st.st_dev;
    ino_ = st.st_ino;
    listenFd_ = fd;
    path_ = path;
    return true;
}

bool Server::start(Handler handler, std::string& error)
{
    if (listenFd_ < 0 || thread_.joinable()) {
        error = "control socket not open, or already served";
        return false;
    }
    handler_ = std::move(handler);
    thread_ = std::thread([this] { loop(); });
    return true;
}

void Server::stop()
{
    if (thread_.joinable()) {
        char b = 1;
        ssize_t n = write(wake_[1], &b, 1);
        (void)n;
        thread_.join();
    }
    // Their clients see the end of the stream.
    monitors_.closeAll();
    if (listenFd_ >= 0) {
        closeFd(listenFd_);
        // Only our own socket file: another daemon may have replaced it.
        struct stat st;
        if (lstat(path_.c_str(), &st) == 0 && st.st_dev == dev_ && st.st_ino == ino_)
            unlink(path_.c_str());
    }
    // After the unlink: a daemon that takes the lock next finds no socket of ours.
    closeFd(lockFd_);
}

void Server::loop()
{
    // Named for the module's debug lines written on this thread.
    pthread_setname_np(pthread_self(), "control");
    for (;;) {
        std::vector<struct pollfd> p = {{listenFd_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
        size_t first = 0;
        monitors_.pollSet(p, &first);
        // With monitors connected, a stuck one is looked at every second.
        int n = poll(p.data(), (nfds_t)p.size(), monitors_.clients() > 0 ? 1000 : -1);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 || p[1].revents != 0)
            return;
        monitors_.service(p, first, nowMs());
        if (p[0].revents == 0)
            continue;
        int fd = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) {
            // Out of descriptors and the like: wait a little rather than spin.
            if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR && errno != ECONNABORTED &&
                waitFor(wake_[0], POLLIN, -1, nowMs() + 100) != 0)
                return;
            continue;
        }
        if (!serve(fd))
            close(fd);
    }
}

bool Server::serve(int fd)
{
    int64_t deadline = nowMs() + kClientTimeoutMs;
    std::string text;
    bool tooLong = false;
    for (;;) {
        char buf[256];
        ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n > 0) {
            text.append(buf, (size_t)n);
            size_t nl = text.find('\n');
            if (nl != std::string::npos) {
                tooLong = nl + 1 > kRequestMax;
                text.resize(nl);
                break;
            }
            if (text.size() >= kRequestMax) {
                tooLong = true;
                break;
            }
            continue;
        }
        if (n == 0)
            break;  // a request without its newline is taken as it stands
        if (errno == EINTR)
            continue;
        if ((errno == EAGAIN || errno == EWOULDBLOCK) && waitFor(fd, POLLIN, wake_[0], deadline) == 1)
            continue;
        return false;  // error, too slow, or shutting down: no answer
    }
    Reply reply;
    std::vector<std::string> words;
    // The socket file is owner-only, but its mode or directory may have been
    // opened up: the credentials decide. The request was read all the same,
    // so the refusal reaches the client rather than a reset.
    struct ucred cred;
    socklen_t credLen = sizeof cred;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &credLen) != 0 || credLen != sizeof cred)
        reply.body = "the client's credentials cannot be read";
    else if (std::find(allowed_.begin(), allowed_.end(), (uint32_t)cred.uid) == allowed_.end())
        reply.body = "user " + std::to_string(cred.uid) +
                     " may not use the control socket (root and the daemon's user only)";
    else if (tooLong)
        reply.body = "request longer than " + std::to_string(kRequestMax) + " bytes";
    else if (decodeRequest(text, words, reply.body)) {
        if (!words.empty() && words[0] == "monitor") {
            // The connection stays: the hub writes the events from here on.
            Command cmd;
            if (parseCommand(words, cmd, reply.body) && monitors_.add(fd, cmd.json, reply.body)) {
                writeAll(fd, "ok\n", wake_[0], nowMs() + kClientTimeoutMs);
                return true;
            }
        } else {
            reply = handler_(words);
        }
    }
    writeAll(fd, encodeReply(reply), wake_[0], nowMs() + kClientTimeoutMs);
    return false;
}

}  // namespace ctl
