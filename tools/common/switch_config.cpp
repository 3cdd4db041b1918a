#include "switch_config.h"

// Errors are values here: a bad file is an ordinary outcome, not an exception.
#define TOML_EXCEPTIONS 0
#include <toml++/toml.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>

namespace swcfg {

bool PortConfig::tags(uint16_t vid) const
{
    return std::find(tagged.begin(), tagged.end(), vid) != tagged.end();
}

bool PortConfig::carries(uint16_t vid) const { return vid == vlan || tags(vid); }

const PortConfig* SwitchConfig::port(up handle) const
{
    for (const auto& p : ports)
        if (p.handle == handle)
            return &p;
    return nullptr;
}

const PortConfig* SwitchConfig::port(const std::string& name) const
{
    up h;
    return parsePortName(name, &h) ? port(h) : nullptr;
}

namespace {

// Decimal number without sign or leading zeros (but "0"), at most max.
bool parseNumber(const std::string& s, size_t& pos, uint32_t max, uint32_t* value)
{
    size_t start = pos;
    uint64_t v = 0;
    while (pos < s.size() && s[pos] >= '0' && s[pos] <= '9') {
        v = v * 10 + (uint64_t)(s[pos] - '0');
        if (v > max)
            return false;
        ++pos;
    }
    if (pos == start || (s[start] == '0' && pos - start > 1))
        return false;
    *value = (uint32_t)v;
    return true;
}

}  // namespace

bool parsePortName(const std::string& text, up* handle)
{
    size_t pos = 0;
    uint32_t unit, slot, port;
    if (text.compare(0, 2, "po") == 0) {
        pos = 2;
        if (!parseNumber(text, pos, 255, &port) || pos != text.size() || port < 1 || port > 15)
            return false;
        *handle = UP_MAKE(UP_TYPE_PORT_CHANNEL, 0, 0, port);
        return true;
    }
    if (!parseNumber(text, pos, 255, &unit) || pos >= text.size() || text[pos++] != '/' ||
        !parseNumber(text, pos, 255, &slot) || pos >= text.size() || text[pos++] != '/' ||
        !parseNumber(text, pos, 255, &port) || pos != text.size())
        return false;
    if (unit < 1 || slot != 0 || port < 1 || port > 64)
        return false;
    *handle = UP_MAKE(UP_TYPE_PHYSICAL, unit, slot, port);
    return true;
}

bool receivePortReachable(uint32_t unit, up handle, std::string* why)
{
    constexpr uint32_t kPerUnit = 64;
    std::string w;
    if (UP_KIND(handle) == UP_TYPE_PHYSICAL) {
        uint32_t portUnit = UP_UNIT(handle);
        if (portUnit != unit) {
            w = "is a port of unit " + std::to_string(portUnit) + ", and this switch is unit " +
                std::to_string(unit) + " (switch.unit)";
        } else if ((unit - 1) * kPerUnit >= kReceiveWalkIndexes) {
            w = "cannot be handled on unit " + std::to_string(unit) +
                ": the module finds receive ports on units 1 and 2 only";
        } else if ((unit - 1) * kPerUnit + UP_PORT(handle) - 1 >= kReceiveWalkIndexes) {
            uint32_t last = kReceiveWalkIndexes - (unit - 1) * kPerUnit;
            w = "cannot be handled on unit " + std::to_string(unit) + ": the module finds receive ports " +
                std::to_string(unit) + "/0/1 to " + std::to_string(unit) + "/0/" + std::to_string(last) +
                " only";
        }
    } else if (UP_KIND(handle) == UP_TYPE_PORT_CHANNEL) {
        // The port channels follow the physical ports of every unit up to this one.
        if (unit * kPerUnit + UP_PORT(handle) - 1 >= kReceiveWalkIndexes)
            w = "cannot be handled on unit " + std::to_string(unit) +
                ": the module finds port channels on unit 1 only";
    } else {
        w = "is not a port";
    }
    if (why)
        *why = w;
    return w.empty();
}

DhcpSnoopPortCfg snoopRecord(const PortConfig& p)
{
    DhcpSnoopPortCfg r;
    memset(&r, 0, sizeof r);
    r.trust = p.trust ? 1 : 0;
    r.macVerify = p.verifyMac ? 1 : 0;
    r.limitRate = p.rate;
    r.decLimitRate = p.declineRate;
    r.op82Enable = p.option82 ? 1 : 0;
    r.Op82Policy = p.option82Policy;
    r.circuitIdFormat = p.circuitId.empty() ? 0 : 1;
    r.remoteIdFormat = p.remoteId.empty() ? 0 : 1;
    // Checked against the fields' size when the file was read; the
    // terminator stays.
    memcpy(r.circuitId, p.circuitId.data(), std::min(p.circuitId.size(), sizeof r.circuitId - 1));
    memcpy(r.remoteId, p.remoteId.data(), std::min(p.remoteId.size(), sizeof r.remoteId - 1));
    return r;
}

std::string macText(const std::array<uint8_t, 6>& mac)
{
    char buf[18];
    snprintf(buf, sizeof buf, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3],
             mac[4], mac[5]);
    return buf;
}

