#include "support/frame_builder.h"

#include <algorithm>
#include <stdexcept>

namespace fb {

namespace {

void put8(Bytes& b, uint8_t v) { b.push_back(v); }

void put16(Bytes& b, uint16_t v) {
  b.push_back(static_cast<uint8_t>(v >> 8));
  b.push_back(static_cast<uint8_t>(v));
}

void put32(Bytes& b, uint32_t v) {
  put16(b, static_cast<uint16_t>(v >> 16));
  put16(b, static_cast<uint16_t>(v));
}

template <typename C>
void append(Bytes& b, const C& c) {
  b.insert(b.end(), c.begin(), c.end());
}

uint16_t rd16(const uint8_t* p) {
  return static_cast<uint16_t>((static_cast<unsigned>(p[0]) << 8) | p[1]);
}

// Sum of big-endian 16-bit words (RFC 1071); an odd last byte is the high
// half of a word. The word at even offset `skip` counts as zero, so a
// checksum can be computed over a buffer that already holds one.
uint64_t sumWords(const uint8_t* p, size_t n, size_t skip) {
  uint64_t acc = 0;
  for (size_t i = 0; i < n; i += 2) {
    if (i == skip) continue;
    uint32_t w = static_cast<uint32_t>(p[i]) << 8;
    if (i + 1 < n) w |= p[i + 1];
    acc += w;
  }
  return acc;
}

uint16_t foldComplement(uint64_t acc) {
  while (acc >> 16) acc = (acc & 0xffff) + (acc >> 16);
  return static_cast<uint16_t>(~acc & 0xffff);
}

// udpBytes may be less than pseudoLen when the length field claims more than
// was sent; the sum covers only the bytes given.
uint16_t udpSum(const uint8_t* ip, const uint8_t* udp, size_t udpBytes, uint16_t pseudoLen) {
  uint64_t acc = sumWords(ip + ipf::kSrc, 8, npos);  // source and destination
  acc += ip[ipf::kProtocol];
  acc += pseudoLen;
  acc += sumWords(udp, udpBytes, udpf::kChecksum);
  uint16_t c = foldComplement(acc);
  // 0 means "no checksum" on the wire, so a computed 0 goes out as all ones.
  return c == 0 ? 0xffff : c;
}

bool fits(const Bytes& f, size_t off, size_t n) { return off <= f.size() && f.size() - off >= n; }

void need(const Bytes& f, size_t off, size_t n) {
  if (!fits(f, off, n)) {
    throw std::out_of_range("fb: " + std::to_string(n) + " byte(s) at offset " +
                            std::to_string(off) + " outside a " +
                            std::to_string(f.size()) + "-byte frame");
  }
}

bool isTagTpid(uint16_t t) { return t == kTpid8021Q || t == 0x88a8; }

constexpr uint16_t kMax8023Length = 1500;
constexpr uint16_t kMinEtherType = 0x0600;
constexpr size_t kLlcSnapLen = 8;

// Offset of the type-or-length field after any tags; npos if truncated.
size_t typeOrLengthOffset(const Bytes& f) {
  size_t off = 12;
  while (fits(f, off, 2) && isTagTpid(rd16(&f[off]))) off += 4;
  return fits(f, off, 2) ? off : npos;
}

bool isSnap(const Bytes& f, size_t llc) {
  return fits(f, llc, kLlcSnapLen) && f[llc] == 0xaa && f[llc + 1] == 0xaa && f[llc + 2] == 0x03;
}

struct Walk {
  std::vector<ParsedOption> options;
  size_t end = npos;  // END option
  bool complete = false;
};

Walk walkOptions(const Bytes& buf, size_t begin, size_t end) {
  Walk w;
  end = std::min(end, buf.size());
  size_t i = begin;
  while (i < end) {
    uint8_t code = buf[i];
    if (code == kOptPad) {
      ++i;
      continue;
    }
    if (code == kOptEnd) {
      w.end = i;
      w.complete = true;
      return w;
    }
    if (end - i < 2) return w;  // no length byte
    size_t len = buf[i + 1];
    if (end - i - 2 < len) return w;  // value runs past the area
    w.options.push_back({code, i, Bytes(buf.begin() + static_cast<std::ptrdiff_t>(i + 2),
                                        buf.begin() + static_cast<std::ptrdiff_t>(i + 2 + len))});
    i += 2 + len;
  }
  w.complete = true;
  return w;
}

// End of the UDP payload per the UDP length field, clamped to the frame.
size_t udpPayloadEnd(const Bytes& f) {
  size_t udp = udpOffset(f);
  if (udp == npos || !fits(f, udp, udpf::kHeaderLen)) return f.size();
  size_t len = rd16(&f[udp + udpf::kLength]);
  if (len < udpf::kHeaderLen) return f.size();
  return std::min(f.size(), udp + len);
}

}  // namespace

Bytes bytes(const std::string& s) { return Bytes(s.begin(), s.end()); }

// ---- RelayAgentInfo / Options -----------------------------------------------

RelayAgentInfo& RelayAgentInfo::sub(uint8_t code, Bytes v) {
  if (v.size() > 255) throw std::length_error("fb: sub-option value over 255 bytes");
  subs.emplace_back(code, std::move(v));
  return *this;
}

Bytes RelayAgentInfo::encode() const {
  Bytes out;
  for (const auto& s : subs) {
    put8(out, s.first);
    put8(out, static_cast<uint8_t>(s.second.size()));
    append(out, s.second);
  }
  return out;
}

Options& Options::requestedIp(uint32_t addr) {
  Bytes v;
  put32(v, addr);
  return option(kOptRequestedIp, std::move(v));
}

Options& Options::leaseTime(uint32_t seconds) {
  Bytes v;
  put32(v, seconds);
  return option(kOptLeaseTime, std::move(v));
}

Options& Options::serverId(uint32_t addr) {
  Bytes v;
  put32(v, addr);
  return option(kOptServerId, std::move(v));
}

Options& Options::option(uint8_t code, Bytes value) {
  if (value.size() > 255) throw std::length_error("fb: option value over 255 bytes");
  Element e;
  e.kind = Element::Kind::Tlv;
  e.code = code;
  e.data = std::move(value);
  elements_.push_back(std::move(e));
  return *this;
}

Options& Options::optionWithLength(uint8_t code, uint8_t len, Bytes value) {
  Element e;
  e.kind = Element::Kind::Tlv;
  e.code = code;
  e.len = len;
  e.data = std::move(value);
  elements_.push_back(std::move(e));
  return *this;
}

Options& Options::raw(Bytes b) {
  Element e;
  e.kind = Element::Kind::Raw;
  e.data = std::move(b);
  elements_.push_back(std::move(e));
  return *this;
}

Options& Options::remove(uint8_t code) {
  elements_.erase(std::remove_if(elements_.begin(), elements_.end(),
                                 [code](const Element& e) {
                                   return e.kind == Element::Kind::Tlv && e.code == code;
                                 }),
                  elements_.end());
  return *this;
}

bool Options::has(uint8_t code) const {
  return std::any_of(elements_.begin(), elements_.end(), [code](const Element& e) {
    return e.kind == Element::Kind::Tlv && e.code == code;
  });
}

Bytes Options::encode() const {
  Bytes out;
  for (const auto& e : elements_) {
    if (e.kind == Element::Kind::Tlv) {
      put8(out, e.code);
      put8(out, e.len ? *e.len : static_cast<uint8_t>(e.data.size()));
    }
    append(out, e.data);
  }
  return out;
}

std::vector<size_t> Options::offsets() const {
  std::vector<size_t> out;
  size_t off = 0;
  for (const auto& e : elements_) {
    out.push_back(off);
    off += e.data.size() + (e.kind == Element::Kind::Tlv ? 2 : 0);
  }
  return out;
}

size_t Options::encodedSize() const {
  size_t n = 0;
  for (const auto& e : elements_) n += e.data.size() + (e.kind == Element::Kind::Tlv ? 2 : 0);
  return n;
}

// ---- Frame ------------------------------------------------------------------

Frame& Frame::vlan(uint16_t vid, uint8_t pcp, bool dei) {
  Eth::Tag t;
  t.vid = vid;
  t.pcp = pcp;
  t.dei = dei;
  eth.tag = t;
  return *this;
}

Frame& Frame::chaddr(const Mac& m) {
  std::array<uint8_t, bootpf::kChaddrLen> c{};
  std::copy(m.begin(), m.end(), c.begin());
  bootp.chaddr = c;
  return *this;
}

Frame& Frame::sname(Bytes b) {
  if (b.size() > bootpf::kSnameLen) throw std::length_error("fb: sname over 64 bytes");
  bootp.sname = std::move(b);
  return *this;
}

Frame& Frame::file(Bytes b) {
  if (b.size() > bootpf::kFileLen) throw std::length_error("fb: file over 128 bytes");
  bootp.file = std::move(b);
  return *this;
}

std::pair<Bytes, Layout> Frame::buildWithLayout() const {
  Bytes f;
  f.reserve(400);
  Layout L;

  // Ethernet
  append(f, eth.dst);
  append(f, eth.src);
  if (eth.tag) {
    L.vlan = f.size();
    put16(f, eth.tag->tpid);
    put16(f, static_cast<uint16_t>((static_cast<unsigned>(eth.tag->pcp & 0x7) << 13) |
                                   (eth.tag->dei ? 0x1000u : 0u) | (eth.tag->vid & 0x0fffu)));
  }
  L.typeOrLength = f.size();
  if (eth.framing == Framing::Snap) {
    put16(f, 0);  // filled in once the payload size is known
    L.llc = f.size();
    append(f, Bytes{0xaa, 0xaa, 0x03, 0x00, 0x00, 0x00});
    put16(f, eth.etherType);
  } else {
    put16(f, eth.etherType);
  }

  // IPv4; IHL is a 4-bit field, and the header never shrinks below 20 bytes
  // so that an IHL under 5 can be sent without losing the fixed fields.
  L.ip = f.size();
  const uint8_t ihlField = ip.ihl & 0x0f;
  const size_t ihlBytes = static_cast<size_t>(std::max<uint8_t>(ihlField, 5)) * 4;
  put8(f, static_cast<uint8_t>((ip.version << 4) | ihlField));
  put8(f, ip.tos);
  put16(f, 0);  // total length
  put16(f, ip.id);
  put16(f, ip.fragment);
  put8(f, ip.ttl);
  put8(f, ip.protocol);
  put16(f, 0);  // checksum
  put32(f, ip.src);
  put32(f, ip.dst);
  Bytes ipOpts = ip.options;
  ipOpts.resize(ihlBytes - 20, 0);
  append(f, ipOpts);

  // UDP
  L.udp = f.size();
  put16(f, udp.srcPort);
  put16(f, udp.dstPort);
  put16(f, 0);  // length
  put16(f, 0);  // checksum

  // BOOTP fixed header
  L.bootp = f.size();
  put8(f, bootp.op);
  put8(f, bootp.htype);
  put8(f, bootp.hlen);
  put8(f, bootp.hops);
  put32(f, bootp.xid);
  put16(f, bootp.secs);
  put16(f, bootp.flags);
  put32(f, bootp.ciaddr);
  put32(f, bootp.yiaddr);
  put32(f, bootp.siaddr);
  put32(f, bootp.giaddr);
  if (bootp.chaddr) {
    append(f, *bootp.chaddr);
  } else {
    append(f, eth.src);
    f.resize(f.size() + bootpf::kChaddrLen - eth.src.size(), 0);
  }
  L.sname = f.size();
  append(f, bootp.sname);
  f.resize(L.sname + bootpf::kSnameLen, 0);
  L.file = f.size();
  append(f, bootp.file);
  f.resize(L.file + bootpf::kFileLen, 0);

  // DHCP
  if (dhcp.cookie) {
    L.cookie = f.size();
    append(f, *dhcp.cookie);
  }
  L.options = f.size();
  for (size_t off : dhcp.options.offsets()) L.option.push_back(L.options + off);
  append(f, dhcp.options.encode());
  if (dhcp.end) {
    L.end = f.size();
    put8(f, kOptEnd);
  }
  L.trailer = f.size();
  append(f, dhcp.trailer);
  if (f.size() - L.bootp < dhcp.padTo) f.resize(L.bootp + dhcp.padTo, 0);
  L.ipEnd = f.size();

  // Lengths
  if (eth.framing == Framing::Snap) {
    const size_t after = f.size() - (L.typeOrLength + 2);
    set16(f, L.typeOrLength, eth.length ? *eth.length : static_cast<uint16_t>(after));
  }
  set16(f, L.ip + ipf::kTotalLength,
        ip.totalLength ? *ip.totalLength : static_cast<uint16_t>(f.size() - L.ip));
  const size_t udpActual = f.size() - L.udp;
  const uint16_t udpLenField = udp.length ? *udp.length : static_cast<uint16_t>(udpActual);
  set16(f, L.udp + udpf::kLength, udpLenField);

  // Checksums, over what was written above
  set16(f, L.ip + ipf::kChecksum,
        ip.checksum ? *ip.checksum : ipv4HeaderChecksum(&f[L.ip], ihlBytes));
  uint16_t uc = 0;
  if (udp.checksum) {
    uc = *udp.checksum;
  } else if (udp.checksumOn) {
    uc = udpSum(&f[L.ip], &f[L.udp], std::min<size_t>(udpLenField, udpActual), udpLenField);
  }
  set16(f, L.udp + udpf::kChecksum, uc);

  append(f, eth.padding);
  L.size = f.size();
  return {std::move(f), std::move(L)};
}

Bytes Frame::build() const { return buildWithLayout().first; }
Layout Frame::layout() const { return buildWithLayout().second; }

// ---- Ready-made messages ----------------------------------------------------

namespace {

Frame fromClient(const Params& p) {
  Frame f;
  f.srcMac(p.clientMac).chaddr(p.clientMac).xid(p.xid);
  return f;
}

Frame fromServer(const Params& p) {
  Frame f;
  f.srcMac(p.serverMac)
      .dstMac(p.clientMac)
      .chaddr(p.clientMac)
      .xid(p.xid)
      .op(kBootReply)
      .srcPort(kPortServer)
      .dstPort(kPortClient)
      .srcIp(p.serverIp);
  return f;
}

const Mac kBroadcastMac = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};

}  // namespace

