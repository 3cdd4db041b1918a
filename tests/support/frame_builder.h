// Frame builder shared by all tests: DHCP/BOOTP over UDP/IPv4 over Ethernet II
// or IEEE 802.3 LLC/SNAP, optionally 802.1Q tagged.
//
// All values in the API are host order; they are written big-endian on the
// wire byte by byte, so the code behaves the same on little- and big-endian
// hosts.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace fb {

using Bytes = std::vector<uint8_t>;
using Mac = std::array<uint8_t, 6>;

// "Not present / not found" for offsets.
constexpr size_t npos = static_cast<size_t>(-1);

constexpr uint32_t ip(uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
  return (static_cast<uint32_t>(a) << 24) | (static_cast<uint32_t>(b) << 16) |
         (static_cast<uint32_t>(c) << 8) | static_cast<uint32_t>(d);
}

// Bytes of a string, without a terminator (circuit/remote IDs, sname, ...).
Bytes bytes(const std::string& s);

// ---- Protocol numbers -------------------------------------------------------

constexpr uint16_t kEtherTypeIpv4 = 0x0800;
constexpr uint16_t kTpid8021Q = 0x8100;
constexpr uint16_t kTpid8021AD = 0x88a8;  // service (outer) tag of QinQ
constexpr uint16_t kEtherTypeIpv6 = 0x86dd;
constexpr uint8_t kProtoUdp = 17;
constexpr uint16_t kPortServer = 67;
constexpr uint16_t kPortClient = 68;
constexpr uint8_t kBootRequest = 1;
constexpr uint8_t kBootReply = 2;
constexpr uint16_t kFlagBroadcast = 0x8000;
constexpr std::array<uint8_t, 4> kMagicCookie = {0x63, 0x82, 0x53, 0x63};

// DHCP message types (option 53).
constexpr uint8_t kDiscover = 1;
constexpr uint8_t kOffer = 2;
constexpr uint8_t kRequest = 3;
constexpr uint8_t kDecline = 4;
constexpr uint8_t kAck = 5;
constexpr uint8_t kNak = 6;
constexpr uint8_t kRelease = 7;
constexpr uint8_t kInform = 8;

// Option codes.
constexpr uint8_t kOptPad = 0;
constexpr uint8_t kOptRequestedIp = 50;
constexpr uint8_t kOptLeaseTime = 51;
constexpr uint8_t kOptOverload = 52;
constexpr uint8_t kOptMessageType = 53;
constexpr uint8_t kOptServerId = 54;
constexpr uint8_t kOptParamList = 55;
constexpr uint8_t kOptRelayAgent = 82;
constexpr uint8_t kOptEnd = 255;

// Option 82 sub-options.
constexpr uint8_t kSubCircuitId = 1;
constexpr uint8_t kSubRemoteId = 2;

// Option 52 values.
constexpr uint8_t kOverloadFile = 1;
constexpr uint8_t kOverloadSname = 2;
constexpr uint8_t kOverloadBoth = 3;

// ---- Field offsets, relative to the start of their header -------------------

namespace ipf {
constexpr size_t kVerIhl = 0, kTos = 1, kTotalLength = 2, kId = 4, kFragment = 6,
                 kTtl = 8, kProtocol = 9, kChecksum = 10, kSrc = 12, kDst = 16;
}
namespace udpf {
constexpr size_t kSrcPort = 0, kDstPort = 2, kLength = 4, kChecksum = 6;
constexpr size_t kHeaderLen = 8;
}
namespace bootpf {
constexpr size_t kOp = 0, kHtype = 1, kHlen = 2, kHops = 3, kXid = 4, kSecs = 8,
                 kFlags = 10, kCiaddr = 12, kYiaddr = 16, kSiaddr = 20,
                 kGiaddr = 24, kChaddr = 28, kSname = 44, kFile = 108,
                 kCookie = 236, kOptions = 240;
constexpr size_t kFixedLen = 236, kChaddrLen = 16, kSnameLen = 64, kFileLen = 128;
}