std::string policyText(uint8_t policy)
{
    switch (policy) {
    case 1:
        return "replace";
    case 2:
        return "drop";
    default:
        return "keep";
    }
}

namespace {

// Collects the first error; every check after it is skipped.
class Checker {
public:
    explicit Checker(std::string source) : source_(std::move(source)) {}

    bool failed() const { return !error_.empty(); }
    const std::string& error() const { return error_; }

    void fail(uint32_t line, const std::string& key, const std::string& what)
    {
        if (failed())
            return;
        std::ostringstream o;
        o << source_ << ":" << line << ": " << key << ": " << what;
        error_ = o.str();
    }

    static uint32_t lineOf(const toml::node& n) { return n.source().begin.line; }

    // Every key of the table must be one of the allowed ones.
    void onlyKeys(const toml::table& t, const std::string& prefix,
                  const std::set<std::string>& allowed)
    {
        for (const auto& kv : t) {
            std::string k(kv.first.str());
            if (!allowed.count(k))
                fail(kv.first.source().begin.line, prefix + k, "unknown key");
        }
    }

    bool getBool(const toml::table& t, const std::string& prefix, const char* key, bool* out)
    {
        const toml::node* n = t.get(key);
        if (n == nullptr)
            return false;
        if (auto v = n->value_exact<bool>()) {
            *out = *v;
            return true;
        }
        fail(lineOf(*n), prefix + key, "must be true or false");
        return false;
    }

    bool getInt(const toml::table& t, const std::string& prefix, const char* key, int64_t min,
                int64_t max, int64_t* out)
    {
        const toml::node* n = t.get(key);
        if (n == nullptr)
            return false;
        auto v = n->value_exact<int64_t>();
        if (!v) {
            fail(lineOf(*n), prefix + key, "must be an integer");
            return false;
        }
        if (*v < min || *v > max) {
            fail(lineOf(*n), prefix + key,
                 std::to_string(*v) + " is out of range " + std::to_string(min) + ".." +
                     std::to_string(max));
            return false;
        }
        *out = *v;
        return true;
    }

    bool getString(const toml::table& t, const std::string& prefix, const char* key,
                   std::string* out)
    {
        const toml::node* n = t.get(key);
        if (n == nullptr)
            return false;
        auto v = n->value_exact<std::string>();
        if (!v) {
            fail(lineOf(*n), prefix + key, "must be a string");
            return false;
        }
        if (v->find('\0') != std::string::npos) {
            fail(lineOf(*n), prefix + key, "must not contain a NUL character");
            return false;
        }
        *out = *v;
        return true;
    }

