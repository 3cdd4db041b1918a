// The kernel bridge over rtnetlink (libmnl): its member links, their VLANs
// and its forwarding database. Native builds only.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>
#include <atomic>

namespace live {
namespace rtnl {

struct Link {
    int ifindex = 0;
    std::string name;
    int master = 0;            // the bridge it is a member of, 0: none
    bool isBridge = false;
    bool vlanFiltering = false;  // a bridge that filters VLANs
};

// One link by name; false with error when it does not exist or netlink fails.
bool getLink(const std::string& name, Link& out, std::string& error);

struct PortVlans {
    uint16_t pvid = 0;                 // 0: none
    std::vector<uint16_t> untagged;    // egress untagged
    std::vector<uint16_t> tagged;
};
// The VLANs a bridge port carries (a bridge with VLAN filtering).
bool getPortVlans(int ifindex, PortVlans& out, std::string& error);

// One RTM_GETNEIGH per look-up: the port the bridge would send mac to.
// vid 0: the entry without a VLAN (a bridge without VLAN filtering).
// False when the bridge has no entry (or a local one) for it.
bool queryFdb(int bridge, const uint8_t mac[6], uint16_t vid, int* portIfindex);

// The bridge's FDB mirrored from one dump and kept current by the kernel's
// notifications (a thread of its own); a look-up is a hash look-up. When
// the kernel drops notifications (receive buffer full) it dumps again.
class FdbMirror {
public:
    FdbMirror();
    ~FdbMirror();
    // Subscribes and reads the whole FDB; with follow, the thread that keeps
    // it current starts too, else follow() starts it later (a process that
    // drops privileges first must still be one thread).
    bool start(int bridge, std::string& error, bool follow = true);
    bool follow(std::string& error);
    void stop();
    // As queryFdb.
    bool lookup(const uint8_t mac[6], uint16_t vid, int* portIfindex) const;
    size_t size() const;
    uint64_t resyncs() const { return resyncs_.load(); }

private:
    struct Sock;
    void loop();
    bool dump(std::string& error);
    void apply(const void* nlh);

    int bridge_ = 0;
    std::unique_ptr<Sock> sock_;
    std::thread thread_;
    std::atomic<bool> stopping_{false};
    std::atomic<uint64_t> resyncs_{0};
    mutable std::mutex lock_;
    std::unordered_map<uint64_t, int> entries_;  // MAC and VLAN in one key
};

}  // namespace rtnl
}  // namespace live
