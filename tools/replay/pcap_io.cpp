#include "pcap_io.h"

#include <pcap/pcap.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "platform/sim/sim.h"

namespace replay {

namespace fs = std::filesystem;

CaptureSource::~CaptureSource()
{
    if (p_ != nullptr)
        pcap_close(p_);
}

bool CaptureSource::open(const std::string& path, std::string& error)
{
    char err[PCAP_ERRBUF_SIZE] = {0};
    path_ = path;
    FILE* f = fopen(path.c_str(), "rb");
    if (f == nullptr) {
        error = path + ": " + strerror(errno);
        return false;
    }
    // Big reads: a capture is read from start to end, a system call per
    // few frames would cost more than the frames.
    setvbuf(f, nullptr, _IOFBF, 1 << 20);
    p_ = pcap_fopen_offline(f, err);
    if (p_ == nullptr) {
        fclose(f);
        error = path + ": " + err;
        return false;
    }
    if (pcap_datalink(p_) != DLT_EN10MB) {
        error = path + ": link type " + std::to_string(pcap_datalink(p_)) +
                " is not Ethernet (DLT_EN10MB)";
        pcap_close(p_);
        p_ = nullptr;
        return false;
    }
    return true;
}

bool CaptureSource::next(FrameRef& f, std::string& error)
{
    if (p_ == nullptr)
        return false;
    struct pcap_pkthdr* h;
    const u_char* data;
    int rc = pcap_next_ex(p_, &h, &data);
    if (rc == PCAP_ERROR_BREAK)
        return false;
    if (rc != 1) {
        error = path_ + ": frame " + std::to_string(number_ + 1) + ": " + pcap_geterr(p_);
        return false;
    }
    ++number_;
    // A pcapng stamp is 64 bits of any unit: seconds beyond what the replay's
    // microsecond count holds are refused before they are multiplied.
    const int64_t maxSec = kMaxCaptureTimeUs / 1000000 - 1;
    if (h->ts.tv_sec < 0 || (int64_t)h->ts.tv_sec > maxSec || h->ts.tv_usec < 0 ||
        h->ts.tv_usec >= 1000000) {
        error = path_ + ": frame " + std::to_string(number_) + ": timestamp " +
                std::to_string((long long)h->ts.tv_sec) + "." +
                std::to_string((long long)h->ts.tv_usec) + " is out of range (0 to " +
                std::to_string((long long)maxSec) + " s)";
        return false;
    }
    f.number = number_;
    f.tsUs = (int64_t)h->ts.tv_sec * 1000000 + (int64_t)h->ts.tv_usec;
    // A frame cut short by the capture's snap length is replayed as far as
    // it was captured: the module sees what the switch would trap of it
    // only if it still parses.
    f.data = data;
    f.len = h->caplen;
    return true;
}

bool readCapture(const std::string& path, size_t input, std::vector<Frame>& frames,
                 std::string& error)
{
    CaptureSource src;
    if (!src.open(path, error))
        return false;
    FrameRef f;
    while (src.next(f, error)) {
        Frame x;
        x.input = input;
        x.number = f.number;
        x.tsUs = f.tsUs;
        x.bytes.assign(f.data, f.data + f.len);
        frames.push_back(std::move(x));
    }
    return error.empty();
}

// ---- the output directory ---------------------------------------------------------

namespace {

// An unnamed file in dir: gone by itself whatever happens to the run.
FILE* spoolFile(const std::string& dir, std::string& error)
{
    std::string templ = dir + "/.dhcpsnoop-replay-XXXXXX";
    std::vector<char> buf(templ.begin(), templ.end());
    buf.push_back('\0');
    int fd = mkstemp(buf.data());
    if (fd < 0) {
        error = dir + ": cannot create a file: " + strerror(errno);
        return nullptr;
    }
    unlink(buf.data());
    FILE* f = fdopen(fd, "w+");
    if (f == nullptr) {
        error = dir + ": " + strerror(errno);
        close(fd);
    }
    return f;
}

bool copyAll(FILE* from, FILE* to)
{
    if (fflush(from) != 0 || fseek(from, 0, SEEK_SET) != 0)
        return false;
    char buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, from)) > 0)
        if (fwrite(buf, 1, n, to) != n)
            return false;
    return !ferror(from);
}

bool writeText(const fs::path& path, const std::string& text, std::string& error)
{
    std::ofstream o(path, std::ios::binary | std::ios::trunc);
    o << text;
    o.close();
    if (!o) {
        error = path.string() + ": write error";
        return false;
    }
    return true;
}

}  // namespace

OutputDir::~OutputDir()
{
    for (auto& kv : dumpers_)
        pcap_dump_close(kv.second);
    if (dead_ != nullptr)
        pcap_close(dead_);
    if (syslogSpool_ != nullptr)
        fclose(syslogSpool_);
    if (dropSpool_ != nullptr)
        fclose(dropSpool_);
}