    // A list of distinct VLAN ids.
    bool getVlans(const toml::table& t, const std::string& prefix, const char* key,
                  std::vector<uint16_t>* out)
    {
        const toml::node* n = t.get(key);
        if (n == nullptr)
            return false;
        const toml::array* a = n->as_array();
        if (a == nullptr) {
            fail(lineOf(*n), prefix + key, "must be a list of VLAN ids");
            return false;
        }
        std::vector<uint16_t> v;
        for (const toml::node& e : *a) {
            auto id = e.value_exact<int64_t>();
            uint32_t line = lineOf(e) != 0 ? lineOf(e) : lineOf(*n);
            if (!id) {
                fail(line, prefix + key, "must be a list of VLAN ids");
                return false;
            }
            if (*id < 1 || *id > 4094) {
                fail(line, prefix + key, "VLAN " + std::to_string(*id) + " is out of range 1..4094");
                return false;
            }
            if (std::find(v.begin(), v.end(), (uint16_t)*id) != v.end()) {
                fail(line, prefix + key, "VLAN " + std::to_string(*id) + " is listed twice");
                return false;
            }
            v.push_back((uint16_t)*id);
        }
        *out = v;
        return true;
    }

private:
    std::string source_;
    std::string error_;
};

bool parseMac(const std::string& s, std::array<uint8_t, 6>* mac)
{
    if (s.size() != 17)
        return false;
    char sep = s[2];
    if (sep != ':' && sep != '-')
        return false;
    for (size_t i = 0; i < 6; ++i) {
        if (i > 0 && s[i * 3 - 1] != sep)
            return false;
        unsigned v = 0;
        for (size_t j = 0; j < 2; ++j) {
            char c = s[i * 3 + j];
            v <<= 4;
            if (c >= '0' && c <= '9')
                v |= (unsigned)(c - '0');
            else if (c >= 'a' && c <= 'f')
                v |= (unsigned)(c - 'a' + 10);
            else if (c >= 'A' && c <= 'F')
                v |= (unsigned)(c - 'A' + 10);
            else
                return false;
        }
        (*mac)[i] = (uint8_t)v;
    }
    return true;
}

void parseSwitch(Checker& c, const toml::table& t, uint32_t tableLine, SwitchConfig& cfg)
{
    const std::string p = "switch.";
    c.onlyKeys(t, p,
               {"unit", "mac", "snooping_vlans", "table_updates", "ip_filter", "arp_defend",
                "drop_ipv6", "debug", "debug_level", "dataplane", "bridge"});
    int64_t v;
    // One unit of a stack: unit numbers are 1 to 8.
    if (c.getInt(t, p, "unit", 1, 8, &v))
        cfg.unit = (uint32_t)v;
    std::string mac;
    if (c.getString(t, p, "mac", &mac)) {
        uint32_t line = Checker::lineOf(*t.get("mac"));
        if (!parseMac(mac, &cfg.mac))
            c.fail(line, p + "mac", "\"" + mac + "\" is not a MAC address (aa:bb:cc:dd:ee:ff)");
        else if ((cfg.mac[0] & 1) != 0 ||
                 std::all_of(cfg.mac.begin(), cfg.mac.end(), [](uint8_t b) { return b == 0; }))
            c.fail(line, p + "mac", "\"" + mac + "\" is not a unicast address");
        else
            cfg.hasMac = true;
    }
    c.getVlans(t, p, "snooping_vlans", &cfg.snoopingVlans);
    c.getBool(t, p, "table_updates", &cfg.tableUpdates);
    c.getBool(t, p, "ip_filter", &cfg.ipFilter);
    c.getBool(t, p, "arp_defend", &cfg.arpDefend);
    c.getBool(t, p, "drop_ipv6", &cfg.dropIpv6);
    c.getBool(t, p, "debug", &cfg.debug);
    if (c.getInt(t, p, "debug_level", 0, 3, &v))
        cfg.debugLevel = (uint32_t)v;
    std::string plane;
    if (c.getString(t, p, "dataplane", &plane)) {
        if (plane == "bridge")
            cfg.dataplane = SwitchConfig::Dataplane::Bridge;
        else if (plane == "user")
            cfg.dataplane = SwitchConfig::Dataplane::User;
        else
            c.fail(Checker::lineOf(*t.get("dataplane")), p + "dataplane",
                   "\"" + plane + "\" is not a data plane (\"bridge\" or \"user\")");
    }
    if (c.getString(t, p, "bridge", &cfg.bridge) && (cfg.bridge.empty() || cfg.bridge.size() >= 16))
        c.fail(Checker::lineOf(*t.get("bridge")), p + "bridge",
               "\"" + cfg.bridge + "\" is not an interface name (1 to 15 characters)");
    (void)tableLine;
}

void parsePort(Checker& c, const toml::table& t, uint32_t tableLine, SwitchConfig& cfg)
{
    const std::string p = "port.";
    c.onlyKeys(t, p,
               {"name", "vlan", "tagged", "trust", "verify_mac", "rate", "decline_rate",
                "option82", "option82_policy", "circuit_id", "remote_id", "interface"});
    if (c.failed())
        return;
    PortConfig port;
    port.line = tableLine;
    if (!c.getString(t, p, "name", &port.name)) {
        c.fail(tableLine, p + "name", "missing: every [[port]] needs a name");
        return;
    }
    uint32_t nameLine = Checker::lineOf(*t.get("name"));
    port.nameLine = nameLine;
    if (!parsePortName(port.name, &port.handle)) {
        c.fail(nameLine, p + "name",
               "\"" + port.name +
                   "\" is not a port (\"U/0/P\" with P 1..64, or \"poN\" with N 1..15)");
        return;
    }
    for (const auto& other : cfg.ports) {
        if (other.handle == port.handle) {
            c.fail(nameLine, p + "name",
                   "duplicate port \"" + port.name + "\" (first at line " +
                       std::to_string(other.line) + ")");
            return;
        }
    }
    int64_t v;
    if (c.getInt(t, p, "vlan", 1, 4094, &v))
        port.vlan = (uint16_t)v;
    else if (!c.failed())
        c.fail(tableLine, p + "vlan", "missing: port " + port.name + " needs its access VLAN");
    if (c.getVlans(t, p, "tagged", &port.tagged) && port.tags(port.vlan))
        c.fail(Checker::lineOf(*t.get("tagged")), p + "tagged",
               "VLAN " + std::to_string(port.vlan) + " is the port's access VLAN");
    c.getBool(t, p, "trust", &port.trust);
    c.getBool(t, p, "verify_mac", &port.verifyMac);
    if (c.getInt(t, p, "rate", 0, 255, &v))
        port.rate = (uint8_t)v;
    if (c.getInt(t, p, "decline_rate", 0, 255, &v))
        port.declineRate = (uint8_t)v;
    c.getBool(t, p, "option82", &port.option82);
    std::string policy;
    if (c.getString(t, p, "option82_policy", &policy)) {
        if (policy == "keep")
            port.option82Policy = 0;
        else if (policy == "replace")
            port.option82Policy = 1;
        else if (policy == "drop")
            port.option82Policy = 2;
        else
            c.fail(Checker::lineOf(*t.get("option82_policy")), p + "option82_policy",
                   "\"" + policy + "\" is not one of \"keep\", \"replace\", \"drop\"");
    }
    for (const char* key : {"circuit_id", "remote_id"}) {
        std::string text;
        if (!c.getString(t, p, key, &text))
            continue;
        if (text.size() > kOp82TextMax)
            c.fail(Checker::lineOf(*t.get(key)), p + key,
                   std::to_string(text.size()) + " bytes, at most " +
                       std::to_string(kOp82TextMax));
        (std::string(key) == "circuit_id" ? port.circuitId : port.remoteId) = text;
    }
    // Empty texts select the 4-byte VLAN-PORT circuit ID and the 6-byte MAC.
    size_t cl = port.circuitId.empty() ? 4 : port.circuitId.size();
    size_t rl = port.remoteId.empty() ? 6 : port.remoteId.size();
    if (!c.failed() && cl + rl + 4 > kOp82PayloadMax) {
        // Blame the longer text: it is the one that was given.
        const char* key = port.circuitId.size() >= port.remoteId.size() ? "circuit_id" : "remote_id";
        c.fail(Checker::lineOf(*t.get(key)), p + key,
               "circuit_id and remote_id together take " + std::to_string(cl + rl + 4) +
                   " bytes of option 82, at most " + std::to_string(kOp82PayloadMax));
    }
    c.getString(t, p, "interface", &port.interface);
    if (!c.failed())
        cfg.ports.push_back(port);
}

}  // namespace

