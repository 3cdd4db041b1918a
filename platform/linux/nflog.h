// The bridge data plane's trap: the nftables rules that take DHCP off the
// bridge hand each frame to the daemon through nfnetlink_log, one log group
// a port. Nothing else is looked at or copied on its way through the bridge
// (an AF_PACKET tap would run for every frame of its port).
//
// The messages are built and read here without a socket, so the pieces are
// tested anywhere; open() makes the socket.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace live {
namespace nflog {

// The log group of the port of this index. Groups are per network
// namespace; a daemon has a range of its own there.
constexpr uint16_t kGroupBase = 0xD500;
inline uint16_t groupOf(size_t portIndex) { return (uint16_t)(kGroupBase + portIndex); }

// One logged frame, pointing into the message it came in.
struct Packet {
    uint32_t indev = 0;   // interface index the frame came in on, 0: none
    uint32_t outdev = 0;  // and the one it was going out on (the host's own frames)
    int32_t tci = -1;     // its 802.1Q tag, -1: none
    bool hasSeq = false;  // the group's sequence number, where asked for
    uint32_t seq = 0;
    const uint8_t* l2 = nullptr;  // the link header (destination, source, type or length)
    size_t l2Len = 0;
    const uint8_t* payload = nullptr;  // what follows it, cut at the group's copy range
    size_t payloadLen = 0;
};

// A group's sequence numbers as they come: how many frames the kernel
// numbered but could not queue before this one.
struct Sequence {
    bool known = false;
    uint32_t next = 0;
    uint32_t lost(const Packet& p)
    {
        if (!p.hasSeq)
            return 0;
        uint32_t gap = known ? p.seq - next : 0;
        known = true;
        next = p.seq + 1;
        return gap;
    }
};

// Calls each(packet, arg) for every logged frame of one datagram; a
// message that is not a logged frame, or that is malformed, is passed over
// and counted. Returns the number of malformed messages.
using Each = void (*)(const Packet& p, void* arg);
size_t parse(const uint8_t* data, size_t len, Each each, void* arg);

// The frame of a packet, link header and payload, into buf (room bytes);
// its length, or 0 when it does not fit or has no link header.
size_t frameOf(const Packet& p, uint8_t* buf, size_t room);

// The configuration messages that bind a socket to group and have it copy
// copyRange bytes of every frame at once (no batching), with sequence
// numbers. Each is written to buf (at least kRequestRoom bytes); its length.
constexpr size_t kRequestRoom = 64;
size_t bindRequest(uint8_t* buf, uint16_t group, uint32_t seq);
size_t modeRequest(uint8_t* buf, uint16_t group, uint32_t copyRange, uint32_t seq);

// The UDP checksum of an unfragmented IPv4 frame (untagged or with an
// 802.1Q tag in the frame) computed and written: a local stack hands its
// device the frame with only the sum of the addresses there (offloaded).
void completeUdpChecksum(uint8_t* f, size_t len);
// The same only where the checksum field holds just that sum, as a frame
// the kernel logged before its checksum was computed does (the log does
// not say so, unlike an AF_PACKET socket). A frame whose checksum was
// right is left as it was; true when it was completed.
bool completePartialUdpChecksum(uint8_t* f, size_t len);

// Waits on s for the acknowledgement (an NLMSG_ERROR of sequence number
// seq) of a request; other messages are passed over. False with error when
// the kernel refused it, or said nothing within timeoutMs.
constexpr int kAckTimeoutMs = 2000;
bool awaitAck(int s, uint32_t seq, int timeoutMs, const std::string& what, std::string& error);

// A netlink socket bound to group and configured as above; -1 with error.
// A group another program holds is refused by the kernel (EPERM, as for a
// caller without CAP_NET_ADMIN: the error says which it was).
int open(uint16_t group, uint32_t copyRange, std::string& error);

}  // namespace nflog
}  // namespace live
