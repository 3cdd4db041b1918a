#include "pcap_io.h"

#include <pcap/pcap.h>

namespace replay {

bool readCapture(const std::string& path, size_t input, std::vector<Frame>& frames,
                 std::string& error)
{
    char err[PCAP_ERRBUF_SIZE] = {0};
    pcap_t* p = pcap_open_offline(path.c_str(), err);
    if (p == nullptr) {
        error = path + ": " + err;
        return false;
    }
    if (pcap_datalink(p) != DLT_EN10MB) {
        error = path + ": link type " + std::to_string(pcap_datalink(p)) +
                " is not Ethernet (DLT_EN10MB)";
        pcap_close(p);
        return false;
    }
    uint32_t number = 0;
    for (;;) {
        struct pcap_pkthdr* h;
        const u_char* data;
        int rc = pcap_next_ex(p, &h, &data);
        if (rc == PCAP_ERROR_BREAK)
            break;
        if (rc != 1) {
            error = path + ": frame " + std::to_string(number + 1) + ": " + pcap_geterr(p);
            pcap_close(p);
            return false;
        }
        ++number;
        Frame f;
        f.input = input;
        f.number = number;
        f.tsUs = (int64_t)h->ts.tv_sec * 1000000 + (int64_t)h->ts.tv_usec;
        // A frame cut short by the capture's snap length is replayed as far
        // as it was captured: the module sees what the switch would trap of
        // it only if it still parses.
        f.bytes.assign(data, data + h->caplen);
        frames.push_back(std::move(f));
    }
    pcap_close(p);
    return true;
}

bool writeCapture(const std::string& path, const std::vector<SentFrame>& frames,
                  std::string& error)
{
    pcap_t* p = pcap_open_dead(DLT_EN10MB, 65535);
    if (p == nullptr) {
        error = path + ": cannot set up a pcap writer";
        return false;
    }
    pcap_dumper_t* d = pcap_dump_open(p, path.c_str());
    if (d == nullptr) {
        error = path + ": " + pcap_geterr(p);
        pcap_close(p);
        return false;
    }
    for (const auto& f : frames) {
        struct pcap_pkthdr h;
        h.ts.tv_sec = (time_t)(f.tsUs / 1000000);
        h.ts.tv_usec = (suseconds_t)(f.tsUs % 1000000);
        h.caplen = (bpf_u_int32)f.bytes.size();
        h.len = (bpf_u_int32)f.bytes.size();
        pcap_dump(reinterpret_cast<u_char*>(d), &h, f.bytes.data());
    }
    bool ok = pcap_dump_flush(d) == 0 && !ferror(pcap_dump_file(d));
    pcap_dump_close(d);
    pcap_close(p);
    if (!ok) {
        error = path + ": write error";
        return false;
    }
    return true;
}

}  // namespace replay

#include <filesystem>
#include <fstream>

#include "platform/sim/sim.h"

namespace replay {

namespace fs = std::filesystem;

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

namespace {

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

bool writeOutputs(const std::string& dir, const std::vector<Input>& inputs, const Result& r,
                  std::string& error)
{
    std::error_code ec;
    fs::create_directories(dir, ec);
    if (ec) {
        error = dir + ": " + ec.message();
        return false;
    }
    static const std::vector<SentFrame> none;
    for (const auto& kv : r.stats) {
        auto it = r.sent.find(kv.first);
        fs::path p = fs::path(dir) / portFileName(sim::portName(kv.first));
        if (!writeCapture(p.string(), it == r.sent.end() ? none : it->second, error))
            return false;
    }
    if (!writeText(fs::path(dir) / "bindings.json", bindingsJson(r), error) ||
        !writeText(fs::path(dir) / "events.json", eventsJson(r, inputs), error))
        return false;
    fs::path bf = fs::path(dir) / bindingFileName();
    if (r.bindingFileWritten)
        return writeText(bf, r.bindingFile, error);
    // A binding file of an earlier run would pass for this one's.
    fs::remove(bf, ec);
    if (ec) {
        error = bf.string() + ": " + ec.message();
        return false;
    }
    return true;
}

}  // namespace replay
