// The classic BPF program of the bridge data plane's trap sockets: only
// DHCP/BOOTP frames as the module takes them (IPv4 UDP to port 67 or 68,
// Ethernet II or 802.3/SNAP, with or without an 802.1Q tag left in the
// frame; a tag the kernel took off is not in the bytes the program sees)
// are copied to user space. No socket here: it builds and is tested on
// every target.
#pragma once

#include <linux/filter.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace live {
namespace trapfilter {

std::vector<struct sock_filter> program();

// Runs a classic BPF program on a frame as the kernel would (loads past the
// end of the frame end it with 0). For the tests.
uint32_t run(const std::vector<struct sock_filter>& prog, const uint8_t* frame, size_t len);

}  // namespace trapfilter
}  // namespace live