// ---- Option 82 --------------------------------------------------------------

// Sub-options of option 82, encoded in the order they were added.
struct RelayAgentInfo {
  std::vector<std::pair<uint8_t, Bytes>> subs;

  RelayAgentInfo& circuitId(Bytes v) { return sub(kSubCircuitId, std::move(v)); }
  RelayAgentInfo& remoteId(Bytes v) { return sub(kSubRemoteId, std::move(v)); }
  RelayAgentInfo& sub(uint8_t code, Bytes v);
  // The option's value: code, len, data for each sub-option.
  Bytes encode() const;
};

// ---- Options ----------------------------------------------------------------

// An ordered list of option elements. encode() writes exactly what was added:
// no END is implied, which makes it usable for sname/file contents.
class Options {
 public:
  struct Element {
    enum class Kind { Tlv, Raw };
    Kind kind = Kind::Tlv;
    uint8_t code = 0;          // Tlv only
    std::optional<uint8_t> len;  // Tlv only: length byte if not data.size()
    Bytes data;                // Tlv: value; Raw: bytes written verbatim
  };

  Options& messageType(uint8_t type) { return option(kOptMessageType, {type}); }
  Options& requestedIp(uint32_t addr);
  Options& leaseTime(uint32_t seconds);
  Options& serverId(uint32_t addr);
  Options& overload(uint8_t which) { return option(kOptOverload, {which}); }
  Options& paramList(Bytes codes) { return option(kOptParamList, std::move(codes)); }
  Options& relayAgent(const RelayAgentInfo& info) {
    return option(kOptRelayAgent, info.encode());
  }
  // n pad bytes (code 0, no length) as one element.
  Options& pad(size_t n = 1) { return raw(Bytes(n, kOptPad)); }
  Options& end() { return raw({kOptEnd}); }
  // code, len, value. Throws std::length_error for values over 255 bytes.
  Options& option(uint8_t code, Bytes value);
  // code, len, value with a length byte that need not match the value.
  Options& optionWithLength(uint8_t code, uint8_t len, Bytes value);
  // Bytes written as they are (malformed or partial options).
  Options& raw(Bytes b);

  // Removes every code/len/value element with this code.
  Options& remove(uint8_t code);
  Options& clear() {
    elements_.clear();
    return *this;
  }

  Bytes encode() const;
  // Offset of each element's first byte, relative to the start of encode().
  std::vector<size_t> offsets() const;
  size_t encodedSize() const;
  const std::vector<Element>& elements() const { return elements_; }
  bool has(uint8_t code) const;

 private:
  std::vector<Element> elements_;
};

// ---- Frame description ------------------------------------------------------

enum class Framing { EthernetII, Snap };

// Where everything of a built frame is, as absolute byte offsets.
struct Layout {
  size_t vlan = npos;          // TPID of the 802.1Q tag
  size_t typeOrLength = 12;    // EtherType (Ethernet II) or length (802.3)
  size_t llc = npos;           // LLC/SNAP header (802.3 only)
  size_t ip = 0;
  size_t udp = 0;
  size_t bootp = 0;
  size_t sname = 0;
  size_t file = 0;
  size_t cookie = npos;        // npos if the cookie was omitted
  size_t options = 0;          // right after the cookie (or where it would be)
  std::vector<size_t> option;  // first byte of each Options element, in order
  size_t end = npos;           // the implicit END, npos with noEnd()
  size_t trailer = 0;          // bytes after the options: trailer, then padding
  size_t ipEnd = 0;            // end of the IP datagram (start of Ethernet padding)
  size_t size = 0;
};

