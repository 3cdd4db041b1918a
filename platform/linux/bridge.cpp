// The bridge data plane (see bridge.h): trap sockets, transmission, the
// kernel FDB and the nftables table around the live core.
#include "platform/linux/bridge.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "platform/linux/live_internal.h"
#include "platform/linux/nflog.h"
#include "platform/linux/nft_rules.h"
#include "platform/linux/nft_table.h"
#include "platform/linux/rtnl_fdb.h"
#include "platform/linux/rtnl_link.h"
#include "platform/linux/trap_filter.h"

namespace live {
namespace bridge {
namespace {

struct PortIo {
    std::string name;
    std::string ifname;
    int ifindex = 0;
    bool host = false;  // the bridge device itself
    // What the port traps: a member port's DHCP comes from its nftables log
    // group; the host's from an AF_PACKET socket on the bridge device.
    std::atomic<int> fd{-1};
    bool logged = false;
    // The sending socket: bound to the member port's interface (protocol 0,
    // so it sees no frame), or for the host the daemon's end of its veth
    // pair (what is sent on the bridge device would reach the host instead).
    std::atomic<int> txFd{-1};
    // The log group's numbering: a gap is frames the kernel could not
    // queue. Only the thread that receives touches it.
    nflog::Sequence seq;
};

// Source-guard changes wait here for the worker, which hands them to
// nftables in batches: the module's task never waits for the kernel.
struct GuardQueue {
    std::mutex lock;
    std::condition_variable wake;
    std::deque<std::pair<bool, nft::Element>> pending;
    std::map<nft::Element, uint32_t> installed;  // with the number of entries behind each
    bool busy = false;
    bool stopping = false;
    uint64_t failures = 0;
};

struct State {
    std::mutex lock;  // start, run, stop, reconfigure
    bool active = false;
    bool running = false;
    swcfg::SwitchConfig cfg;
    int bridgeIfindex = 0;
    std::string bridgeName;
    std::vector<std::unique_ptr<PortIo>> ports;
    rtnl::HostPair hostPair;  // 0s: no host port, no pair
    std::map<int, size_t> portOfIfindex;
    std::map<uint32_t, std::string> ifnameOfHandle;  // fixed while running
    std::vector<std::thread> threads;
    std::atomic<bool> stopping{false};
    rtnl::FdbMirror fdb;
    nft::Runner nft;
    GuardQueue guard;
    std::thread guardThread;
};

State& state()
{
    // Never destroyed: the module's tasks may still call in at exit.
    static State* s = new State;
    return *s;
}

void warn(const std::string& line) { fprintf(stderr, "dhcpsnoopd: %s\n", line.c_str()); }

void closeAll(State& s)
{
    for (auto& p : s.ports) {
        for (auto* f : {&p->fd, &p->txFd}) {
            int fd = f->exchange(-1);
            if (fd >= 0)
                close(fd);
        }
    }
}

void removeHostPair(State& s)
{
    if (s.hostPair.bridgeEnd == 0)
        return;
    std::string error;
    if (!rtnl::deleteHostPair(error))
        warn(error);
    s.hostPair = rtnl::HostPair();
}

// Trap sockets take no offload header: what the module sends is a whole
// frame, so the offload state is not used. Returns 0 or the send's errno;
// the core counts a failure on the port by reason.
int transmit(size_t port, const uint8_t* frame, size_t len, int32_t tagVid, const core::Offload*)
{
    State& s = state();
    if (port >= s.ports.size() || len < 12)
        return EINVAL;
    const PortIo& p = *s.ports[port];
    int fd = p.txFd.load();
    if (fd < 0)
        return EBADF;
    uint8_t tag[4] = {0x81, 0x00, (uint8_t)((tagVid >> 8) & 0x0F), (uint8_t)tagVid};
    struct iovec iov[3];
    size_t n = 0;
    if (tagVid >= 0) {
        iov[n++] = {const_cast<uint8_t*>(frame), 12};
        iov[n++] = {tag, sizeof tag};
        iov[n++] = {const_cast<uint8_t*>(frame + 12), len - 12};
    } else {
        iov[n++] = {const_cast<uint8_t*>(frame), len};
    }
    struct msghdr msg;
    memset(&msg, 0, sizeof msg);
    msg.msg_iov = iov;
    msg.msg_iovlen = n;
    // A full interface drops the frame as a switch port's full queue would.
    ssize_t w = sendmsg(fd, &msg, MSG_DONTWAIT);
    if (w < 0)
        return errno;
    size_t want = len + (tagVid >= 0 ? sizeof tag : 0);
    return (size_t)w == want ? 0 : EMSGSIZE;
}

// Frames a trap socket gives at once (recvmmsg): one system call for a
// burst instead of one a frame.
constexpr unsigned kBatch = 32;
constexpr size_t kTrapBuffer = core::kPoolBufferSize + 64;
// A log message: the frame and the message's own headers and attributes.
constexpr size_t kRxBuffer = kTrapBuffer + 512;
constexpr uint32_t kNamingBacklog = logging::kNamingOffBacklog;

struct RxBatch {
    std::unique_ptr<uint8_t[]> bufs{new uint8_t[kBatch * kRxBuffer]};
    uint8_t frame[kTrapBuffer];  // a logged frame put together
    struct mmsghdr msgs[kBatch];
    struct iovec iov[kBatch];
    struct sockaddr_ll from[kBatch];
    alignas(struct cmsghdr) uint8_t control[kBatch][CMSG_SPACE(sizeof(struct tpacket_auxdata))];
};

// One frame of a trap socket to the core.
void trapFrame(size_t port, const PortIo& p, uint8_t* frame, size_t n, const struct msghdr& msg,
               const struct sockaddr_ll& from)
{
    // On a member port only what arrives; on the bridge device only what
    // the host sends (what arrives there went through the bridge, the
    // module's own frames among them).
    bool outgoing = from.sll_pkttype == PACKET_OUTGOING;
    if (outgoing != p.host)
        return;
    if (msg.msg_flags & MSG_TRUNC) {
        // Dropped by the table for the daemon, yet too long for the packet pool.
        core::trapTooLong(port, frame, n);
        return;
    }
    int32_t tci = -1;
    bool csumNotReady = false;
    for (struct cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(const_cast<struct msghdr*>(&msg), c)) {
        if (c->cmsg_level != SOL_PACKET || c->cmsg_type != PACKET_AUXDATA)
            continue;
        struct tpacket_auxdata aux;
        memcpy(&aux, CMSG_DATA(c), sizeof aux);
        if ((aux.tp_status & TP_STATUS_VLAN_VALID) || aux.tp_vlan_tci != 0)
            tci = aux.tp_vlan_tci;
        if (aux.tp_status & TP_STATUS_CSUMNOTREADY)
            csumNotReady = true;
    }
    if (csumNotReady || p.host)
        nflog::completeUdpChecksum(frame, n);
    core::trapOnly(port, frame, n, tci);
}

// The log group's frames of one message to the core.
struct LoggedTo {
    size_t port;
    PortIo* p;
    RxBatch* b;
};

void loggedFrame(const nflog::Packet& pk, void* arg)
{
    LoggedTo& to = *static_cast<LoggedTo*>(arg);
    uint32_t lost = to.p->seq.lost(pk);
    if (lost > 0)
        core::discard(to.port, "trap socket full", lost);
    size_t n = nflog::frameOf(pk, to.b->frame, sizeof to.b->frame);
    if (n == 0) {
        // The group copies no more than the packet pool takes (and some):
        // a frame that does not fit was cut. The table dropped it for the
        // daemon, so it is counted, not lost without a word.
        if (pk.l2Len == 0)
            core::discard(to.port, "no link header");
        else
            core::trapTooLong(to.port, pk.l2, pk.l2Len);
        return;
    }
    // A frame a local stack sent keeps the sum of its addresses only where
    // the UDP checksum goes (offloaded): completed as the sender's device would.
    nflog::completePartialUdpChecksum(to.b->frame, n);
    core::trapOnly(to.port, to.b->frame, n, pk.tci);
}

void loggedFrames(size_t port, const uint8_t* data, size_t len, const struct msghdr& msg, RxBatch& b)
{
    State& s = state();
    if (msg.msg_flags & MSG_TRUNC) {
        // A message longer than a frame the group copies and its attributes.
        core::discard(port, "larger than the receive buffer");
        return;
    }
    LoggedTo to{port, s.ports[port].get(), &b};
    nflog::parse(data, len, loggedFrame, &to);
}

// Takes what the port's socket holds, at most kBatch frames; their number.
int receiveBatch(size_t port, int fd, RxBatch& b)
{
    State& s = state();
    const PortIo& p = *s.ports[port];
    for (unsigned i = 0; i < kBatch; ++i) {
        // A trap socket's frame longer than kTrapBuffer is cut (MSG_TRUNC).
        b.iov[i] = {b.bufs.get() + i * kRxBuffer, p.logged ? kRxBuffer : kTrapBuffer};
        struct msghdr& m = b.msgs[i].msg_hdr;
        memset(&m, 0, sizeof m);
        m.msg_name = &b.from[i];
        m.msg_namelen = sizeof b.from[i];
        m.msg_iov = &b.iov[i];
        m.msg_iovlen = 1;
        m.msg_control = b.control[i];
        m.msg_controllen = sizeof b.control[i];
    }
    int n = recvmmsg(fd, b.msgs, kBatch, MSG_DONTWAIT, nullptr);
    for (int i = 0; i < n; ++i) {
        if (b.msgs[i].msg_len == 0)
            continue;
        uint8_t* data = b.bufs.get() + (size_t)i * kRxBuffer;
        if (p.logged)
            loggedFrames(port, data, b.msgs[i].msg_len, b.msgs[i].msg_hdr, b);
        else
            trapFrame(port, p, data, b.msgs[i].msg_len, b.msgs[i].msg_hdr, b.from[i]);
    }
    return n < 0 ? 0 : n;
}

// Frames the kernel dropped on a trap socket whose buffer was full are
// counted on their port; read (and reset) at most once a second.
void countSocketDrops(size_t port, int fd)
{
    if (state().ports[port]->logged)
        return;  // counted by the log's sequence numbers
    struct tpacket_stats st;
    socklen_t len = sizeof st;
    if (getsockopt(fd, SOL_PACKET, PACKET_STATISTICS, &st, &len) == 0 && st.tp_drops > 0)
        core::discard(port, "trap socket full", st.tp_drops);
}

// A receive thread per port: the trap path when the main task cannot wait
// on the sockets itself (see pumpTraps).
void receiveLoop(size_t port)
{
    State& s = state();
    PortIo& p = *s.ports[port];
    runtime::nameThread(("trap-" + p.ifname).substr(0, 15).c_str());
    std::unique_ptr<RxBatch> batch(new RxBatch);
    uint64_t statsMs = core::nowMs();
    while (!s.stopping.load()) {
        int fd = p.fd.load();
        if (fd < 0)
            return;
        struct pollfd pfd = {fd, POLLIN, 0};
        if (poll(&pfd, 1, 200) > 0) {
            // A burst is taken at once, without a poll per batch.
            for (int round = 0; round < 4 && !s.stopping.load(); ++round)
                if (receiveBatch(port, fd, *batch) < (int)kBatch)
                    break;
        }
        uint64_t now = core::nowMs();
        if (now - statsMs >= 1000) {
            statsMs = now;
            countSocketDrops(port, fd);
        }
    }
}

// The main task's wait while its queue is empty: the trap sockets and the
// queue's eventfd in one poll. A trapped frame then wakes one thread, the
// one that works on it. Each ready port gives one batch a round, so a
// flooding port's frames wait in its own socket while the others' are
// taken, as in a switch's queues per port; the policer and the queue share
// are still applied to every frame (core::trapOnly).
struct Pump {
    std::vector<struct pollfd> fds;  // the ports' sockets, the eventfd last
    std::vector<size_t> portOf;
    RxBatch batch;
    uint64_t statsMs = 0;
    int64_t lastFrameUs = INT64_MIN / 2;
};

// Microseconds the pump keeps looking after a frame before it sleeps.
constexpr int64_t kSpinUs = 300;

int64_t steadyUs()
{
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}
Pump* gPump = nullptr;  // set and cleared with the runtime's pump

uint32_t pumpTraps(int wakeFd, int timeoutMs)
{
    Pump& pm = *gPump;
    size_t n = pm.fds.size();
    // A full batch leaves more in its socket: the main task is behind, as
    // with that backlog in its queue.
    uint32_t waiting = 0;
    pm.fds[n - 1].fd = wakeFd;
    int r = 0;
    // Shortly after a frame the answer to it is often on its way (a server
    // answers within a few hundred microseconds): the main task looks for
    // it without sleeping, so that it costs no wake-up, and lets any other
    // thread of its processor run in between.
    if (timeoutMs != 0 && steadyUs() - pm.lastFrameUs < kSpinUs) {
        while ((r = poll(pm.fds.data(), (nfds_t)n, 0)) == 0 && steadyUs() - pm.lastFrameUs < kSpinUs)
            sched_yield();
    }
    if (r == 0)
        r = poll(pm.fds.data(), (nfds_t)n, timeoutMs);
    if (r > 0) {
        if (pm.fds[n - 1].revents & POLLIN) {
            uint64_t v;
            (void)!read(wakeFd, &v, sizeof v);
        }
        for (size_t i = 0; i + 1 < n; ++i)
            if (pm.fds[i].revents & POLLIN) {
                int got = receiveBatch(pm.portOf[i], pm.fds[i].fd, pm.batch);
                if (got > 0)
                    pm.lastFrameUs = steadyUs();
                if (got == (int)kBatch)
                    waiting += kNamingBacklog;
            }
    }
    uint64_t now = core::nowMs();
    if (now - pm.statsMs >= 1000) {
        pm.statsMs = now;
        for (size_t i = 0; i + 1 < n; ++i)
            countSocketDrops(pm.portOf[i], pm.fds[i].fd);
    }
    return waiting;
}

// The port's sending socket on interface ifindex (where names it in an
// error): protocol 0, so no frame is ever queued on it and the frames of
// the interface pass no tap.
bool openTx(PortIo& p, int ifindex, const std::string& where, std::string& error)
{
    int s = socket(AF_PACKET, SOCK_RAW, 0);
    if (s < 0) {
        if (errno == EPERM || errno == EACCES)
            error = "opening AF_PACKET sockets needs CAP_NET_RAW (run as root)";
        else
            error = where + ": socket: " + strerror(errno);
        return false;
    }
    struct sockaddr_ll sll;
    memset(&sll, 0, sizeof sll);
    sll.sll_family = AF_PACKET;
    sll.sll_protocol = 0;
    sll.sll_ifindex = ifindex;
    if (bind(s, reinterpret_cast<struct sockaddr*>(&sll), sizeof sll) != 0) {
        error = where + ": bind: " + strerror(errno);
        close(s);
        return false;
    }
    p.txFd.store(s);
    return true;
}

// A member port's DHCP: its log group, bound before the table logs to it.
bool openLog(PortIo& p, size_t index, std::string& error)
{
    int s = nflog::open(nflog::groupOf(index), (uint32_t)kTrapBuffer, error);
    if (s < 0) {
        error = "port " + p.name + ": " + error;
        return false;
    }
    p.fd.store(s);
    p.logged = true;
    p.seq = nflog::Sequence();
    return openTx(p, p.ifindex, "interface " + p.ifname + " of port " + p.name, error);
}

// The host's DHCP: what it sends on the bridge device.
bool openTrap(PortIo& p, std::string& error)
{
    std::string where = "interface " + p.ifname + " of port " + p.name + ": ";
    // No protocol until the filter is on: no frame is queued unfiltered.
    int s = socket(AF_PACKET, SOCK_RAW, 0);
    if (s < 0) {
        if (errno == EPERM || errno == EACCES)
            error = "opening AF_PACKET sockets needs CAP_NET_RAW (run as root)";
        else
            error = where + "socket: " + strerror(errno);
        return false;
    }
    std::vector<struct sock_filter> prog = trapfilter::program();
    struct sock_fprog fprog;
    fprog.len = (unsigned short)prog.size();
    fprog.filter = prog.data();
    int one = 1;
    if (setsockopt(s, SOL_SOCKET, SO_ATTACH_FILTER, &fprog, sizeof fprog) != 0 ||
        setsockopt(s, SOL_PACKET, PACKET_AUXDATA, &one, sizeof one) != 0) {
        error = where + "trap filter: " + strerror(errno);
        close(s);
        return false;
    }
    struct sockaddr_ll sll;
    memset(&sll, 0, sizeof sll);
    sll.sll_family = AF_PACKET;
    sll.sll_protocol = htons(ETH_P_ALL);
    sll.sll_ifindex = p.ifindex;
    if (bind(s, reinterpret_cast<struct sockaddr*>(&sll), sizeof sll) != 0) {
        error = where + "bind: " + strerror(errno);
        close(s);
        return false;
    }
    p.fd.store(s);
    return true;
}

// ---- the table ----

nft::Ruleset rulesetOf(const swcfg::SwitchConfig& cfg, const State& s)
{
    nft::Ruleset r;
    r.ipFilter = cfg.ipFilter;
    r.arpDefend = cfg.arpDefend;
    r.dropIpv6 = cfg.dropIpv6;
    if (s.hostPair.bridgeEnd != 0)
        r.hostBridgeEnd = rtnl::kHostBridgeEnd;
    for (size_t i = 0; i < cfg.ports.size() && i < s.ports.size(); ++i) {
        const swcfg::PortConfig& pc = cfg.ports[i];
        if (s.ports[i]->ifindex == 0)
            continue;
        nft::Port p;
        p.index = i;
        p.ifname = pc.interface;
        p.trusted = pc.trust;
        p.host = s.ports[i]->host;
        if (!p.host)
            p.logGroup = nflog::groupOf(i);
        for (uint16_t v : cfg.snoopingVlans)
            p.snooped = p.snooped || pc.carries(v);
        r.ports.push_back(p);
    }
    return r;
}

bool elementOf(const State& s, const SwQTableEntry& e, nft::Element& out)
{
    // The ports are fixed while running: no lock for their names.
    auto it = s.ifnameOfHandle.find(e.port);
    if (it == s.ifnameOfHandle.end())
        return false;
    out.ifname = it->second;
    memcpy(out.mac, e.mac, 6);
    memcpy(out.ip, e.ip, 4);
    return true;
}

std::vector<nft::Element> installedElements(GuardQueue& q)
{
    std::vector<nft::Element> v;
    for (const auto& kv : q.installed)
        v.push_back(kv.first);
    return v;
}

bool installTable(State& s, const swcfg::SwitchConfig& cfg, std::string& error)
{
    std::vector<nft::Element> elements;
    {
        std::lock_guard<std::mutex> g(s.guard.lock);
        elements = installedElements(s.guard);
    }
    return s.nft.run(nft::tableText(rulesetOf(cfg, s), elements), nullptr, error);
}

constexpr size_t kGuardBatch = 256;

void guardLoop()
{
    State& s = state();
    runtime::nameThread("nftGuard");
    // Its transactions are background work: the frames the module is
    // waiting for go first (the kernel's filters follow within milliseconds).
    (void)setpriority(PRIO_PROCESS, (id_t)syscall(SYS_gettid), 10);
    GuardQueue& q = s.guard;
    std::unique_lock<std::mutex> lk(q.lock);
    for (;;) {
        q.wake.wait(lk, [&] { return q.stopping || !q.pending.empty(); });
        if (q.pending.empty() && q.stopping)
            return;
        // One transaction for what is waiting, in order, at most
        // kGuardBatch changes: libnftables' memory grows with the size of
        // a transaction, and a worker that fell behind under load would
        // otherwise take them all at once. An element is added by its
        // first entry and deleted with its last.
        std::string text;
        for (size_t taken = 0; !q.pending.empty() && taken < kGuardBatch; ++taken) {
            auto op = q.pending.front();
            q.pending.pop_front();
            uint32_t& n = q.installed[op.second];
            if (op.first) {
                if (n++ == 0)
                    text += nft::elementsText(true, {op.second});
            } else if (n > 0 && --n == 0) {
                q.installed.erase(op.second);
                text += nft::elementsText(false, {op.second});
            } else if (n == 0) {
                q.installed.erase(op.second);
            }
        }
        if (text.empty())
            continue;
        q.busy = true;
        lk.unlock();
        std::string error;
        bool ok = s.nft.run(text, nullptr, error);
        if (!ok) {
            // The table was changed under us (removed by hand?): put it back
            // whole, with the bindings as they now are.
            warn("source guard: " + error + "; installing the table again");
            std::string again;
            if (!installTable(s, s.cfg, again))
                warn("source guard: " + again);
        }
        lk.lock();
        if (!ok)
            ++q.failures;
        q.busy = false;
        q.wake.notify_all();
    }
}

void guardChange(const SwQTableEntry& e, bool added)
{
    State& s = state();
    nft::Element el;
    if (!elementOf(s, e, el))
        return;
    std::lock_guard<std::mutex> g(s.guard.lock);
    if (s.guard.stopping)
        return;
    s.guard.pending.emplace_back(added, el);
    s.guard.wake.notify_all();
}

bool kernelFdb(const uint8_t* mac, uint16_t vid, size_t* port)
{
    State& s = state();
    int ifindex = 0;
    // Without VLAN filtering the bridge keeps its entries without a VLAN.
    (void)vid;
    if (!s.fdb.lookup(mac, 0, &ifindex))
        return false;
    auto it = s.portOfIfindex.find(ifindex);
    if (it == s.portOfIfindex.end())
        return false;
    *port = it->second;
    return true;
}

bool sameVlans(std::vector<uint16_t> a, std::vector<uint16_t> b)
{
    std::sort(a.begin(), a.end());
    std::sort(b.begin(), b.end());
    return a == b;
}

// Every port a member of one bridge, and the VLANs as the bridge has them.
bool checkBridge(const swcfg::SwitchConfig& cfg, State& s, rtnl::Link& br, std::string& error)
{
    std::string name = cfg.bridge;
    if (name.empty()) {
        for (const auto& pc : cfg.ports) {
            if (pc.interface.empty())
                continue;
            rtnl::Link l;
            if (!rtnl::getLink(pc.interface, l, error)) {
                error = "port " + pc.name + ": " + error;
                return false;
            }
            if (l.isBridge) {
                name = l.name;
                break;
            }
            if (l.master == 0) {
                error = "port " + pc.name + ": interface " + pc.interface +
                        " is not a member of a bridge (the bridge data plane needs one; "
                        "dataplane = \"user\" switches in the daemon)";
                return false;
            }
            rtnl::Link m;
            char buf[IF_NAMESIZE + 1] = {0};
            if (!if_indextoname((unsigned)l.master, buf)) {
                error = "port " + pc.name + ": the master of " + pc.interface + ": " + strerror(errno);
                return false;
            }
            name = buf;
            break;
        }
        if (name.empty()) {
            error = "the bridge data plane needs ports with interfaces";
            return false;
        }
    }
    if (!rtnl::getLink(name, br, error))
        return false;
    if (!br.isBridge) {
        error = "interface " + name + " is not a bridge";
        return false;
    }
    for (size_t i = 0; i < cfg.ports.size(); ++i) {
        const swcfg::PortConfig& pc = cfg.ports[i];
        if (pc.interface.empty())
            continue;
        if (!nft::quotableIfname(pc.interface)) {
            error = "port " + pc.name + ": interface name \"" + pc.interface + "\" cannot be used in nftables rules";
            return false;
        }
        rtnl::Link l;
        if (!rtnl::getLink(pc.interface, l, error)) {
            error = "interface " + pc.interface + " of port " + pc.name + ": " +
                    error.substr(error.find(": ") == std::string::npos ? 0 : error.find(": ") + 2);
            return false;
        }
        s.ports[i]->ifindex = l.ifindex;
        if (l.ifindex == br.ifindex) {
            s.ports[i]->host = true;
        } else if (l.master != br.ifindex) {
            error = "port " + pc.name + ": interface " + pc.interface + " is not a member of bridge " + name;
            return false;
        }
        s.portOfIfindex[l.ifindex] = i;
    }
    if (!br.vlanFiltering) {
        // The bridge carries every frame as it comes: one VLAN, untagged.
        for (const auto& pc : cfg.ports) {
            if (!pc.tagged.empty() || pc.vlan != cfg.ports[0].vlan) {
                error = "port " + pc.name + ": bridge " + name +
                        " does not filter VLANs, so every port must carry the same single VLAN untagged";
                return false;
            }
        }
        return true;
    }
    for (size_t i = 0; i < cfg.ports.size(); ++i) {
        const swcfg::PortConfig& pc = cfg.ports[i];
        if (pc.interface.empty() || s.ports[i]->host)
            continue;
        rtnl::PortVlans v;
        if (!rtnl::getPortVlans(s.ports[i]->ifindex, v, error)) {
            error = "port " + pc.name + ": VLANs of " + pc.interface + ": " + error;
            return false;
        }
        bool ok = v.pvid == pc.vlan && sameVlans(v.untagged, {pc.vlan}) && sameVlans(v.tagged, pc.tagged);
        if (!ok) {
            error = "port " + pc.name + ": bridge " + name + " gives " + pc.interface +
                    " other VLANs than the configuration (access VLAN " + std::to_string(pc.vlan) +
                    ", tagged as listed)";
            return false;
        }
    }
    return true;
}

}  // namespace

bool start(const swcfg::SwitchConfig& cfg, const Options& opt, std::string& error)
{
    State& s = state();
    std::lock_guard<std::mutex> g(s.lock);
    if (s.active) {
        error = "the switch is already running";
        return false;
    }
    core::tearDown();
    s.ports.clear();
    s.portOfIfindex.clear();
    s.ifnameOfHandle.clear();
    for (const auto& pc : cfg.ports) {
        if (!pc.interface.empty())
            s.ifnameOfHandle[(uint32_t)pc.handle] = pc.interface;
        s.ports.emplace_back(new PortIo);
        s.ports.back()->name = pc.name;
        s.ports.back()->ifname = pc.interface;
    }
    s.cfg = cfg;
    rtnl::Link br;
    if (!checkBridge(cfg, s, br, error))
        return false;
    s.bridgeIfindex = br.ifindex;
    s.bridgeName = br.name;
    s.hostPair = rtnl::HostPair();
    for (size_t i = 0; i < s.ports.size(); ++i) {
        if (!s.ports[i]->host)
            continue;
        // A pair left by a killed daemon goes first, like its table.
        if (!rtnl::makeHostPair(br.ifindex, br.vlanFiltering, cfg.ports[i].vlan, cfg.ports[i].tagged, s.hostPair,
                                error)) {
            error = "port " + cfg.ports[i].name + " (the host): " + error;
            return false;
        }
        break;
    }
    auto undo = [&] {
        closeAll(s);
        removeHostPair(s);
    };
    for (size_t i = 0; i < s.ports.size(); ++i) {
        PortIo* p = s.ports[i].get();
        if (p->ifindex != 0 && !(p->host ? openTrap(*p, error) : openLog(*p, i, error))) {
            undo();
            return false;
        }
        // The host's port sends into its veth pair: what is sent on the
        // bridge device would reach the host instead of the bridge's ports.
        if (p->host && !openTx(*p, s.hostPair.daemonEnd, std::string("host port ") + p->name + ": " + rtnl::kHostDaemonEnd,
                               error)) {
            undo();
            return false;
        }
    }
    runtime::setDataDir(opt.dataDir);
    logging::configure(opt.useSyslog, opt.eventsKept);
    if (!core::setUp(cfg, opt, transmit, error)) {
        undo();
        return false;
    }
    // The threads (FDB notifications, set changes) start with run(): a
    // daemon that changes its user in between must still be one thread.
    if (!s.fdb.start(br.ifindex, error, false)) {
        error = "bridge " + br.name + ": FDB: " + error;
        core::tearDown();
        undo();
        return false;
    }
    {
        std::lock_guard<std::mutex> q(s.guard.lock);
        s.guard.pending.clear();
        s.guard.installed.clear();
        s.guard.stopping = false;
        s.guard.failures = 0;
    }
    if (!installTable(s, cfg, error)) {
        s.fdb.stop();
        core::tearDown();
        undo();
        return false;
    }
    core::setKernelPath(kernelFdb, guardChange);
    // The switch MAC when the configuration gives none: the bridge's.
    uint8_t mac[6];
    struct ifreq ifr;
    memset(&ifr, 0, sizeof ifr);
    strncpy(ifr.ifr_name, br.name.c_str(), IFNAMSIZ - 1);
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd >= 0) {
        if (ioctl(fd, SIOCGIFHWADDR, &ifr) == 0) {
            memcpy(mac, ifr.ifr_hwaddr.sa_data, 6);
            core::setFallbackMac(mac);
        }
        close(fd);
    }
    s.active = true;
    return true;
}

bool run(std::string& error)
{
    State& s = state();
    std::lock_guard<std::mutex> g(s.lock);
    if (!s.active) {
        error = "the switch was not started";
        return false;
    }
    if (s.running) {
        error = "the switch is already running";
        return false;
    }
    if (!s.fdb.follow(error)) {
        error = "bridge " + s.bridgeName + ": " + error;
        return false;
    }
    if (!s.guardThread.joinable()) {
        try {
            s.guardThread = std::thread(guardLoop);
        } catch (const std::exception& e) {
            error = std::string("source-guard thread: ") + e.what();
            return false;
        }
    }
    s.stopping.store(false);
    logging::setSwitchInited(true);
    // The main task waits on the trap sockets itself; receive threads only
    // where it cannot.
    gPump = new Pump;
    for (size_t i = 0; i < s.ports.size(); ++i) {
        int fd = s.ports[i]->fd.load();
        if (fd >= 0) {
            gPump->fds.push_back({fd, POLLIN, 0});
            gPump->portOf.push_back(i);
        }
    }
    gPump->fds.push_back({-1, POLLIN, 0});
    gPump->statsMs = core::nowMs();
    if (runtime::setMainPump(pumpTraps)) {
        s.running = true;
        return true;
    }
    delete gPump;
    gPump = nullptr;
    try {
        for (size_t i = 0; i < s.ports.size(); ++i)
            if (s.ports[i]->fd.load() >= 0)
                s.threads.emplace_back(receiveLoop, i);
    } catch (const std::exception& e) {
        s.stopping.store(true);
        for (auto& t : s.threads)
            t.join();
        s.threads.clear();
        error = std::string("cannot start the receive threads: ") + e.what();
        return false;
    }
    s.running = true;
    return true;
}

void stop()
{
    State& s = state();
    std::lock_guard<std::mutex> g(s.lock);
    if (!s.active)
        return;
    s.stopping.store(true);
    if (gPump) {
        runtime::setMainPump(nullptr);
        delete gPump;
        gPump = nullptr;
    }
    for (auto& t : s.threads)
        t.join();
    s.threads.clear();
    closeAll(s);
    {
        std::lock_guard<std::mutex> q(s.guard.lock);
        s.guard.stopping = true;
        s.guard.wake.notify_all();
    }
    if (s.guardThread.joinable())
        s.guardThread.join();
    std::string error;
    if (!s.nft.run(nft::deleteTableText(), nullptr, error))
        warn("removing table bridge " + std::string(nft::kTable) + ": " + error);
    removeHostPair(s);
    core::setKernelPath(nullptr, nullptr);
    s.fdb.stop();
    s.running = false;
    s.active = false;
}

bool reconfigure(const swcfg::SwitchConfig& cfg, std::string& error)
{
    State& s = state();
    std::lock_guard<std::mutex> g(s.lock);
    if (!s.active) {
        error = "the switch is not running";
        return false;
    }
    if (cfg.dataplane != swcfg::SwitchConfig::Dataplane::Bridge || (!cfg.bridge.empty() && cfg.bridge != s.bridgeName)) {
        error = "the data plane and its bridge cannot change while running";
        return false;
    }
    for (const auto& pc : cfg.ports) {
        if (!pc.tagged.empty() || pc.vlan != cfg.ports[0].vlan) {
            rtnl::Link br;
            if (rtnl::getLink(s.bridgeName, br, error) && !br.vlanFiltering) {
                error = "port " + pc.name + ": bridge " + s.bridgeName +
                        " does not filter VLANs, so every port must carry the same single VLAN untagged";
                return false;
            }
        }
    }
    if (!core::reconfigure(cfg, error))
        return false;
    s.cfg = cfg;
    // Replaced in one transaction: no frame sees the bridge without rules.
    if (!installTable(s, cfg, error))
        return false;
    return true;
}

bool active()
{
    State& s = state();
    std::lock_guard<std::mutex> g(s.lock);
    return s.active;
}

void addCounters(std::vector<PortCounters>& counters)
{
    State& s = state();
    std::string listing, error;
    if (!s.nft.run(std::string("list counters table bridge ") + nft::kTable + "\n", &listing, error))
        return;
    std::map<std::string, uint64_t> packets;
    if (!nft::parseCounters(listing, packets))
        return;
    for (size_t i = 0; i < counters.size(); ++i) {
        auto it = packets.find(nft::counterName(i));
        if (it != packets.end())
            counters[i].sourceGuardDropped += it->second;
    }
}

}  // namespace bridge
}  // namespace live
