// The live platform's logging: the module's debug and error lines, the
// system log, the process and module names.
#include <pthread.h>
#include <sys/time.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>

#include "platform/linux/live_internal.h"
#include "snooping/dhcpSnoopInternal.h"
#include "tools/common/drop_reason.h"

namespace {

constexpr size_t kLineMax = 1024;
const char kErrorPrefix[] = "\x1b[31;49m";
const char kErrorSuffix[] = "\x1b[0m\r\n";

std::atomic<bool> gDebug{false};
std::atomic<bool> gSwitchInited{false};

std::mutex gEventsLock;
std::deque<live::Event>& eventRing()
{
    static std::deque<live::Event>* d = new std::deque<live::Event>;
    return *d;
}
uint32_t gEventsKept = 256;
bool gUseSyslog = false;
bool gSyslogOpen = false;

thread_local bool tMainTask = false;
// The main task names the drops of the record in hand (see startMainRecord).
thread_local bool tNameDrops = true;
// Only the main task touches it.
dropreason::Classifier& classifier()
{
    static dropreason::Classifier* c = new dropreason::Classifier;
    return *c;
}

const char* kLogLoadOk = "DHCP snooping: binding file loaded";
const char* kLogLoadFail = "DHCP snooping: binding file could not be loaded";
const char* kLogRateOverflow = "DHCP snooping: DHCP rate limit exceeded on port %s";
const char* kLogDeclineOverflow = "DHCP snooping: DHCPDECLINE rate limit exceeded on port %s";

// The process id, asked once: the module names it in every line.
std::atomic<uint32_t> gPid{0};
void forgetPid() { gPid.store(0, std::memory_order_relaxed); }
const int gPidAtFork = pthread_atfork(nullptr, nullptr, forgetPid);

bool startsWith(const char* s, size_t n, const char* prefix)
{
    size_t p = strlen(prefix);
    return n >= p && memcmp(s, prefix, p) == 0;
}

// The message of a composed line: after the "[<...>]" prefix, without the
// suffix and line ends.
void messageOf(const char* text, size_t n, const char** msg, size_t* len)
{
    const char* start = text;
    for (size_t i = 0; i + 1 < n; ++i) {
        if (text[i] == ']' && text[i + 1] == ' ') {
            start = text + i + 2;
            break;
        }
    }
    size_t m = n - (size_t)(start - text);
    size_t sl = sizeof kErrorSuffix - 1;
    if (m >= sl && memcmp(start + m - sl, kErrorSuffix, sl) == 0)
        m -= sl;
    while (m > 0 && (start[m - 1] == '\n' || start[m - 1] == '\r'))
        --m;
    *msg = start;
    *len = m;
}

void writeStderr(const char* text, size_t n, bool error)
{
    char out[kLineMax + 2];
    size_t o = 0;
    const char* p = text;
    size_t m = n;
    bool tty = isatty(2) != 0;
    if (error && !tty && startsWith(p, m, kErrorPrefix)) {
        p += sizeof kErrorPrefix - 1;
        m -= sizeof kErrorPrefix - 1;
    }
    size_t sl = sizeof kErrorSuffix - 1;
    if (error && !tty && m >= sl && memcmp(p + m - sl, kErrorSuffix, sl) == 0)
        m -= sl;
    while (m > 0 && (p[m - 1] == '\n' || p[m - 1] == '\r'))
        --m;
    if (m > kLineMax)
        m = kLineMax;
    memcpy(out, p, m);
    o = m;
    if (o < sizeof out)
        out[o++] = '\n';
    // One write: lines of different tasks do not interleave.
    ssize_t w = write(2, out, o);
    (void)w;
}

uint64_t unixMs()
{
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return (uint64_t)tv.tv_sec * 1000u + (uint64_t)tv.tv_usec / 1000u;
}

}  // namespace

namespace {

uint64_t monotonicMs()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (uint64_t)ts.tv_sec * 1000u + (uint64_t)ts.tv_nsec / 1000000u;
}