Frame discover(const Params& p) { return fromClient(p).messageType(kDiscover); }

Frame requestSelecting(const Params& p) {
  return fromClient(p).messageType(kRequest).requestedIp(p.clientIp).serverId(p.serverIp);
}

Frame request(const Params& p) { return requestSelecting(p); }

Frame requestInitReboot(const Params& p) {
  return fromClient(p).messageType(kRequest).requestedIp(p.clientIp);
}

Frame requestRenewing(const Params& p) {
  return fromClient(p)
      .messageType(kRequest)
      .ciaddr(p.clientIp)
      .srcIp(p.clientIp)
      .dstIp(p.serverIp)
      .dstMac(p.serverMac);
}

Frame requestRebinding(const Params& p) {
  return fromClient(p).messageType(kRequest).ciaddr(p.clientIp).srcIp(p.clientIp);
}

Frame decline(const Params& p) {
  return fromClient(p).messageType(kDecline).requestedIp(p.clientIp).serverId(p.serverIp);
}

Frame release(const Params& p) {
  return fromClient(p)
      .messageType(kRelease)
      .serverId(p.serverIp)
      .ciaddr(p.clientIp)
      .srcIp(p.clientIp)
      .dstIp(p.serverIp)
      .dstMac(p.serverMac);
}

Frame inform(const Params& p) {
  return fromClient(p).messageType(kInform).ciaddr(p.clientIp).srcIp(p.clientIp);
}

