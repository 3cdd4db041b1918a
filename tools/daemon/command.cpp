#include "tools/daemon/command.h"

#include <time.h>

#include <algorithm>
#include <cstdio>
#include <sstream>

#include "tools/common/json_text.h"
#include "tools/daemon/metrics.h"

namespace ctl {

namespace {

bool allDigits(const std::string& s)
{
    if (s.empty())
        return false;
    for (char c : s)
        if (c < '0' || c > '9')
            return false;
    return true;
}

int hexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// Decimal without sign; false past max (checked digit by digit, so no
// overflow whatever the length).
bool decimal(const std::string& s, uint32_t max, uint32_t& value)
{
    if (!allDigits(s))
        return false;
    uint64_t v = 0;
    for (char c : s) {
        v = v * 10 + (uint64_t)(c - '0');
        if (v > max)
            return false;
    }
    value = (uint32_t)v;
    return true;
}

std::string quoteWord(const std::string& word)
{
    // Words come from a client: keep the message one printable line.
    std::string out = "\"";
    for (size_t i = 0; i < word.size() && i < 64; ++i) {
        unsigned char c = (unsigned char)word[i];
        if (c < 0x20 || c == 0x7F)
            out += '?';
        else
            out += (char)c;
    }
    if (word.size() > 64)
        out += "...";
    return out + "\"";
}

std::string leaseText(uint32_t lease)
{
    return lease == kLeaseForever ? "infinite" : std::to_string(lease);
}

}  // namespace

bool parseIp(const std::string& text, std::array<uint8_t, 4>& ip, std::string& error)
{
    std::array<uint8_t, 4> out{};
    size_t pos = 0;
    for (size_t i = 0; i < 4; ++i) {
        size_t end = i < 3 ? text.find('.', pos) : text.size();
        uint32_t v = 0;
        std::string part = end == std::string::npos ? std::string() : text.substr(pos, end - pos);
        // A leading zero would read as octal to some tools: refuse it rather than guess.
        if (end == std::string::npos || !decimal(part, 255, v) || (part.size() > 1 && part[0] == '0')) {
            error = "IP " + quoteWord(text) + ": expected an IPv4 address like 198.18.0.23";
            return false;
        }
        out[i] = (uint8_t)v;
        pos = end + 1;
    }
    ip = out;
    return true;
}

bool parseVlan(const std::string& text, uint16_t& vlan, std::string& error)
{
    uint32_t v = 0;
    if (!decimal(text, 4094, v) || v < 1) {
        error = "VLAN " + quoteWord(text) + ": expected a VLAN id from 1 to 4094";
        return false;
    }
    vlan = (uint16_t)v;
    return true;
}

bool parseMac(const std::string& text, std::array<uint8_t, 6>& mac, std::string& error)
{
    // Six pairs of hex digits separated by ':' or '-' (one kind throughout).
    bool ok = text.size() == 17 && (text[2] == ':' || text[2] == '-');
    for (size_t i = 0; ok && i < 6; ++i) {
        int hi = hexValue(text[i * 3]);
        int lo = hexValue(text[i * 3 + 1]);
        if (hi < 0 || lo < 0 || (i < 5 && text[i * 3 + 2] != text[2]))
            ok = false;
        else
            mac[i] = (uint8_t)(hi * 16 + lo);
    }
    if (!ok)
        error = "MAC " + quoteWord(text) + ": expected a MAC address like 02:00:00:00:00:03";
    return ok;
}

bool parseLevel(const std::string& text, uint32_t& level, std::string& error)
{
    uint32_t v = 0;
    bool ok;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        ok = true;
        for (size_t i = 2; ok && i < text.size(); ++i) {
            int d = hexValue(text[i]);
            ok = d >= 0 && v <= 3;
            v = v * 16 + (uint32_t)(d < 0 ? 0 : d);
        }
        ok = ok && v <= 3;
    } else {
        ok = decimal(text, 3, v);
    }
    if (!ok) {
        error = "LEVEL " + quoteWord(text) +
                ": expected 0 to 3, decimal or 0x hex (2 turns on frame dumps)";
        return false;
    }
    level = v;
    return true;
}

