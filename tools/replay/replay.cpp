#include "replay.h"

#include <stdlib.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
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
// The simulated switch learns at most this many addresses, as a hardware
// table would: a capture of random source MACs cannot grow it further.
constexpr size_t kFdbCapacity = 32768;
// Late frames and cut gaps are each told on the notes stream this often at
// most; the summary counts them all.
constexpr uint64_t kNotesEach = 3;
// Frames between two progress calls.
constexpr uint64_t kProgressEvery = 4096;
// The save task pauses this long before it writes the binding file, so
// that a burst of changes settles into one save. The replay serves a request
// at once when the last save is at least this long ago on the switch clock,
// else when it will be: never more saves than the switch would make, and a
// lone change saved at its own time.
constexpr uint64_t kSaveSettleMs = 300;
constexpr uint64_t kNever = UINT64_MAX;

uint16_t rd16(const uint8_t* b, size_t at) { return (uint16_t)((b[at] << 8) | b[at + 1]); }

// IPv4 UDP to or from port 67 or 68, Ethernet II or 802.3/SNAP, f being the
// frame without its tag. Reads from the type field on only, every read
// bounded by len.
bool isDhcp(const uint8_t* f, size_t len)
{
    if (len < 14)
        return false;
    size_t ip;
    uint16_t t = rd16(f, 12);
    if (t == 0x0800) {
        ip = 14;
    } else if (t <= 0x05DC) {
        static const uint8_t snap[8] = {0xAA, 0xAA, 0x03, 0x00, 0x00, 0x00, 0x08, 0x00};
        if (len < 22 || !std::equal(snap, snap + 8, f + 14))
            return false;
        ip = 22;
    } else {
        return false;
    }
    if (len < ip + 20 || (f[ip] >> 4) != 4)
        return false;
    size_t ihl = (size_t)(f[ip] & 0x0F) * 4;
    if (ihl < 20 || f[ip + 9] != 17)
        return false;
    // A later fragment has no UDP header to look at.
    if ((rd16(f, ip + 6) & 0x1FFF) != 0)
        return false;
    size_t udp = ip + ihl;
    if (len < udp + 8)
        return false;
    uint16_t sport = rd16(f, udp), dport = rd16(f, udp + 2);
    auto bootp = [](uint16_t p) { return p == 67 || p == 68; };
    return bootp(sport) || bootp(dport);
}

