// Made-up traffic of an access switch for long replays (tests, benchmark):
// DHCP exchanges of many clients mixed with ordinary frames. Every frame is
// built once with the frame builder, then the set repeats with rising
// capture times, so a run of any length costs no building.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/frame_builder.h"

namespace traffic {

struct Spec {
    uint64_t frames = 1000000;
    // Share of DHCP frames in percent (100: DHCP only).
    unsigned dhcpPercent = 10;
    // Distinct clients, each with a lease of its own: the bindings stay
    // below the module's pool.
    uint32_t clients = 900;
    // Capture time: frames per second of traffic.
    uint32_t framesPerSecond = 10000;
    int64_t startUs = 1700000000LL * 1000000;
};

// Input 0: the clients' access port; input 1: the server's trusted uplink.
constexpr size_t kClientInput = 0;
constexpr size_t kServerInput = 1;

// The switch the traffic runs on (TOML of the replay tool): clients on
// 1/0/3 with option 82, the server on 1/0/1, VLAN 10 snooped.
const char* switchToml();
const char* portOf(size_t input);  // "1/0/3", "1/0/1"

struct Counts {
    uint64_t frames[2] = {0, 0};    // per input
    uint64_t dhcp[2] = {0, 0};      // per input
};

class Generator {
public:
    explicit Generator(const Spec& spec);

    // The next frame of the merged traffic: false after spec.frames.
    bool next(size_t* input, int64_t* tsUs, const fb::Bytes** bytes);

    // What the whole run holds (computed, not generated).
    Counts counts() const;
    // Exchanges completed by the whole run: the bindings the module learns
    // are the distinct clients among them.
    uint64_t acks() const;

private:
    struct Made {
        size_t input;
        fb::Bytes bytes;
    };
    Spec spec_;
    std::vector<Made> dhcp_;      // per client: DISCOVER, OFFER, REQUEST, ACK
    std::vector<Made> other_;     // per client: a few ordinary frames
    uint64_t n_ = 0;
    uint64_t dhcpAt_ = 0;
    uint64_t otherAt_ = 0;
};

}  // namespace traffic