bool parseCommand(const std::vector<std::string>& words, Command& cmd, std::string& error)
{
    if (words.empty()) {
        error = "no command (bindings, delete, debug, debug-level, counters, events, latency, status, metrics, monitor)";
        return false;
    }
    const std::string& name = words[0];
    Command c;
    auto arity = [&](size_t n, const char* usage) {
        if (words.size() == n)
            return true;
        error = name + ": usage: " + usage;
        return false;
    };
    if (name == "bindings" || name == "counters" || name == "events" || name == "status" || name == "monitor") {
        c.kind = name == "bindings"   ? Command::Bindings
                 : name == "counters" ? Command::Counters
                 : name == "events"   ? Command::Events
                 : name == "monitor"  ? Command::Monitor
                                      : Command::Status;
        if (words.size() > 2 || (words.size() == 2 && words[1] != "--json")) {
            error = name + ": usage: " + name + " [--json]";
            return false;
        }
        c.json = words.size() == 2;
    } else if (name == "latency") {
        c.kind = Command::Latency;
        for (size_t i = 1; i < words.size(); ++i) {
            if (words[i] == "--json" && !c.json) {
                c.json = true;
            } else if (words[i] == "--clear" && !c.clear) {
                c.clear = true;
            } else {
                error = "latency: usage: latency [--json] [--clear]";
                return false;
            }
        }
    } else if (name == "metrics") {
        c.kind = Command::Metrics;
        if (!arity(1, "metrics"))
            return false;
    } else if (name == "delete") {
        c.kind = Command::Delete;
        if (!arity(4, "delete IP VLAN MAC") || !parseIp(words[1], c.key.ip, error) ||
            !parseVlan(words[2], c.key.vlan, error) || !parseMac(words[3], c.key.mac, error))
            return false;
    } else if (name == "debug") {
        c.kind = Command::Debug;
        if (!arity(2, "debug on|off"))
            return false;
        if (words[1] != "on" && words[1] != "off") {
            error = "debug: expected on or off, not " + quoteWord(words[1]);
            return false;
        }
        c.on = words[1] == "on";
    } else if (name == "debug-level") {
        c.kind = Command::DebugLevel;
        if (!arity(3, "debug-level LEVEL set|clear") || !parseLevel(words[1], c.level, error))
            return false;
        if (words[2] != "set" && words[2] != "clear") {
            error = "debug-level: expected set or clear, not " + quoteWord(words[2]);
            return false;
        }
        c.set = words[2] == "set";
    } else {
        error = "unknown command " + quoteWord(name) +
                " (bindings, delete, debug, debug-level, counters, events, latency, status, metrics, monitor)";
        return false;
    }
    cmd = c;
    return true;
}

std::string ipText(const std::array<uint8_t, 4>& ip)
{
    char buf[16];
    snprintf(buf, sizeof buf, "%u.%u.%u.%u", ip[0], ip[1], ip[2], ip[3]);
    return buf;
}

std::string macText(const std::array<uint8_t, 6>& mac)
{
    char buf[18];
    snprintf(buf, sizeof buf, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    return buf;
}

std::string utcText(uint64_t unixMs)
{
    time_t t = (time_t)(unixMs / 1000);
    struct tm tm;
    char buf[32];
    if (gmtime_r(&t, &tm) == nullptr || strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm) == 0)
        return "1970-01-01T00:00:00Z";
    return buf;
}

void sortBindings(std::vector<Binding>& bindings)
{
    std::sort(bindings.begin(), bindings.end(), [](const Binding& a, const Binding& b) {
        if (a.vlan != b.vlan)
            return a.vlan < b.vlan;
        if (a.ip != b.ip)
            return a.ip < b.ip;
        return a.mac < b.mac;
    });
}

std::string bindingsJson(const std::vector<Binding>& bindings)
{
    std::ostringstream o;
    o << "[";
    for (size_t i = 0; i < bindings.size(); ++i) {
        const Binding& b = bindings[i];
        o << (i ? ",\n " : "") << "{\"ip\":" << jsontext::quoted(ipText(b.ip)) << ",\"mac\":" << jsontext::quoted(macText(b.mac))
          << ",\"vlan\":" << b.vlan << ",\"port\":" << jsontext::quoted(b.port) << ",\"lease\":";
        // A lease without end has no number of seconds left.
        if (b.lease == kLeaseForever)
            o << "null";
        else
            o << b.lease;
        o << "}";
    }
    o << "]\n";
    return o.str();
}

std::string bindingsTable(const std::vector<Binding>& bindings)
{
    if (bindings.empty())
        return "No bindings.\n";
    std::string out;
    char line[160];
    snprintf(line, sizeof line, "%-15s  %-17s  %4s  %-11s  %s\n", "IP", "MAC", "VLAN", "PORT", "LEASE(s)");
    out += line;
    for (const Binding& b : bindings) {
        snprintf(line, sizeof line, "%-15s  %-17s  %4u  %-11s  %s\n", ipText(b.ip).c_str(), macText(b.mac).c_str(),
                 (unsigned)b.vlan, b.port.c_str(), leaseText(b.lease).c_str());
        out += line;
    }
    return out;
}