struct Frame {
  struct Eth {
    Mac dst = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
    Mac src = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    Framing framing = Framing::EthernetII;
    uint16_t etherType = kEtherTypeIpv4;  // also the SNAP type
    std::optional<uint16_t> length;       // 802.3 length field override
    struct Tag {
      uint16_t tpid = kTpid8021Q;
      uint8_t pcp = 0;
      bool dei = false;
      uint16_t vid = 0;
    };
    std::optional<Tag> tag;
    Bytes padding;  // after the IP datagram, counted in no length field
  } eth;

  struct Ip {
    uint8_t version = 4;
    uint8_t ihl = 5;  // header is max(5, ihl) words; extra bytes from options
    Bytes options;    // cut or zero-padded to (ihl - 5) * 4 bytes
    uint8_t tos = 0;
    std::optional<uint16_t> totalLength;
    uint16_t id = 0;
    uint16_t fragment = 0;  // flags and fragment offset
    uint8_t ttl = 64;
    uint8_t protocol = kProtoUdp;
    std::optional<uint16_t> checksum;
    uint32_t src = 0;
    uint32_t dst = 0xffffffff;
  } ip;

  struct Udp {
    uint16_t srcPort = kPortClient;
    uint16_t dstPort = kPortServer;
    std::optional<uint16_t> length;
    bool checksumOn = true;  // false: sent as 0, "no checksum"
    std::optional<uint16_t> checksum;
  } udp;

  struct Bootp {
    uint8_t op = kBootRequest;
    uint8_t htype = 1;
    uint8_t hlen = 6;
    uint8_t hops = 0;
    uint32_t xid = 0;
    uint16_t secs = 0;
    uint16_t flags = 0;
    uint32_t ciaddr = 0, yiaddr = 0, siaddr = 0, giaddr = 0;
    std::optional<std::array<uint8_t, bootpf::kChaddrLen>> chaddr;  // default: eth.src
    Bytes sname;  // zero-padded to 64
    Bytes file;   // zero-padded to 128
  } bootp;

  struct Dhcp {
    std::optional<Bytes> cookie = Bytes(kMagicCookie.begin(), kMagicCookie.end());
    Options options;
    bool end = true;     // append END after the options
    Bytes trailer;       // after the options/END
    size_t padTo = 0;    // zero-fill until the BOOTP message is this long
  } dhcp;

  // Ethernet
  Frame& dstMac(const Mac& m) { eth.dst = m; return *this; }
  Frame& srcMac(const Mac& m) { eth.src = m; return *this; }
  Frame& snap() { eth.framing = Framing::Snap; return *this; }
  Frame& framing(Framing f) { eth.framing = f; return *this; }
  Frame& etherType(uint16_t t) { eth.etherType = t; return *this; }
  Frame& llcLength(uint16_t len) { eth.length = len; return *this; }
  Frame& vlan(uint16_t vid, uint8_t pcp = 0, bool dei = false);
  Frame& noVlan() { eth.tag.reset(); return *this; }
  Frame& ethPadding(Bytes b) { eth.padding = std::move(b); return *this; }

  // IPv4
  Frame& ipVersion(uint8_t v) { ip.version = v; return *this; }
  Frame& ihl(uint8_t words) { ip.ihl = words; return *this; }
  Frame& ipOptions(Bytes b) { ip.options = std::move(b); return *this; }
  Frame& tos(uint8_t v) { ip.tos = v; return *this; }
  Frame& ipTotalLength(uint16_t v) { ip.totalLength = v; return *this; }
  Frame& ipId(uint16_t v) { ip.id = v; return *this; }
  Frame& fragment(uint16_t flagsAndOffset) { ip.fragment = flagsAndOffset; return *this; }
  Frame& ttl(uint8_t v) { ip.ttl = v; return *this; }
  Frame& protocol(uint8_t v) { ip.protocol = v; return *this; }
  Frame& ipChecksum(uint16_t v) { ip.checksum = v; return *this; }
  Frame& srcIp(uint32_t a) { ip.src = a; return *this; }
  Frame& dstIp(uint32_t a) { ip.dst = a; return *this; }