std::mutex gErrorLimitLock;
live::logging::ErrorLineLimit gErrorLimit(live::logging::kErrorLinesPerSecond);

// An error line with debug off, within the limit.
void writeErrorLine(const char* text, size_t n)
{
    uint64_t held = 0;
    bool ok;
    {
        std::lock_guard<std::mutex> lk(gErrorLimitLock);
        ok = gErrorLimit.allow(monotonicMs(), &held);
    }
    if (held != 0) {
        char note[128];
        int m = snprintf(note, sizeof note, "dhcpsnoopd: %llu error lines held back (at most %u a second are written)",
                         (unsigned long long)held, (unsigned)live::logging::kErrorLinesPerSecond);
        writeStderr(note, (size_t)m, false);
    }
    if (ok)
        writeStderr(text, n, true);
}

}  // namespace

namespace live {
namespace logging {

bool ErrorLineLimit::allow(uint64_t nowMs, uint64_t* held)
{
    *held = 0;
    if (!started_ || nowMs - windowStart_ >= 1000u) {
        *held = held_;
        held_ = 0;
        written_ = 0;
        windowStart_ = nowMs;
        started_ = true;
    }
    if (written_ < burst_) {
        ++written_;
        return true;
    }
    ++held_;
    return false;
}

}  // namespace logging
}  // namespace live

extern "C" {

uint32_t debugFlagGet(uint32_t mid)
{
    // The main task always writes its lines: they name the drops; what
    // reaches standard error is decided in debugPrintf. Other tasks' debug
    // lines matter only with the operator's debug on; without it they
    // answer 2, which the module takes as "error lines only" (debug lines
    // need exactly 1), so their errors still reach standard error.
    (void)mid;
    if ((tMainTask && tNameDrops) || gDebug.load(std::memory_order_relaxed))
        return 1;
    return 2;
}


int debugPrintf(uint32_t mid, const char* format, ...)
{
    (void)mid;
    if (!format)
        return 0;
    // Not formatted when nothing would read it: 0 characters written. With
    // the operator's debug off a main-task debug line is read only to name
    // a drop.
    if (strncmp(format, kErrorPrefix, sizeof kErrorPrefix - 1) != 0 &&
        !gDebug.load(std::memory_order_relaxed) && (!tMainTask || !dropreason::formatMayMatter(format)))
        return 0;
    char buf[kLineMax];
    va_list ap;
    va_start(ap, format);
    int n = vsnprintf(buf, sizeof buf, format, ap);
    va_end(ap);
    if (n < 0)
        return n;
    size_t len = (size_t)n < sizeof buf ? (size_t)n : sizeof buf - 1;
    bool error = startsWith(buf, len, kErrorPrefix);
    if (tMainTask) {
        const char* msg;
        size_t mlen;
        messageOf(buf, len, &msg, &mlen);
        classifier().add(msg, mlen);
    }
    if (gDebug.load(std::memory_order_relaxed))
        writeStderr(buf, len, error);
    else if (error)
        writeErrorLine(buf, len);
    return n;
}

const char* midNameGet(uint32_t mid)
{
    (void)mid;
    return "DHCPSNOOP";
}

uint32_t pidGetCurrent(void)
{
    (void)gPidAtFork;
    uint32_t pid = gPid.load(std::memory_order_relaxed);
    if (pid == 0) {
        pid = (uint32_t)getpid();
        gPid.store(pid, std::memory_order_relaxed);
    }
    return pid;
}

const char* pidNameGet(uint32_t pid)
{
    (void)pid;
    return "dhcpsnoopd";
}

uint32_t isSwitchInited(void) { return gSwitchInited.load() ? 1 : 0; }

uint32_t syslogAdd(uint32_t code, uintptr_t a1, uintptr_t a2, uintptr_t a3, uintptr_t a4,
                   uintptr_t a5, uintptr_t a6)
{
    (void)a2;
    (void)a3;
    (void)a4;
    (void)a5;
    (void)a6;
    const char* tmpl = nullptr;
    bool arg1Text = false;
    int prio = LOG_WARNING;
    switch (code) {
    case DHCP_SNOOP_LOG_LOAD_OK:
        tmpl = kLogLoadOk;
        prio = LOG_INFO;
        break;
    case DHCP_SNOOP_LOG_LOAD_FAIL:
        tmpl = kLogLoadFail;
        break;
    case DHCP_SNOOP_LOG_RATE_OVERFLOW:
    case DHCP_SNOOP_LOG_DECLINE_OVERFLOW:
        tmpl = code == DHCP_SNOOP_LOG_RATE_OVERFLOW ? kLogRateOverflow : kLogDeclineOverflow;
        arg1Text = true;
        if (live::monitor::active() && a1)
            live::monitor::rateLimit(reinterpret_cast<const char*>(a1), code == DHCP_SNOOP_LOG_DECLINE_OVERFLOW);
        break;
    default:
        break;
    }
    std::string text;
    if (tmpl) {
        text = tmpl;
        size_t pos = text.find("%s");
        if (pos != std::string::npos) {
            // The text argument is valid only during the call: copied now.
            std::string arg = arg1Text && a1 ? reinterpret_cast<const char*>(a1) : "";
            text.replace(pos, 2, arg);
        }
    } else {
        char b[64];
        snprintf(b, sizeof b, "system log code 0x%08X", (unsigned)code);
        text = b;
    }
    live::logging::addEvent(code, prio, text);
    return 0;
}

}  // extern "C"