Frame offer(const Params& p) {
  return fromServer(p)
      .messageType(kOffer)
      .serverId(p.serverIp)
      .leaseTime(p.lease)
      .yiaddr(p.clientIp)
      .dstIp(p.clientIp);
}

Frame ack(const Params& p) {
  return fromServer(p)
      .messageType(kAck)
      .serverId(p.serverIp)
      .leaseTime(p.lease)
      .yiaddr(p.clientIp)
      .dstIp(p.clientIp);
}

Frame nak(const Params& p) {
  return fromServer(p).messageType(kNak).serverId(p.serverIp).dstMac(kBroadcastMac).dstIp(
      0xffffffff);
}

Frame bootpRequest(const Params& p) { return fromClient(p).padTo(300); }

Frame bootpReply(const Params& p) {
  return fromServer(p).yiaddr(p.clientIp).dstIp(p.clientIp).padTo(300);
}

// ---- Checksums --------------------------------------------------------------

uint16_t ipv4HeaderChecksum(const uint8_t* ip, size_t ihlBytes) {
  return foldComplement(sumWords(ip, ihlBytes, ipf::kChecksum));
}

uint16_t udpChecksum(const uint8_t* ip) {
  const size_t ihlBytes = static_cast<size_t>(ip[0] & 0x0f) * 4;
  const uint8_t* udp = ip + ihlBytes;
  const uint16_t len = rd16(udp + udpf::kLength);
  return udpSum(ip, udp, len, len);
}