std::string countersJson(const std::vector<live::PortCounters>& counters)
{
    std::ostringstream o;
    o << "[";
    for (size_t i = 0; i < counters.size(); ++i) {
        const live::PortCounters& c = counters[i];
        o << (i ? ",\n " : "") << "{\"port\":" << jsontext::quoted(c.name) << ",\"interface\":" << jsontext::quoted(c.interface)
          << ",\"rx\":" << c.rxFrames << ",\"tx\":" << c.txFrames << ",\"trapped\":" << c.trapped
          << ",\"dhcp_forwarded\":" << c.dhcpForwarded << ",\"source_guard_dropped\":" << c.sourceGuardDropped
          << ",\"dropped\":{";
        auto map = [&o](const std::map<std::string, uint64_t>& m) {
            bool first = true;
            for (const auto& d : m) {
                o << (first ? "" : ",") << jsontext::quoted(d.first) << ":" << d.second;
                first = false;
            }
            o << "}";
        };
        map(c.dropped);
        o << ",\"discarded\":{";
        map(c.discarded);
        o << ",\"tx_failed\":{";
        map(c.txFailed);
        o << ",\"fdb_not_learned\":" << c.fdbNotLearned << "}";
    }
    o << "]\n";
    return o.str();
}

std::string countersTable(const std::vector<live::PortCounters>& counters)
{
    if (counters.empty())
        return "No ports.\n";
    std::string out;
    char line[256];
    snprintf(line, sizeof line, "%-11s  %-15s  %10s  %10s  %8s  %8s  %8s  %8s\n", "PORT", "INTERFACE", "RX", "TX",
             "TRAPPED", "DHCP-FWD", "SG-DROP", "DROPPED");
    out += line;
    for (const live::PortCounters& c : counters) {
        uint64_t dropped = 0;
        for (const auto& d : c.dropped)
            dropped += d.second;
        snprintf(line, sizeof line, "%-11s  %-15s  %10llu  %10llu  %8llu  %8llu  %8llu  %8llu\n", c.name.c_str(),
                 c.interface.c_str(), (unsigned long long)c.rxFrames, (unsigned long long)c.txFrames,
                 (unsigned long long)c.trapped, (unsigned long long)c.dhcpForwarded,
                 (unsigned long long)c.sourceGuardDropped, (unsigned long long)dropped);
        out += line;
        for (const auto& d : c.dropped)
            out += "    dropped: " + d.first + ": " + std::to_string(d.second) + "\n";
        for (const auto& d : c.discarded)
            out += "    discarded: " + d.first + ": " + std::to_string(d.second) + "\n";
        for (const auto& d : c.txFailed)
            out += "    send failed: " + d.first + ": " + std::to_string(d.second) + "\n";
        if (c.fdbNotLearned)
            out += "    sources not learned (FDB share full): " + std::to_string(c.fdbNotLearned) + "\n";
    }
    return out;
}

std::string eventsJson(const std::vector<live::Event>& events)
{
    std::ostringstream o;
    o << "[";
    for (size_t i = 0; i < events.size(); ++i) {
        const live::Event& e = events[i];
        o << (i ? ",\n " : "") << "{\"time\":" << jsontext::quoted(utcText(e.unixMs)) << ",\"code\":" << e.code
          << ",\"text\":" << jsontext::quoted(e.text) << "}";
    }
    o << "]\n";
    return o.str();
}

std::string latencyJson(const live::Latency& l)
{
    char buf[160];
    snprintf(buf, sizeof buf, "{\"frames\":%llu,\"p50_us\":%.1f,\"p99_us\":%.1f,\"max_us\":%.1f}\n",
             (unsigned long long)l.frames, l.p50Us, l.p99Us, l.maxUs);
    return buf;
}

std::string latencyTable(const live::Latency& l)
{
    if (l.frames == 0)
        return "no trapped frame sent on yet\n";
    char buf[200];
    snprintf(buf, sizeof buf, "trap to transmit, %llu frames: p50 %.1f us, p99 %.1f us, max %.1f us\n",
             (unsigned long long)l.frames, l.p50Us, l.p99Us, l.maxUs);
    return buf;
}

std::string eventsTable(const std::vector<live::Event>& events)
{
    if (events.empty())
        return "No events.\n";
    std::string out;
    for (const live::Event& e : events)
        out += utcText(e.unixMs) + "  " + std::to_string(e.code) + "  " + e.text + "\n";
    return out;
}

std::string statusJson(const live::SaveStatus& st)
{
    std::ostringstream o;
    o << "{\"binding_file\":" << jsontext::quoted(st.path) << ",\"saving\":" << (st.saving ? "true" : "false")
      << ",\"saves_completed\":" << st.savesCompleted << ",\"save_failures\":" << st.saveFailures
      << ",\"failed_at\":" << (st.failedMs ? jsontext::quoted(utcText(st.failedMs)) : "null")
      << ",\"last_good_copy\":" << (st.lastGoodMs ? jsontext::quoted(utcText(st.lastGoodMs)) : "null")
      << ",\"last_good_bindings\":" << st.lastGoodBindings
      << ",\"restored_at_start\":" << (st.restoredAtStart ? "true" : "false") << "}\n";
    return o.str();
}

