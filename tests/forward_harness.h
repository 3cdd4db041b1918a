// Forwarding tests: a frame of the packet pool with the frame globals and the
// element set as the pipeline and the parser leave them for forwarding.
#pragma once

#include <cstring>
#include <vector>

#include "support/fixture.h"
#include "support/frame_builder.h"

class ForwardTest : public SnoopTest {
protected:
    void SetUp() override
    {
        SnoopTest::SetUp();
        startModule();
    }

    void TearDown() override
    {
        if (frame != nullptr)
            dhcpReleasePacketPool(frame);
        frame = nullptr;
        SnoopTest::TearDown();
    }

    // Loads built bytes as the frame of the packet descriptor. type defaults
    // to the frame's option 53; opt82Pos and endOptPos come from the frame.
    void loadBytes(const fb::Bytes& b, up port, uint16_t vid, int type = -1)
    {
        if (frame != nullptr)
            dhcpReleasePacketPool(frame);
        bytes = b;
        frame = sim::newFrame(bytes);
        std::memset(&pkt, 0, sizeof pkt);
        pkt.ports = sim::portListOf(port);
        pkt.frame = frame;
        pkt.frameLen = (uint32_t)bytes.size();
        pkt.vid = vid;

        size_t ip = fb::ipOffset(bytes);
        macHeader = frame;
        ipHeaderPos = (uint32_t)ip;
        ipHeader = frame + ip;
        udpHeaderPos = (uint32_t)fb::udpOffset(bytes);
        udpHeader = frame + udpHeaderPos;
        dhcpHeaderPos = udpHeaderPos + 8;
        dhcpHeader = frame + dhcpHeaderPos;
        optionsPos = dhcpHeaderPos + 236;
        options = frame + optionsPos;
        rcvPort = port;

        std::memset(&ele, 0, sizeof ele);
        ele.vlan = vid;
        ele.up = port;
        ele.type = (uint8_t)(type >= 0 ? type : fb::messageTypeOf(bytes).value_or(0));
        ele.isBroadcast = bytes[0] == 0xff ? 1 : 0;
        size_t op82 = fb::findOptionOffset(bytes, fb::kOptRelayAgent);
        ele.opt82Pos = op82 == fb::npos ? 0 : (uint32_t)op82;
        size_t end = fb::endOffset(bytes);
        ele.endOptPos = end == fb::npos ? (uint32_t)(fb::udpLength(bytes) - 248) : (uint32_t)end;
    }

    void load(const fb::Frame& f, up port, uint16_t vid, int type = -1)
    {
        loadBytes(f.build(), port, vid, type);
    }

    // Option-82 configuration of a port.
    static DhcpSnoopPortCfg& op82(up port, uint8_t enable, uint8_t policy = 0)
    {
        DhcpSnoopPortCfg& c = sim::portCfg(port);
        c.op82Enable = enable;
        c.Op82Policy = policy;
        return c;
    }

    static fb::Bytes switchMacBytes()
    {
        sim::Mac m = sim::switchMac();
        return fb::Bytes(m.begin(), m.end());
    }

    DhcpSnoopPacket pkt{};
    DhcpSnoopElement ele{};
    uint8_t *frame = nullptr;
    fb::Bytes bytes;
};