std::optional<uint16_t> udpChecksum(const Bytes& frame, size_t ipOffset) {
  if (!fits(frame, ipOffset, 20)) return std::nullopt;
  const size_t ihlBytes = static_cast<size_t>(frame[ipOffset] & 0x0f) * 4;
  if (ihlBytes < 20) return std::nullopt;
  const size_t udp = ipOffset + ihlBytes;
  if (!fits(frame, udp, udpf::kHeaderLen)) return std::nullopt;
  const uint16_t len = rd16(&frame[udp + udpf::kLength]);
  if (len < udpf::kHeaderLen || !fits(frame, udp, len)) return std::nullopt;
  return udpSum(&frame[ipOffset], &frame[udp], len, len);
}

bool ipv4ChecksumValid(const Bytes& frame, size_t ipOffset) {
  if (!fits(frame, ipOffset, 20)) return false;
  const size_t ihlBytes = static_cast<size_t>(frame[ipOffset] & 0x0f) * 4;
  if (ihlBytes < 20 || !fits(frame, ipOffset, ihlBytes)) return false;
  return ipv4HeaderChecksum(&frame[ipOffset], ihlBytes) ==
         rd16(&frame[ipOffset + ipf::kChecksum]);
}

bool udpChecksumValid(const Bytes& frame, size_t ipOffset, bool allowZero) {
  const auto computed = udpChecksum(frame, ipOffset);
  if (!computed) return false;
  const size_t udp = ipOffset + static_cast<size_t>(frame[ipOffset] & 0x0f) * 4;
  const uint16_t stored = rd16(&frame[udp + udpf::kChecksum]);
  if (stored == 0) return allowZero;
  return stored == *computed;
}

