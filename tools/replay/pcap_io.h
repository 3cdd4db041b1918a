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