bool OutputDir::open(const std::string& dir, const std::vector<Input>& inputs, std::string& error)
{
    dir_ = dir;
    inputs_ = &inputs;
    std::error_code ec;
    fs::create_directories(dir, ec);
    if (ec) {
        error = dir + ": " + ec.message();
        return false;
    }
    dead_ = pcap_open_dead(DLT_EN10MB, 65535);
    if (dead_ == nullptr) {
        error = dir + ": cannot set up a pcap writer";
        return false;
    }
    syslogSpool_ = spoolFile(dir, error);
    if (syslogSpool_ == nullptr)
        return false;
    dropSpool_ = spoolFile(dir, error);
    return dropSpool_ != nullptr;
}

bool OutputDir::begin(int64_t t0Us, std::string& error)
{
    (void)error;
    t0Us_ = t0Us;
    return true;
}

pcap_dumper_t* OutputDir::dumper(up port, std::string& error)
{
    auto it = dumpers_.find(port);
    if (it != dumpers_.end())
        return it->second;
    fs::path p = fs::path(dir_) / portFileName(sim::portName(port));
    pcap_dumper_t* d = pcap_dump_open(dead_, p.string().c_str());
    if (d == nullptr) {
        error = p.string() + ": " + pcap_geterr(dead_);
        return nullptr;
    }
    dumpers_[port] = d;
    return d;
}

bool OutputDir::frameSent(up port, int64_t tsUs, const uint8_t* bytes, size_t len,
                          std::string& error)
{
    pcap_dumper_t* d = dumper(port, error);
    if (d == nullptr)
        return false;
    struct pcap_pkthdr h;
    h.ts.tv_sec = (time_t)(tsUs / 1000000);
    h.ts.tv_usec = (suseconds_t)(tsUs % 1000000);
    h.caplen = (bpf_u_int32)len;
    h.len = (bpf_u_int32)len;
    pcap_dump(reinterpret_cast<u_char*>(d), &h, bytes);
    // pcap_dump reports nothing: a full disk shows in the stream's error
    // flag, looked at now and then and at the end.
    if (++written_ % 4096 == 0 && ferror(pcap_dump_file(d))) {
        error = (fs::path(dir_) / portFileName(sim::portName(port))).string() + ": write error";
        return false;
    }
    return true;
}

bool OutputDir::spool(FILE* f, bool& first, const std::string& element, std::string& error)
{
    const char* sep = eventsjson::before(first);
    first = false;
    if (fputs(sep, f) < 0 || fputs(element.c_str(), f) < 0) {
        error = (fs::path(dir_) / "events.json").string() + ": write error";
        return false;
    }
    return true;
}

bool OutputDir::frameDropped(const Drop& d, std::string& error)
{
    return spool(dropSpool_, dropFirst_, dropJson(d, t0Us_, *inputs_), error);
}

bool OutputDir::syslogEntry(const SyslogEvent& e, std::string& error)
{
    return spool(syslogSpool_, syslogFirst_, syslogJson(e), error);
}

bool OutputDir::finish(const Result& r, std::string& error)
{
    for (const auto& kv : r.stats)
        if (dumper(kv.first, error) == nullptr)
            return false;
    for (auto& kv : dumpers_) {
        bool ok = pcap_dump_flush(kv.second) == 0 && !ferror(pcap_dump_file(kv.second));
        pcap_dump_close(kv.second);
        kv.second = nullptr;
        if (!ok) {
            error = (fs::path(dir_) / portFileName(sim::portName(kv.first))).string() +
                    ": write error";
            dumpers_.clear();
            return false;
        }
    }
    dumpers_.clear();
    if (!writeText(fs::path(dir_) / "bindings.json", bindingsJson(r), error))
        return false;
    fs::path events = fs::path(dir_) / "events.json";
    FILE* o = fopen(events.string().c_str(), "wb");
    if (o == nullptr) {
        error = events.string() + ": " + strerror(errno);
        return false;
    }
    bool ok = fputs(eventsjson::head(), o) >= 0 && copyAll(syslogSpool_, o) &&
              fputs(eventsjson::middle(syslogFirst_), o) >= 0 && copyAll(dropSpool_, o) &&
              fputs(eventsjson::tail(dropFirst_), o) >= 0;
    ok = fclose(o) == 0 && ok;
    if (!ok) {
        error = events.string() + ": write error";
        return false;
    }
    fs::path bf = fs::path(dir_) / bindingFileName();
    if (r.bindingFileWritten)
        return writeText(bf, r.bindingFile, error);
    // A binding file of an earlier run would pass for this one's.
    std::error_code ec;
    fs::remove(bf, ec);
    if (ec) {
        error = bf.string() + ": " + ec.message();
        return false;
    }
    return true;
}

bool loadExample(const std::string& dir, swcfg::SwitchConfig& cfg, std::vector<Input>& inputs,
                 std::vector<std::string>& paths, std::string& error)
{
    if (!fs::is_directory(dir)) {
        error = dir + ": no such example directory";
        return false;
    }
    if (!swcfg::loadSwitchConfig((fs::path(dir) / "switch.toml").string(), cfg, error))
        return false;
    for (const auto& p : cfg.ports) {
        fs::path cap = fs::path(dir) / portFileName(p.name);
        if (fs::exists(cap)) {
            inputs.push_back({p.name, cap.filename().string()});
            paths.push_back(cap.string());
        }
    }
    if (inputs.empty()) {
        error = dir + ": no capture named after a configured port (e.g. 1_0_3.pcap)";
        return false;
    }
    return true;
}

}  // namespace replay
