// The live platform's control side and its ports: one AF_PACKET socket per
// configured interface, a receive thread per port, the FDB aging thread.
#include "platform/linux/live.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <thread>
#include <vector>

#include "platform/linux/live_internal.h"
#ifdef DHCPSNOOP_BRIDGE_DATAPLANE
#include "platform/linux/bridge.h"
#endif

namespace live {
namespace {

// The virtio header PACKET_VNET_HDR puts before every frame (the kernel's
// <linux/virtio_net.h> does not compile as C++: a member is named "class").
// Native byte order, as the kernel writes it for packet sockets.
struct virtio_net_hdr {
    uint8_t flags;
    uint8_t gso_type;
    uint16_t hdr_len;
    uint16_t gso_size;
    uint16_t csum_start;
    uint16_t csum_offset;
};
static_assert(sizeof(virtio_net_hdr) == 10, "the kernel's virtio_net_hdr");
constexpr uint8_t VIRTIO_NET_HDR_F_NEEDS_CSUM = 1;
constexpr uint8_t VIRTIO_NET_HDR_GSO_NONE = 0;

// One port's socket. Transmissions (any thread) share the lock; the receive
// thread takes it alone to close or replace a socket whose interface went.
struct PortSock {
    std::shared_mutex lock;
    int fd = -1;
    int ifindex = 0;
    std::string name;       // "1/0/3"
    std::string interface;  // "" for a port of the configuration only
};

struct Ports {
    std::mutex lock;  // start, run, stop
    size_t count = 0;
    std::unique_ptr<PortSock[]> socks;
    std::vector<std::thread> threads;
    std::atomic<bool> stopping{false};
    bool running = false;
};

Ports& ports()
{
    static Ports* p = new Ports;
    return *p;
}

void closeAll(Ports& p)
{
    for (size_t i = 0; i < p.count; ++i) {
        std::unique_lock<std::shared_mutex> g(p.socks[i].lock);
        if (p.socks[i].fd >= 0)
            close(p.socks[i].fd);
        p.socks[i].fd = -1;
    }
}

// Every frame goes out with the virtio header PACKET_VNET_HDR asks for: a
// checksum the sender left to an offload is finished by the kernel or the
// device, a super-frame is cut into segments where the device cannot.
int transmit(size_t port, const uint8_t* frame, size_t len, int32_t tagVid, const core::Offload* off)
{
    Ports& p = ports();
    if (port >= p.count || len < 12)
        return EINVAL;
    PortSock& ps = p.socks[port];
    struct virtio_net_hdr vh;
    memset(&vh, 0, sizeof vh);
    if (off) {
        uint16_t shift = tagVid >= 0 ? 4 : 0;
        if (off->needsCsum) {
            vh.flags = VIRTIO_NET_HDR_F_NEEDS_CSUM;
            vh.csum_start = (uint16_t)(off->csumStart + shift);
            vh.csum_offset = off->csumOffset;
        }
        vh.gso_type = off->gsoType;
        if (off->gsoType != VIRTIO_NET_HDR_GSO_NONE) {
            vh.gso_size = off->gsoSize;
            vh.hdr_len = (uint16_t)(off->hdrLen + (off->hdrLen ? shift : 0));
        }
    }
    uint8_t tag[4] = {0x81, 0x00, (uint8_t)((tagVid >> 8) & 0x0F), (uint8_t)tagVid};
    struct iovec iov[4];
    size_t n = 0;
    iov[n++] = {&vh, sizeof vh};
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
    std::shared_lock<std::shared_mutex> g(ps.lock);
    if (ps.fd < 0)
        return ps.interface.empty() ? ENOTCONN : EBADF;
    // A full interface drops the frame as a switch port's full queue would;
    // no task ever waits for an interface.
    ssize_t w = sendmsg(ps.fd, &msg, MSG_DONTWAIT);
    if (w < 0)
        return errno;
    size_t want = sizeof vh + len + (tagVid >= 0 ? 4 : 0);
    return (size_t)w == want ? 0 : EMSGSIZE;
}

bool openPort(const std::string& name, const std::string& interface, int& fd, int& ifindex, uint8_t mac[6],
              bool& haveMac, std::string& error);

// Frames a port's socket gives at once (recvmmsg): one system call for a
// burst. Each buffer holds the largest frame; its pages are touched only
// as far as frames reach.
constexpr unsigned kBatch = 8;

struct RxBatch {
    std::unique_ptr<uint8_t[]> bufs{new uint8_t[kBatch * core::kMaxFrame]};
    struct virtio_net_hdr vh[kBatch];
    struct mmsghdr msgs[kBatch];
    struct iovec iov[kBatch][2];
    struct sockaddr_ll from[kBatch];
    alignas(struct cmsghdr) uint8_t control[kBatch][CMSG_SPACE(sizeof(struct tpacket_auxdata))];
};

int receiveBatch(int fd, size_t port, RxBatch& b);

// True when the port's interface is no longer the one its socket is bound
// to (deleted, or deleted and made again).
bool interfaceGone(const PortSock& ps)
{
    unsigned idx = if_nametoindex(ps.interface.c_str());
    return idx == 0 || (int)idx != ps.ifindex;
}

void closePort(PortSock& ps)
{
    std::unique_lock<std::shared_mutex> g(ps.lock);
    if (ps.fd >= 0)
        close(ps.fd);
    ps.fd = -1;
}

// A port whose interface went waits for one of the same name and reopens
// on it.
bool reopenPort(PortSock& ps)
{
    if (if_nametoindex(ps.interface.c_str()) == 0)
        return false;
    int fd = -1, ifindex = 0;
    uint8_t mac[6];
    bool haveMac = true;  // the switch MAC stays what it was
    std::string error;
    if (!openPort(ps.name, ps.interface, fd, ifindex, mac, haveMac, error))
        return false;
    std::unique_lock<std::shared_mutex> g(ps.lock);
    ps.fd = fd;
    ps.ifindex = ifindex;
    return true;
}

void receiveLoop(size_t port, std::string name)
{
    runtime::nameThread(name.substr(0, 15).c_str());
    Ports& p = ports();
    PortSock& ps = p.socks[port];
    // Sized once for the largest frames: receiving never allocates.
    std::unique_ptr<RxBatch> batch(new RxBatch);
    int idle = 0;
    bool gone = false;  // closed here because its interface went
    while (!p.stopping.load()) {
        // Only this thread changes the port's socket: no lock to read it.
        int fd = ps.fd;
        if (fd < 0 && !gone)
            return;
        if (fd < 0) {
            usleep(200 * 1000);
            if (!p.stopping.load() && reopenPort(ps)) {
                gone = false;
                logging::addEvent(logging::kEventPortReopened, LOG_INFO,
                                  "interface " + ps.interface + " of port " + ps.name + " is back: port reopened",
                                  logging::Echo::Stderr);
            }
            continue;
        }
        struct pollfd pfd = {fd, POLLIN, 0};
        int r = poll(&pfd, 1, 200);
        bool failed = r > 0 && (pfd.revents & (POLLERR | POLLHUP | POLLNVAL)) != 0;
        if (failed) {
            int err = 0;
            socklen_t el = sizeof err;
            (void)getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &el);
        }
        // An interface that is deleted leaves its sockets deaf for good;
        // one that only went down comes back by itself.
        if (failed || (r == 0 && ++idle >= 5)) {
            idle = 0;
            if (interfaceGone(ps)) {
                closePort(ps);
                gone = true;
                logging::addEvent(logging::kEventPortGone, LOG_WARNING,
                                  "interface " + ps.interface + " of port " + ps.name +
                                      " is gone: the port is closed until it is back",
                                  logging::Echo::Stderr);
                continue;
            }
        }
        if (r <= 0 || failed)
            continue;
        idle = 0;
        // A burst is taken at once, without a poll per batch.
        for (int round = 0; round < 8 && !p.stopping.load(); ++round) {
            if (receiveBatch(fd, port, *batch) < (int)kBatch)
                break;
        }
    }
}

// One received frame (n bytes with the offload header) to the core.
void receiveOne(size_t port, const uint8_t* buf, size_t n, const struct virtio_net_hdr& vh,
                const struct msghdr& msg, const struct sockaddr_ll& from)
{
    // Our own transmissions, where the kernel still shows them.
    if (from.sll_pkttype == PACKET_OUTGOING)
        return;
    if (msg.msg_flags & MSG_TRUNC) {
        core::discard(port, "larger than the receive buffer");
        return;
    }
    if (n < sizeof vh) {
        core::discard(port, "no offload header");
        return;
    }
    size_t len = n - sizeof vh;
    int32_t tci = -1;
    uint16_t tpid = 0x8100;
    for (struct cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(const_cast<struct msghdr*>(&msg), c)) {
        if (c->cmsg_level != SOL_PACKET || c->cmsg_type != PACKET_AUXDATA)
            continue;
        struct tpacket_auxdata aux;
        memcpy(&aux, CMSG_DATA(c), sizeof aux);
#ifdef TP_STATUS_VLAN_VALID
        if ((aux.tp_status & TP_STATUS_VLAN_VALID) || aux.tp_vlan_tci != 0)
#else
        if (aux.tp_vlan_tci != 0)
#endif
        {
            tci = aux.tp_vlan_tci;
#ifdef TP_STATUS_VLAN_TPID_VALID
            if (aux.tp_status & TP_STATUS_VLAN_TPID_VALID)
                tpid = aux.tp_vlan_tpid;
#endif
        }
    }
    core::Offload off;
    off.needsCsum = (vh.flags & VIRTIO_NET_HDR_F_NEEDS_CSUM) != 0;
    off.csumStart = vh.csum_start;
    off.csumOffset = vh.csum_offset;
    off.gsoType = vh.gso_type;
    off.gsoSize = vh.gso_size;
    off.hdrLen = vh.hdr_len;
    bool any = off.needsCsum || off.gsoType != VIRTIO_NET_HDR_GSO_NONE;
    core::receive(port, const_cast<uint8_t*>(buf), len, tci, tpid, any ? &off : nullptr);
}

// Takes what the socket holds, at most kBatch frames; their number.
int receiveBatch(int fd, size_t port, RxBatch& b)
{
    for (unsigned i = 0; i < kBatch; ++i) {
        b.iov[i][0] = {&b.vh[i], sizeof b.vh[i]};
        b.iov[i][1] = {b.bufs.get() + (size_t)i * core::kMaxFrame, core::kMaxFrame};
        struct msghdr& m = b.msgs[i].msg_hdr;
        memset(&m, 0, sizeof m);
        m.msg_name = &b.from[i];
        m.msg_namelen = sizeof b.from[i];
        m.msg_iov = b.iov[i];
        m.msg_iovlen = 2;
        m.msg_control = b.control[i];
        m.msg_controllen = sizeof b.control[i];
    }
    int n = recvmmsg(fd, b.msgs, kBatch, MSG_DONTWAIT, nullptr);
    for (int i = 0; i < n; ++i)
        receiveOne(port, b.bufs.get() + (size_t)i * core::kMaxFrame, b.msgs[i].msg_len, b.vh[i],
                   b.msgs[i].msg_hdr, b.from[i]);
    return n < 0 ? 0 : n;
}

void agingLoop()
{
    runtime::nameThread("fdbAging");
    Ports& p = ports();
    while (!p.stopping.load()) {
        for (int i = 0; i < 10 && !p.stopping.load(); ++i)
            usleep(100 * 1000);
        core::ageFdb();
    }
}

// The socket is made with protocol 0, which receives nothing, and bound to
// its interface with ETH_P_ALL in one step: no frame of another interface
// ever reaches it.
bool openPort(const std::string& name, const std::string& interface, int& fd, int& ifindex, uint8_t mac[6],
              bool& haveMac, std::string& error)
{
    fd = -1;
    const std::string what = "interface " + interface + " of port " + name;
    // Privileges first: without them no interface would do.
    int s = socket(AF_PACKET, SOCK_RAW, 0);
    if (s < 0) {
        if (errno == EPERM || errno == EACCES)
            error = "opening AF_PACKET sockets needs CAP_NET_RAW (run as root)";
        else
            error = what + ": socket: " + strerror(errno);
        return false;
    }
    unsigned idx = if_nametoindex(interface.c_str());
    if (idx == 0) {
        error = what + ": " + strerror(errno);
        close(s);
        return false;
    }
    int one = 1;
    // Frames keep the offloads of their interface: a TCP super-frame comes
    // whole with its segmentation state and leaves the same way.
    if (setsockopt(s, SOL_PACKET, PACKET_VNET_HDR, &one, sizeof one) != 0) {
        error = what + ": PACKET_VNET_HDR: " + strerror(errno);
        close(s);
        return false;
    }
    if (setsockopt(s, SOL_PACKET, PACKET_AUXDATA, &one, sizeof one) != 0) {
        error = what + ": PACKET_AUXDATA: " + strerror(errno);
        close(s);
        return false;
    }
#ifdef PACKET_IGNORE_OUTGOING
    // Older kernels lack it; the receive loop skips outgoing frames anyway.
    (void)setsockopt(s, SOL_PACKET, PACKET_IGNORE_OUTGOING, &one, sizeof one);
#endif
    struct sockaddr_ll sll;
    memset(&sll, 0, sizeof sll);
    sll.sll_family = AF_PACKET;
    sll.sll_protocol = htons(ETH_P_ALL);
    sll.sll_ifindex = (int)idx;
    if (bind(s, reinterpret_cast<struct sockaddr*>(&sll), sizeof sll) != 0) {
        error = what + ": bind: " + strerror(errno);
        close(s);
        return false;
    }
    struct packet_mreq mr;
    memset(&mr, 0, sizeof mr);
    mr.mr_ifindex = (int)idx;
    mr.mr_type = PACKET_MR_PROMISC;
    if (setsockopt(s, SOL_PACKET, PACKET_ADD_MEMBERSHIP, &mr, sizeof mr) != 0) {
        error = what + ": promiscuous mode: " + strerror(errno);
        close(s);
        return false;
    }
    if (!haveMac) {
        struct ifreq ifr;
        memset(&ifr, 0, sizeof ifr);
        strncpy(ifr.ifr_name, interface.c_str(), IFNAMSIZ - 1);
        if (ioctl(s, SIOCGIFHWADDR, &ifr) == 0) {
            memcpy(mac, ifr.ifr_hwaddr.sa_data, 6);
            haveMac = true;
        }
    }
    fd = s;
    ifindex = (int)idx;
    return true;
}

}  // namespace