  // UDP
  Frame& srcPort(uint16_t p) { udp.srcPort = p; return *this; }
  Frame& dstPort(uint16_t p) { udp.dstPort = p; return *this; }
  Frame& udpLength(uint16_t v) { udp.length = v; return *this; }
  Frame& udpChecksum(uint16_t v) { udp.checksum = v; return *this; }
  Frame& noUdpChecksum() { udp.checksumOn = false; udp.checksum.reset(); return *this; }

  // BOOTP
  Frame& op(uint8_t v) { bootp.op = v; return *this; }
  Frame& htype(uint8_t v) { bootp.htype = v; return *this; }
  Frame& hlen(uint8_t v) { bootp.hlen = v; return *this; }
  Frame& hops(uint8_t v) { bootp.hops = v; return *this; }
  Frame& xid(uint32_t v) { bootp.xid = v; return *this; }
  Frame& secs(uint16_t v) { bootp.secs = v; return *this; }
  Frame& flags(uint16_t v) { bootp.flags = v; return *this; }
  Frame& broadcast() { bootp.flags |= kFlagBroadcast; return *this; }
  Frame& ciaddr(uint32_t a) { bootp.ciaddr = a; return *this; }
  Frame& yiaddr(uint32_t a) { bootp.yiaddr = a; return *this; }
  Frame& siaddr(uint32_t a) { bootp.siaddr = a; return *this; }
  Frame& giaddr(uint32_t a) { bootp.giaddr = a; return *this; }
  Frame& chaddr(const Mac& m);  // MAC then ten zero bytes
  Frame& chaddr(const std::array<uint8_t, bootpf::kChaddrLen>& c) { bootp.chaddr = c; return *this; }
  // Throw std::length_error if longer than the field.
  Frame& sname(Bytes b);
  Frame& file(Bytes b);

  // DHCP
  Frame& cookie(Bytes b) { dhcp.cookie = std::move(b); return *this; }
  Frame& noCookie() { dhcp.cookie.reset(); return *this; }
  Frame& options(Options o) { dhcp.options = std::move(o); return *this; }
  Frame& messageType(uint8_t t) { dhcp.options.messageType(t); return *this; }
  Frame& requestedIp(uint32_t a) { dhcp.options.requestedIp(a); return *this; }
  Frame& leaseTime(uint32_t s) { dhcp.options.leaseTime(s); return *this; }
  Frame& serverId(uint32_t a) { dhcp.options.serverId(a); return *this; }
  Frame& overload(uint8_t w) { dhcp.options.overload(w); return *this; }
  Frame& paramList(Bytes codes) { dhcp.options.paramList(std::move(codes)); return *this; }
  Frame& relayAgent(const RelayAgentInfo& r) { dhcp.options.relayAgent(r); return *this; }
  Frame& pad(size_t n = 1) { dhcp.options.pad(n); return *this; }
  Frame& option(uint8_t code, Bytes v) { dhcp.options.option(code, std::move(v)); return *this; }
  Frame& optionWithLength(uint8_t code, uint8_t len, Bytes v) {
    dhcp.options.optionWithLength(code, len, std::move(v));
    return *this;
  }
  Frame& rawOptions(Bytes b) { dhcp.options.raw(std::move(b)); return *this; }
  Frame& removeOption(uint8_t code) { dhcp.options.remove(code); return *this; }
  Frame& clearOptions() { dhcp.options.clear(); return *this; }
  // An END element among the options (the implicit one still follows).
  Frame& endOption() { dhcp.options.end(); return *this; }
  Frame& noEnd() { dhcp.end = false; return *this; }
  Frame& trailer(Bytes b) { dhcp.trailer = std::move(b); return *this; }
  // Zero-fill after options/trailer until the BOOTP message is bootpLen bytes.
  Frame& padTo(size_t bootpLen) { dhcp.padTo = bootpLen; return *this; }

