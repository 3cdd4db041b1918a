#include "tools/common/drop_reason.h"

#include <cstring>

#include "snooping/dhcpSnoopInternal.h"

namespace dropreason {

namespace {

struct Rule {
    const char* text;
    bool prefix;
    const char* reason;
};

// In order of precedence: the first rule any line matches names the drop.
const Rule kRules[] = {
    {"mac check failed.", false, "CHADDR mismatch"},
    {"The value of hardware type in DHCP header is not ethernet MAC address.", false,
     "invalid DHCP header"},
    {"magicCookie:", true, "invalid DHCP header"},
    {"Oh no! MSG Parser ERROR!!", false, "invalid frame"},
    {"Oh no! Options Parser ERROR!!", false, "invalid DHCP options"},
    {"Packet flow overflow", false, "rate limit"},
    {"Drop decline packet", false, "DECLINE rate limit"},
    {"Drop DHCP offer packet received from untrusted port.", false, "untrusted server message"},
    {"Drop DHCP ack packet received from untrusted port.", false, "untrusted server message"},
    {"Drop DHCP nak packet received from untrusted port.", false, "untrusted server message"},
    {"Find request table binding enttry failed, Drop the DHCP ack packet.", false,
     "ACK without a pending request"},
    {"The value of xid field in DHCP ack packet is different from DHCP request packet, drop "
     "the DHCP ack packet.",
     false, "ACK xid mismatch"},
    {"DHCP ack packet and DHCP request packet receive from the same port, drop the DHCP ack "
     "packet.",
     false, "ACK on the client's port"},
    {"Drop DHCP release packet that dosn't find matched entry in the dynamic table.", false,
     "RELEASE without a binding"},
    {"Drop DHCP decline packet that dosn't find matched entry in the dynamic table.", false,
     "DECLINE without a binding"},
    {"Drop the DHCP packet with option 82.", false, "option 82 present (policy drop)"},
    {"Get memory for the elemet of table failed, forward the DHCP packet immediately.", false,
     "element pool empty"},
    {"Forward unkown packet.", false, "unknown message type"},
    {"RCV port equals dst port.", false, "destination behind the receive port"},
    {"Forward packet to port failed.", false, "transmit failed"},
};
constexpr size_t kRuleCount = sizeof kRules / sizeof kRules[0];
// A module error line (a failed call) names the drop when no rule does.
const char kModuleErrorStart[] = "E - ";

bool matches(const Rule& r, const char* line, size_t len)
{
    size_t n = strlen(r.text);
    if (r.prefix)
        return len >= n && memcmp(line, r.text, n) == 0;
    return len == n && memcmp(line, r.text, n) == 0;
}

}  // namespace

void Classifier::add(const char* line, size_t len)
{
    for (size_t i = 0; i < kRuleCount && i < best_; ++i) {
        if (matches(kRules[i], line, len)) {
            best_ = i;
            break;
        }
    }
    if (len >= sizeof kModuleErrorStart - 1 &&
        memcmp(line, kModuleErrorStart, sizeof kModuleErrorStart - 1) == 0)
        moduleError_ = true;
}

void Classifier::add(const std::string& line) { add(line.data(), line.size()); }

std::string Classifier::reason() const
{
    if (best_ < kRuleCount)
        return kRules[best_].reason;
    return moduleError_ ? "module error" : "dropped";
}

void Classifier::clear()
{
    best_ = (size_t)-1;
    moduleError_ = false;
}

bool mayMatter(const char* start, size_t len)
{
    // A line matches only if it starts with its rule's text (exact rules:
    // is it); a line that starts with start can do so only if one of the
    // two texts starts with the other.
    // Called for most lines the live platform sees: the first byte sorts
    // out nearly every text before any length is taken.
    auto related = [start, len](const char* text) {
        if (len == 0 || text[0] == '\0')
            return true;
        if (text[0] != start[0])
            return false;
        size_t n = strlen(text);
        size_t m = n < len ? n : len;
        return memcmp(start, text, m) == 0;
    };
    for (size_t i = 0; i < kRuleCount; ++i)
        if (related(kRules[i].text))
            return true;
    return related(kModuleErrorStart);
}

bool formatMayMatter(const char* format)
{
    static const char kPrefix[] = DHCP_SNOOP_DEBUG_PREFIX " ";
    if (strncmp(format, kPrefix, sizeof kPrefix - 1) != 0)
        return true;
    const char* msg = format + sizeof kPrefix - 1;
    size_t n = strcspn(msg, "%");
    // The classifier drops line ends (the suffix's among them): a shorter
    // start only keeps more lines.
    while (n > 0 && (msg[n - 1] == '\n' || msg[n - 1] == '\r'))
        --n;
    return mayMatter(msg, n);
}

std::vector<std::string> ruleTexts()
{
    std::vector<std::string> t;
    for (size_t i = 0; i < kRuleCount; ++i)
        t.push_back(kRules[i].text);
    t.push_back(kModuleErrorStart);
    return t;
}

std::string dropReason(const std::vector<std::string>& lines)
{
    Classifier c;
    for (const auto& l : lines)
        c.add(l);
    return c.reason();
}

}  // namespace dropreason
