// Tests of the shared frame builder itself: wire layout, checksums, options,
// mutations and parsing helpers. Uses nothing but the builder.
#include <gtest/gtest.h>

#include <stdexcept>

#include "support/frame_builder.h"

namespace {

using fb::Bytes;

Bytes slice(const Bytes& f, size_t off, size_t n) { return fb::getBytes(f, off, n); }

// Built into a reserved vector: appending to one made from a brace list trips
// a false -Warray-bounds in GCC 12 at -O3.
Bytes concat(const Bytes& a, const Bytes& b) {
  Bytes out;
  out.reserve(a.size() + b.size());
  out.insert(out.end(), a.begin(), a.end());
  out.insert(out.end(), b.begin(), b.end());
  return out;
}

// Independent check: the ones' complement sum of a block that includes its
// own correct checksum is 0xFFFF (RFC 1071).
uint16_t onesSum(const Bytes& b) {
  uint32_t s = 0;
  for (size_t i = 0; i < b.size(); i += 2) {
    uint32_t w = static_cast<uint32_t>(b[i]) << 8;
    if (i + 1 < b.size()) w |= b[i + 1];
    s += w;
  }
  while (s >> 16) s = (s & 0xffff) + (s >> 16);
  return static_cast<uint16_t>(s);
}

bool udpVerifiesByFullSum(const Bytes& f, size_t ipo) {
  const size_t ihl = static_cast<size_t>(f[ipo] & 0x0f) * 4;
  const size_t udp = ipo + ihl;
  const uint16_t len = fb::get16(f, udp + 4);
  Bytes pseudo = slice(f, ipo + 12, 8);
  pseudo.push_back(0);
  pseudo.push_back(f[ipo + 9]);
  pseudo.push_back(static_cast<uint8_t>(len >> 8));
  pseudo.push_back(static_cast<uint8_t>(len));
  Bytes all = pseudo;
  Bytes seg = slice(f, udp, len);
  all.insert(all.end(), seg.begin(), seg.end());
  return onesSum(all) == 0xffff;
}

const fb::Mac kClient = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};

// ---- Wire layout -------------------------------------------------------------

TEST(FrameBuilder, DefaultDiscoverByteLayout) {
  const auto [f, L] = fb::discover().buildWithLayout();

  // Ethernet II
  EXPECT_EQ(slice(f, 0, 6), (Bytes{0xff, 0xff, 0xff, 0xff, 0xff, 0xff}));
  EXPECT_EQ(slice(f, 6, 6), (Bytes{0x00, 0x11, 0x22, 0x33, 0x44, 0x55}));
  EXPECT_EQ(slice(f, 12, 2), (Bytes{0x08, 0x00}));

  // IPv4 at 14
  EXPECT_EQ(f[14], 0x45);
  EXPECT_EQ(f[15], 0x00);
  EXPECT_EQ(fb::get16(f, 16), f.size() - 14);  // total length
  EXPECT_EQ(fb::get16(f, 18), 0);              // id
  EXPECT_EQ(fb::get16(f, 20), 0);              // flags/fragment
  EXPECT_EQ(f[22], 64);                        // TTL
  EXPECT_EQ(f[23], 17);                        // UDP
  EXPECT_EQ(slice(f, 26, 4), (Bytes{0, 0, 0, 0}));
  EXPECT_EQ(slice(f, 30, 4), (Bytes{0xff, 0xff, 0xff, 0xff}));

  // UDP at 34
  EXPECT_EQ(slice(f, 34, 4), (Bytes{0x00, 0x44, 0x00, 0x43}));  // 68 -> 67
  EXPECT_EQ(fb::get16(f, 38), f.size() - 34);
  EXPECT_NE(fb::get16(f, 40), 0);

  // BOOTP at 42
  EXPECT_EQ(slice(f, 42, 4), (Bytes{1, 1, 6, 0}));
  EXPECT_EQ(slice(f, 46, 4), (Bytes{0x12, 0x34, 0x56, 0x78}));  // xid
  EXPECT_EQ(fb::get16(f, 50), 0);                               // secs
  EXPECT_EQ(fb::get16(f, 52), 0);                               // flags
  EXPECT_EQ(slice(f, 54, 16), Bytes(16, 0));                    // ci/yi/si/giaddr
  EXPECT_EQ(slice(f, 70, 6), (Bytes{0x00, 0x11, 0x22, 0x33, 0x44, 0x55}));
  EXPECT_EQ(slice(f, 76, 10), Bytes(10, 0));
  EXPECT_EQ(slice(f, 86, 64 + 128), Bytes(64 + 128, 0));  // sname, file

  // Cookie at 278, options at 282: 53/1/DISCOVER, END
  EXPECT_EQ(slice(f, 278, 4), (Bytes{0x63, 0x82, 0x53, 0x63}));
  EXPECT_EQ(slice(f, 282, 4), (Bytes{53, 1, 1, 255}));
  EXPECT_EQ(f.size(), 286u);

  EXPECT_EQ(L.vlan, fb::npos);
  EXPECT_EQ(L.typeOrLength, 12u);
  EXPECT_EQ(L.ip, 14u);
  EXPECT_EQ(L.udp, 34u);
  EXPECT_EQ(L.bootp, 42u);
  EXPECT_EQ(L.sname, 86u);
  EXPECT_EQ(L.file, 150u);
  EXPECT_EQ(L.cookie, 278u);
  EXPECT_EQ(L.options, 282u);
  ASSERT_EQ(L.option.size(), 1u);
  EXPECT_EQ(L.option[0], 282u);
  EXPECT_EQ(L.end, 285u);
  EXPECT_EQ(L.size, f.size());

  EXPECT_EQ(fb::ipOffset(f), 14u);
  EXPECT_EQ(fb::udpOffset(f), 34u);
  EXPECT_EQ(fb::bootpOffset(f), 42u);
  EXPECT_EQ(fb::cookieOffset(f), 278u);
  EXPECT_EQ(fb::optionsOffset(f), 282u);
  EXPECT_EQ(fb::endOffset(f), 285u);
  EXPECT_EQ(fb::etherType(f), 0x0800);
  EXPECT_EQ(fb::messageTypeOf(f), fb::kDiscover);
}