namespace live {

void setDebug(bool on) { gDebug.store(on); }
bool debug() { return gDebug.load(); }

std::vector<Event> events()
{
    std::lock_guard<std::mutex> g(gEventsLock);
    return std::vector<Event>(eventRing().begin(), eventRing().end());
}

namespace logging {

void setSwitchInited(bool on) { gSwitchInited.store(on); }

void addEvent(uint32_t code, int priority, const std::string& text, Echo echo)
{
    live::Event e;
    e.unixMs = unixMs();
    e.code = code;
    e.text = text;
    std::lock_guard<std::mutex> g(gEventsLock);
    if (gUseSyslog) {
        if (!gSyslogOpen) {
            openlog("dhcpsnoopd", LOG_PID, LOG_DAEMON);
            gSyslogOpen = true;
        }
        syslog(priority, "%s", text.c_str());
    }
    if (echo == Echo::Stderr)
        fprintf(stderr, "dhcpsnoopd: %s\n", text.c_str());
    if (gEventsKept > 0) {
        auto& ring = eventRing();
        while (ring.size() >= gEventsKept)
            ring.pop_front();
        ring.push_back(std::move(e));
    }
}

void configure(bool useSyslog, uint32_t eventsKept)
{
    std::lock_guard<std::mutex> g(gEventsLock);
    gUseSyslog = useSyslog;
    gEventsKept = eventsKept;
    auto& ring = eventRing();
    while (ring.size() > gEventsKept)
        ring.pop_front();
}

void clearEvents()
{
    std::lock_guard<std::mutex> g(gEventsLock);
    eventRing().clear();
}

void setMainTask(bool on)
{
    tMainTask = on;
    tNameDrops = true;
}
bool onMainTask() { return tMainTask; }

MainTaskAside::MainTaskAside() : was_(tMainTask) { tMainTask = false; }
MainTaskAside::~MainTaskAside() { tMainTask = was_; }

const char* const kUnnamedDrop = "dropped, not named (the main task was behind)";

std::string takeDropReason()
{
    std::string r = classifier().reason();
    classifier().clear();
    if (!tNameDrops && r == "dropped")
        return kUnnamedDrop;
    return r;
}

void clearDropLines() { classifier().clear(); }

void startMainRecord(uint32_t backlog)
{
    classifier().clear();
    if (tNameDrops && backlog >= kNamingOffBacklog)
        tNameDrops = false;
    else if (!tNameDrops && backlog <= kNamingOnBacklog)
        tNameDrops = true;
}

}  // namespace logging
}  // namespace live