// The message of a recorded line: between the prefix's "] " and the suffix
// and line ends, without copying.
void messageOf(const std::string& text, const char** msg, size_t* len)
{
    size_t start = text.find("] ");
    start = start == std::string::npos ? 0 : start + 2;
    size_t end = text.size();
    static const char kErrorSuffix[] = "\x1b[0m\r\n";
    const size_t sl = sizeof kErrorSuffix - 1;
    if (end - start >= sl && text.compare(end - sl, sl, kErrorSuffix) == 0)
        end -= sl;
    while (end > start && (text[end - 1] == '\n' || text[end - 1] == '\r'))
        --end;
    *msg = text.data() + start;
    *len = end - start;
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

std::string seconds(uint64_t ms) { return relTime((int64_t)ms * 1000); }

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
        // The replay drives the module's tasks itself, on this thread.
        sim::setOneThread(true);
        if (!opt_.keepSimRecords) {
            // Only what each frame leaves behind is read, then cleared.
            sim::Recording rec;
            rec.fdbLookups = false;
            rec.events = false;
            rec.spentTimers = false;
            rec.runtimeRecords = false;
            rec.releasedFrames = 64;
            sim::setRecording(rec);
        }
        // Without --debug a line is read only to name a drop.
        if (opt_.debugOut == nullptr)
            sim::setLogFilter(dropreason::formatMayMatter, dropreason::lineMayMatter);
        // Log lines carry the thread's name; the module's work is DSTask's.
        prctl(PR_SET_NAME, "DSTask");
        swcfg::applyToSim(cfg_);
        PortList all;
        memset(&all, 0, sizeof all);
        for (const auto& p : cfg_.ports) {
            PortList one = sim::portListOf(p.handle);
            for (size_t w = 0; w < sizeof all.word / sizeof all.word[0]; ++w)
                all.word[w] |= one.word[w];
        }
        for (up h : sim::portsIn(all)) {
            PortList one = sim::portListOf(h);
            for (uint32_t w = 0; w < sizeof one.word / sizeof one.word[0]; ++w)
                for (uint32_t b = 0; b < 32; ++b)
                    if ((one.word[w] >> b) & 1u)
                        members_.push_back(Member{h, w, b});
        }
        // Drops are told apart by the module's debug lines, so the switch
        // always runs with its debug switch on; they are printed on request.
        sim::setDebugFlag(1);
        root_ = makeTempDir(error);
        if (root_.empty())
            return false;
        sim::setFileRoot(root_);
        uint32_t rv = dhcpSnoopInit();
        collect(nullptr);
        if (rv != DHCP_SNOOP_OK) {
            error = "the module did not start: dhcpSnoopInit() = " + std::to_string(rv);
            return false;
        }
        simrun::startTasks();
        saveQ_ = sim::queueByName(DHCP_SNOOP_SAVE_QUEUE_NAME);
        uint32_t lv = swcfg::applyToModule(cfg_);
        if (lv != 0) {
            error = "dhcpSnoopSetDebugLevel failed: " + std::to_string(lv);
            return false;
        }
        for (const auto& p : cfg_.ports)
            r_.stats[p.handle];
        collect(nullptr);
        return ok();
    }

    ~Engine()
    {
        sim::setLogFilter(nullptr);
        sim::setOneThread(false);
        if (!root_.empty()) {
            std::error_code ec;
            std::filesystem::remove_all(root_, ec);
        }
    }

    bool ok() const { return outputError_.empty(); }
    const std::string& outputError() const { return outputError_; }

    // The switch time of a frame stamped tsUs: the capture's own time since
    // t0, except where that would turn the clock back, jump it by more than
    // a day or run it past its end.
    uint64_t switchTimeUs(const FrameRef& f, size_t input)
    {
        int64_t rel = f.tsUs - r_.t0Us - skippedUs_;
        uint64_t at;
        if (rel < (int64_t)lastUs_) {
            if (r_.lateFrames++ < kNotesEach)
                note(input, f, "stamped " + relTime((int64_t)lastUs_ - rel) +
                                   " s before a frame already replayed; replayed at switch time " +
                                   relTime((int64_t)lastUs_));
            at = lastUs_;
        } else {
            uint64_t gap = (uint64_t)rel - lastUs_;
            at = (uint64_t)rel;
            if (gap > kMaxGapMs * 1000) {
                r_.longestGapMs = std::max(r_.longestGapMs, gap / 1000);
                if (r_.cutGaps++ < kNotesEach)
                    note(input, f, "stamped " + relTime((int64_t)gap) +
                                       " s after the frame before it; the switch clock moves on by " +
                                       std::to_string(kMaxGapMs / 1000) + " s only");
                skippedUs_ += (int64_t)(gap - kMaxGapMs * 1000);
                at = lastUs_ + kMaxGapMs * 1000;
            }
        }
        if (at > kMaxClockMs * 1000) {
            if (r_.framesAtClockEnd++ == 0)
                note(input, f, "the switch clock stops at " + seconds(kMaxClockMs) +
                                   " s: this frame and all later ones are replayed there");
            at = kMaxClockMs * 1000;
        }
        lastUs_ = at;
        return at;
    }

    uint64_t lastMs() const { return lastUs_ / 1000; }

    // The tasks run until nothing is left for them; the save task when its
    // request is due (kSaveSettleMs).
    void idle()
    {
        for (;;) {
            size_t n = simrun::pumpMain();
            n += simrun::pumpFdb();
            if (saveDueMs_ == kNever && saveQ_ != 0 && sim::queueDepth(saveQ_) > 0)
                saveDueMs_ = lastSaveMs_ == kNever ? sim::nowMs()
                                                   : std::max(sim::nowMs(), lastSaveMs_ + kSaveSettleMs);
            if (saveDueMs_ != kNever && sim::nowMs() >= saveDueMs_) {
                n += simrun::pumpSave();
                saveDueMs_ = kNever;
                lastSaveMs_ = sim::nowMs();
            }
            if (n == 0)
                return;
        }
    }

    // Moves the clock to ms, stopping at every timer's firing and every
    // save that falls due on the way.
    void clockTo(uint64_t ms)
    {
        // After frames that only taught the FDB nothing waits for the tasks
        // and nothing falls due before dueMs_: most frames of a capture only
        // move the clock.
        if (!busy_ && ms < dueMs_) {
            if (ms > clockMs_) {
                sim::advanceTo(ms);
                clockMs_ = ms;
            }
            return;
        }
        auto fired = [this] {
            idle();
            collect(nullptr);
        };
        for (;;) {
            uint64_t next = std::min(sim::nextTimerDue(), saveDueMs_);
            if (next > ms)
                break;
            sim::advanceTo(next, fired);
            fired();
        }
        if (ms > sim::nowMs())
            sim::advanceTo(ms, fired);
        fired();
        clockMs_ = sim::nowMs();
        dueMs_ = std::min(sim::nextTimerDue(), saveDueMs_);
        busy_ = false;
    }

    void frame(const FrameRef& f, size_t input, up port)
    {
        const swcfg::PortConfig* pc = cfg_.port(port);
        PortStats& st = r_.stats[port];
        ++st.in;
        if (++r_.frames % kProgressEvery == 0 && opt_.progress)
            opt_.progress(Progress{r_.frames, sim::nowMs()});
        // What the switch's ingress makes of it: the tag's VLAN (a priority
        // tag or none: the port's), the frame without the tag for the trap.
        const uint8_t* body = f.data;
        size_t len = f.len;
        bool tagged = len >= 18 && rd16(f.data, 12) == kTpid;
        uint16_t vid = pc->vlan;
        if (tagged) {
            uint16_t tagVid = rd16(f.data, 14) & 0x0FFF;
            if (tagVid != 0)
                vid = tagVid;
        }
        bool accepted = pc->carries(vid);
        if (accepted)
            learn(f.data, len, vid, port);
        bool dhcp;
        if (tagged) {
            // isDhcp reads nothing before the type field: shifted by the
            // tag, it reads the frame as if untagged. The copy is made for
            // trapped frames alone.
            dhcp = isDhcp(f.data + 4, len - 4);
            if (dhcp) {
                untagged_.resize(len - 4);
                std::copy(f.data, f.data + 12, untagged_.begin());
                std::copy(f.data + 16, f.data + len, untagged_.begin() + 12);
                body = untagged_.data();
                len = untagged_.size();
            }
        } else {
            dhcp = isDhcp(body, len);
        }
        if (!dhcp) {
            ++st.notDhcp;
            return;
        }
        if (!accepted) {
            drop(f, input, port, "VLAN " + std::to_string(vid) + " not carried by the port");
            return;
        }
        uint32_t rv = simrun::inject(port, vid, body, len);
        busy_ = true;
        idle();
        classifier_.clear();
        collect(&f, input, &classifier_);
        if (rv != 0) {
            drop(f, input, port, "trap queue full");
            return;
        }
        size_t delivered = 0;
        bool nowhere = false;
        for (const sim::SentPacket& p : sim::sent()) {
            egress(p, port);
            if (to_.empty())
                nowhere = true;
            for (up e : to_) {
                const swcfg::PortConfig* ec = cfg_.port(e);
                ++r_.stats[e].out;
                ++delivered;
                if (opt_.output == nullptr)
                    continue;
                std::string error;
                bool written;
                if (ec != nullptr && ec->tags(p.vid) && p.frame.size() >= 12) {
                    withTag(p.frame, p.vid);
                    written = opt_.output->frameSent(e, f.tsUs, tagged_.data(), tagged_.size(), error);
                } else {
                    written = opt_.output->frameSent(e, f.tsUs, p.frame.data(), p.frame.size(), error);
                }
                if (!written && outputError_.empty())
                    outputError_ = error;
            }
        }
        sim::clearSent();
        if (delivered == 0) {
            std::string reason = classifier_.reason();
            if (reason == "dropped" && nowhere)
                reason = "no egress port";
            drop(f, input, port, reason);
        }
    }

    void finish()
    {
        // A save still settling is written now: the run ends here.
        if (saveDueMs_ != kNever) {
            simrun::pumpSave();
            saveDueMs_ = kNever;
        }
        simrun::runUntilIdle();
        collect(nullptr);
        sim::clearSent();
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
    void note(size_t input, const FrameRef& f, const std::string& text)
    {
        if (opt_.note)
            opt_.note("dhcpsnoop-replay: " + inputs_[input].file + " #" + std::to_string(f.number) +
                      ": " + text);
    }

    void learn(const uint8_t* f, size_t len, uint16_t vid, up port)
    {
        if (len < 12)
            return;
        sim::Mac src;
        std::copy(f + 6, f + 12, src.begin());
        // Group and all-zero sources are never learned.
        if ((src[0] & 1) != 0 || std::all_of(src.begin(), src.end(), [](uint8_t b) { return b == 0; }))
            return;
        // What was learned last in this slot: the same address on the same
        // port again needs no look-up.
        uint32_t h = vid;
        for (uint8_t b : src)
            h = h * 31u + b;
        LearnedSlot& slot = learned_[h % kLearnedSlots];
        if (slot.used && slot.mac == src && slot.vid == vid && slot.port == port)
            return;
        up known;
        if (sim::fdbFind(src, vid, &known)) {
            if (known != port)
                sim::fdbSet(src, vid, port);
        } else if (sim::fdbSize() < kFdbCapacity) {
            sim::fdbSet(src, vid, port);
        } else {
            ++r_.notLearned;
            return;
        }
        slot = LearnedSlot{src, vid, port, true};
    }

    void withTag(const std::vector<uint8_t>& f, uint16_t vid)
    {
        tagged_.resize(f.size() + 4);
        std::copy(f.begin(), f.begin() + 12, tagged_.begin());
        tagged_[12] = (uint8_t)(kTpid >> 8);
        tagged_[13] = (uint8_t)kTpid;
        tagged_[14] = (uint8_t)(vid >> 8);
        tagged_[15] = (uint8_t)vid;
        std::copy(f.begin() + 12, f.end(), tagged_.begin() + 16);
    }

    void vlanPorts(uint16_t vid, const std::vector<up>& except)
    {
        for (const auto& p : cfg_.ports)
            if (p.carries(vid) && std::find(except.begin(), except.end(), p.handle) == except.end())
                to_.push_back(p.handle);
    }

    // The ports a transmission reaches, as the switch's forwarding would,
    // into to_.
    void egress(const sim::SentPacket& p, up rcv)
    {
        to_.clear();
        if (p.sendFlags & SEND_FLAG_BY_FDB && !(p.sendFlags & SEND_FLAG_FLOOD)) {
            if (p.frame.size() < 6)
                return;
            sim::Mac dst;
            std::copy(p.frame.begin(), p.frame.begin() + 6, dst.begin());
            up at;
            if (!sim::fdbFind(dst, p.vid, &at)) {
                vlanPorts(p.vid, {rcv});
                return;
            }
            // A switch never sends a frame back where it came from.
            if (at != rcv)
                to_.push_back(at);
            return;
        }
        // Only configured ports can be reached: their bits are looked at,
        // not every port the list could hold.
        listed_.clear();
        for (const Member& m : members_)
            if ((p.ports.word[m.word] >> m.bit) & 1u)
                listed_.push_back(m.handle);
        if (p.sendFlags & SEND_FLAG_FLOOD) {
            vlanPorts(p.vid, listed_);
            return;
        }
        for (up e : listed_) {
            const swcfg::PortConfig* ec = cfg_.port(e);
            if (ec != nullptr && ec->carries(p.vid))
                to_.push_back(e);
        }
    }

    void drop(const FrameRef& f, size_t input, up port, const std::string& reason)
    {
        PortStats& st = r_.stats[port];
        ++st.dropped;
        ++st.dropReasons[reason];
        ++r_.dropCount;
        Drop d{input, f.number, f.tsUs, sim::portName(port), reason};
        std::string error;
        if (opt_.output != nullptr && !opt_.output->frameDropped(d, error) && outputError_.empty())
            outputError_ = error;
        if (r_.drops.size() < opt_.listed)
            r_.drops.push_back(std::move(d));
    }

    // The lines and system-log entries left since the last call: lines are
    // printed on request and fed to c when given; everything read is cleared.
    void collect(const FrameRef* f, size_t input = 0, dropreason::Classifier* c = nullptr)
    {
        const auto& logs = sim::logs();
        if (!logs.empty()) {
            for (const auto& line : logs) {
                if (c != nullptr) {
                    const char* msg;
                    size_t len;
                    messageOf(line.text, &msg, &len);
                    c->add(msg, len);
                }
                if (opt_.debugOut != nullptr) {
                    *opt_.debugOut << "[" << seconds(sim::nowMs()) << "]";
                    if (f != nullptr)
                        *opt_.debugOut << " " << inputs_[input].file << "#" << f->number;
                    *opt_.debugOut << " " << trimEol(line.text) << "\n";
                }
            }
            sim::clearLogs();
        }
        const auto& sl = sim::syslog();
        if (sl.empty())
            return;
        for (const auto& entry : sl) {
            SyslogEvent e;
            e.timeMs = sim::nowMs();
            e.code = entry.code;
            e.text = entry.text;
            e.portName = entry.portName;
            for (size_t a = 0; a < 6; ++a)
                e.args[a] = entry.args[a];
            ++r_.syslogCount;
            std::string error;
            if (opt_.output != nullptr && !opt_.output->syslogEntry(e, error) && outputError_.empty())
                outputError_ = error;
            if (r_.syslog.size() < opt_.listed)
                r_.syslog.push_back(std::move(e));
        }
        sim::clearSyslog();
    }

    const swcfg::SwitchConfig& cfg_;
    const std::vector<Input>& inputs_;
    const Options& opt_;
    Result& r_;
    std::string root_;
    std::string outputError_;
    dropreason::Classifier classifier_;
    PalMsgQ saveQ_ = 0;
    uint64_t saveDueMs_ = kNever;  // when the save task writes the file it was asked for
    uint64_t lastSaveMs_ = kNever;
    int64_t skippedUs_ = 0;        // capture time the cut gaps left out
    uint64_t lastUs_ = 0;          // switch time of the last frame
    bool busy_ = true;             // the tasks may have work or timers changed
    uint64_t clockMs_ = 0;         // the switch clock, as last moved here
    uint64_t dueMs_ = 0;           // the next timer or save
    struct LearnedSlot {
        sim::Mac mac;
        uint16_t vid;
        up port;
        bool used;
    };
    static constexpr size_t kLearnedSlots = 4096;
    std::vector<LearnedSlot> learned_ = std::vector<LearnedSlot>(kLearnedSlots, LearnedSlot{});
    std::vector<uint8_t> untagged_;
    std::vector<uint8_t> tagged_;
    std::vector<up> to_;
    std::vector<up> listed_;
    // The configured ports in the switch's port order, with their place in
    // a port list.
    struct Member {
        up handle;
        uint32_t word;
        uint32_t bit;
    };
    std::vector<Member> members_;
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

MemorySource::MemorySource(std::vector<Frame> frames) : frames_(std::move(frames))
{
    std::stable_sort(frames_.begin(), frames_.end(),
                     [](const Frame& a, const Frame& b) { return a.tsUs < b.tsUs; });
}

bool MemorySource::next(FrameRef& f, std::string& error)
{
    (void)error;
    if (at_ >= frames_.size())
        return false;
    const Frame& x = frames_[at_++];
    f.number = x.number;
    f.tsUs = x.tsUs;
    f.data = x.bytes.data();
    f.len = x.bytes.size();
    return true;
}

bool MemoryOutput::frameSent(up port, int64_t tsUs, const uint8_t* bytes, size_t len,
                             std::string& error)
{
    (void)error;
    sent[port].push_back(SentFrame{tsUs, std::vector<uint8_t>(bytes, bytes + len)});
    return true;
}

bool MemoryOutput::frameDropped(const Drop& d, std::string& error)
{
    (void)error;
    drops.push_back(d);
    return true;
}

bool MemoryOutput::syslogEntry(const SyslogEvent& e, std::string& error)
{
    (void)error;
    syslog.push_back(e);
    return true;
}

namespace {

bool checkInputs(const swcfg::SwitchConfig& cfg, const std::vector<Input>& inputs,
                 std::vector<up>& ports, std::string& error)
{
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
    return true;
}

std::string stampError(const Input& in, const FrameRef& f)
{
    return in.file + ": frame " + std::to_string(f.number) + ": timestamp " + relTime(f.tsUs) +
           " s is out of range (0 to " + relTime(kMaxCaptureTimeUs) + " s)";
}

}  // namespace

bool run(const swcfg::SwitchConfig& cfg, const std::vector<Input>& inputs,
         const std::vector<Source*>& sources, const Options& opt, Result& result,
         std::string& error)
{
    result = Result();
    std::vector<up> ports;
    if (sources.size() != inputs.size()) {
        error = "one source is needed per input";
        result.failure = Result::Failure::setup;
        return false;
    }
    if (!checkInputs(cfg, inputs, ports, error)) {
        result.failure = Result::Failure::setup;
        return false;
    }
    // The first frame of every capture, then always the earliest of them
    // (ties in input order): a merge that holds one frame per capture.
    size_t n = sources.size();
    std::vector<FrameRef> head(n);
    std::vector<bool> has(n, false);
    auto advance = [&](size_t i) {
        has[i] = sources[i]->next(head[i], error);
        if (!has[i] && !error.empty()) {
            result.failure = Result::Failure::capture;
            return false;
        }
        if (has[i] && (head[i].tsUs < 0 || head[i].tsUs > kMaxCaptureTimeUs)) {
            has[i] = false;
            error = stampError(inputs[i], head[i]);
            result.failure = Result::Failure::capture;
            return false;
        }
        return true;
    };
    for (size_t i = 0; i < n; ++i)
        if (!advance(i))
            return false;
    bool first = true;
    for (size_t i = 0; i < n; ++i) {
        if (has[i] && (first || head[i].tsUs < result.t0Us)) {
            result.t0Us = head[i].tsUs;
            first = false;
        }
    }

    if (opt.output != nullptr && !opt.output->begin(result.t0Us, error)) {
        result.failure = Result::Failure::output;
        return false;
    }
    Engine eng(cfg, inputs, opt, result);
    if (!eng.start(error)) {
        result.failure = eng.ok() ? Result::Failure::setup : Result::Failure::output;
        if (!eng.ok())
            error = eng.outputError();
        return false;
    }
    for (;;) {
        size_t next = n;
        for (size_t i = 0; i < n; ++i)
            if (has[i] && (next == n || head[i].tsUs < head[next].tsUs))
                next = i;
        if (next == n)
            break;
        eng.clockTo(eng.switchTimeUs(head[next], next) / 1000);
        eng.frame(head[next], next, ports[next]);
        if (!eng.ok())
            break;
        if (!advance(next))
            break;
    }
    if (result.failure == Result::Failure::none && eng.ok())
        eng.clockTo(eng.lastMs() + opt.drainMs);
    eng.finish();
    if (!eng.ok() && result.failure == Result::Failure::none) {
        error = eng.outputError();
        result.failure = Result::Failure::output;
    }
    return result.failure == Result::Failure::none;
}

bool run(const swcfg::SwitchConfig& cfg, const std::vector<Input>& inputs,
         std::vector<Frame> frames, const Options& opt, Result& result, std::string& error)
{
    std::vector<std::vector<Frame>> per(inputs.size());
    for (auto& f : frames) {
        if (f.input >= inputs.size()) {
            result = Result();
            result.failure = Result::Failure::setup;
            error = "frame of an unknown input";
            return false;
        }
        per[f.input].push_back(std::move(f));
    }
    std::vector<MemorySource> sources;
    sources.reserve(per.size());
    for (auto& p : per)
        sources.emplace_back(std::move(p));
    std::vector<Source*> ptrs;
    for (auto& s : sources)
        ptrs.push_back(&s);
    return run(cfg, inputs, ptrs, opt, result, error);
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

std::string syslogJson(const SyslogEvent& e)
{
    std::ostringstream o;
    o << "{\"time\": " << relTime((int64_t)e.timeMs * 1000)
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
    return o.str();
}

std::string dropJson(const Drop& d, int64_t t0Us, const std::vector<Input>& inputs)
{
    std::ostringstream o;
    o << "{\"port\": " << jsontext::quoted(d.port)
      << ", \"input\": " << jsontext::quoted(inputs[d.input].file) << ", \"frame\": " << d.number
      << ", \"time\": " << relTime(d.tsUs - t0Us)
      << ", \"timestamp\": " << jsontext::quoted(relTime(d.tsUs))
      << ", \"reason\": " << jsontext::quoted(d.reason) << "}";
    return o.str();
}

namespace eventsjson {

const char* head() { return "{\n  \"syslog\": ["; }
const char* before(bool first) { return first ? "\n    " : ",\n    "; }
const char* middle(bool syslogEmpty) { return syslogEmpty ? "],\n  \"drops\": [" : "\n  ],\n  \"drops\": ["; }
const char* tail(bool dropsEmpty) { return dropsEmpty ? "]\n}\n" : "\n  ]\n}\n"; }

}  // namespace eventsjson

std::string eventsJson(const std::vector<SyslogEvent>& syslog, const std::vector<Drop>& drops,
                       int64_t t0Us, const std::vector<Input>& inputs)
{
    std::string o = eventsjson::head();
    for (size_t i = 0; i < syslog.size(); ++i)
        o += eventsjson::before(i == 0) + syslogJson(syslog[i]);
    o += eventsjson::middle(syslog.empty());
    for (size_t i = 0; i < drops.size(); ++i)
        o += eventsjson::before(i == 0) + dropJson(drops[i], t0Us, inputs);
    o += eventsjson::tail(drops.empty());
    return o;
}

std::string summary(const swcfg::SwitchConfig& cfg, const std::vector<Input>& inputs,
                    const Result& r, size_t listed)
{
    std::ostringstream o;
    char line[256];
    o << "Replayed " << r.frames << " frame(s) from " << inputs.size() << " capture(s) over "
      << relTime((int64_t)r.endMs * 1000) << " s of switch time.\n";
    if (r.cutGaps != 0)
        o << "Note: " << r.cutGaps << " gap(s) between frames longer than "
          << kMaxGapMs / 1000 << " s moved the switch clock by " << kMaxGapMs / 1000
          << " s each (the longest: " << seconds(r.longestGapMs) << " s).\n";
    if (r.lateFrames != 0)
        o << "Note: " << r.lateFrames
          << " frame(s) stamped before a frame already replayed were replayed at the switch "
             "time reached.\n";
    if (r.framesAtClockEnd != 0)
        o << "Note: " << r.framesAtClockEnd << " frame(s) were replayed at " << seconds(kMaxClockMs)
          << " s, where the switch clock stops.\n";
    if (r.notLearned != 0)
        o << "Note: " << r.notLearned << " source address(es) not learned: the forwarding "
             "database was full (" << kFdbCapacity << " entries).\n";
    o << "\n";
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
    auto more = [&o](uint64_t all, size_t shown, const char* file) {
        if (all > shown)
            o << "  ... and " << all - shown << " more (all of them in " << file << " with --out)\n";
    };
    o << "\nDropped frames (" << r.dropCount << "):\n";
    for (size_t i = 0; i < r.drops.size() && i < listed; ++i) {
        const Drop& d = r.drops[i];
        o << "  " << relTime(d.tsUs - r.t0Us) << " s  " << d.port << "  " << inputs[d.input].file
          << " #" << d.number << "  " << d.reason << "\n";
    }
    more(r.dropCount, std::min(r.drops.size(), listed), "events.json");
    o << "\nBindings (" << r.bindings.size() << "):\n";
    if (!r.bindings.empty()) {
        snprintf(line, sizeof line, "  %-15s %-17s %-5s %-8s %s\n", "IP", "MAC", "VLAN", "PORT",
                 "LEASE LEFT");
        o << line;
    }
    for (size_t i = 0; i < r.bindings.size() && i < listed; ++i) {
        const Binding& b = r.bindings[i];
        snprintf(line, sizeof line, "  %-15s %-17s %-5u %-8s %s\n", b.ip.c_str(), b.mac.c_str(),
                 (unsigned)b.vlan, b.port.c_str(), leaseText(b.lease).c_str());
        o << line;
    }
    more(r.bindings.size(), std::min(r.bindings.size(), listed), "bindings.json");
    o << "\nSystem log (" << r.syslogCount << "):\n";
    for (size_t i = 0; i < r.syslog.size() && i < listed; ++i) {
        const SyslogEvent& e = r.syslog[i];
        o << "  " << relTime((int64_t)e.timeMs * 1000) << " s  " << hex32(e.code) << "  "
          << (e.text.empty() ? "(no catalogue text)" : e.text) << "\n";
    }
    more(r.syslogCount, std::min(r.syslog.size(), listed), "events.json");
    o << "\nBinding file: "
      << (r.bindingFileWritten ? bindingFileName() + ", " + std::to_string(r.bindingFile.size()) +
                                     " bytes"
                               : std::string("not written (no binding changes)"))
      << "\n";
    return o.str();
}

}  // namespace replay
