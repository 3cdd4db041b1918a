// Runs the module's task loops on the simulation, one received record at a
// time, so that a test decides when each task does its work.
#include "platform/sim/runner.h"

#include <atomic>
#include <cstring>

namespace simrun {

namespace {

// The save task's loop ends after a failed save; it must then stop taking
// requests, as the real task would.
std::atomic<bool> gSaveEnded{false};

// A task's queue, looked up by name once per set of queues: the pumps run
// several times a frame.
class QueueOf {
public:
    explicit QueueOf(const char* name) : name_(name) {}
    PalMsgQ get()
    {
        uint32_t serial = sim::queueSerial();
        if (serial != serial_.load(std::memory_order_acquire) || q_ == 0) {
            q_ = sim::queueByName(name_);
            serial_.store(serial, std::memory_order_release);
        }
        return q_;
    }

private:
    const char* name_;
    std::atomic<uint32_t> serial_{UINT32_MAX};
    std::atomic<PalMsgQ> q_{0};
};

}  // namespace

void startTasks()
{
    gSaveEnded = false;
    dhcpSnoopGetFdbEntryTaskStart();
}

size_t pumpMain()
{
    static QueueOf main(DHCP_SNOOP_QUEUE_NAME);
    PalMsgQ q = main.get();
    if (q == 0)
        return 0;
    size_t n = 0;
    DhcpSnoopMsg msg;
    while (sim::queueTake(q, &msg, sizeof msg)) {
        dhcpSnoopTaskHandleMsg(&msg);
        ++n;
    }
    return n;
}

size_t pumpFdb()
{
    static QueueOf fdb(DHCP_SNOOP_FDB_QUEUE_NAME);
    PalMsgQ q = fdb.get();
    if (q == 0)
        return 0;
    size_t n = 0;
    FdbEntry entry;
    while (sim::queueTake(q, &entry, sizeof entry)) {
        dhcpSnoopGetFdbEntryTaskHandle(&entry);
        ++n;
    }
    return n;
}

size_t pumpSave()
{
    PalMsgQ q = sim::queueByName(DHCP_SNOOP_SAVE_QUEUE_NAME);
    if (q == 0)
        return 0;
    size_t n = 0;
    uint8_t request = 0;
    while (!gSaveEnded && sim::queueTake(q, &request, sizeof request)) {
        ++n;
        if (dhcpSnoopSaveDynEntryTaskStep() != 0)
            gSaveEnded = true;
    }
    return n;
}

bool saveTaskEnded() { return gSaveEnded; }

void runUntilIdle()
{
    for (;;) {
        size_t n = pumpMain();
        n += pumpFdb();
        n += pumpSave();
        if (n == 0)
            return;
    }
}

void advance(uint64_t ms) { sim::advance(ms, runUntilIdle); }

uint32_t inject(up port, uint16_t vid, const std::vector<uint8_t>& bytes)
{
    return inject(port, vid, bytes.data(), bytes.size());
}

uint32_t inject(up port, uint16_t vid, const uint8_t* bytes, size_t len)
{
    DhcpSnoopMsg msg;
    memset(&msg, 0, sizeof msg);
    msg.type = DHCP_SNOOP_MSG_PACKET;
    msg.packet.ports = sim::portListOf(port);
    msg.packet.frame = sim::newFrame(bytes, len);
    msg.packet.frameLen = (uint32_t)len;
    msg.packet.vid = vid;
    uint32_t r = dhcpSnoopSendMsgToMainQueue(&msg, 0);
    if (r != 0)
        dhcpReleasePacketPool(msg.packet.frame);
    return r;
}

uint32_t receive(up port, uint16_t vid, const std::vector<uint8_t>& bytes)
{
    uint32_t r = inject(port, vid, bytes);
    runUntilIdle();
    return r;
}

}  // namespace simrun