bool start(const swcfg::SwitchConfig& cfg, const Options& opt, std::string& error)
{
    Ports& p = ports();
    std::lock_guard<std::mutex> g(p.lock);
    if (p.running) {
        error = "the switch is already running";
        return false;
    }
    for (size_t i = 0; i < cfg.ports.size(); ++i) {
        for (size_t j = 0; j < i; ++j) {
            if (!cfg.ports[i].interface.empty() && cfg.ports[i].interface == cfg.ports[j].interface) {
                error = "interface " + cfg.ports[i].interface + " is given to ports " +
                        cfg.ports[j].name + " and " + cfg.ports[i].name;
                return false;
            }
        }
    }
    // The module loads and saves its binding file here: a missing directory
    // would lose every save.
    // The bindings name every client's address and MAC: a directory made
    // here is the owner's only (one that exists keeps its mode).
    if (!opt.dataDir.empty()) {
        std::error_code ec;
        struct stat st;
        if (lstat(opt.dataDir.c_str(), &st) != 0 && errno == ENOENT) {
            std::filesystem::path parent = std::filesystem::path(opt.dataDir).parent_path();
            if (!parent.empty())
                std::filesystem::create_directories(parent, ec);
            if (mkdir(opt.dataDir.c_str(), 0700) != 0 && errno != EEXIST) {
                error = "data directory " + opt.dataDir + ": " + strerror(errno);
                return false;
            }
        }
        if (!std::filesystem::is_directory(opt.dataDir, ec)) {
            error = "data directory " + opt.dataDir + ": " +
                    (ec ? ec.message() : std::string("not a directory"));
            return false;
        }
    }
    if (cfg.dataplane == swcfg::SwitchConfig::Dataplane::Bridge) {
#ifdef DHCPSNOOP_BRIDGE_DATAPLANE
        return bridge::start(cfg, opt, error);
#else
        error = "this build has no bridge data plane (no libnftables/libmnl): set [switch] dataplane = \"user\"";
        return false;
#endif
    }
    closeAll(p);
    core::tearDown();
    p.count = cfg.ports.size();
    p.socks.reset(new PortSock[p.count]);
    uint8_t mac[6] = {0, 0, 0, 0, 0, 0};
    bool haveMac = false;
    for (size_t i = 0; i < p.count; ++i) {
        const swcfg::PortConfig& pc = cfg.ports[i];
        p.socks[i].name = pc.name;
        p.socks[i].interface = pc.interface;
        if (pc.interface.empty())
            continue;  // a port of the configuration only: nothing behind it
        if (!openPort(pc.name, pc.interface, p.socks[i].fd, p.socks[i].ifindex, mac, haveMac, error)) {
            closeAll(p);
            return false;
        }
    }
    runtime::setDataDir(opt.dataDir);
    logging::configure(opt.useSyslog, opt.eventsKept);
    persist::prepare(opt.dataDir);
    if (!core::setUp(cfg, opt, transmit, error)) {
        closeAll(p);
        return false;
    }
    if (haveMac)
        core::setFallbackMac(mac);
    return true;
}

