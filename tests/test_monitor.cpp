// `dhcpsnoopctl monitor`, the daemon's side: the event lines, the bounded
// queue of each monitor, and the hub that writes to their sockets without
// ever waiting for one (socket pairs stand for the clients here; the round
// trip over the control socket is in test_control).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "tools/daemon/command.h"
#include "tools/daemon/monitor.h"

namespace {

// 2026-11-22T21:40:01.123Z
constexpr uint64_t kAt = 1795383601123ull;

live::MonitorEvent added()
{
    live::MonitorEvent e;
    e.kind = live::MonitorEvent::BindingAdded;
    e.unixMs = kAt;
    e.ip = {198, 18, 0, 23};
    e.mac = {2, 0, 0, 0, 0, 3};
    e.vlan = 10;
    e.port = "1/0/3";
    e.lease = 3600;
    e.cause = "ACK";
    return e;
}

live::MonitorEvent drop(const std::string& reason)
{
    live::MonitorEvent e;
    e.kind = live::MonitorEvent::Drop;
    e.unixMs = kAt;
    e.port = "1/0/2";
    e.mac = {2, 0, 0, 0, 0, 0x63};
    e.reason = reason;
    return e;
}

TEST(MonitorLines, EachEventAsOneLine)
{
    EXPECT_EQ(ctl::utcMsText(kAt), "2026-11-22T21:40:01.123Z");
    EXPECT_EQ(ctl::monitorLine(added(), false),
              "2026-11-22T21:40:01.123Z binding added 198.18.0.23 mac 02:00:00:00:00:03 vlan 10 port 1/0/3 lease 3600 "
              "cause ACK\n");
    live::MonitorEvent gone = added();
    gone.kind = live::MonitorEvent::BindingRemoved;
    gone.cause = "RELEASE";
    EXPECT_EQ(ctl::monitorLine(gone, false),
              "2026-11-22T21:40:01.123Z binding removed 198.18.0.23 mac 02:00:00:00:00:03 vlan 10 port 1/0/3 cause "
              "RELEASE\n");
    live::MonitorEvent forever = added();
    forever.lease = ctl::kLeaseForever;
    EXPECT_NE(ctl::monitorLine(forever, false).find(" lease infinite cause ACK\n"), std::string::npos);
    EXPECT_EQ(ctl::monitorLine(drop("untrusted server message"), false),
              "2026-11-22T21:40:01.123Z drop port 1/0/2 mac 02:00:00:00:00:63 reason untrusted server message\n");
    live::MonitorEvent limit;
    limit.kind = live::MonitorEvent::RateLimit;
    limit.unixMs = kAt;
    limit.port = "1/0/3";
    limit.reason = "DECLINE";
    EXPECT_EQ(ctl::monitorLine(limit, false), "2026-11-22T21:40:01.123Z rate-limit port 1/0/3 DECLINE\n");
    EXPECT_EQ(ctl::monitorLostLine(1, kAt, false), "2026-11-22T21:40:01.123Z lost 1 event\n");
    EXPECT_EQ(ctl::monitorLostLine(12, kAt, false), "2026-11-22T21:40:01.123Z lost 12 events\n");
}

TEST(MonitorLines, JsonOneObjectALine)
{
    EXPECT_EQ(ctl::monitorLine(added(), true),
              "{\"time\":\"2026-11-22T21:40:01.123Z\",\"event\":\"binding-added\",\"ip\":\"198.18.0.23\","
              "\"mac\":\"02:00:00:00:00:03\",\"vlan\":10,\"port\":\"1/0/3\",\"lease\":3600,\"cause\":\"ACK\"}\n");
    live::MonitorEvent forever = added();
    forever.lease = ctl::kLeaseForever;
    EXPECT_NE(ctl::monitorLine(forever, true).find("\"lease\":null"), std::string::npos);
    live::MonitorEvent gone = added();
    gone.kind = live::MonitorEvent::BindingRemoved;
    gone.cause = "aging";
    EXPECT_EQ(ctl::monitorLine(gone, true),
              "{\"time\":\"2026-11-22T21:40:01.123Z\",\"event\":\"binding-removed\",\"ip\":\"198.18.0.23\","
              "\"mac\":\"02:00:00:00:00:03\",\"vlan\":10,\"port\":\"1/0/3\",\"cause\":\"aging\"}\n");
    EXPECT_EQ(ctl::monitorLine(drop("odd \"reason\"\n"), true),
              "{\"time\":\"2026-11-22T21:40:01.123Z\",\"event\":\"drop\",\"port\":\"1/0/2\","
              "\"mac\":\"02:00:00:00:00:63\",\"reason\":\"odd \\\"reason\\\"\\n\"}\n");
    EXPECT_EQ(ctl::monitorLostLine(3, kAt, true),
              "{\"time\":\"2026-11-22T21:40:01.123Z\",\"event\":\"lost\",\"count\":3}\n");
}

TEST(MonitorLines, ATextLineStaysOneLine)
{
    std::string l = ctl::monitorLine(drop("two\nlines\x1b"), false);
    EXPECT_EQ(l.find('\n'), l.size() - 1) << l;
    EXPECT_EQ(l.find('\x1b'), std::string::npos) << l;
}

TEST(MonitorQueueTest, BoundedAndLossesCountedOnce)
{
    ctl::MonitorQueue q(3);
    for (int i = 0; i < 5; ++i)
        q.push(drop("r" + std::to_string(i)));
    EXPECT_EQ(q.size(), 3u);
    uint64_t lost = 0;
    auto got = q.take(&lost);
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[0].reason, "r0") << "oldest first; the newest are the ones lost";
    EXPECT_EQ(got[2].reason, "r2");
    EXPECT_EQ(lost, 2u);
    got = q.take(&lost);
    EXPECT_TRUE(got.empty());
    EXPECT_EQ(lost, 0u) << "reported once";
}