std::string statusTable(const live::SaveStatus& st)
{
    std::string out = "binding file: " + st.path + "\n";
    if (st.saving)
        out += "saving: on\n";
    else
        out += "saving: STOPPED after a failed save at " + utcText(st.failedMs) +
               " (SIGHUP to the daemon starts it again)\n";
    out += "saves completed: " + std::to_string(st.savesCompleted) + "\n";
    out += "save failures: " + std::to_string(st.saveFailures) + "\n";
    if (st.lastGoodMs)
        out += "last good copy: " + utcText(st.lastGoodMs) + " (" + std::to_string(st.lastGoodBindings) +
               " bindings)\n";
    else
        out += "last good copy: none since start\n";
    if (st.restoredAtStart)
        out += "restored at start: the file was not complete and was replaced by its last good copy\n";
    return out;
}

Reply runCommand(const std::vector<std::string>& words, const Backend& backend)
{
    Reply r;
    Command c;
    if (!parseCommand(words, c, r.body))
        return r;
    std::string error;
    switch (c.kind) {
    case Command::Bindings: {
        std::vector<Binding> bindings;
        if (!backend.bindings(bindings, error)) {
            r.body = "bindings: " + error;
            return r;
        }
        sortBindings(bindings);
        r.body = c.json ? bindingsJson(bindings) : bindingsTable(bindings);
        break;
    }
    case Command::Delete: {
        // The module answers an unknown binding only with an error line of
        // its own; checking first gives the operator a refusal to act on.
        std::string what = ipText(c.key.ip) + " vlan " + std::to_string(c.key.vlan) + " " + macText(c.key.mac);
        std::vector<Binding> bindings;
        if (!backend.bindings(bindings, error)) {
            r.body = "delete: " + error;
            return r;
        }
        bool found = false;
        for (const Binding& b : bindings)
            found = found || (b.ip == c.key.ip && b.vlan == c.key.vlan && b.mac == c.key.mac);
        if (!found) {
            r.body = "delete: no binding " + what;
            return r;
        }
        if (!backend.remove(c.key, error)) {
            r.body = "delete: " + error;
            return r;
        }
        r.body = "removal of " + what + " posted\n";
        break;
    }
    case Command::Debug:
        backend.setDebug(c.on);
        r.body = std::string("debug ") + (c.on ? "on" : "off") + "\n";
        break;
    case Command::DebugLevel: {
        uint32_t rv = backend.setDebugLevel(c.level, c.set ? 0u : 1u);
        if (rv != 0) {
            r.body = "debug-level: the module refused level " + std::to_string(c.level) + " (result " +
                     std::to_string(rv) + ")";
            return r;
        }
        r.body = "debug level bits " + std::to_string(c.level) + (c.set ? " set\n" : " cleared\n");
        break;
    }
    case Command::Counters:
        r.body = c.json ? countersJson(backend.counters()) : countersTable(backend.counters());
        break;
    case Command::Events:
        r.body = c.json ? eventsJson(backend.events()) : eventsTable(backend.events());
        break;
    case Command::Latency: {
        live::Latency l = backend.latency(c.clear);
        r.body = c.json ? latencyJson(l) : latencyTable(l);
        break;
    }
    case Command::Status:
        r.body = c.json ? statusJson(backend.saveStatus()) : statusTable(backend.saveStatus());
        break;
    case Command::Monitor:
        // The control socket serves it itself: the connection stays open.
        r.body = "monitor: only over a connection of its own (dhcpsnoopctl monitor)";
        return r;
    case Command::Metrics: {
        std::vector<Binding> bindings;
        if (!backend.bindings(bindings, error)) {
            r.body = "metrics: " + error;
            return r;
        }
        live::SaveStatus save;
        live::Occupancy occupancy;
        live::LatencyDistribution latency;
        MetricExtras extras;
        if (backend.saveStatus) {
            save = backend.saveStatus();
            extras.save = &save;
        }
        if (backend.occupancy) {
            occupancy = backend.occupancy();
            extras.occupancy = &occupancy;
        }
        if (backend.latencyDistribution) {
            latency = backend.latencyDistribution();
            extras.latency = &latency;
        }
        r.body = metricsText(backend.counters(), bindings, backend.events().size(), extras);
        break;
    }
    }
    r.ok = true;
    return r;
}

}  // namespace ctl
