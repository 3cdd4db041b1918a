// The binding file on the live platform: the module rewrites it in place,
// so a crash (or the stop limit) in the middle of a save can leave it empty
// or cut short. After every save that completed, a last good copy is written
// beside it atomically (temporary file, fsync, rename, fsync of the
// directory); at start a file that is not complete is replaced by that copy
// before the module reads it. A failed save ends the module's save task: it
// is made visible here (event, counter, status) and restarted on request.
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <mutex>
#include <string>

#include "platform/linux/live_internal.h"
#include "platform/pal.h"

namespace live {
namespace persist {
namespace {

const char kHeader[] = "1\r\nTYPE DHCP-SNOOPING\r\nBEGIN\r\n";
constexpr size_t kHeaderLen = sizeof kHeader - 1;  // 30
const char kEnd[] = "END\r\n";
constexpr size_t kEndLen = sizeof kEnd - 1;
constexpr size_t kLineLen = 67;
constexpr size_t kMaxLines = 512;
// Where each line has its TABs: after IP, MAC, VLAN, port, lease, check.
constexpr size_t kTabs[] = {11, 29, 34, 46, 55, 64};

struct State {
    std::mutex lock;
    SaveStatus status;
};

State& state()
{
    // Never destroyed: the save task may still finish a save at exit.
    static State* s = new State;
    return *s;
}

uint64_t unixMsNow()
{
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return (uint64_t)ts.tv_sec * 1000u + (uint64_t)ts.tv_nsec / 1000000u;
}

bool hexValue(const char* p, size_t n, uint32_t* v)
{
    uint32_t out = 0;
    for (size_t i = 0; i < n; ++i) {
        char c = p[i];
        uint32_t d;
        if (c >= '0' && c <= '9')
            d = (uint32_t)(c - '0');
        else if (c >= 'a' && c <= 'f')
            d = (uint32_t)(c - 'a' + 10);
        else if (c >= 'A' && c <= 'F')
            d = (uint32_t)(c - 'A' + 10);
        else
            return false;
        out = out * 16 + d;
    }
    *v = out;
    return true;
}

// The whole file, or false (missing, unreadable, too long to be one).
bool readAll(const std::string& path, std::string& out, bool* missing)
{
    *missing = false;
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) {
        *missing = errno == ENOENT;
        return false;
    }
    out.clear();
    char buf[8192];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            close(fd);
            return false;
        }
        if (n == 0)
            break;
        out.append(buf, (size_t)n);
        // Longer than any file the module writes: not one of its files.
        if (out.size() > kHeaderLen + kMaxLines * kLineLen + kEndLen + 1)
            break;
    }
    close(fd);
    return true;
}

bool writeAll(int fd, const std::string& text)
{
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += (size_t)n;
    }
    return true;
}

std::string dirOf(const std::string& path)
{
    size_t slash = path.find_last_of('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// Replaces path by text so that a crash at any moment leaves either the old
// file or the new one whole. 0600, never through a link.
bool replaceAtomically(const std::string& path, const std::string& text, std::string& error)
{
    std::string dir = dirOf(path);
    std::string base = path.substr(path.find_last_of('/') + 1);
    std::string tmp = dir + "/." + base + ".tmp";
    // A temporary file left by a crash is ours to replace.
    unlink(tmp.c_str());
    int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) {
        error = tmp + ": " + strerror(errno);
        return false;
    }
    if (!writeAll(fd, text) || fsync(fd) != 0) {
        error = tmp + ": " + strerror(errno);
        close(fd);
        unlink(tmp.c_str());
        return false;
    }
    close(fd);
    if (rename(tmp.c_str(), path.c_str()) != 0) {
        error = path + ": " + strerror(errno);
        unlink(tmp.c_str());
        return false;
    }
    // The rename itself is durable only once the directory is.
    int dfd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dfd >= 0) {
        (void)fsync(dfd);
        close(dfd);
    }
    return true;
}

// Owner only: the file names every client's address and MAC.
void ownerOnly(const std::string& path)
{
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0)
        return;
    struct stat st;
    if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && (st.st_mode & 0077) != 0)
        (void)fchmod(fd, st.st_mode & 0700);
    close(fd);
}

void warn(const std::string& text) { std::cerr << "dhcpsnoopd: " << text << std::endl; }

}  // namespace

bool fileComplete(const std::string& text, size_t* lines)
{
    if (text.size() < kHeaderLen + kEndLen || text.compare(0, kHeaderLen, kHeader) != 0)
        return false;
    size_t body = text.size() - kHeaderLen - kEndLen;
    if (body % kLineLen != 0 || body / kLineLen > kMaxLines ||
        text.compare(text.size() - kEndLen, kEndLen, kEnd) != 0)
        return false;
    size_t n = body / kLineLen;
    for (size_t k = 0; k < n; ++k) {
        const char* line = text.data() + kHeaderLen + k * kLineLen;
        for (size_t t : kTabs)
            if (line[t] != '\t')
                return false;
        if (line[65] != '\r' || line[66] != '\n')
            return false;
        uint32_t check;
        if (!hexValue(line + 56, 8, &check) || check != kHeaderLen + (k + 1) * kLineLen)
            return false;
    }
    if (lines)
        *lines = n;
    return true;
}