bool refreshChecksums(Bytes& frame) {
  const size_t ipo = ipOffset(frame);
  if (ipo == npos || !fits(frame, ipo, 20)) return false;
  const size_t ihlBytes = static_cast<size_t>(frame[ipo] & 0x0f) * 4;
  if (ihlBytes < 20 || !fits(frame, ipo, ihlBytes)) return false;
  set16(frame, ipo + ipf::kChecksum, ipv4HeaderChecksum(&frame[ipo], ihlBytes));
  if (frame[ipo + ipf::kProtocol] != kProtoUdp) return true;
  const size_t udp = ipo + ihlBytes;
  if (!fits(frame, udp, udpf::kHeaderLen)) return false;
  if (rd16(&frame[udp + udpf::kChecksum]) == 0) return true;  // none was sent
  const auto c = udpChecksum(frame, ipo);
  if (!c) return false;
  set16(frame, udp + udpf::kChecksum, *c);
  return true;
}

// ---- Offsets ----------------------------------------------------------------

size_t ipOffset(const Bytes& frame) {
  const size_t tl = typeOrLengthOffset(frame);
  if (tl == npos) return npos;
  const uint16_t v = rd16(&frame[tl]);
  if (v >= kMinEtherType) return tl + 2;
  if (v <= kMax8023Length && isSnap(frame, tl + 2)) return tl + 2 + kLlcSnapLen;
  return npos;
}

std::optional<uint16_t> etherType(const Bytes& frame) {
  const size_t tl = typeOrLengthOffset(frame);
  if (tl == npos) return std::nullopt;
  const uint16_t v = rd16(&frame[tl]);
  if (v >= kMinEtherType) return v;
  if (v <= kMax8023Length && isSnap(frame, tl + 2)) return rd16(&frame[tl + 2 + 6]);
  return std::nullopt;
}

size_t udpOffset(const Bytes& frame) {
  const size_t ipo = ipOffset(frame);
  if (ipo == npos || !fits(frame, ipo, 1)) return npos;
  return ipo + static_cast<size_t>(frame[ipo] & 0x0f) * 4;
}

size_t bootpOffset(const Bytes& frame) {
  const size_t u = udpOffset(frame);
  return u == npos ? npos : u + udpf::kHeaderLen;
}

