// `dhcpsnoopctl monitor`: the daemon's live events pushed to the clients
// that asked for them, one line each, over connections that stay open.
//
// Events are published on the threads where they happen (the module's
// tasks, the receive threads) and must never wait for a client: each
// monitor has a bounded queue; what does not fit is counted and reported
// as one "lost N events" line where the gap is. A monitor whose socket
// takes nothing for a long while is disconnected, so a stuck one cannot
// hold its place among the few allowed.
#pragma once

#include <poll.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/linux/live.h"

namespace ctl {

constexpr size_t kMonitorsMax = 8;
constexpr size_t kMonitorQueueMax = 1024;  // events held for one monitor
constexpr int kMonitorStallMs = 60000;      // no byte taken for this long: disconnected

// One line with its newline: "<time> binding added ...", or a JSON object.
std::string monitorLine(const live::MonitorEvent& e, bool json);
std::string monitorLostLine(uint64_t lost, uint64_t unixMs, bool json);
// "2026-11-22T21:40:01.123Z"
std::string utcMsText(uint64_t unixMs);

// The events of one monitor not yet written: at most max; the rest counted.
class MonitorQueue {
public:
    explicit MonitorQueue(size_t max) : max_(max) {}
    // False when the queue was full: the event is counted as lost.
    bool push(const live::MonitorEvent& e);
    // Everything queued, in order, and then the count of those lost (0:
    // none), both reset.
    std::deque<live::MonitorEvent> take(uint64_t* lost);
    size_t size() const { return events_.size(); }

private:
    size_t max_;
    std::deque<live::MonitorEvent> events_;
    uint64_t lost_ = 0;
};

class MonitorHub {
public:
    struct Limits {
        size_t clients = kMonitorsMax;
        size_t queue = kMonitorQueueMax;
        int stallMs = kMonitorStallMs;
    };
    explicit MonitorHub(Limits limits);
    MonitorHub() : MonitorHub(Limits()) {}
    ~MonitorHub();
    MonitorHub(const MonitorHub&) = delete;
    MonitorHub& operator=(const MonitorHub&) = delete;

    // Any thread; never blocks on a client.
    void publish(const live::MonitorEvent& e);
    // Told (on the control thread) whether any monitor is connected.
    void onListening(std::function<void(bool)> f) { listening_ = std::move(f); }

    // The rest on the control thread only.
    // Takes the connected socket (non-blocking) on success.
    bool add(int fd, bool json, std::string& error);
    size_t clients() const;
    // Appends the descriptors to wait for; first is where they start.
    void pollSet(std::vector<struct pollfd>& p, size_t* first) const;
    // After the poll: events to the clients, clients gone or stuck removed.
    void service(const std::vector<struct pollfd>& p, size_t first, int64_t nowMs);
    // Closes every monitor's connection.
    void closeAll();

private:
    struct Client {
        int fd = -1;
        bool json = false;
        MonitorQueue queue{0};  // under lock_
        std::string out;        // control thread only
        int64_t stalledSince = -1;
    };
    void remove(size_t i);
    void tellListening();

    Limits limits_;
    mutable std::mutex lock_;
    std::vector<std::unique_ptr<Client>> clients_;
    int wake_[2] = {-1, -1};
    std::atomic<bool> wakePending_{false};
    std::function<void(bool)> listening_;
    bool toldListening_ = false;
};

}  // namespace ctl
