// Fixture of the packet-intake tests: a started module, a snooped VLAN and a
// receive port, and frames handed over in packet-pool buffers of exactly
// their length (AddressSanitizer then catches a read past the frame).
#pragma once

#include <string>
#include <vector>

#include "support/fixture.h"
#include "support/frame_builder.h"

class IntakeTest : public SnoopTest {
public:
    static std::string ipText(const uint8_t *ip)
    {
        return std::to_string(ip[0]) + "." + std::to_string(ip[1]) + "." + std::to_string(ip[2]) + "." +
               std::to_string(ip[3]);
    }

protected:
    static constexpr uint16_t kVid = 10;

    void SetUp() override
    {
        SnoopTest::SetUp();
        startModule();
        port = sim::physicalPort(1, 3);
        sim::setVlanSnooping(kVid, true);
    }

    // A type-0 record as the packet path posts it.
    DhcpSnoopMsg record(const fb::Bytes& bytes, up from)
    {
        DhcpSnoopMsg msg;
        memset(&msg, 0, sizeof msg);
        msg.type = DHCP_SNOOP_MSG_PACKET;
        msg.packet.ports = sim::portListOf(from);
        msg.packet.frame = sim::newFrameExact(bytes);
        msg.packet.frameLen = (uint32_t)bytes.size();
        msg.packet.vid = kVid;
        return msg;
    }

    // Runs the pipeline on the frame; the record's frame field must be
    // cleared by the tail.
    uint32_t handle(const fb::Bytes& bytes) { return handleFrom(bytes, port); }
    uint32_t handleFrom(const fb::Bytes& bytes, up from)
    {
        DhcpSnoopMsg msg = record(bytes, from);
        uint32_t rv = dhcpSnoopPacketHandle(&msg);
        EXPECT_EQ(msg.packet.frame, nullptr) << "the tail leaves the record without its frame";
        return rv;
    }

    // The header checks and the parser on one frame, as the pipeline runs
    // them. clientIp is preset so that a test sees whether it is written.
    struct Parsed {
        uint32_t validate = 0;
        int32_t rv = -2;
        DhcpSnoopElement element{};
    };
    Parsed parse(const fb::Bytes& bytes, const uint8_t (&presetIp)[4] = kPresetIp)
    {
        Parsed out;
        DhcpSnoopMsg msg = record(bytes, port);
        DhcpSnoopElement *e = dhcpSnoopGetMem();
        EXPECT_NE(e, nullptr);
        if (e == nullptr)
            return out;
        rcvPort = port;
        out.validate = dhcpSnoopPacketValidate(&msg.packet, e, sim::switchMac().data());
        if (out.validate == 0) {
            memcpy(e->clientIp, presetIp, 4);
            out.rv = dhcpSnoopDhcpParser(&msg.packet, options, 0, e);
        }
        out.element = *e;
        dhcpSnoopFreeMem(e);
        dhcpReleasePacketPool(msg.packet.frame);
        return out;
    }

    // Messages of the log lines, from the first equal to `from` on.
    static std::vector<std::string> messagesFrom(const std::string& from)
    {
        std::vector<std::string> all = sim::messages();
        for (size_t i = 0; i < all.size(); i++) {
            if (all[i] == from)
                return std::vector<std::string>(all.begin() + (long)i, all.end());
        }
        return {};
    }

    static constexpr uint8_t kPresetIp[4] = {9, 9, 9, 9};

    up port = 0;
};