size_t cookieOffset(const Bytes& frame) {
  const size_t b = bootpOffset(frame);
  return b == npos ? npos : b + bootpf::kCookie;
}

size_t optionsOffset(const Bytes& frame) {
  const size_t b = bootpOffset(frame);
  return b == npos ? npos : b + bootpf::kOptions;
}

namespace {
size_t field(size_t base, size_t off, const char* layer) {
  if (base == npos) throw std::out_of_range(std::string("fb: no ") + layer + " header in frame");
  return base + off;
}
}  // namespace

size_t ipField(const Bytes& frame, size_t off) { return field(ipOffset(frame), off, "IPv4"); }
size_t udpField(const Bytes& frame, size_t off) { return field(udpOffset(frame), off, "UDP"); }
size_t bootpField(const Bytes& frame, size_t off) {
  return field(bootpOffset(frame), off, "BOOTP");
}

// ---- Reading and mutating ---------------------------------------------------

uint8_t get8(const Bytes& frame, size_t offset) {
  need(frame, offset, 1);
  return frame[offset];
}

uint16_t get16(const Bytes& frame, size_t offset) {
  need(frame, offset, 2);
  return rd16(&frame[offset]);
}

uint32_t get32(const Bytes& frame, size_t offset) {
  need(frame, offset, 4);
  return (static_cast<uint32_t>(rd16(&frame[offset])) << 16) | rd16(&frame[offset + 2]);
}

Bytes getBytes(const Bytes& frame, size_t offset, size_t n) {
  need(frame, offset, n);
  const auto first = frame.begin() + static_cast<std::ptrdiff_t>(offset);
  return Bytes(first, first + static_cast<std::ptrdiff_t>(n));
}

void set8(Bytes& frame, size_t offset, uint8_t v) {
  need(frame, offset, 1);
  frame[offset] = v;
}

void set16(Bytes& frame, size_t offset, uint16_t v) {
  need(frame, offset, 2);
  frame[offset] = static_cast<uint8_t>(v >> 8);
  frame[offset + 1] = static_cast<uint8_t>(v);
}

void set32(Bytes& frame, size_t offset, uint32_t v) {
  need(frame, offset, 4);
  set16(frame, offset, static_cast<uint16_t>(v >> 16));
  set16(frame, offset + 2, static_cast<uint16_t>(v));
}

void setBytes(Bytes& frame, size_t offset, const Bytes& b) {
  need(frame, offset, b.size());
  std::copy(b.begin(), b.end(), frame.begin() + static_cast<std::ptrdiff_t>(offset));
}

void truncate(Bytes& frame, size_t n) {
  if (frame.size() > n) frame.resize(n);
}

uint16_t ipTotalLength(const Bytes& frame) {
  return get16(frame, ipField(frame, ipf::kTotalLength));
}
uint16_t udpLength(const Bytes& frame) { return get16(frame, udpField(frame, udpf::kLength)); }
uint32_t xidOf(const Bytes& frame) { return get32(frame, bootpField(frame, bootpf::kXid)); }
uint32_t giaddrOf(const Bytes& frame) { return get32(frame, bootpField(frame, bootpf::kGiaddr)); }
uint8_t hopsOf(const Bytes& frame) { return get8(frame, bootpField(frame, bootpf::kHops)); }

// ---- 802.1Q -----------------------------------------------------------------

std::optional<uint16_t> vlanId(const Bytes& frame) {
  if (!fits(frame, 12, 4) || !isTagTpid(rd16(&frame[12]))) return std::nullopt;
  return static_cast<uint16_t>(rd16(&frame[14]) & 0x0fff);
}

Bytes stripVlan(const Bytes& frame) {
  if (!fits(frame, 12, 4) || !isTagTpid(rd16(&frame[12]))) return frame;
  Bytes out(frame.begin(), frame.begin() + 12);
  out.insert(out.end(), frame.begin() + 16, frame.end());
  return out;
}

Bytes addVlan(const Bytes& frame, uint16_t vid, uint8_t pcp, uint16_t tpid) {
  need(frame, 0, 12);
  Bytes out(frame.begin(), frame.begin() + 12);
  put16(out, tpid);
  put16(out, static_cast<uint16_t>((static_cast<unsigned>(pcp & 0x7) << 13) | (vid & 0x0fffu)));
  out.insert(out.end(), frame.begin() + 12, frame.end());
  return out;
}

