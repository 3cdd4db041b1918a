#include "tools/daemon/monitor.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>

#include "tools/common/json_text.h"
#include "tools/daemon/command.h"

namespace ctl {

namespace {

const char* kindWord(live::MonitorEvent::Kind k, bool json)
{
    switch (k) {
    case live::MonitorEvent::BindingAdded:
        return json ? "binding-added" : "binding added";
    case live::MonitorEvent::BindingRemoved:
        return json ? "binding-removed" : "binding removed";
    case live::MonitorEvent::RateLimit:
        return "rate-limit";
    default:
        return "drop";
    }
}

bool isBinding(const live::MonitorEvent& e)
{
    return e.kind == live::MonitorEvent::BindingAdded || e.kind == live::MonitorEvent::BindingRemoved;
}

// Names and reasons come from the daemon, but a line must stay one line.
std::string oneLine(const std::string& s)
{
    std::string out = s;
    for (char& c : out)
        if ((unsigned char)c < 0x20 || c == 0x7F)
            c = '?';
    return out;
}

}  // namespace

std::string utcMsText(uint64_t unixMs)
{
    time_t t = (time_t)(unixMs / 1000);
    struct tm tm;
    char buf[40];
    if (gmtime_r(&t, &tm) == nullptr || strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S", &tm) == 0)
        return "1970-01-01T00:00:00.000Z";
    char out[48];
    snprintf(out, sizeof out, "%s.%03uZ", buf, (unsigned)(unixMs % 1000));
    return out;
}

std::string monitorLine(const live::MonitorEvent& e, bool json)
{
    std::string o;
    if (json) {
        o = "{\"time\":" + jsontext::quoted(utcMsText(e.unixMs)) + ",\"event\":\"" + kindWord(e.kind, true) + "\"";
        if (isBinding(e)) {
            o += ",\"ip\":" + jsontext::quoted(ipText(e.ip)) + ",\"mac\":" + jsontext::quoted(macText(e.mac)) +
                 ",\"vlan\":" + std::to_string(e.vlan) + ",\"port\":" + jsontext::quoted(e.port);
            if (e.kind == live::MonitorEvent::BindingAdded)
                o += ",\"lease\":" + (e.lease == kLeaseForever ? std::string("null") : std::to_string(e.lease));
            o += ",\"cause\":" + jsontext::quoted(e.cause);
        } else if (e.kind == live::MonitorEvent::RateLimit) {
            o += ",\"port\":" + jsontext::quoted(e.port) + ",\"limit\":" + jsontext::quoted(e.reason);
        } else {
            o += ",\"port\":" + jsontext::quoted(e.port) + ",\"mac\":" + jsontext::quoted(macText(e.mac)) +
                 ",\"reason\":" + jsontext::quoted(e.reason);
        }
        return o + "}\n";
    }
    o = utcMsText(e.unixMs) + " " + kindWord(e.kind, false);
    if (isBinding(e)) {
        o += " " + ipText(e.ip) + " mac " + macText(e.mac) + " vlan " + std::to_string(e.vlan) + " port " +
             oneLine(e.port);
        if (e.kind == live::MonitorEvent::BindingAdded)
            o += " lease " + (e.lease == kLeaseForever ? std::string("infinite") : std::to_string(e.lease));
        o += " cause " + oneLine(e.cause);
    } else if (e.kind == live::MonitorEvent::RateLimit) {
        o += " port " + oneLine(e.port) + " " + oneLine(e.reason);
    } else {
        // The reason last: it has blanks.
        o += " port " + oneLine(e.port) + " mac " + macText(e.mac) + " reason " + oneLine(e.reason);
    }
    return o + "\n";
}

std::string monitorLostLine(uint64_t lost, uint64_t unixMs, bool json)
{
    if (json)
        return "{\"time\":" + jsontext::quoted(utcMsText(unixMs)) + ",\"event\":\"lost\",\"count\":" +
               std::to_string(lost) + "}\n";
    return utcMsText(unixMs) + " lost " + std::to_string(lost) + (lost == 1 ? " event\n" : " events\n");
}

bool MonitorQueue::push(const live::MonitorEvent& e)
{
    if (events_.size() >= max_) {
        ++lost_;
        return false;
    }
    events_.push_back(e);
    return true;
}

std::deque<live::MonitorEvent> MonitorQueue::take(uint64_t* lost)
{
    std::deque<live::MonitorEvent> out;
    out.swap(events_);
    *lost = lost_;
    lost_ = 0;
    return out;
}

MonitorHub::MonitorHub(Limits limits) : limits_(limits)
{
    if (pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0)
        wake_[0] = wake_[1] = -1;
}

MonitorHub::~MonitorHub()
{
    closeAll();
    for (int& fd : wake_) {
        if (fd >= 0)
            close(fd);
        fd = -1;
    }
}

void MonitorHub::publish(const live::MonitorEvent& e)
{
    {
        std::lock_guard<std::mutex> g(lock_);
        if (clients_.empty())
            return;
        for (auto& c : clients_)
            c->queue.push(e);
    }
    // One byte wakes the control thread however many events wait.
    if (!wakePending_.exchange(true) && wake_[1] >= 0) {
        char b = 1;
        ssize_t n = write(wake_[1], &b, 1);
        (void)n;
    }
}

bool MonitorHub::add(int fd, bool json, std::string& error)
{
    {
        std::lock_guard<std::mutex> g(lock_);
        if (clients_.size() >= limits_.clients) {
            error = "monitor: " + std::to_string(limits_.clients) + " monitors are connected already";
            return false;
        }
        std::unique_ptr<Client> c(new Client);
        c->fd = fd;
        c->json = json;
        c->queue = MonitorQueue(limits_.queue);
        clients_.push_back(std::move(c));
    }
    tellListening();
    return true;
}

size_t MonitorHub::clients() const
{
    std::lock_guard<std::mutex> g(lock_);
    return clients_.size();
}

void MonitorHub::pollSet(std::vector<struct pollfd>& p, size_t* first) const
{
    *first = p.size();
    p.push_back({wake_[0], POLLIN, 0});
    std::lock_guard<std::mutex> g(lock_);
    for (const auto& c : clients_)
        p.push_back({c->fd, (short)(c->out.empty() ? POLLIN : (POLLIN | POLLOUT)), 0});
}

void MonitorHub::remove(size_t i)
{
    std::unique_ptr<Client> gone;
    {
        std::lock_guard<std::mutex> g(lock_);
        gone = std::move(clients_[i]);
        clients_.erase(clients_.begin() + (std::ptrdiff_t)i);
    }
    close(gone->fd);
}

void MonitorHub::tellListening()
{
    bool any = clients() > 0;
    if (any != toldListening_ && listening_)
        listening_(any);
    toldListening_ = any;
}

void MonitorHub::service(const std::vector<struct pollfd>& p, size_t first, int64_t nowMs)
{
    if (first < p.size() && p[first].revents != 0) {
        char buf[64];
        while (read(wake_[0], buf, sizeof buf) > 0) {
        }
    }
    // Cleared before the queues are taken: an event after this wakes again.
    wakePending_.store(false);
    // The client list only changes on this thread: p's entries line up with it.
    size_t n = p.size() - first - 1;
    std::vector<bool> drop(clients(), false);
    for (size_t i = 0; i < drop.size(); ++i) {
        Client& c = *clients_[i];
        if (i < n) {
            short re = p[first + 1 + i].revents;
            if (re & (POLLERR | POLLNVAL)) {
                drop[i] = true;
                continue;
            }
            if (re & (POLLIN | POLLHUP)) {
                // A monitor sends nothing after its request: what it sends
                // is read and forgotten; its end closes the connection.
                char buf[256];
                ssize_t r = recv(c.fd, buf, sizeof buf, MSG_DONTWAIT);
                if (r == 0 || (r < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
                    drop[i] = true;
                    continue;
                }
            }
        }
        if (c.out.empty()) {
            std::deque<live::MonitorEvent> events;
            uint64_t lost = 0;
            {
                std::lock_guard<std::mutex> g(lock_);
                events = c.queue.take(&lost);
            }
            for (const live::MonitorEvent& e : events)
                c.out += monitorLine(e, c.json);
            if (lost > 0) {
                struct timespec ts;
                clock_gettime(CLOCK_REALTIME, &ts);
                c.out += monitorLostLine(lost, (uint64_t)ts.tv_sec * 1000u + (uint64_t)ts.tv_nsec / 1000000u, c.json);
            }
        }
        if (c.out.empty()) {
            c.stalledSince = -1;
            continue;
        }
        ssize_t w = send(c.fd, c.out.data(), c.out.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (w > 0) {
            c.out.erase(0, (size_t)w);
            c.stalledSince = -1;
        } else if (w < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
            drop[i] = true;
            continue;
        }
        if (!c.out.empty()) {
            if (c.stalledSince < 0 || w > 0)
                c.stalledSince = nowMs;
            else if (nowMs - c.stalledSince >= limits_.stallMs)
                drop[i] = true;
        }
    }
    for (size_t i = drop.size(); i-- > 0;)
        if (drop[i])
            remove(i);
    tellListening();
}

void MonitorHub::closeAll()
{
    std::vector<std::unique_ptr<Client>> gone;
    {
        std::lock_guard<std::mutex> g(lock_);
        gone.swap(clients_);
    }
    for (auto& c : gone)
        close(c->fd);
    tellListening();
}

}  // namespace ctl