  Bytes build() const;
  Layout layout() const;
  // Both at once.
  std::pair<Bytes, Layout> buildWithLayout() const;
};

// ---- Ready-made DHCP/BOOTP messages -----------------------------------------

// Addresses the ready-made messages use.
struct Params {
  Mac clientMac = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
  Mac serverMac = {0x00, 0x53, 0x00, 0x00, 0x00, 0x01};
  uint32_t clientIp = ip(192, 168, 1, 100);  // yiaddr / ciaddr / requested
  uint32_t serverIp = ip(192, 168, 1, 1);
  uint32_t xid = 0x12345678;
  uint32_t lease = 3600;
};

// Client messages: op 1, ports 68 -> 67, src MAC and chaddr = client MAC.
Frame discover(const Params& p = Params());
Frame requestSelecting(const Params& p = Params());  // 50 + 54, broadcast
Frame request(const Params& p = Params());           // same as requestSelecting
Frame requestInitReboot(const Params& p = Params()); // 50, no 54, broadcast
Frame requestRenewing(const Params& p = Params());   // ciaddr, unicast to server, no 50/54
Frame requestRebinding(const Params& p = Params());  // ciaddr, broadcast, no 50/54
Frame decline(const Params& p = Params());           // 50 + 54, broadcast
Frame release(const Params& p = Params());           // ciaddr + 54, unicast to server
Frame inform(const Params& p = Params());            // ciaddr, broadcast
// Server messages: op 2, ports 67 -> 68, src = server, chaddr = client MAC.
Frame offer(const Params& p = Params());  // yiaddr, 54, 51, unicast to client
Frame ack(const Params& p = Params());    // yiaddr, 54, 51, unicast to client
Frame nak(const Params& p = Params());    // 54, broadcast
// BOOTP without option 53: cookie + END, padded to the 300-byte minimum.
Frame bootpRequest(const Params& p = Params());
Frame bootpReply(const Params& p = Params());  // yiaddr, unicast to client

// ---- Checksums --------------------------------------------------------------

// Checksum to put in the header: bytes 10-11 (the checksum field) count as
// zero, so it can be run on a filled-in header.
uint16_t ipv4HeaderChecksum(const uint8_t* ip, size_t ihlBytes);
// UDP checksum over pseudo-header, UDP header and data, checksum field counted
// as zero; a result of 0 is returned as 0xFFFF. Reads IHL from the IP header
// and the length from the UDP header: the caller guarantees that many bytes.
uint16_t udpChecksum(const uint8_t* ip);
// Bounds-checked: nullopt if the frame is shorter than the headers say.
std::optional<uint16_t> udpChecksum(const Bytes& frame, size_t ipOffset);

bool ipv4ChecksumValid(const Bytes& frame, size_t ipOffset);
// A zero checksum ("none sent") counts as valid unless allowZero is false.
bool udpChecksumValid(const Bytes& frame, size_t ipOffset, bool allowZero = true);
// Recomputes the IP header checksum and, if one was sent (non-zero), the UDP
// checksum. Returns false if the headers could not be parsed or exceed the frame.
bool refreshChecksums(Bytes& frame);

// ---- Offsets of a frame on the wire -----------------------------------------
// Computed from the headers, so on a truncated frame they may point past its
// end; npos when the bytes needed to locate them are missing or the framing
// is not understood.

// Offset of the network header after Ethernet II (14), 802.1Q tags (+4 each)
// or 802.3 LLC/SNAP (+8).
size_t ipOffset(const Bytes& frame);
size_t udpOffset(const Bytes& frame);      // from the IHL
size_t bootpOffset(const Bytes& frame);
size_t cookieOffset(const Bytes& frame);
size_t optionsOffset(const Bytes& frame);
// EtherType (or SNAP type) after any tags; nullopt if not parseable.
std::optional<uint16_t> etherType(const Bytes& frame);