namespace {

// Messages quote the file's own texts (keys, port names): a control
// character in one must not break the line or reach the terminal.
std::string oneLine(std::string text)
{
    for (char& ch : text) {
        unsigned char c = (unsigned char)ch;
        if (c < 0x20 || c == 0x7F)
            ch = '?';
    }
    return text;
}

// The TOML library of Debian 12 (toml++ 3.3) reaches an unreachable point
// (undefined behaviour) when it asks whether a non-ASCII character is
// whitespace, which it does wherever its lexer may meet one outside a string.
// The file is therefore ASCII; other characters go into strings as \uXXXX.
// 0 when the text is ASCII, else the line of the first other byte.
uint32_t nonAsciiLine(const std::string& t)
{
    uint32_t line = 1;
    for (char ch : t) {
        if (ch == '\n')
            ++line;
        else if ((unsigned char)ch >= 0x80)
            return line;
    }
    return 0;
}

}  // namespace

bool parseSwitchConfig(const std::string& text, const std::string& source, SwitchConfig& out,
                       std::string& error)
{
    SwitchConfig cfg;
    cfg.source = source;
    if (uint32_t line = nonAsciiLine(text)) {
        error = oneLine(source + ":" + std::to_string(line) +
                        ": a byte that is not ASCII (write other characters in strings as \\uXXXX)");
        return false;
    }
    toml::parse_result r = toml::parse(text, source);
    if (!r) {
        const toml::parse_error& e = r.error();
        std::ostringstream o;
        o << source << ":" << e.source().begin.line << ": " << e.description();
        error = oneLine(o.str());
        return false;
    }
    const toml::table& root = r.table();
    Checker c(source);
    for (const auto& kv : root) {
        std::string k(kv.first.str());
        uint32_t line = kv.first.source().begin.line;
        if (k == "switch") {
            const toml::table* t = kv.second.as_table();
            if (t == nullptr)
                c.fail(line, k, "must be a table: [switch]");
            else
                parseSwitch(c, *t, line, cfg);
        } else if (k == "port") {
            const toml::array* a = kv.second.as_array();
            if (a == nullptr || !a->is_array_of_tables()) {
                c.fail(line, k, "must be an array of tables: [[port]]");
                continue;
            }
            for (const toml::node& n : *a)
                parsePort(c, *n.as_table(), Checker::lineOf(n), cfg);
        } else {
            c.fail(line, k, "unknown key");
        }
        if (c.failed())
            break;
    }
    // Only now is the unit known: [switch] may come after the ports.
    for (const PortConfig& p : cfg.ports) {
        std::string why;
        if (!c.failed() && !receivePortReachable(cfg.unit, p.handle, &why))
            c.fail(p.nameLine, "port.name", "\"" + p.name + "\" " + why);
    }
    if (c.failed()) {
        error = oneLine(c.error());
        return false;
    }
    out = cfg;
    return true;
}

bool loadSwitchConfig(const std::string& path, SwitchConfig& out, std::string& error)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = path + ": cannot be read";
        return false;
    }
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad()) {
        error = path + ": read error";
        return false;
    }
    return parseSwitchConfig(text.str(), path, out, error);
}

}  // namespace swcfg
