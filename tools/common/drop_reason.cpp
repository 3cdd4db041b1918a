#include "tools/common/drop_reason.h"

#include <algorithm>
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

namespace {

// A message format as a pattern: literal bytes, and kAny where a conversion
// stands (it may print anything, line ends included).
constexpr int kAny = -1;

std::vector<int> patternOf(const char* msg)
{
    std::vector<int> p;
    for (const char* c = msg; *c != '\0'; ++c) {
        if (*c != '%') {
            p.push_back((unsigned char)*c);
            continue;
        }
        if (c[1] == '%') {
            p.push_back('%');
            ++c;
            continue;
        }
        // Flags, width, precision, length, then the conversion itself.
        ++c;
        while (*c != '\0' && strchr("-+ #0'123456789.*hljztLq", *c) != nullptr)
            ++c;
        p.push_back(kAny);
        if (*c == '\0')
            break;
    }
    // The classifier drops line ends (the suffix's among them).
    while (!p.empty() && (p.back() == '\n' || p.back() == '\r'))
        p.pop_back();
    return p;
}

// Whether some output of the pattern names the rule: equals its text up to
// line ends (exact rules), or starts with it (prefix rules).
bool canName(const std::vector<int>& p, const char* text, bool prefix)
{
    size_t n = strlen(text);
    // The positions of text an output of the pattern so far can have
    // reached.
    std::vector<char> at(n + 1, 0), next(n + 1, 0);
    at[0] = 1;
    for (size_t i = 0; i <= p.size(); ++i) {
        if (at[n]) {
            if (prefix)
                return true;
            // The rest may add nothing but line ends.
            bool rest = true;
            for (size_t k = i; k < p.size() && rest; ++k)
                rest = p[k] == kAny || p[k] == '\n' || p[k] == '\r';
            if (rest)
                return true;
        }
        if (i == p.size())
            return false;
        std::fill(next.begin(), next.end(), 0);
        bool any = false;
        for (size_t j = 0; j <= n; ++j) {
            if (!at[j])
                continue;
            if (p[i] == kAny) {
                for (size_t k = j; k <= n; ++k)
                    next[k] = 1;
                any = true;
                break;
            }
            if (j < n && (unsigned char)text[j] == p[i]) {
                next[j + 1] = 1;
                any = true;
            }
        }
        if (!any)
            return false;
        at.swap(next);
    }
    return false;
}

}  // namespace

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
    // Most formats part from every rule in their first bytes; the rest are
    // matched whole, each conversion standing for any text.
    if (!mayMatter(msg, n))
        return false;
    std::vector<int> p = patternOf(msg);
    for (size_t i = 0; i < kRuleCount; ++i)
        if (canName(p, kRules[i].text, kRules[i].prefix))
            return true;
    return canName(p, kModuleErrorStart, true);
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
