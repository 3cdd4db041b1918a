// Capture files: the inputs read a frame at a time, the outputs written as
// the run goes, the examples' layout.
#pragma once

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "replay.h"

typedef struct pcap pcap_t;
typedef struct pcap_dumper pcap_dumper_t;

namespace replay {

// The frames of one capture file (pcap or pcapng, Ethernet), one at a time.
class CaptureSource : public Source {
public:
    CaptureSource() = default;
    CaptureSource(const CaptureSource&) = delete;
    CaptureSource& operator=(const CaptureSource&) = delete;
    ~CaptureSource() override;

    // False with error set when the file cannot be read as a capture of
    // Ethernet frames.
    bool open(const std::string& path, std::string& error);
    bool next(FrameRef& f, std::string& error) override;

private:
    pcap_t* p_ = nullptr;
    std::string path_;
    uint32_t number_ = 0;
};

// A whole capture in memory, appended to frames (tests comparing outputs).
bool readCapture(const std::string& path, size_t input, std::vector<Frame>& frames,
                 std::string& error);

// The output directory, written as the run goes: one pcap per port (each
// frame as it leaves), the elements of events.json spooled to unnamed files
// beside it; bindings.json, events.json and the binding file at finish().
class OutputDir : public Output {
public:
    OutputDir() = default;
    OutputDir(const OutputDir&) = delete;
    OutputDir& operator=(const OutputDir&) = delete;
    ~OutputDir() override;

    // Creates dir when missing.
    bool open(const std::string& dir, const std::vector<Input>& inputs, std::string& error);
    bool begin(int64_t t0Us, std::string& error) override;
    bool frameSent(up port, int64_t tsUs, const uint8_t* bytes, size_t len,
                   std::string& error) override;
    bool frameDropped(const Drop& d, std::string& error) override;
    bool syslogEntry(const SyslogEvent& e, std::string& error) override;
    // Every port of the result gets its pcap (empty when nothing left
    // there); then the files of the end of the run. An old binding file is
    // removed when the module wrote none.
    bool finish(const Result& r, std::string& error);

private:
    pcap_dumper_t* dumper(up port, std::string& error);
    bool spool(FILE* f, bool& first, const std::string& element, std::string& error);

    std::string dir_;
    const std::vector<Input>* inputs_ = nullptr;
    int64_t t0Us_ = 0;
    pcap_t* dead_ = nullptr;
    std::map<up, pcap_dumper_t*> dumpers_;
    uint64_t written_ = 0;
    FILE* syslogSpool_ = nullptr;
    FILE* dropSpool_ = nullptr;
    bool syslogFirst_ = true;
    bool dropFirst_ = true;
};

// A shipped example: a directory holding switch.toml and, for each port that
// has one, the frames received on it in <port file name> (1_0_3.pcap).
bool loadExample(const std::string& dir, swcfg::SwitchConfig& cfg, std::vector<Input>& inputs,
                 std::vector<std::string>& paths, std::string& error);

}  // namespace replay
