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
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/linux/live_internal.h"
#ifdef DHCPSNOOP_BRIDGE_DATAPLANE
#include "platform/linux/bridge.h"
#endif

namespace live {
namespace {

struct Ports {
    std::mutex lock;  // start, run, stop
    size_t count = 0;
    std::unique_ptr<std::atomic<int>[]> fds;
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
        int fd = p.fds[i].exchange(-1);
        if (fd >= 0)
            close(fd);
    }
}

void transmit(size_t port, const uint8_t* frame, size_t len, int32_t tagVid)
{
    Ports& p = ports();
    if (port >= p.count || len < 12)
        return;
    int fd = p.fds[port].load();
    if (fd < 0)
        return;
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
    // A full interface drops the frame as a switch port's full queue would;
    // no task ever waits for an interface.
    ssize_t w = sendmsg(fd, &msg, MSG_DONTWAIT);
    (void)w;
}

uint16_t rd16(const uint8_t* p) { return (uint16_t)(((uint32_t)p[0] << 8) | p[1]); }

// A frame handed over before its checksum was computed (a local sender with
// checksum offload) gets its UDP or TCP checksum here: the next host checks it.
void completeChecksum(uint8_t* f, size_t len)
{
    size_t ip = 14;
    if (len >= 18 && rd16(f + 12) == 0x8100)
        ip = 18;
    if (len < ip + 20 || rd16(f + ip - 2) != 0x0800 || (f[ip] >> 4) != 4)
        return;
    size_t ihl = (size_t)(f[ip] & 0x0F) * 4;
    size_t total = rd16(f + ip + 2);
    if (ihl < 20 || total < ihl || ip + total > len || (rd16(f + ip + 6) & 0x3FFF) != 0)
        return;
    uint8_t proto = f[ip + 9];
    size_t l4 = ip + ihl;
    size_t l4len = total - ihl;
    size_t csumAt;
    if (proto == 17 && l4len >= 8)
        csumAt = l4 + 6;
    else if (proto == 6 && l4len >= 20)
        csumAt = l4 + 16;
    else
        return;
    f[csumAt] = 0;
    f[csumAt + 1] = 0;
    uint32_t sum = 0;
    for (size_t i = 0; i < 8; i += 2)
        sum += rd16(f + ip + 12 + i);
    sum += proto;
    sum += (uint32_t)l4len;
    for (size_t i = 0; i + 1 < l4len; i += 2)
        sum += rd16(f + l4 + i);
    if (l4len & 1u)
        sum += (uint32_t)f[l4 + l4len - 1] << 8;
    while (sum >> 16)
        sum = (sum & 0xFFFFu) + (sum >> 16);
    uint16_t c = (uint16_t)~sum;
    if (proto == 17 && c == 0)
        c = 0xFFFF;
    f[csumAt] = (uint8_t)(c >> 8);
    f[csumAt + 1] = (uint8_t)c;
}

bool receiveOne(int fd, size_t port, std::vector<uint8_t>& buf, uint8_t* control, size_t controlLen);

void receiveLoop(size_t port, std::string name)
{
    runtime::nameThread(name.substr(0, 15).c_str());
    Ports& p = ports();
    // Sized once for the largest frame: receiving never allocates.
    std::vector<uint8_t> buf(core::kMaxFrame);
    alignas(struct cmsghdr) uint8_t control[CMSG_SPACE(sizeof(struct tpacket_auxdata))];
    while (!p.stopping.load()) {
        int fd = p.fds[port].load();
        if (fd < 0)
            return;
        struct pollfd pfd = {fd, POLLIN, 0};
        int r = poll(&pfd, 1, 200);
        if (r <= 0)
            continue;
        // A burst is taken at once, without a poll per frame.
        for (int burst = 0; burst < 64 && !p.stopping.load(); ++burst) {
            if (!receiveOne(fd, port, buf, control, sizeof control))
                break;
        }
    }
}

// False when nothing was waiting.
bool receiveOne(int fd, size_t port, std::vector<uint8_t>& buf, uint8_t* control, size_t controlLen)
{
    struct sockaddr_ll from;
    struct iovec iov = {buf.data(), buf.size()};
    struct msghdr msg;
    memset(&msg, 0, sizeof msg);
    msg.msg_name = &from;
    msg.msg_namelen = sizeof from;
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = controlLen;
    ssize_t n = recvmsg(fd, &msg, MSG_DONTWAIT);
    if (n <= 0)
        return false;
    // Our own transmissions, where the kernel still shows them.
    if (from.sll_pkttype == PACKET_OUTGOING)
        return true;
    if (msg.msg_flags & MSG_TRUNC)
        return true;
    int32_t tci = -1;
    bool csumNotReady = false;
    for (struct cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
        if (c->cmsg_level != SOL_PACKET || c->cmsg_type != PACKET_AUXDATA)
            continue;
        struct tpacket_auxdata aux;
        memcpy(&aux, CMSG_DATA(c), sizeof aux);
#ifdef TP_STATUS_VLAN_VALID
        if ((aux.tp_status & TP_STATUS_VLAN_VALID) || aux.tp_vlan_tci != 0)
#else
        if (aux.tp_vlan_tci != 0)
#endif
            tci = aux.tp_vlan_tci;
#ifdef TP_STATUS_CSUMNOTREADY
        if (aux.tp_status & TP_STATUS_CSUMNOTREADY)
            csumNotReady = true;
#endif
    }
    if (csumNotReady)
        completeChecksum(buf.data(), (size_t)n);
    core::receive(port, buf.data(), (size_t)n, tci);
    return true;
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

bool openPort(const swcfg::PortConfig& pc, int& fd, uint8_t mac[6], bool& haveMac, std::string& error)
{
    fd = -1;
    // Privileges first: without them no interface would do.
    int s = socket(AF_PACKET, SOCK_RAW, htons(ETH_P_ALL));
    if (s < 0) {
        if (errno == EPERM || errno == EACCES)
            error = "opening AF_PACKET sockets needs CAP_NET_RAW (run as root)";
        else
            error = "interface " + pc.interface + " of port " + pc.name + ": socket: " + strerror(errno);
        return false;
    }
    unsigned idx = if_nametoindex(pc.interface.c_str());
    if (idx == 0) {
        error = "interface " + pc.interface + " of port " + pc.name + ": " + strerror(errno);
        close(s);
        return false;
    }
    struct sockaddr_ll sll;
    memset(&sll, 0, sizeof sll);
    sll.sll_family = AF_PACKET;
    sll.sll_protocol = htons(ETH_P_ALL);
    sll.sll_ifindex = (int)idx;
    if (bind(s, reinterpret_cast<struct sockaddr*>(&sll), sizeof sll) != 0) {
        error = "interface " + pc.interface + " of port " + pc.name + ": bind: " + strerror(errno);
        close(s);
        return false;
    }
    struct packet_mreq mr;
    memset(&mr, 0, sizeof mr);
    mr.mr_ifindex = (int)idx;
    mr.mr_type = PACKET_MR_PROMISC;
    if (setsockopt(s, SOL_PACKET, PACKET_ADD_MEMBERSHIP, &mr, sizeof mr) != 0) {
        error = "interface " + pc.interface + " of port " + pc.name + ": promiscuous mode: " +
                strerror(errno);
        close(s);
        return false;
    }
    int one = 1;
    if (setsockopt(s, SOL_PACKET, PACKET_AUXDATA, &one, sizeof one) != 0) {
        error = "interface " + pc.interface + " of port " + pc.name + ": PACKET_AUXDATA: " +
                strerror(errno);
        close(s);
        return false;
    }
#ifdef PACKET_IGNORE_OUTGOING
    // Older kernels lack it; the receive loop skips outgoing frames anyway.
    (void)setsockopt(s, SOL_PACKET, PACKET_IGNORE_OUTGOING, &one, sizeof one);
#endif
    if (!haveMac) {
        struct ifreq ifr;
        memset(&ifr, 0, sizeof ifr);
        strncpy(ifr.ifr_name, pc.interface.c_str(), IFNAMSIZ - 1);
        if (ioctl(s, SIOCGIFHWADDR, &ifr) == 0) {
            memcpy(mac, ifr.ifr_hwaddr.sa_data, 6);
            haveMac = true;
        }
    }
    fd = s;
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
    if (!opt.dataDir.empty()) {
        std::error_code ec;
        std::filesystem::create_directories(opt.dataDir, ec);
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
    p.fds.reset(new std::atomic<int>[p.count]);
    for (size_t i = 0; i < p.count; ++i)
        p.fds[i].store(-1);
    uint8_t mac[6] = {0, 0, 0, 0, 0, 0};
    bool haveMac = false;
    for (size_t i = 0; i < p.count; ++i) {
        const swcfg::PortConfig& pc = cfg.ports[i];
        if (pc.interface.empty())
            continue;  // a port of the configuration only: nothing behind it
        int fd;
        if (!openPort(pc, fd, mac, haveMac, error)) {
            closeAll(p);
            return false;
        }
        p.fds[i].store(fd);
    }
    runtime::setDataDir(opt.dataDir);
    logging::configure(opt.useSyslog, opt.eventsKept);
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
            if (p.fds[i].load() >= 0)
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
bool saveIdle()
{
    return runtime::queueIdle(DHCP_SNOOP_QUEUE_NAME) && runtime::queueIdle(DHCP_SNOOP_SAVE_QUEUE_NAME);
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

}  // namespace live