bool run(std::string& error)
{
#ifdef DHCPSNOOP_BRIDGE_DATAPLANE
    if (bridge::active())
        return bridge::run(error);
#endif
    Ports& p = ports();
    std::lock_guard<std::mutex> g(p.lock);
    if (p.running) {
        error = "the switch is already running";
        return false;
    }
    if (!core::isUp()) {
        error = "the switch was not started";
        return false;
    }
    p.stopping.store(false);
    logging::setSwitchInited(true);
    std::vector<swcfg::PortConfig> cfgPorts;
    for (const auto& c : core::counters()) {
        swcfg::PortConfig pc;
        pc.name = c.name;
        pc.interface = c.interface;
        cfgPorts.push_back(pc);
    }
    try {
        for (size_t i = 0; i < p.count; ++i)
            if (!p.socks[i].interface.empty())
                p.threads.emplace_back(receiveLoop, i, "rx-" + cfgPorts[i].interface);
        p.threads.emplace_back(agingLoop);
    } catch (const std::exception& e) {
        p.stopping.store(true);
        for (auto& t : p.threads)
            t.join();
        p.threads.clear();
        error = std::string("cannot start the receive threads: ") + e.what();
        return false;
    }
    p.running = true;
    return true;
}

void stop()
{
#ifdef DHCPSNOOP_BRIDGE_DATAPLANE
    if (bridge::active()) {
        bridge::stop();
        return;
    }
#endif
    Ports& p = ports();
    std::lock_guard<std::mutex> g(p.lock);
    p.stopping.store(true);
    for (auto& t : p.threads)
        t.join();
    p.threads.clear();
    closeAll(p);
    p.running = false;
}

bool reconfigure(const swcfg::SwitchConfig& cfg, std::string& error)
{
#ifdef DHCPSNOOP_BRIDGE_DATAPLANE
    if (bridge::active())
        return bridge::reconfigure(cfg, error);
#endif
    if (cfg.dataplane != swcfg::SwitchConfig::Dataplane::User) {
        error = "the data plane cannot change while running";
        return false;
    }
    return core::reconfigure(cfg, error);
}

// The main queue first: a frame still waiting or being handled may queue a
// save of its own.
// After a failed save no task takes the save queue's requests: nothing to
// wait for there.
bool saveIdle()
{
    return runtime::queueIdle(DHCP_SNOOP_QUEUE_NAME) &&
           (!saveStatus().saving || runtime::queueIdle(DHCP_SNOOP_SAVE_QUEUE_NAME));
}

std::vector<PortCounters> counters()
{
    std::vector<PortCounters> c = core::counters();
#ifdef DHCPSNOOP_BRIDGE_DATAPLANE
    if (bridge::active())
        bridge::addCounters(c);
#endif
    return c;
}

Latency latency(bool clear) { return core::latency(clear); }

}  // namespace live