// Absolute offset of a field; throw std::out_of_range if the layer is not there.
size_t ipField(const Bytes& frame, size_t fieldOffset);
size_t udpField(const Bytes& frame, size_t fieldOffset);
size_t bootpField(const Bytes& frame, size_t fieldOffset);

// ---- Reading and mutating ---------------------------------------------------
// Big-endian; throw std::out_of_range when outside the frame.

uint8_t get8(const Bytes& frame, size_t offset);
uint16_t get16(const Bytes& frame, size_t offset);
uint32_t get32(const Bytes& frame, size_t offset);
Bytes getBytes(const Bytes& frame, size_t offset, size_t n);
void set8(Bytes& frame, size_t offset, uint8_t v);
void set16(Bytes& frame, size_t offset, uint16_t v);
void set32(Bytes& frame, size_t offset, uint32_t v);
void setBytes(Bytes& frame, size_t offset, const Bytes& b);
// Keeps the first n bytes (no-op if the frame is not longer).
void truncate(Bytes& frame, size_t n);

uint16_t ipTotalLength(const Bytes& frame);
uint16_t udpLength(const Bytes& frame);
uint32_t xidOf(const Bytes& frame);
uint32_t giaddrOf(const Bytes& frame);
uint8_t hopsOf(const Bytes& frame);

// ---- 802.1Q -----------------------------------------------------------------

// VID of the outer tag, nullopt if untagged.
std::optional<uint16_t> vlanId(const Bytes& frame);
// Copy without the outer tag (unchanged if untagged).
Bytes stripVlan(const Bytes& frame);
// Copy with a tag inserted after the source MAC.
Bytes addVlan(const Bytes& frame, uint16_t vid, uint8_t pcp = 0, uint16_t tpid = kTpid8021Q);
// Copy of an untagged Ethernet II frame as 802.3 LLC/SNAP (AA AA 03, the
// given OUI, the EtherType), the length field counting everything after it.
Bytes snapOf(const Bytes& ethernetII, uint32_t oui = 0);

// ---- Options of a frame on the wire -----------------------------------------

struct ParsedOption {
  uint8_t code;
  size_t offset;  // absolute offset of the code byte
  Bytes value;
};

// Code/len/value options of an options area, skipping pads, up to END or the
// end of [begin, end). Stops at an option whose length runs past the area;
// *complete (if given) tells whether the walk ended cleanly (END or area end).
std::vector<ParsedOption> parseOptions(const Bytes& buf, size_t begin, size_t end,
                                       bool* complete = nullptr);
// Options of a frame's options field; with followOverload also those in
// file and then sname, as option 52 says.
std::vector<ParsedOption> optionsOf(const Bytes& frame, bool followOverload = false);
// Value of the first option with this code.
std::optional<Bytes> findOption(const Bytes& frame, uint8_t code, bool followOverload = false);
// Absolute offset of the first option's code byte, npos if absent.
size_t findOptionOffset(const Bytes& frame, uint8_t code);
// Offset of the END option in the options field, npos if absent.
size_t endOffset(const Bytes& frame);
// Value of a sub-option inside an option 82 value.
std::optional<Bytes> findSubOption(const Bytes& option82, uint8_t sub);
// DHCP message type (option 53), nullopt if absent or not one byte.
std::optional<uint8_t> messageTypeOf(const Bytes& frame);

// ---- ARP ---------------------------------------------------------------------

constexpr uint16_t kEtherTypeArp = 0x0806;
constexpr uint16_t kArpRequest = 1;
constexpr uint16_t kArpReply = 2;

// An Ethernet II ARP frame for IPv4 (source MAC = sender MAC), padded to the
// 60-byte minimum.
Bytes arp(uint16_t op, const Mac& senderMac, uint32_t senderIp, uint32_t targetIp,
          const Mac& dst = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff},
          const Mac& targetMac = {0, 0, 0, 0, 0, 0});

}  // namespace fb
