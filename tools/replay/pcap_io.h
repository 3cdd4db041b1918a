// Capture files: reading pcap/pcapng inputs and writing the per-port pcaps.
#pragma once

#include <string>
#include <vector>

#include "replay.h"

namespace replay {

// Appends the frames of one capture (Ethernet link type only) to frames.
bool readCapture(const std::string& path, size_t input, std::vector<Frame>& frames,
                 std::string& error);

// Writes frames as a pcap (Ethernet, microsecond timestamps).
bool writeCapture(const std::string& path, const std::vector<SentFrame>& frames,
                  std::string& error);

}  // namespace replay

namespace replay {

// A shipped example: a directory holding switch.toml and, for each port that
// has one, the frames received on it in <port file name> (1_0_3.pcap).
bool loadExample(const std::string& dir, swcfg::SwitchConfig& cfg, std::vector<Input>& inputs,
                 std::vector<std::string>& paths, std::string& error);

// Writes the outputs of a run into dir (created when missing): one pcap per
// port, bindings.json, events.json and the binding file (an old one is
// removed when the module wrote none).
bool writeOutputs(const std::string& dir, const std::vector<Input>& inputs, const Result& r,
                  std::string& error);

}  // namespace replay