// ---- the hub, with socket pairs for clients -----------------------------------------

class Hub : public ::testing::Test {
protected:
    // A client: the hub gets one end, the test keeps the other.
    int client(ctl::MonitorHub& hub, bool json, int sndbuf = 0)
    {
        int sv[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
        fcntl(sv[0], F_SETFL, O_NONBLOCK);
        if (sndbuf > 0)
            setsockopt(sv[0], SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof sndbuf);
        std::string error;
        if (!hub.add(sv[0], json, error)) {
            close(sv[0]);
            close(sv[1]);
            refused = error;
            return -1;
        }
        fds.push_back(sv[1]);
        return sv[1];
    }

    // One poll and service, as the control thread does.
    void turn(ctl::MonitorHub& hub, int64_t nowMs, int timeoutMs = 0)
    {
        std::vector<struct pollfd> p;
        size_t first = 0;
        hub.pollSet(p, &first);
        poll(p.data(), (nfds_t)p.size(), timeoutMs);
        hub.service(p, first, nowMs);
    }

    std::string readAll(int fd)
    {
        std::string out;
        char buf[4096];
        ssize_t n;
        while ((n = recv(fd, buf, sizeof buf, MSG_DONTWAIT)) > 0)
            out.append(buf, (size_t)n);
        return out;
    }

    void TearDown() override
    {
        for (int fd : fds)
            close(fd);
    }

    std::vector<int> fds;
    std::string refused;
};

TEST_F(Hub, EveryMonitorGetsEveryEventInItsFormat)
{
    ctl::MonitorHub hub;
    std::vector<bool> told;
    hub.onListening([&](bool on) { told.push_back(on); });
    int text = client(hub, false);
    int json = client(hub, true);
    EXPECT_EQ(told, std::vector<bool>{true});
    hub.publish(added());
    hub.publish(drop("rate limit"));
    turn(hub, 0, 1000);
    EXPECT_EQ(readAll(text), ctl::monitorLine(added(), false) + ctl::monitorLine(drop("rate limit"), false));
    EXPECT_EQ(readAll(json), ctl::monitorLine(added(), true) + ctl::monitorLine(drop("rate limit"), true));
    hub.closeAll();
    EXPECT_EQ(told, (std::vector<bool>{true, false}));
    char b;
    EXPECT_EQ(recv(text, &b, 1, 0), 0) << "the client sees the end";
}

TEST_F(Hub, NoMoreThanTheLimit)
{
    ctl::MonitorHub::Limits l;
    l.clients = 2;
    ctl::MonitorHub hub(l);
    ASSERT_GE(client(hub, false), 0);
    int second = client(hub, false);
    ASSERT_GE(second, 0);
    EXPECT_EQ(client(hub, false), -1);
    EXPECT_EQ(refused, "monitor: 2 monitors are connected already");
    // One leaves: its place is free once the hub has seen it go.
    close(second);
    fds.pop_back();
    turn(hub, 0, 1000);
    EXPECT_EQ(hub.clients(), 1u);
    EXPECT_GE(client(hub, false), 0);
}

TEST_F(Hub, ASlowMonitorLosesEventsCountedAndNeverHoldsThePublisher)
{
    ctl::MonitorHub::Limits l;
    l.queue = 16;
    ctl::MonitorHub hub(l);
    int slow = client(hub, false, 4096);
    int quick = client(hub, false);
    const int kEvents = 2000;
    uint64_t sentLines = 0;
    auto t0 = std::chrono::steady_clock::now();
    std::string quickText;
    for (int i = 0; i < kEvents; ++i) {
        hub.publish(drop("r" + std::to_string(i)));
        if (i % 8 == 7) {
            turn(hub, 0);
            quickText += readAll(quick);  // this one keeps up
        }
    }
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(5)) << "publishing never waited";
    // The slow one reads now: what it gets and what it is told it lost add up.
    std::string text;
    for (int i = 0; i < 200; ++i) {
        turn(hub, 0, 10);
        text += readAll(slow);
        quickText += readAll(quick);
    }
    uint64_t lost = 0;
    size_t lostLines = 0;
    for (size_t at = 0, nl; (nl = text.find('\n', at)) != std::string::npos; at = nl + 1) {
        std::string line = text.substr(at, nl - at);
        size_t p = line.find(" lost ");
        if (p != std::string::npos) {
            lost += std::stoull(line.substr(p + 6));
            ++lostLines;
        } else {
            ++sentLines;
        }
    }
    EXPECT_GT(lost, 0u);
    EXPECT_GE(lostLines, 1u);
    EXPECT_EQ(sentLines + lost, (uint64_t)kEvents) << text.substr(0, 2000);
    size_t quickLines = 0;
    for (char c : quickText)
        quickLines += c == '\n';
    EXPECT_EQ(quickLines, (size_t)kEvents) << "a monitor that keeps up loses nothing";
}

TEST_F(Hub, AMonitorThatTakesNothingForLongIsDisconnected)
{
    ctl::MonitorHub::Limits l;
    l.stallMs = 500;
    ctl::MonitorHub hub(l);
    int stuck = client(hub, false, 4096);
    (void)stuck;
    for (int i = 0; i < 2000; ++i)
        hub.publish(drop(std::string(100, 'x')));
    turn(hub, 1000);
    ASSERT_EQ(hub.clients(), 1u);
    hub.publish(drop("more"));
    turn(hub, 1200);
    EXPECT_EQ(hub.clients(), 1u) << "not yet";
    turn(hub, 1600);
    EXPECT_EQ(hub.clients(), 0u);
}

TEST_F(Hub, NobodyListeningCostsNothing)
{
    ctl::MonitorHub hub;
    hub.publish(added());  // no client: dropped at once
    EXPECT_EQ(hub.clients(), 0u);
    int fd = client(hub, false);
    turn(hub, 0);
    EXPECT_EQ(readAll(fd), "") << "events from before a monitor came are not its";
}

}  // namespace