TEST(FrameBuilder, BareFrameDefaults) {
  const auto [f, L] = fb::Frame().buildWithLayout();
  EXPECT_EQ(f.size(), 283u);  // no options: only END
  EXPECT_EQ(L.end, 282u);
  EXPECT_TRUE(L.option.empty());
  EXPECT_EQ(fb::get32(f, 46), 0u);
  EXPECT_EQ(slice(f, 70, 6), Bytes(kClient.begin(), kClient.end()));  // chaddr = src MAC
}

TEST(FrameBuilder, ChaddrFollowsSourceMacUnlessSet) {
  const fb::Mac other = {2, 0, 0, 0, 0, 9};
  Bytes f = fb::Frame().srcMac(other).build();
  EXPECT_EQ(slice(f, 6, 6), Bytes(other.begin(), other.end()));
  EXPECT_EQ(slice(f, 70, 6), Bytes(other.begin(), other.end()));

  f = fb::Frame().srcMac(other).chaddr(kClient).build();
  EXPECT_EQ(slice(f, 70, 6), Bytes(kClient.begin(), kClient.end()));

  std::array<uint8_t, 16> raw{};
  for (size_t i = 0; i < raw.size(); ++i) raw[i] = static_cast<uint8_t>(i + 1);
  f = fb::Frame().chaddr(raw).build();
  EXPECT_EQ(slice(f, 70, 16), Bytes(raw.begin(), raw.end()));
}

TEST(FrameBuilder, SnapFraming) {
  const auto [f, L] = fb::discover().snap().buildWithLayout();
  const Bytes untagged = fb::discover().build();
  ASSERT_EQ(f.size(), untagged.size() + 8);

  EXPECT_EQ(fb::get16(f, 12), f.size() - 14);  // LLC + SNAP + IP datagram
  EXPECT_EQ(slice(f, 14, 8), (Bytes{0xaa, 0xaa, 0x03, 0x00, 0x00, 0x00, 0x08, 0x00}));
  EXPECT_EQ(f[22], 0x45);
  EXPECT_EQ(L.llc, 14u);
  EXPECT_EQ(L.ip, 22u);
  EXPECT_EQ(L.udp, 42u);
  EXPECT_EQ(L.bootp, 50u);
  EXPECT_EQ(L.options, 290u);
  EXPECT_EQ(fb::ipOffset(f), 22u);
  EXPECT_EQ(fb::optionsOffset(f), 290u);
  EXPECT_EQ(fb::etherType(f), 0x0800);
  // Everything from IP on is the same as with Ethernet II.
  EXPECT_EQ(slice(f, 22, f.size() - 22), slice(untagged, 14, untagged.size() - 14));
  EXPECT_TRUE(fb::ipv4ChecksumValid(f, 22));
  EXPECT_TRUE(fb::udpChecksumValid(f, 22));

  const Bytes bad = fb::discover().snap().llcLength(7).build();
  EXPECT_EQ(fb::get16(bad, 12), 7);
}

TEST(FrameBuilder, Vlan8021QTag) {
  const auto [f, L] = fb::discover().vlan(100, 5).buildWithLayout();
  EXPECT_EQ(slice(f, 12, 2), (Bytes{0x81, 0x00}));
  EXPECT_EQ(fb::get16(f, 14), (5u << 13) | 100u);
  EXPECT_EQ(slice(f, 16, 2), (Bytes{0x08, 0x00}));
  EXPECT_EQ(f[18], 0x45);
  EXPECT_EQ(L.vlan, 12u);
  EXPECT_EQ(L.typeOrLength, 16u);
  EXPECT_EQ(L.ip, 18u);
  EXPECT_EQ(L.udp, 38u);
  EXPECT_EQ(L.bootp, 46u);
  EXPECT_EQ(L.cookie, 282u);
  EXPECT_EQ(L.options, 286u);
  EXPECT_EQ(fb::ipOffset(f), 18u);
  EXPECT_EQ(fb::optionsOffset(f), 286u);
  EXPECT_EQ(fb::vlanId(f), 100);
  EXPECT_TRUE(fb::udpChecksumValid(f, 18));

  const Bytes plain = fb::discover().build();
  EXPECT_EQ(fb::stripVlan(f), plain);
  EXPECT_EQ(fb::stripVlan(plain), plain);
  EXPECT_EQ(fb::addVlan(plain, 100, 5), f);
  EXPECT_FALSE(fb::vlanId(plain).has_value());

  const Bytes dei = fb::Frame().vlan(0xfff, 7, true).build();
  EXPECT_EQ(fb::get16(dei, 14), 0xffff);
}

TEST(FrameBuilder, VlanWithSnap) {
  const auto [f, L] = fb::discover().vlan(7).snap().buildWithLayout();
  EXPECT_EQ(fb::get16(f, 12), 0x8100);
  EXPECT_EQ(fb::get16(f, 16), f.size() - 18);
  EXPECT_EQ(slice(f, 18, 3), (Bytes{0xaa, 0xaa, 0x03}));
  EXPECT_EQ(L.ip, 26u);
  EXPECT_EQ(fb::ipOffset(f), 26u);
  EXPECT_EQ(fb::stripVlan(f), fb::discover().snap().build());
}

TEST(FrameBuilder, FramingNotUnderstood) {
  EXPECT_EQ(fb::ipOffset(Bytes(13, 0)), fb::npos);
  EXPECT_EQ(fb::bootpOffset(Bytes(13, 0)), fb::npos);
  Bytes llcOnly = fb::discover().snap().build();
  llcOnly[14] = 0x42;  // not SNAP
  EXPECT_EQ(fb::ipOffset(llcOnly), fb::npos);
  EXPECT_FALSE(fb::etherType(llcOnly).has_value());
  EXPECT_THROW(fb::ipField(llcOnly, 0), std::out_of_range);
  EXPECT_EQ(fb::etherType(fb::Frame().etherType(0x86dd).build()), 0x86dd);
}

// ---- IPv4 / UDP fields ------------------------------------------------------

