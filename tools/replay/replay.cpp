#include "replay.h"

#include <stdlib.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "platform/sim/runner.h"
#include "platform/sim/sim.h"
#include "snooping/dhcpSnoop.h"
#include "snooping/dhcpSnoopInternal.h"
#include "tools/common/drop_reason.h"
#include "tools/common/json_text.h"
#include "tools/common/switch_config_sim.h"

namespace replay {

namespace {

constexpr uint16_t kTpid = 0x8100;

uint16_t rd16(const std::vector<uint8_t>& b, size_t at)
{
    return (uint16_t)((b[at] << 8) | b[at + 1]);
}

// What the switch's ingress makes of a frame.
struct Ingress {
    bool tagged = false;
    uint16_t vid = 0;               // tag's VLAN (0: priority tag or none)
    std::vector<uint8_t> untagged;  // the frame as the trap hands it over
    bool dhcp = false;
};

// IPv4 UDP to or from port 67 or 68, Ethernet II or 802.3/SNAP, after the tag
// is gone. Every read is bounded by the frame.
bool isDhcp(const std::vector<uint8_t>& f)
{
    if (f.size() < 14)
        return false;
    size_t ip;
    uint16_t t = rd16(f, 12);
    if (t == 0x0800) {
        ip = 14;
    } else if (t <= 0x05DC) {
        static const uint8_t snap[8] = {0xAA, 0xAA, 0x03, 0x00, 0x00, 0x00, 0x08, 0x00};
        if (f.size() < 22 || !std::equal(snap, snap + 8, f.begin() + 14))
            return false;
        ip = 22;
    } else {
        return false;
    }
    if (f.size() < ip + 20 || (f[ip] >> 4) != 4)
        return false;
    size_t ihl = (size_t)(f[ip] & 0x0F) * 4;
    if (ihl < 20 || f[ip + 9] != 17)
        return false;
    // A later fragment has no UDP header to look at.
    if ((rd16(f, ip + 6) & 0x1FFF) != 0)
        return false;
    size_t udp = ip + ihl;
    if (f.size() < udp + 8)
        return false;
    uint16_t sport = rd16(f, udp), dport = rd16(f, udp + 2);
    auto bootp = [](uint16_t p) { return p == 67 || p == 68; };
    return bootp(sport) || bootp(dport);
}

Ingress ingress(const std::vector<uint8_t>& f)
{
    Ingress in;
    if (f.size() >= 18 && rd16(f, 12) == kTpid) {
        in.tagged = true;
        in.vid = rd16(f, 14) & 0x0FFF;
        in.untagged.resize(f.size() - 4);
        std::copy(f.begin(), f.begin() + 12, in.untagged.begin());
        std::copy(f.begin() + 16, f.end(), in.untagged.begin() + 12);
    } else {
        in.untagged = f;
    }
    in.dhcp = isDhcp(in.untagged);
    return in;
}

std::vector<uint8_t> withTag(const std::vector<uint8_t>& f, uint16_t vid)
{
    if (f.size() < 12)
        return f;
    std::vector<uint8_t> out(f.size() + 4);
    std::copy(f.begin(), f.begin() + 12, out.begin());
    out[12] = (uint8_t)(kTpid >> 8);
    out[13] = (uint8_t)kTpid;
    out[14] = (uint8_t)(vid >> 8);
    out[15] = (uint8_t)vid;
    std::copy(f.begin() + 12, f.end(), out.begin() + 16);
    return out;
}

std::string trimEol(std::string s)
{
    while (!s.empty() && (s.back() == '\n' || s.back() == '\r'))
        s.pop_back();
    return s;
}

std::string ipText(const uint8_t* ip)
{
    char b[16];
    snprintf(b, sizeof b, "%u.%u.%u.%u", ip[0], ip[1], ip[2], ip[3]);
    return b;
}

std::string macText(const uint8_t* m)
{
    char b[18];
    snprintf(b, sizeof b, "%02x:%02x:%02x:%02x:%02x:%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
    return b;
}

// A private directory for the module's files: a replay never starts from a
// binding file left by an earlier one.
std::string makeTempDir(std::string& error)
{
    const char* base = getenv("TMPDIR");
    std::string templ =
        std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/dhcpsnoop-replay-XXXXXX";
    std::vector<char> buf(templ.begin(), templ.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr) {
        error = "cannot create a temporary directory under " + templ;
        return "";
    }
    return buf.data();
}

class Engine {
public:
    Engine(const swcfg::SwitchConfig& cfg, const std::vector<Input>& inputs, const Options& opt,
           Result& r)
        : cfg_(cfg), inputs_(inputs), opt_(opt), r_(r)
    {
    }

    bool start(std::string& error)
    {
        dhcpSnoopResetState();
        sim::reset();
        // Log lines carry the thread's name; the module's work is DSTask's.
        prctl(PR_SET_NAME, "DSTask");
        swcfg::applyToSim(cfg_);
        // Drops are told apart by the module's debug lines, so the switch
        // always runs with its debug switch on; they are printed on request.
        sim::setDebugFlag(1);
        root_ = makeTempDir(error);
        if (root_.empty())
            return false;
        sim::setFileRoot(root_);
        uint32_t rv = dhcpSnoopInit();
        collect(0, nullptr);
        if (rv != DHCP_SNOOP_OK) {
            error = "the module did not start: dhcpSnoopInit() = " + std::to_string(rv);
            return false;
        }
        simrun::startTasks();
        uint32_t lv = swcfg::applyToModule(cfg_);
        if (lv != 0) {
            error = "dhcpSnoopSetDebugLevel failed: " + std::to_string(lv);
            return false;
        }
        for (const auto& p : cfg_.ports)
            r_.stats[p.handle];
        collect(0, nullptr);
        return true;
    }

    ~Engine()
    {
        if (!root_.empty()) {
            std::error_code ec;
            std::filesystem::remove_all(root_, ec);
        }
    }

    void clockTo(uint64_t ms)
    {
        if (ms > sim::nowMs())
            sim::advanceTo(ms, [this] {
                simrun::runUntilIdle();
                collect(sim::nowMs(), nullptr);
            });
        simrun::runUntilIdle();
        collect(sim::nowMs(), nullptr);
    }

    void frame(const Frame& f, up port)
    {
        const swcfg::PortConfig* pc = cfg_.port(port);
        PortStats& st = r_.stats[port];
        ++st.in;
        ++r_.frames;
        Ingress in = ingress(f.bytes);
        uint16_t vid = in.tagged && in.vid != 0 ? in.vid : pc->vlan;
        bool accepted = pc->carries(vid);
        if (accepted)
            learn(in.untagged, vid, port);
        if (!in.dhcp) {
            ++st.notDhcp;
            return;
        }
        if (!accepted) {
            drop(f, port, "VLAN " + std::to_string(vid) + " not carried by the port");
            return;
        }
        size_t sentBefore = sim::sent().size();
        size_t logBefore = sim::logs().size();
        uint32_t rv = simrun::inject(port, vid, in.untagged);
        simrun::runUntilIdle();
        std::vector<std::string> lines;
        for (size_t i = logBefore; i < sim::logs().size(); ++i)
            lines.push_back(trimEol(sim::logs()[i].message()));
        collect(sim::nowMs(), &f);
        if (rv != 0) {
            drop(f, port, "trap queue full");
            return;
        }
        size_t delivered = 0;
        bool nowhere = false;
        for (size_t i = sentBefore; i < sim::sent().size(); ++i) {
            const sim::SentPacket& p = sim::sent()[i];
            std::vector<up> to = egress(p, port);
            if (to.empty())
                nowhere = true;
            for (up e : to) {
                const swcfg::PortConfig* ec = cfg_.port(e);
                std::vector<uint8_t> bytes =
                    ec != nullptr && ec->tags(p.vid) ? withTag(p.frame, p.vid) : p.frame;
                r_.sent[e].push_back(SentFrame{f.tsUs, std::move(bytes)});
                ++r_.stats[e].out;
                ++delivered;
            }
        }
        if (delivered == 0) {
            std::string reason = dropreason::dropReason(lines);
            if (reason == "dropped" && nowhere)
                reason = "no egress port";
            drop(f, port, reason);
        }
    }

    void finish()
    {
        simrun::runUntilIdle();
        collect(sim::nowMs(), nullptr);
        r_.endMs = sim::nowMs();
        for (uint32_t b = 0; dynamicTable != nullptr && b < DHCP_SNOOP_HASH_SIZE; ++b) {
            for (DhcpSnoopElement* e = dhcpSnoopHead(dynamicTable, b); e != nullptr;
                 e = dhcpSnoopNext(e)) {
                Binding x;
                x.ip = ipText(e->clientIp);
                x.mac = macText(e->clientMac);
                x.vlan = e->vlan;
                x.port = sim::portName(e->up);
                x.lease = e->ttl;
                r_.bindings.push_back(x);
            }
        }
        std::string path = root_ + "/" + bindingFileName();
        std::ifstream in(path, std::ios::binary);
        if (in) {
            std::ostringstream o;
            o << in.rdbuf();
            r_.bindingFileWritten = true;
            r_.bindingFile = o.str();
        }
    }

private:
    void learn(const std::vector<uint8_t>& f, uint16_t vid, up port)
    {
        if (f.size() < 12)
            return;
        sim::Mac src;
        std::copy(f.begin() + 6, f.begin() + 12, src.begin());
        // Group and all-zero sources are never learned.
        if ((src[0] & 1) != 0 || std::all_of(src.begin(), src.end(), [](uint8_t b) { return b == 0; }))
            return;
        sim::fdbSet(src, vid, port);
        fdb_[{src, vid}] = port;
    }

    std::vector<up> vlanPorts(uint16_t vid, const std::set<up>& except) const
    {
        std::vector<up> out;
        for (const auto& p : cfg_.ports)
            if (p.carries(vid) && !except.count(p.handle))
                out.push_back(p.handle);
        return out;
    }

    // The ports a transmission reaches, as the switch's forwarding would.
    std::vector<up> egress(const sim::SentPacket& p, up rcv) const
    {
        std::vector<up> listed = sim::portsIn(p.ports);
        if (p.sendFlags & SEND_FLAG_FLOOD)
            return vlanPorts(p.vid, std::set<up>(listed.begin(), listed.end()));
        if (p.sendFlags & SEND_FLAG_BY_FDB) {
            if (p.frame.size() < 6)
                return {};
            sim::Mac dst;
            std::copy(p.frame.begin(), p.frame.begin() + 6, dst.begin());
            auto it = fdb_.find({dst, p.vid});
            if (it == fdb_.end())
                return vlanPorts(p.vid, {rcv});
            // A switch never sends a frame back where it came from.
            if (it->second == rcv)
                return {};
            return {it->second};
        }
        std::vector<up> out;
        for (up e : listed) {
            const swcfg::PortConfig* ec = cfg_.port(e);
            if (ec != nullptr && ec->carries(p.vid))
                out.push_back(e);
        }
        return out;
    }

    void drop(const Frame& f, up port, const std::string& reason)
    {
        PortStats& st = r_.stats[port];
        ++st.dropped;
        ++st.dropReasons[reason];
        r_.drops.push_back(Drop{f.input, f.number, f.tsUs, sim::portName(port), reason});
    }

    // New log lines (printed on request) and system-log entries.
    void collect(uint64_t nowMs, const Frame* f)
    {
        const auto& logs = sim::logs();
        if (opt_.debugOut != nullptr) {
            for (size_t i = logsSeen_; i < logs.size(); ++i) {
                *opt_.debugOut << "[" << relTime((int64_t)nowMs * 1000) << "]";
                if (f != nullptr)
                    *opt_.debugOut << " " << inputs_[f->input].file << "#" << f->number;
                *opt_.debugOut << " " << trimEol(logs[i].text) << "\n";
            }
        }
        logsSeen_ = logs.size();
        const auto& sl = sim::syslog();
        for (size_t i = syslogSeen_; i < sl.size(); ++i) {
            SyslogEvent e;
            e.timeMs = nowMs;
            e.code = sl[i].code;
            e.text = sl[i].text;
            e.portName = sl[i].portName;
            for (size_t a = 0; a < 6; ++a)
                e.args[a] = sl[i].args[a];
            r_.syslog.push_back(e);
        }
        syslogSeen_ = sl.size();
    }

    const swcfg::SwitchConfig& cfg_;
    const std::vector<Input>& inputs_;
    const Options& opt_;
    Result& r_;
    std::string root_;
    std::map<std::pair<sim::Mac, uint16_t>, up> fdb_;
    size_t logsSeen_ = 0;
    size_t syslogSeen_ = 0;
};

std::string hex32(uint32_t v)
{
    char b[12];
    snprintf(b, sizeof b, "0x%08X", v);
    return b;
}

std::string leaseText(uint32_t lease)
{
    return lease == DHCP_SNOOP_TTL_FOREVER ? "infinite" : std::to_string(lease) + " s";
}

}  // namespace

std::string bindingFileName()
{
    std::string p = DHCP_SNOOP_CFG_FILE_PATH;
    size_t slash = p.find_last_of('/');
    return slash == std::string::npos ? p : p.substr(slash + 1);
}

std::string relTime(int64_t us)
{
    char b[32];
    const char* sign = us < 0 ? "-" : "";
    uint64_t a = us < 0 ? (uint64_t)(-us) : (uint64_t)us;
    snprintf(b, sizeof b, "%s%llu.%06llu", sign, (unsigned long long)(a / 1000000),
             (unsigned long long)(a % 1000000));
    return b;
}

std::string portFileName(const std::string& portName)
{
    std::string s = portName;
    std::replace(s.begin(), s.end(), '/', '_');
    return s + ".pcap";
}

bool run(const swcfg::SwitchConfig& cfg, const std::vector<Input>& inputs,
         std::vector<Frame> frames, const Options& opt, Result& result, std::string& error)
{
    result = Result();
    std::vector<up> ports;
    for (const auto& in : inputs) {
        up h;
        if (!swcfg::parsePortName(in.port, &h)) {
            error = "--in " + in.port + "=" + in.file + ": \"" + in.port + "\" is not a port name";
            return false;
        }
        if (cfg.port(h) == nullptr) {
            error = "--in " + in.port + "=" + in.file + ": port " + in.port +
                    " is not in the configuration";
            return false;
        }
        ports.push_back(h);
    }
    // The module's port walk covers the flat indexes of unit 1 only.
    if (cfg.unit != 1) {
        error = cfg.source + ": switch.unit: the simulated switch is unit 1 (got " +
                std::to_string(cfg.unit) + ")";
        return false;
    }
    for (const auto& p : cfg.ports) {
        if (UP_KIND(p.handle) == UP_TYPE_PHYSICAL && UP_UNIT(p.handle) != cfg.unit) {
            error = cfg.source + ":" + std::to_string(p.line) + ": port.name: port " + p.name +
                    " is not on unit " + std::to_string(cfg.unit);
            return false;
        }
    }
    for (const auto& f : frames) {
        if (f.input >= inputs.size()) {
            error = "frame of an unknown input";
            return false;
        }
    }
    std::stable_sort(frames.begin(), frames.end(), [](const Frame& a, const Frame& b) {
        if (a.tsUs != b.tsUs)
            return a.tsUs < b.tsUs;
        return a.input < b.input;
    });
    result.t0Us = frames.empty() ? 0 : frames.front().tsUs;

    Engine eng(cfg, inputs, opt, result);
    if (!eng.start(error))
        return false;
    for (const auto& f : frames) {
        eng.clockTo((uint64_t)((f.tsUs - result.t0Us) / 1000));
        eng.frame(f, ports[f.input]);
    }
    uint64_t last = frames.empty() ? 0 : (uint64_t)((frames.back().tsUs - result.t0Us) / 1000);
    eng.clockTo(last + opt.drainMs);
    eng.finish();
    return true;
}

std::string bindingsJson(const Result& r)
{
    std::ostringstream o;
    o << "[";
    for (size_t i = 0; i < r.bindings.size(); ++i) {
        const Binding& b = r.bindings[i];
        o << (i ? ",\n  " : "\n  ") << "{\"ip\": " << jsontext::quoted(b.ip)
          << ", \"mac\": " << jsontext::quoted(b.mac) << ", \"vlan\": " << b.vlan
          << ", \"port\": " << jsontext::quoted(b.port) << ", \"lease\": ";
        if (b.lease == DHCP_SNOOP_TTL_FOREVER)
            o << "\"infinite\"";
        else
            o << b.lease;
        o << "}";
    }
    o << (r.bindings.empty() ? "]\n" : "\n]\n");
    return o.str();
}

std::string eventsJson(const Result& r, const std::vector<Input>& inputs)
{
    std::ostringstream o;
    o << "{\n  \"syslog\": [";
    for (size_t i = 0; i < r.syslog.size(); ++i) {
        const SyslogEvent& e = r.syslog[i];
        o << (i ? ",\n    " : "\n    ") << "{\"time\": " << relTime((int64_t)e.timeMs * 1000)
          << ", \"code\": " << jsontext::quoted(hex32(e.code)) << ", \"text\": " << jsontext::quoted(e.text)
          << ", \"args\": [";
        for (size_t a = 0; a < 6; ++a) {
            if (a)
                o << ", ";
            if (a == 0 && !e.portName.empty())
                o << jsontext::quoted(e.portName);
            else
                o << e.args[a];
        }
        o << "]}";
    }
    o << (r.syslog.empty() ? "],\n" : "\n  ],\n");
    o << "  \"drops\": [";
    for (size_t i = 0; i < r.drops.size(); ++i) {
        const Drop& d = r.drops[i];
        o << (i ? ",\n    " : "\n    ") << "{\"port\": " << jsontext::quoted(d.port)
          << ", \"input\": " << jsontext::quoted(inputs[d.input].file) << ", \"frame\": " << d.number
          << ", \"time\": " << relTime(d.tsUs - r.t0Us)
          << ", \"timestamp\": " << jsontext::quoted(relTime(d.tsUs))
          << ", \"reason\": " << jsontext::quoted(d.reason) << "}";
    }
    o << (r.drops.empty() ? "]\n}\n" : "\n  ]\n}\n");
    return o.str();
}

std::string summary(const swcfg::SwitchConfig& cfg, const std::vector<Input>& inputs,
                    const Result& r)
{
    std::ostringstream o;
    char line[256];
    o << "Replayed " << r.frames << " frame(s) from " << inputs.size() << " capture(s) over "
      << relTime((int64_t)r.endMs * 1000) << " s of switch time.\n\n";
    snprintf(line, sizeof line, "%-8s %-7s %-5s %6s %8s %6s %8s\n", "PORT", "TRUST", "VLAN", "IN",
             "NOT-DHCP", "OUT", "DROPPED");
    o << line;
    for (const auto& kv : r.stats) {
        const swcfg::PortConfig* pc = cfg.port(kv.first);
        std::string vlans = pc != nullptr ? std::to_string(pc->vlan) : "-";
        if (pc != nullptr)
            for (uint16_t t : pc->tagged)
                vlans += "," + std::to_string(t) + "t";
        snprintf(line, sizeof line, "%-8s %-7s %-5s %6llu %8llu %6llu %8llu\n",
                 sim::portName(kv.first).c_str(),
                 pc == nullptr ? "-" : (pc->trust ? "trusted" : "no"), vlans.c_str(),
                 (unsigned long long)kv.second.in, (unsigned long long)kv.second.notDhcp,
                 (unsigned long long)kv.second.out, (unsigned long long)kv.second.dropped);
        o << line;
        for (const auto& dr : kv.second.dropReasons)
            o << "           dropped " << dr.second << " x " << dr.first << "\n";
    }
    o << "\nDropped frames (" << r.drops.size() << "):\n";
    for (const auto& d : r.drops)
        o << "  " << relTime(d.tsUs - r.t0Us) << " s  " << d.port << "  " << inputs[d.input].file
          << " #" << d.number << "  " << d.reason << "\n";
    o << "\nBindings (" << r.bindings.size() << "):\n";
    if (!r.bindings.empty()) {
        snprintf(line, sizeof line, "  %-15s %-17s %-5s %-8s %s\n", "IP", "MAC", "VLAN", "PORT",
                 "LEASE LEFT");
        o << line;
    }
    for (const auto& b : r.bindings) {
        snprintf(line, sizeof line, "  %-15s %-17s %-5u %-8s %s\n", b.ip.c_str(), b.mac.c_str(),
                 (unsigned)b.vlan, b.port.c_str(), leaseText(b.lease).c_str());
        o << line;
    }
    o << "\nSystem log (" << r.syslog.size() << "):\n";
    for (const auto& e : r.syslog)
        o << "  " << relTime((int64_t)e.timeMs * 1000) << " s  " << hex32(e.code) << "  "
          << (e.text.empty() ? "(no catalogue text)" : e.text) << "\n";
    o << "\nBinding file: "
      << (r.bindingFileWritten ? bindingFileName() + ", " + std::to_string(r.bindingFile.size()) +
                                     " bytes"
                               : std::string("not written (no binding changes)"))
      << "\n";
    return o.str();
}

}  // namespace replay