std::string mainPath() { return pal_file_path(DHCP_SNOOP_CFG_FILE_PATH); }
std::string copyPath() { return mainPath() + ".good"; }

void prepare(const std::string& dataDir)
{
    State& s = state();
    {
        std::lock_guard<std::mutex> g(s.lock);
        s.status = SaveStatus();
        s.status.path = mainPath();
    }
    if (dataDir.empty())
        return;
    std::string main = mainPath();
    std::string copy = copyPath();
    ownerOnly(main);
    ownerOnly(copy);
    std::string mainText, copyText;
    bool mainMissing, copyMissing;
    bool mainRead = readAll(main, mainText, &mainMissing);
    bool copyRead = readAll(copy, copyText, &copyMissing);
    size_t lines = 0;
    std::string error;
    if (mainRead && fileComplete(mainText, &lines)) {
        // The copy follows the file the module is about to load, so a save
        // cut short later never falls back to anything older.
        if (!(copyRead && copyText == mainText) && !replaceAtomically(copy, mainText, error))
            warn("last good copy of the binding file: " + error);
        return;
    }
    if (mainMissing)
        return;  // a first start, or removed on purpose: nothing to restore
    size_t copyLines = 0;
    if (copyRead && fileComplete(copyText, &copyLines)) {
        if (!replaceAtomically(main, copyText, error)) {
            warn("restoring the binding file: " + error);
            return;
        }
        std::string text = "binding file " + main + " was not complete (" + std::to_string(mainText.size()) +
                           " bytes): restored from its last good copy (" + std::to_string(copyLines) + " bindings)";
        warn(text);
        logging::addEvent(kEventBindingFileRestored, LOG_WARNING, "DHCP snooping: " + text);
        std::lock_guard<std::mutex> g(s.lock);
        s.status.restoredAtStart = true;
        return;
    }
    warn("binding file " + main + " is not complete (" + std::to_string(mainText.size()) +
         " bytes) and there is no good copy of it: the module loads what it can");
}

void saveCompleted()
{
    State& s = state();
    std::string main = mainPath();
    std::string text;
    bool missing;
    size_t lines = 0;
    bool complete = readAll(main, text, &missing) && fileComplete(text, &lines);
    ownerOnly(main);
    std::string error;
    bool copied = complete && replaceAtomically(copyPath(), text, error);
    std::lock_guard<std::mutex> g(s.lock);
    ++s.status.savesCompleted;
    if (copied) {
        s.status.lastGoodMs = unixMsNow();
        s.status.lastGoodBindings = (uint32_t)lines;
    } else if (!error.empty()) {
        warn("last good copy of the binding file: " + error);
    }
}

void saveTaskEnded()
{
    // The event first: whoever sees saving stopped finds it too.
    std::string text = "saving the binding file failed; no further saves until SIGHUP";
    warn(text);
    logging::addEvent(kEventSaveFailed, LOG_ERR, "DHCP snooping: " + text);
    State& s = state();
    std::lock_guard<std::mutex> g(s.lock);
    s.status.saving = false;
    ++s.status.saveFailures;
    s.status.failedMs = unixMsNow();
}

}  // namespace persist

SaveStatus saveStatus()
{
    persist::State& s = persist::state();
    std::lock_guard<std::mutex> g(s.lock);
    SaveStatus out = s.status;
    if (out.path.empty())
        out.path = persist::mainPath();
    return out;
}

bool restartSaving(std::string& error)
{
    persist::State& s = persist::state();
    {
        std::lock_guard<std::mutex> g(s.lock);
        if (s.status.saving) {
            error = "saving was not stopped";
            return false;
        }
    }
    PalThread* t = pal_thread_create(DHCP_SNOOP_SAVE_TASK_NAME, DHCP_SNOOP_SAVE_TASK_STACK,
                                     DHCP_SNOOP_SAVE_TASK_PRIORITY, dhcpSnoopSaveDynEntryTask, nullptr);
    if (t == nullptr) {
        error = "the save task could not be started";
        return false;
    }
    {
        std::lock_guard<std::mutex> g(s.lock);
        s.status.saving = true;
    }
    // The bindings changed since the failed save were never written: one
    // save now, whether or not a change is waiting in the queue.
    uint8_t msg = 1;
    (void)runtime::postByName(DHCP_SNOOP_SAVE_QUEUE_NAME, &msg, 1);
    logging::addEvent(kEventSavesRestarted, LOG_NOTICE, "DHCP snooping: saving the binding file restarted");
    return true;
}

}  // namespace live