TEST(FrameBuilder, IpHeaderFields) {
  const Bytes f = fb::Frame()
                      .tos(0x10)
                      .ipId(0xbeef)
                      .fragment(0x4000)
                      .ttl(1)
                      .protocol(6)
                      .srcIp(fb::ip(10, 0, 0, 1))
                      .dstIp(fb::ip(10, 0, 0, 2))
                      .build();
  EXPECT_EQ(f[15], 0x10);
  EXPECT_EQ(fb::get16(f, 18), 0xbeef);
  EXPECT_EQ(slice(f, 20, 2), (Bytes{0x40, 0x00}));
  EXPECT_EQ(f[22], 1);
  EXPECT_EQ(f[23], 6);
  EXPECT_EQ(slice(f, 26, 8), (Bytes{10, 0, 0, 1, 10, 0, 0, 2}));
  EXPECT_TRUE(fb::ipv4ChecksumValid(f, 14));
}

TEST(FrameBuilder, IhlAboveFivePadsOptionsWithZeros) {
  const auto [f, L] = fb::discover().ihl(7).ipOptions({0x94, 0x04}).buildWithLayout();
  EXPECT_EQ(f[14], 0x47);
  EXPECT_EQ(slice(f, 34, 8), (Bytes{0x94, 0x04, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(L.udp, 42u);
  EXPECT_EQ(fb::udpOffset(f), 42u);
  EXPECT_EQ(fb::bootpOffset(f), 50u);
  EXPECT_EQ(fb::get16(f, 16), f.size() - 14);
  EXPECT_EQ(fb::get16(f, 46), f.size() - 42);
  EXPECT_TRUE(fb::ipv4ChecksumValid(f, 14));
  EXPECT_TRUE(fb::udpChecksumValid(f, 14));
  EXPECT_EQ(fb::messageTypeOf(f), fb::kDiscover);
}

TEST(FrameBuilder, IhlBelowFiveKeepsFixedHeader) {
  const auto [f, L] = fb::Frame().ihl(4).ipVersion(6).buildWithLayout();
  EXPECT_EQ(f[14], 0x64);
  EXPECT_EQ(L.udp, 34u);
  EXPECT_FALSE(fb::ipv4ChecksumValid(f, 14));  // header not parseable
}

TEST(FrameBuilder, LengthAndChecksumOverrides) {
  const Bytes f = fb::discover()
                      .ipTotalLength(1000)
                      .udpLength(9)
                      .ipChecksum(0x1234)
                      .udpChecksum(0xabcd)
                      .build();
  EXPECT_EQ(fb::ipTotalLength(f), 1000);
  EXPECT_EQ(fb::udpLength(f), 9);
  EXPECT_EQ(fb::get16(f, 24), 0x1234);
  EXPECT_EQ(fb::get16(f, 40), 0xabcd);
  EXPECT_FALSE(fb::ipv4ChecksumValid(f, 14));
}

TEST(FrameBuilder, UdpLengthShorterThanDataIsChecksummedAsClaimed) {
  // A receiver sums only udpLength bytes; the builder does the same.
  const Bytes f = fb::discover().udpLength(100).build();
  EXPECT_TRUE(fb::udpChecksumValid(f, 14, false));
  const Bytes longer = fb::discover().udpLength(2000).build();
  EXPECT_FALSE(fb::udpChecksumValid(longer, 14));  // runs past the frame
}

TEST(FrameBuilder, NoUdpChecksum) {
  const Bytes f = fb::discover().noUdpChecksum().build();
  EXPECT_EQ(fb::get16(f, 40), 0);
  EXPECT_TRUE(fb::udpChecksumValid(f, 14));
  EXPECT_FALSE(fb::udpChecksumValid(f, 14, false));
}

TEST(FrameBuilder, EthernetPaddingIsOutsideTheDatagram) {
  const auto [f, L] = fb::discover().ethPadding(Bytes(10, 0xee)).buildWithLayout();
  EXPECT_EQ(f.size(), 296u);
  EXPECT_EQ(L.ipEnd, 286u);
  EXPECT_EQ(fb::ipTotalLength(f), 272);
  EXPECT_EQ(fb::udpLength(f), 252);
  EXPECT_TRUE(fb::udpChecksumValid(f, 14));
  EXPECT_EQ(fb::optionsOf(f).size(), 1u);
}

// ---- Checksums --------------------------------------------------------------

TEST(Checksum, Ipv4HeaderKnownValue) {
  // 20-byte header, checksum field zero. Summed by hand:
  // 4500+0073+0000+4000+4011+0000+c0a8+0001+c0a8+00c7 = 0x2479c,
  // folded 0x479c + 0x2 = 0x479e, complement = 0xb861.
  Bytes h = {0x45, 0x00, 0x00, 0x73, 0x00, 0x00, 0x40, 0x00, 0x40, 0x11,
             0x00, 0x00, 0xc0, 0xa8, 0x00, 0x01, 0xc0, 0xa8, 0x00, 0xc7};
  EXPECT_EQ(fb::ipv4HeaderChecksum(h.data(), h.size()), 0xb861);
  // The field itself is not summed, so a filled-in header gives the same.
  h[10] = 0xde;
  h[11] = 0xad;
  EXPECT_EQ(fb::ipv4HeaderChecksum(h.data(), h.size()), 0xb861);

  h[10] = 0xb8;
  h[11] = 0x61;
  Bytes frame = concat({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x08, 0x00}, h);
  EXPECT_TRUE(fb::ipv4ChecksumValid(frame, 14));
  frame[14 + 8] = 0x3f;  // TTL
  EXPECT_FALSE(fb::ipv4ChecksumValid(frame, 14));
}

// IP 192.168.0.1 -> 192.168.0.199, UDP 68 -> 67 with the given data.
Bytes handMadeUdp(const Bytes& data) {
  const uint16_t len = static_cast<uint16_t>(8 + data.size());
  const Bytes headers = {0x45, 0x00, 0x00, static_cast<uint8_t>(20 + len), 0x00, 0x00, 0x00,
                         0x00, 0x40, 0x11, 0x00, 0x00, 0xc0, 0xa8, 0x00, 0x01, 0xc0, 0xa8,
                         0x00, 0xc7, 0x00, 0x44, 0x00, 0x43, 0x00, static_cast<uint8_t>(len),
                         0x00, 0x00};
  return concat(headers, data);
}

TEST(Checksum, UdpKnownValues) {
  // Pseudo-header c0a8+0001+c0a8+00c7+0011+000a, header 0044+0043+000a,
  // data 0102: sum 0x183c6, folded 0x83c7, complement 0x7c38.
  Bytes p = handMadeUdp({0x01, 0x02});
  EXPECT_EQ(fb::udpChecksum(p.data()), 0x7c38);

  // Odd length: the last byte is padded with zero (0x0300) and both lengths
  // are 0x000b: sum 0x186c8, folded 0x86c9, complement 0x7936.
  p = handMadeUdp({0x01, 0x02, 0x03});
  EXPECT_EQ(fb::udpChecksum(p.data()), 0x7936);

  // Data 0x7d3a makes the sum 0xffff, i.e. a checksum of 0, which goes out
  // as 0xffff since 0 means "none".
  p = handMadeUdp({0x7d, 0x3a});
  EXPECT_EQ(fb::udpChecksum(p.data()), 0xffff);

  // The bounds-checked form agrees, and refuses a short buffer.
  Bytes frame(14, 0);
  frame[12] = 0x08;
  p = handMadeUdp({0x01, 0x02});
  frame.insert(frame.end(), p.begin(), p.end());
  EXPECT_EQ(fb::udpChecksum(frame, 14), 0x7c38);
  frame.pop_back();
  EXPECT_FALSE(fb::udpChecksum(frame, 14).has_value());
  EXPECT_FALSE(fb::udpChecksumValid(frame, 14));
}

TEST(Checksum, BuiltFrameVerifiesAndByteFlipBreaksIt) {
  Bytes f = fb::request().build();
  const size_t ipo = fb::ipOffset(f);
  EXPECT_TRUE(fb::ipv4ChecksumValid(f, ipo));
  EXPECT_TRUE(fb::udpChecksumValid(f, ipo, false));
  EXPECT_TRUE(udpVerifiesByFullSum(f, ipo));
  EXPECT_EQ(fb::udpChecksum(&f[ipo]), fb::get16(f, 40));

  Bytes flipped = f;
  flipped[fb::bootpOffset(f) + fb::bootpf::kXid] ^= 0x01;
  EXPECT_TRUE(fb::ipv4ChecksumValid(flipped, ipo));
  EXPECT_FALSE(fb::udpChecksumValid(flipped, ipo));

  flipped = f;
  flipped[f.size() - 2] ^= 0x80;  // inside the options
  EXPECT_FALSE(fb::udpChecksumValid(flipped, ipo));

  flipped = f;
  flipped[ipo + fb::ipf::kTtl] ^= 0x01;
  EXPECT_FALSE(fb::ipv4ChecksumValid(flipped, ipo));
  EXPECT_TRUE(fb::udpChecksumValid(flipped, ipo));  // TTL is not in the pseudo-header

  flipped = f;
  flipped[ipo + fb::ipf::kSrc] ^= 0x01;  // both checksums cover the source
  EXPECT_FALSE(fb::ipv4ChecksumValid(flipped, ipo));
  EXPECT_FALSE(fb::udpChecksumValid(flipped, ipo));
}

TEST(Checksum, AllReadyMadeMessagesVerify) {
  const std::vector<fb::Frame> frames = {
      fb::discover(),       fb::request(),          fb::requestInitReboot(),
      fb::requestRenewing(), fb::requestRebinding(), fb::decline(),
      fb::release(),        fb::inform(),           fb::offer(),
      fb::ack(),            fb::nak(),              fb::bootpRequest(),
      fb::bootpReply()};
  for (size_t i = 0; i < frames.size(); ++i) {
    for (int variant = 0; variant < 4; ++variant) {
      fb::Frame fr = frames[i];
      if (variant & 1) fr.snap();
      if (variant & 2) fr.vlan(10, 3);
      fr.ihl(static_cast<uint8_t>(5 + variant));  // also odd IP header sizes
      const auto [f, L] = fr.buildWithLayout();
      SCOPED_TRACE("frame " + std::to_string(i) + " variant " + std::to_string(variant));
      ASSERT_EQ(fb::ipOffset(f), L.ip);
      EXPECT_EQ(fb::optionsOffset(f), L.options);
      EXPECT_TRUE(fb::ipv4ChecksumValid(f, L.ip));
      EXPECT_TRUE(fb::udpChecksumValid(f, L.ip, false));
      EXPECT_TRUE(udpVerifiesByFullSum(f, L.ip));
    }
  }
}

TEST(Checksum, RefreshAfterMutation) {
  Bytes f = fb::discover().vlan(3).build();
  fb::set32(f, fb::bootpField(f, fb::bootpf::kGiaddr), fb::ip(10, 1, 1, 1));
  fb::set8(f, fb::ipField(f, fb::ipf::kTtl), 3);
  EXPECT_FALSE(fb::ipv4ChecksumValid(f, 18));
  EXPECT_FALSE(fb::udpChecksumValid(f, 18));
  EXPECT_TRUE(fb::refreshChecksums(f));
  EXPECT_TRUE(fb::ipv4ChecksumValid(f, 18));
  EXPECT_TRUE(fb::udpChecksumValid(f, 18, false));
  EXPECT_EQ(f, fb::discover().vlan(3).giaddr(fb::ip(10, 1, 1, 1)).ttl(3).build());

  // No checksum stays no checksum.
  Bytes none = fb::discover().noUdpChecksum().build();
  fb::set8(none, fb::bootpField(none, fb::bootpf::kHops), 1);
  EXPECT_TRUE(fb::refreshChecksums(none));
  EXPECT_EQ(fb::get16(none, 40), 0);

  // A UDP length past the end of the frame cannot be summed.
  Bytes cut = fb::discover().build();
  fb::truncate(cut, 100);
  EXPECT_FALSE(fb::refreshChecksums(cut));
  EXPECT_TRUE(fb::ipv4ChecksumValid(cut, 14));  // the IP part was still done
  Bytes tiny(5, 0);
  EXPECT_FALSE(fb::refreshChecksums(tiny));
}

// ---- BOOTP / DHCP -----------------------------------------------------------

TEST(FrameBuilder, BootpFields) {
  const Bytes f = fb::Frame()
                      .op(2)
                      .htype(6)
                      .hlen(16)
                      .hops(3)
                      .xid(0xa1b2c3d4)
                      .secs(0x0102)
                      .broadcast()
                      .ciaddr(fb::ip(1, 2, 3, 4))
                      .yiaddr(fb::ip(5, 6, 7, 8))
                      .siaddr(fb::ip(9, 10, 11, 12))
                      .giaddr(fb::ip(13, 14, 15, 16))
                      .sname(fb::bytes("srv"))
                      .file(fb::bytes("boot.bin"))
                      .build();
  EXPECT_EQ(slice(f, 42, 4), (Bytes{2, 6, 16, 3}));
  EXPECT_EQ(slice(f, 46, 4), (Bytes{0xa1, 0xb2, 0xc3, 0xd4}));
  EXPECT_EQ(slice(f, 50, 4), (Bytes{0x01, 0x02, 0x80, 0x00}));
  EXPECT_EQ(slice(f, 54, 16), (Bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}));
  EXPECT_EQ(slice(f, 86, 4), (Bytes{'s', 'r', 'v', 0}));
  EXPECT_EQ(slice(f, 150, 9), (Bytes{'b', 'o', 'o', 't', '.', 'b', 'i', 'n', 0}));
  EXPECT_EQ(fb::xidOf(f), 0xa1b2c3d4u);
  EXPECT_EQ(fb::giaddrOf(f), fb::ip(13, 14, 15, 16));
  EXPECT_EQ(fb::hopsOf(f), 3);
  EXPECT_EQ(fb::get16(f, fb::bootpField(f, fb::bootpf::kFlags)), fb::kFlagBroadcast);
  EXPECT_EQ(f.size(), 283u);  // sname/file keep their sizes
}

TEST(FrameBuilder, FieldSizeLimits) {
  EXPECT_THROW(fb::Frame().sname(Bytes(65, 1)), std::length_error);
  EXPECT_THROW(fb::Frame().file(Bytes(129, 1)), std::length_error);
  EXPECT_NO_THROW(fb::Frame().sname(Bytes(64, 1)).file(Bytes(128, 1)));
  EXPECT_THROW(fb::Options().option(12, Bytes(256, 1)), std::length_error);
  EXPECT_THROW(fb::RelayAgentInfo().circuitId(Bytes(256, 1)), std::length_error);
  // Sub-options that add up to more than 255 bytes do not fit one option 82.
  fb::RelayAgentInfo big;
  big.circuitId(Bytes(200, 1)).remoteId(Bytes(200, 2));
  EXPECT_THROW(fb::Options().relayAgent(big), std::length_error);
}

TEST(FrameBuilder, CookieSettableAndOmittable) {
  auto [f, L] = fb::discover().noCookie().buildWithLayout();
  EXPECT_EQ(L.cookie, fb::npos);
  EXPECT_EQ(L.options, 278u);
  EXPECT_EQ(slice(f, 278, 4), (Bytes{53, 1, 1, 255}));

  std::tie(f, L) = fb::discover().cookie({0x63, 0x82, 0x53, 0x64}).buildWithLayout();
  EXPECT_EQ(L.cookie, 278u);
  EXPECT_EQ(slice(f, 278, 4), (Bytes{0x63, 0x82, 0x53, 0x64}));
  EXPECT_EQ(L.options, 282u);
}

TEST(Options, CommonOptionsEncoding) {
  const auto [f, L] = fb::Frame()
                          .messageType(fb::kRequest)
                          .requestedIp(fb::ip(192, 168, 1, 100))
                          .leaseTime(0x00015180)
                          .serverId(fb::ip(192, 168, 1, 1))
                          .paramList({1, 3, 6})
                          .option(12, fb::bytes("host"))
                          .buildWithLayout();
  const Bytes expect = {53, 1, 3,                        //
                        50, 4, 192, 168, 1, 100,         //
                        51, 4, 0x00, 0x01, 0x51, 0x80,   //
                        54, 4, 192, 168, 1, 1,           //
                        55, 3, 1, 3, 6,                  //
                        12, 4, 'h', 'o', 's', 't',       //
                        255};
  EXPECT_EQ(slice(f, 282, f.size() - 282), expect);
  EXPECT_EQ(L.option, (std::vector<size_t>{282, 285, 291, 297, 303, 308}));
  EXPECT_EQ(L.end, 314u);
  EXPECT_EQ(fb::findOptionOffset(f, 54), 297u);
  EXPECT_EQ(fb::findOption(f, 50), (Bytes{192, 168, 1, 100}));
  EXPECT_FALSE(fb::findOption(f, 82).has_value());
  EXPECT_EQ(fb::findOptionOffset(f, 82), fb::npos);
  const auto all = fb::optionsOf(f);
  ASSERT_EQ(all.size(), 6u);
  EXPECT_EQ(all[4].code, 55);
  EXPECT_EQ(all[4].offset, 303u);
  EXPECT_EQ(all[4].value, (Bytes{1, 3, 6}));
}

TEST(Options, RelayAgentInformation) {
  const Bytes circuit = fb::bytes("ge-0/0/7");
  const Bytes remote = {0x00, 0x53, 0x00, 0xaa, 0xbb, 0xcc};
  const auto [f, L] = fb::discover()
                          .giaddr(fb::ip(10, 0, 0, 1))
                          .relayAgent(fb::RelayAgentInfo().circuitId(circuit).remoteId(remote))
                          .buildWithLayout();
  ASSERT_EQ(L.option.size(), 2u);
  const size_t o = L.option[1];
  EXPECT_EQ(o, 285u);
  Bytes expect = {82, static_cast<uint8_t>(2 + circuit.size() + 2 + remote.size()), 1,
                  static_cast<uint8_t>(circuit.size())};
  expect.insert(expect.end(), circuit.begin(), circuit.end());
  expect.push_back(2);
  expect.push_back(static_cast<uint8_t>(remote.size()));
  expect.insert(expect.end(), remote.begin(), remote.end());
  expect.push_back(255);
  EXPECT_EQ(slice(f, o, f.size() - o), expect);
  EXPECT_EQ(f[o + 1], 18);

  const auto v = fb::findOption(f, fb::kOptRelayAgent);
  ASSERT_TRUE(v.has_value());
  EXPECT_EQ(fb::findSubOption(*v, fb::kSubCircuitId), circuit);
  EXPECT_EQ(fb::findSubOption(*v, fb::kSubRemoteId), remote);
  EXPECT_FALSE(fb::findSubOption(*v, 5).has_value());
  EXPECT_TRUE(fb::udpChecksumValid(f, 14));
}

TEST(Options, RelayAgentRawSubOptionsInOrder) {
  const Bytes v =
      fb::RelayAgentInfo().sub(9, {0, 0, 0x0d, 0xe9, 1, 7}).remoteId({7}).circuitId({}).encode();
  EXPECT_EQ(v, (Bytes{9, 6, 0, 0, 0x0d, 0xe9, 1, 7, 2, 1, 7, 1, 0}));
  EXPECT_EQ(fb::findSubOption(v, 1), Bytes{});
  EXPECT_EQ(fb::findSubOption(v, 9), (Bytes{0, 0, 0x0d, 0xe9, 1, 7}));
  // A sub-option running past the value is not returned.
  EXPECT_FALSE(fb::findSubOption(Bytes{1, 5, 'a'}, 1).has_value());
  EXPECT_FALSE(fb::findSubOption(Bytes{1}, 1).has_value());
  EXPECT_FALSE(fb::findSubOption(Bytes{}, 1).has_value());
}

TEST(Options, NoEnd) {
  const auto [f, L] = fb::discover().noEnd().buildWithLayout();
  EXPECT_EQ(f.size(), 285u);
  EXPECT_EQ(slice(f, 282, 3), (Bytes{53, 1, 1}));
  EXPECT_EQ(L.end, fb::npos);
  EXPECT_EQ(fb::endOffset(f), fb::npos);
  EXPECT_EQ(fb::messageTypeOf(f), fb::kDiscover);
  EXPECT_TRUE(fb::udpChecksumValid(f, 14));
}

TEST(Options, PadBytes) {
  const auto [f, L] = fb::Frame().pad().messageType(fb::kInform).pad(3).buildWithLayout();
  EXPECT_EQ(slice(f, 282, 8), (Bytes{0, 53, 1, 8, 0, 0, 0, 255}));
  EXPECT_EQ(L.option, (std::vector<size_t>{282, 283, 286}));
  EXPECT_EQ(L.end, 289u);
  EXPECT_EQ(fb::findOptionOffset(f, 53), 283u);  // pads are skipped
  EXPECT_EQ(fb::endOffset(f), 289u);
}

TEST(Options, MalformedRawBytesAndLengths) {
  // A length byte that claims more than is there.
  Bytes f = fb::Frame().optionWithLength(53, 9, {1}).noEnd().build();
  EXPECT_EQ(slice(f, 282, 3), (Bytes{53, 9, 1}));
  bool complete = true;
  EXPECT_TRUE(fb::parseOptions(f, 282, f.size(), &complete).empty());
  EXPECT_FALSE(complete);
  EXPECT_FALSE(fb::findOption(f, 53).has_value());

  // Raw bytes: a code with no length byte at the end.
  f = fb::Frame().messageType(1).rawOptions({61}).noEnd().build();
  EXPECT_EQ(slice(f, 282, 4), (Bytes{53, 1, 1, 61}));
  const auto opts = fb::parseOptions(f, 282, f.size(), &complete);
  EXPECT_FALSE(complete);
  ASSERT_EQ(opts.size(), 1u);
  EXPECT_EQ(opts[0].code, 53);

  // Explicit END in the middle; what follows it is not an option.
  f = fb::Frame().messageType(1).endOption().option(54, {1, 2, 3, 4}).build();
  EXPECT_EQ(fb::endOffset(f), 285u);
  EXPECT_FALSE(fb::findOption(f, 54).has_value());
  fb::parseOptions(f, 282, f.size(), &complete);
  EXPECT_TRUE(complete);
}

TEST(Options, RemoveAndClear) {
  fb::Frame fr = fb::request();
  EXPECT_TRUE(fr.dhcp.options.has(fb::kOptServerId));
  const Bytes f = fr.removeOption(fb::kOptServerId).build();
  EXPECT_FALSE(fb::findOption(f, fb::kOptServerId).has_value());
  EXPECT_TRUE(fb::findOption(f, fb::kOptRequestedIp).has_value());
  EXPECT_EQ(fb::request().clearOptions().build(), fb::Frame().xid(fb::Params().xid).build());
}

TEST(Options, StandaloneEncodingAndOverload) {
  const fb::Options inFile = fb::Options().messageType(fb::kAck).end();
  EXPECT_EQ(inFile.encode(), (Bytes{53, 1, 5, 255}));
  EXPECT_EQ(inFile.offsets(), (std::vector<size_t>{0, 3}));
  EXPECT_EQ(inFile.encodedSize(), 4u);
  const fb::Options inSname = fb::Options().serverId(fb::ip(10, 0, 0, 9)).pad().end();
  EXPECT_EQ(inSname.encode(), (Bytes{54, 4, 10, 0, 0, 9, 0, 255}));

  const auto [f, L] = fb::Frame()
                          .op(fb::kBootReply)
                          .overload(fb::kOverloadBoth)
                          .leaseTime(60)
                          .file(inFile.encode())
                          .sname(inSname.encode())
                          .buildWithLayout();
  EXPECT_EQ(slice(f, L.file, 4), (Bytes{53, 1, 5, 255}));
  EXPECT_EQ(slice(f, 150, 5), (Bytes{53, 1, 5, 255, 0}));
  EXPECT_EQ(slice(f, L.sname, 8), (Bytes{54, 4, 10, 0, 0, 9, 0, 255}));
  EXPECT_EQ(slice(f, 282, 3), (Bytes{52, 1, 3}));

  EXPECT_FALSE(fb::findOption(f, 53).has_value());
  EXPECT_EQ(fb::findOption(f, 53, true), Bytes{5});
  EXPECT_EQ(fb::findOption(f, 54, true), (Bytes{10, 0, 0, 9}));
  // Options field first, then file, then sname.
  const auto all = fb::optionsOf(f, true);
  ASSERT_EQ(all.size(), 4u);
  EXPECT_EQ(all[0].code, 52);
  EXPECT_EQ(all[1].code, 51);
  EXPECT_EQ(all[2].code, 53);
  EXPECT_EQ(all[2].offset, L.file);
  EXPECT_EQ(all[3].code, 54);
  EXPECT_EQ(all[3].offset, L.sname);

  // Only the file field overloaded: sname is not read.
  const Bytes fileOnly = fb::Frame()
                             .overload(fb::kOverloadFile)
                             .file(inFile.encode())
                             .sname(inSname.encode())
                             .build();
  EXPECT_EQ(fb::findOption(fileOnly, 53, true), Bytes{5});
  EXPECT_FALSE(fb::findOption(fileOnly, 54, true).has_value());
}

TEST(FrameBuilder, TrailerAndPadTo) {
  auto [f, L] = fb::discover().padTo(300).buildWithLayout();
  EXPECT_EQ(f.size() - L.bootp, 300u);
  EXPECT_EQ(L.trailer, 286u);
  EXPECT_EQ(slice(f, 286, f.size() - 286), Bytes(f.size() - 286, 0));
  EXPECT_EQ(fb::udpLength(f), 308);
  EXPECT_EQ(fb::ipTotalLength(f), 328);
  EXPECT_TRUE(fb::udpChecksumValid(f, 14, false));

  std::tie(f, L) = fb::discover().trailer({0xde, 0xad}).padTo(250).buildWithLayout();
  EXPECT_EQ(slice(f, 286, 6), (Bytes{0xde, 0xad, 0, 0, 0, 0}));  // trailer, then zeros
  EXPECT_EQ(f.size(), 42u + 250);
  EXPECT_EQ(fb::udpLength(f), 258);

  f = fb::discover().trailer({0xde, 0xad}).padTo(200).build();
  EXPECT_EQ(f.size(), 288u);  // already longer than 200
}

// ---- Ready-made messages ----------------------------------------------------

TEST(ReadyMade, ClientMessages) {
  const fb::Params p;
  const Bytes d = fb::discover().build();
  EXPECT_EQ(fb::messageTypeOf(d), fb::kDiscover);

  const Bytes sel = fb::requestSelecting().build();
  EXPECT_EQ(fb::messageTypeOf(sel), fb::kRequest);
  EXPECT_EQ(fb::findOption(sel, 50), (Bytes{192, 168, 1, 100}));
  EXPECT_EQ(fb::findOption(sel, 54), (Bytes{192, 168, 1, 1}));
  EXPECT_EQ(fb::get32(sel, 54), 0u);  // ciaddr
  EXPECT_EQ(fb::request().build(), sel);

  const Bytes ren = fb::requestRenewing().build();
  EXPECT_EQ(fb::get32(ren, 54), p.clientIp);
  EXPECT_EQ(fb::get32(ren, 26), p.clientIp);
  EXPECT_EQ(fb::get32(ren, 30), p.serverIp);
  EXPECT_EQ(slice(ren, 0, 6), Bytes(p.serverMac.begin(), p.serverMac.end()));
  EXPECT_FALSE(fb::findOption(ren, 50).has_value());
  EXPECT_FALSE(fb::findOption(ren, 54).has_value());

  const Bytes reb = fb::requestRebinding().build();
  EXPECT_EQ(fb::get32(reb, 54), p.clientIp);
  EXPECT_EQ(fb::get32(reb, 30), 0xffffffffu);
  EXPECT_FALSE(fb::findOption(reb, 54).has_value());

  const Bytes reboot = fb::requestInitReboot().build();
  EXPECT_TRUE(fb::findOption(reboot, 50).has_value());
  EXPECT_FALSE(fb::findOption(reboot, 54).has_value());

  const Bytes dec = fb::decline().build();
  EXPECT_EQ(fb::messageTypeOf(dec), fb::kDecline);
  EXPECT_TRUE(fb::findOption(dec, 50).has_value());
  EXPECT_TRUE(fb::findOption(dec, 54).has_value());

  const Bytes rel = fb::release().build();
  EXPECT_EQ(fb::messageTypeOf(rel), fb::kRelease);
  EXPECT_EQ(fb::get32(rel, 54), p.clientIp);
  EXPECT_EQ(fb::get32(rel, 30), p.serverIp);
  EXPECT_TRUE(fb::findOption(rel, 54).has_value());

  const Bytes inf = fb::inform().build();
  EXPECT_EQ(fb::messageTypeOf(inf), fb::kInform);
  EXPECT_EQ(fb::get32(inf, 54), p.clientIp);

  for (const Bytes& f : {d, sel, ren, reb, reboot, dec, rel, inf}) {
    EXPECT_EQ(f[42], fb::kBootRequest);
    EXPECT_EQ(fb::get16(f, 34), 68);
    EXPECT_EQ(fb::get16(f, 36), 67);
    EXPECT_EQ(slice(f, 6, 6), Bytes(p.clientMac.begin(), p.clientMac.end()));
    EXPECT_EQ(slice(f, 70, 6), Bytes(p.clientMac.begin(), p.clientMac.end()));
    EXPECT_EQ(fb::xidOf(f), p.xid);
  }
}

TEST(ReadyMade, ServerMessages) {
  const fb::Params p;
  const Bytes off = fb::offer().build();
  const Bytes ack = fb::ack().build();
  const Bytes nak = fb::nak().build();
  EXPECT_EQ(fb::messageTypeOf(off), fb::kOffer);
  EXPECT_EQ(fb::messageTypeOf(ack), fb::kAck);
  EXPECT_EQ(fb::messageTypeOf(nak), fb::kNak);
  for (const Bytes& f : {off, ack}) {
    EXPECT_EQ(fb::get32(f, 58), p.clientIp);  // yiaddr
    EXPECT_EQ(fb::get32(f, 30), p.clientIp);
    EXPECT_EQ(slice(f, 0, 6), Bytes(p.clientMac.begin(), p.clientMac.end()));
    EXPECT_EQ(fb::findOption(f, 51), (Bytes{0, 0, 0x0e, 0x10}));
  }
  EXPECT_EQ(fb::get32(nak, 58), 0u);
  EXPECT_EQ(fb::get32(nak, 30), 0xffffffffu);
  EXPECT_EQ(slice(nak, 0, 6), Bytes(6, 0xff));
  for (const Bytes& f : {off, ack, nak}) {
    EXPECT_EQ(f[42], fb::kBootReply);
    EXPECT_EQ(fb::get16(f, 34), 67);
    EXPECT_EQ(fb::get16(f, 36), 68);
    EXPECT_EQ(fb::get32(f, 26), p.serverIp);
    EXPECT_EQ(slice(f, 6, 6), Bytes(p.serverMac.begin(), p.serverMac.end()));
    EXPECT_EQ(slice(f, 70, 6), Bytes(p.clientMac.begin(), p.clientMac.end()));
    EXPECT_EQ(fb::findOption(f, 54), (Bytes{192, 168, 1, 1}));
  }
}

TEST(ReadyMade, Bootp) {
  const fb::Params p;
  const auto [req, rl] = fb::bootpRequest().buildWithLayout();
  const auto [rep, pl] = fb::bootpReply().buildWithLayout();
  for (const auto& [f, L] : {std::make_pair(req, rl), std::make_pair(rep, pl)}) {
    EXPECT_FALSE(fb::messageTypeOf(f).has_value());
    EXPECT_TRUE(fb::optionsOf(f).empty());
    EXPECT_EQ(f.size() - L.bootp, 300u);
    EXPECT_EQ(L.end, 282u);
  }
  EXPECT_EQ(req[42], 1);
  EXPECT_EQ(rep[42], 2);
  EXPECT_EQ(fb::get32(rep, 58), p.clientIp);
  EXPECT_EQ(fb::get16(rep, 34), 67);
}

TEST(ReadyMade, CustomParams) {
  fb::Params p;
  p.clientMac = {0x02, 0, 0, 0, 0, 0x42};
  p.clientIp = fb::ip(172, 16, 0, 5);
  p.xid = 7;
  p.lease = 120;
  const Bytes f = fb::ack(p).build();
  EXPECT_EQ(slice(f, 0, 6), Bytes(p.clientMac.begin(), p.clientMac.end()));
  EXPECT_EQ(slice(f, 70, 6), Bytes(p.clientMac.begin(), p.clientMac.end()));
  EXPECT_EQ(fb::get32(f, 58), p.clientIp);
  EXPECT_EQ(fb::xidOf(f), 7u);
  EXPECT_EQ(fb::findOption(f, 51), (Bytes{0, 0, 0, 120}));
}

// ---- Mutations --------------------------------------------------------------

TEST(Mutation, TruncateAndSet) {
  Bytes f = fb::discover().build();
  fb::truncate(f, 100);
  EXPECT_EQ(f.size(), 100u);
  fb::truncate(f, 500);  // never grows
  EXPECT_EQ(f.size(), 100u);
  // Offsets still come from the headers that are left.
  EXPECT_EQ(fb::bootpOffset(f), 42u);
  EXPECT_EQ(fb::optionsOffset(f), 282u);
  EXPECT_TRUE(fb::optionsOf(f).empty());
  EXPECT_FALSE(fb::udpChecksumValid(f, 14));

  f = fb::discover().build();
  fb::set16(f, fb::udpField(f, fb::udpf::kLength), 0x1234);
  EXPECT_EQ(slice(f, 38, 2), (Bytes{0x12, 0x34}));
  EXPECT_EQ(fb::udpLength(f), 0x1234);
  fb::set32(f, 46, 0xcafef00d);
  EXPECT_EQ(slice(f, 46, 4), (Bytes{0xca, 0xfe, 0xf0, 0x0d}));
  fb::set8(f, 45, 9);
  EXPECT_EQ(fb::hopsOf(f), 9);
  fb::setBytes(f, 282, {53, 1, 3});
  EXPECT_EQ(fb::messageTypeOf(f), fb::kRequest);  // parsing stops at the frame's end
  fb::set16(f, 38, 8 + 240 + 2);                  // now the UDP length cuts the option
  EXPECT_FALSE(fb::messageTypeOf(f).has_value());

  EXPECT_THROW(fb::set16(f, f.size() - 1, 1), std::out_of_range);
  EXPECT_THROW(fb::set32(f, f.size(), 1), std::out_of_range);
  EXPECT_THROW(fb::set8(f, fb::npos, 1), std::out_of_range);
  EXPECT_THROW(fb::setBytes(f, f.size() - 1, {1, 2}), std::out_of_range);
  EXPECT_THROW(fb::get32(f, fb::npos - 1), std::out_of_range);
  EXPECT_THROW(fb::getBytes(f, 2, fb::npos), std::out_of_range);
  EXPECT_NO_THROW(fb::setBytes(f, f.size(), {}));
}

TEST(Mutation, NamedFieldOffsets) {
  Bytes f = fb::discover().vlan(9).build();
  EXPECT_EQ(fb::ipField(f, fb::ipf::kTtl), 18u + 8);
  EXPECT_EQ(fb::udpField(f, fb::udpf::kChecksum), 38u + 6);
  EXPECT_EQ(fb::bootpField(f, fb::bootpf::kGiaddr), 46u + 24);
  EXPECT_EQ(fb::bootpField(f, fb::bootpf::kChaddr), 46u + 28);
  fb::set32(f, fb::bootpField(f, fb::bootpf::kGiaddr), fb::ip(10, 9, 8, 7));
  EXPECT_EQ(fb::giaddrOf(f), fb::ip(10, 9, 8, 7));
  EXPECT_THROW(fb::bootpField(Bytes(4, 0), 0), std::out_of_range);
  Bytes shortFrame = fb::discover().build();
  fb::truncate(shortFrame, 48);
  EXPECT_EQ(fb::hopsOf(shortFrame), 0);
  EXPECT_THROW(fb::xidOf(shortFrame), std::out_of_range);  // cut inside xid
}

}  // namespace