Bytes snapOf(const Bytes& frame, uint32_t oui) {
  need(frame, 0, 14);
  Bytes out(frame.begin(), frame.begin() + 12);
  put16(out, 0);
  append(out, Bytes{0xaa, 0xaa, 0x03, static_cast<uint8_t>(oui >> 16), static_cast<uint8_t>(oui >> 8),
                    static_cast<uint8_t>(oui)});
  out.insert(out.end(), frame.begin() + 12, frame.end());
  set16(out, 12, static_cast<uint16_t>(out.size() - 14));
  return out;
}

// ---- Options of a frame on the wire -----------------------------------------

std::vector<ParsedOption> parseOptions(const Bytes& buf, size_t begin, size_t end,
                                       bool* complete) {
  Walk w = walkOptions(buf, begin, end);
  if (complete) *complete = w.complete;
  return std::move(w.options);
}

std::vector<ParsedOption> optionsOf(const Bytes& frame, bool followOverload) {
  const size_t opts = optionsOffset(frame);
  if (opts == npos) return {};
  std::vector<ParsedOption> out = walkOptions(frame, opts, udpPayloadEnd(frame)).options;
  if (!followOverload) return out;
  uint8_t which = 0;
  for (const auto& o : out) {
    if (o.code == kOptOverload && o.value.size() == 1) {
      which = o.value[0];
      break;
    }
  }
  const size_t b = bootpOffset(frame);
  // Options field first, then file, then sname.
  if (which & kOverloadFile) {
    auto more = walkOptions(frame, b + bootpf::kFile, b + bootpf::kFile + bootpf::kFileLen).options;
    out.insert(out.end(), more.begin(), more.end());
  }
  if (which & kOverloadSname) {
    auto more =
        walkOptions(frame, b + bootpf::kSname, b + bootpf::kSname + bootpf::kSnameLen).options;
    out.insert(out.end(), more.begin(), more.end());
  }
  return out;
}

std::optional<Bytes> findOption(const Bytes& frame, uint8_t code, bool followOverload) {
  for (auto& o : optionsOf(frame, followOverload)) {
    if (o.code == code) return std::move(o.value);
  }
  return std::nullopt;
}

size_t findOptionOffset(const Bytes& frame, uint8_t code) {
  for (const auto& o : optionsOf(frame)) {
    if (o.code == code) return o.offset;
  }
  return npos;
}

size_t endOffset(const Bytes& frame) {
  const size_t opts = optionsOffset(frame);
  if (opts == npos) return npos;
  return walkOptions(frame, opts, udpPayloadEnd(frame)).end;
}

std::optional<Bytes> findSubOption(const Bytes& option82, uint8_t sub) {
  size_t i = 0;
  while (option82.size() - i >= 2) {
    const size_t len = option82[i + 1];
    if (option82.size() - i - 2 < len) return std::nullopt;
    const auto first = option82.begin() + static_cast<std::ptrdiff_t>(i + 2);
    if (option82[i] == sub) return Bytes(first, first + static_cast<std::ptrdiff_t>(len));
    i += 2 + len;
  }
  return std::nullopt;
}

std::optional<uint8_t> messageTypeOf(const Bytes& frame) {
  const auto v = findOption(frame, kOptMessageType);
  if (!v || v->size() != 1) return std::nullopt;
  return (*v)[0];
}

// ---- ARP ---------------------------------------------------------------------

Bytes arp(uint16_t op, const Mac& senderMac, uint32_t senderIp, uint32_t targetIp, const Mac& dst,
          const Mac& targetMac) {
  Bytes b(dst.begin(), dst.end());
  b.insert(b.end(), senderMac.begin(), senderMac.end());
  put16(b, kEtherTypeArp);
  put16(b, 1);               // Ethernet
  put16(b, kEtherTypeIpv4);  // IPv4
  put8(b, 6);
  put8(b, 4);
  put16(b, op);
  b.insert(b.end(), senderMac.begin(), senderMac.end());
  put32(b, senderIp);
  b.insert(b.end(), targetMac.begin(), targetMac.end());
  put32(b, targetIp);
  b.resize(60, 0);
  return b;
}

}  // namespace fb
