#include "tools/common/drop_reason.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <unordered_map>

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
    // The first bytes of all texts, so that most lines are sorted out by one
    // look-up (the replay asks for nearly every line of a frame).
    struct FirstBytes {
        bool any[256] = {};
        bool empty = false;
        FirstBytes()
        {
            for (size_t i = 0; i < kRuleCount; ++i)
                note(kRules[i].text);
            note(kModuleErrorStart);
        }
        void note(const char* text)
        {
            if (text[0] == '\0')
                empty = true;
            any[(unsigned char)text[0]] = true;
        }
    };
    static const FirstBytes kFirst;
    if (len != 0 && !kFirst.empty && !kFirst.any[(unsigned char)start[0]])
        return false;
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

// What the whole match decided for the formats that needed it, by their
// text: the module composes every line's format into the same stack buffer,
// so the pointer tells nothing, but its lines are few and their texts fixed.
// Per thread (no lock); bounded, a format beyond the bound is matched anew.
class Decided {
public:
    // -1 unknown, else 0 or 1.
    int find(const char* text, size_t len, uint64_t h) const
    {
        auto it = map_.find(h);
        if (it == map_.end() || it->second.text.size() != len ||
            memcmp(it->second.text.data(), text, len) != 0)
            return -1;
        return it->second.matters ? 1 : 0;
    }
    void keep(const char* text, size_t len, uint64_t h, bool matters)
    {
        if (map_.size() < kMax)
            map_.emplace(h, Entry{std::string(text, len), matters});
    }
    static uint64_t hash(const char* text, size_t len)
    {
        uint64_t h = 14695981039346656037ull;  // FNV-1a
        for (size_t i = 0; i < len; ++i)
            h = (h ^ (unsigned char)text[i]) * 1099511628211ull;
        return h;
    }

private:
    static constexpr size_t kMax = 4096;
    struct Entry {
        std::string text;
        bool matters;
    };
    std::unordered_map<uint64_t, Entry> map_;
};

bool matchWhole(const char* msg)
{
    std::vector<int> p = patternOf(msg);
    for (size_t i = 0; i < kRuleCount; ++i)
        if (canName(p, kRules[i].text, kRules[i].prefix))
            return true;
    return canName(p, kModuleErrorStart, true);
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
    thread_local Decided decided;
    size_t len = strlen(msg);
    uint64_t h = Decided::hash(msg, len);
    int known = decided.find(msg, len, h);
    if (known >= 0)
        return known == 1;
    bool matters = matchWhole(msg);
    decided.keep(msg, len, h, matters);
    return matters;
}

bool lineMayMatter(const char* format, va_list args)
{
    static const char kPrefix[] = DHCP_SNOOP_DEBUG_PREFIX " ";
    if (strncmp(format, kPrefix, sizeof kPrefix - 1) != 0)
        return true;
    // The prefix's own arguments come first: skipped by their conversions,
    // read from the prefix once.
    struct PrefixArgs {
        char kinds[sizeof kPrefix];  // 's' or 'd' for each conversion, then 0
        bool readable = true;
        PrefixArgs()
        {
            size_t n = 0;
            for (const char* c = kPrefix; *c != '\0'; ++c) {
                if (*c != '%')
                    continue;
                ++c;
                if (*c == 's' || *c == 'd')
                    kinds[n++] = *c;
                else if (*c != '%')
                    readable = false;
            }
            kinds[n] = '\0';
        }
    };
    static const PrefixArgs kArgs;
    if (!kArgs.readable)
        return true;  // a prefix this cannot read: formatted whole
    for (const char* k = kArgs.kinds; *k != '\0'; ++k) {
        if (*k == 's')
            (void)va_arg(args, const char*);
        else
            (void)va_arg(args, int);
    }
    const char* body = format + sizeof kPrefix - 1;
    // A message that is one text and line ends (a function's name, say)
    // is looked at where it stands.
    bool oneText = body[0] == '%' && body[1] == 's';
    if (oneText) {
        const char* end = body + 2;
        while (*end == '\r' || *end == '\n')
            ++end;
        oneText = *end == '\0';
    }
    if (oneText) {
        const char* text = va_arg(args, const char*);
        if (text == nullptr)
            return true;
        size_t len = strlen(text);
        while (len > 0 && (text[len - 1] == '\n' || text[len - 1] == '\r'))
            --len;
        return mayMatter(text, len);
    }
    char msg[256];
    int n = vsnprintf(msg, sizeof msg, body, args);
    if (n < 0 || (size_t)n >= sizeof msg)
        return true;
    size_t len = (size_t)n;
    while (len > 0 && (msg[len - 1] == '\n' || msg[len - 1] == '\r'))
        --len;
    // A whole message that starts no rule's text and that no rule's text
    // starts names nothing.
    return mayMatter(msg, len);
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
