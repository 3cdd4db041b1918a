// The daemon's control interface: command words, answers, the socket
// between dhcpsnoopctl and the daemon, and the reads and writes of the
// module behind it (on the simulation).
#include <dirent.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <poll.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <thread>
#include <fstream>
#include <sstream>

#include "snooping/dhcpSnoopWire.h"
#include "support/fixture.h"
#include "tools/common/json_text.h"
#include "tools/ctl/ctl.h"
#include "tools/daemon/command.h"
#include "tools/daemon/control.h"
#include "tools/daemon/module_backend.h"
#include "tools/daemon/stop.h"

namespace {

using ctl::Binding;
using ctl::BindingKey;
using ctl::Command;
using ctl::Reply;

size_t openFds()
{
    size_t n = 0;
    DIR* d = opendir("/proc/self/fd");
    if (d == nullptr)
        return 0;
    while (readdir(d) != nullptr)
        ++n;
    closedir(d);
    return n;
}

// ---- words ------------------------------------------------------------------------

TEST(ControlWords, Addresses)
{
    struct Case {
        const char* text;
        bool ok;
    };
    const Case ips[] = {{"198.18.0.23", true}, {"0.0.0.0", true}, {"255.255.255.255", true},
                        {"256.1.1.1", false},  {"1.2.3", false},  {"1.2.3.4.5", false},
                        {"1.2.3.", false},     {".1.2.3", false}, {"01.2.3.4", false},
                        {"1.2.3.4 ", false},   {"a.b.c.d", false}, {"", false},
                        {"1..3.4", false},     {"-1.2.3.4", false}, {"99999999999.1.1.1", false}};
    for (const Case& c : ips) {
        std::array<uint8_t, 4> ip{9, 9, 9, 9};
        std::string error;
        EXPECT_EQ(ctl::parseIp(c.text, ip, error), c.ok) << c.text;
        if (!c.ok) {
            EXPECT_EQ(error, std::string("IP \"") + c.text + "\": expected an IPv4 address like 198.18.0.23");
            EXPECT_EQ(ip, (std::array<uint8_t, 4>{9, 9, 9, 9})) << "a refused address changes nothing";
        }
    }
    std::array<uint8_t, 4> ip{};
    std::string error;
    ASSERT_TRUE(ctl::parseIp("198.18.0.23", ip, error));
    EXPECT_EQ(ip, (std::array<uint8_t, 4>{198, 18, 0, 23}));
}

TEST(ControlWords, Vlans)
{
    const std::pair<const char*, int> cases[] = {{"1", 1},     {"4094", 4094}, {"10", 10}, {"0", -1},
                                                 {"4095", -1}, {"", -1},       {"+5", -1}, {"5a", -1},
                                                 {"-1", -1},   {"0x10", -1},   {"999999999999999999999", -1}};
    for (const auto& c : cases) {
        uint16_t v = 77;
        std::string error;
        EXPECT_EQ(ctl::parseVlan(c.first, v, error), c.second >= 0) << c.first;
        if (c.second >= 0) {
            EXPECT_EQ(v, c.second);
        } else {
            EXPECT_EQ(error, std::string("VLAN \"") + c.first + "\": expected a VLAN id from 1 to 4094");
        }
    }
}

TEST(ControlWords, Macs)
{
    const std::array<uint8_t, 6> want{0x02, 0x00, 0xAB, 0xcd, 0x0E, 0xf3};
    for (const char* good : {"02:00:ab:cd:0e:f3", "02:00:AB:CD:0E:F3", "02-00-ab-cd-0e-f3"}) {
        std::array<uint8_t, 6> mac{};
        std::string error;
        EXPECT_TRUE(ctl::parseMac(good, mac, error)) << good;
        EXPECT_EQ(mac, want) << good;
    }
    for (const char* bad : {"02:00:ab:cd:0e", "02:00:ab:cd:0e:f3:00", "02:00-ab:cd:0e:f3", "0200abcd0ef3",
                            "02:00:ab:cd:0e:g3", "2:00:ab:cd:0e:f3", "", "02:00:ab:cd:0e:f"}) {
        std::array<uint8_t, 6> mac{};
        std::string error;
        EXPECT_FALSE(ctl::parseMac(bad, mac, error)) << bad;
        EXPECT_EQ(error, std::string("MAC \"") + bad + "\": expected a MAC address like 02:00:00:00:00:03");
    }
}

TEST(ControlWords, Levels)
{
    const std::pair<const char*, int> cases[] = {
        {"0", 0},      {"3", 3},      {"2", 2},     {"0x2", 2},   {"0X3", 3},    {"0x0003", 3},  {"00", 0},
        {"4", -1},     {"0x4", -1},   {"0x10", -1}, {"0x", -1},   {"-1", -1},    {"", -1},       {" 1", -1},
        {"0x1g", -1},  {"1.0", -1},   {"0xffffffffffffffff", -1}, {"18446744073709551618", -1}};
    for (const auto& c : cases) {
        uint32_t v = 99;
        std::string error;
        EXPECT_EQ(ctl::parseLevel(c.first, v, error), c.second >= 0) << c.first;
        if (c.second >= 0) {
            EXPECT_EQ(v, (uint32_t)c.second);
        } else {
            EXPECT_EQ(error, std::string("LEVEL \"") + c.first +
                                 "\": expected 0 to 3, decimal or 0x hex (2 turns on frame dumps)");
        }
    }
}

TEST(ControlWords, Commands)
{
    struct Case {
        std::vector<std::string> words;
        const char* error;  // nullptr: accepted
    };
    const Case cases[] = {
        {{"bindings"}, nullptr},
        {{"bindings", "--json"}, nullptr},
        {{"bindings", "--xml"}, "bindings: usage: bindings [--json]"},
        {{"bindings", "--json", "x"}, "bindings: usage: bindings [--json]"},
        {{"counters", "--json"}, nullptr},
        {{"events"}, nullptr},
        {{"events", "json"}, "events: usage: events [--json]"},
        {{"monitor"}, nullptr},
        {{"monitor", "--json"}, nullptr},
        {{"monitor", "--follow"}, "monitor: usage: monitor [--json]"},
        {{"delete", "198.18.0.23", "10", "02:00:00:00:00:03"}, nullptr},
        {{"delete", "198.18.0.23", "10"}, "delete: usage: delete IP VLAN MAC"},
        {{"delete", "198.18.0.23", "4095", "02:00:00:00:00:03"},
         "VLAN \"4095\": expected a VLAN id from 1 to 4094"},
        {{"delete", "198.18.0.300", "10", "02:00:00:00:00:03"},
         "IP \"198.18.0.300\": expected an IPv4 address like 198.18.0.23"},
        {{"delete", "198.18.0.3", "10", "02:00:00:00:00"},
         "MAC \"02:00:00:00:00\": expected a MAC address like 02:00:00:00:00:03"},
        {{"debug", "on"}, nullptr},
        {{"debug", "off"}, nullptr},
        {{"debug", "yes"}, "debug: expected on or off, not \"yes\""},
        {{"debug"}, "debug: usage: debug on|off"},
        {{"debug-level", "0x2", "set"}, nullptr},
        {{"debug-level", "2", "clear"}, nullptr},
        {{"debug-level", "2", "toggle"}, "debug-level: expected set or clear, not \"toggle\""},
        {{"debug-level", "2"}, "debug-level: usage: debug-level LEVEL set|clear"},
        {{"debug-level", "7", "set"},
         "LEVEL \"7\": expected 0 to 3, decimal or 0x hex (2 turns on frame dumps)"},
        {{"reboot"}, "unknown command \"reboot\" (bindings, delete, debug, debug-level, counters, events, latency, status, metrics, monitor)"},
        {{}, "no command (bindings, delete, debug, debug-level, counters, events, latency, status, metrics, monitor)"},
        {{"status", "--verbose"}, "status: usage: status [--json]"},
    };
    for (const Case& c : cases) {
        Command cmd;
        std::string error;
        bool ok = ctl::parseCommand(c.words, cmd, error);
        EXPECT_EQ(ok, c.error == nullptr) << (c.words.empty() ? "" : c.words[0]);
        if (c.error != nullptr) {
            EXPECT_EQ(error, c.error);
        }
    }
    Command cmd;
    std::string error;
    ASSERT_TRUE(ctl::parseCommand({"debug-level", "0x2", "clear"}, cmd, error));
    EXPECT_EQ(cmd.kind, Command::DebugLevel);
    EXPECT_EQ(cmd.level, 2u);
    EXPECT_FALSE(cmd.set);
    ASSERT_TRUE(ctl::parseCommand({"delete", "10.1.2.3", "4094", "AA-BB-CC-DD-EE-FF"}, cmd, error));
    EXPECT_EQ(cmd.kind, Command::Delete);
    EXPECT_EQ(cmd.key.ip, (std::array<uint8_t, 4>{10, 1, 2, 3}));
    EXPECT_EQ(cmd.key.vlan, 4094);
    EXPECT_EQ(cmd.key.mac, (std::array<uint8_t, 6>{0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF}));
}

TEST(ControlWords, ClientWordsStayOnePrintableLine)
{
    Command cmd;
    std::string error;
    EXPECT_FALSE(ctl::parseCommand({"debug", std::string("o\x1b[2Jn\n") + std::string(100, 'x')}, cmd, error));
    EXPECT_EQ(error.find('\n'), std::string::npos);
    EXPECT_EQ(error.find('\x1b'), std::string::npos);
    EXPECT_NE(error.find("...\""), std::string::npos) << error;
}

// ---- answers ------------------------------------------------------------------------

Binding binding(std::array<uint8_t, 4> ip, uint16_t vlan, std::array<uint8_t, 6> mac, const char* port,
                uint32_t lease)
{
    Binding b;
    b.ip = ip;
    b.vlan = vlan;
    b.mac = mac;
    b.port = port;
    b.lease = lease;
    return b;
}

TEST(ControlAnswers, BindingsJsonIsTheAgreedShape)
{
    std::vector<Binding> b = {binding({198, 18, 0, 23}, 10, {0x02, 0, 0, 0, 0, 0x03}, "1/0/3", 3597),
                              binding({198, 18, 0, 5}, 10, {0x02, 0xAB, 0, 0, 0, 0x04}, "po2", ctl::kLeaseForever)};
    ctl::sortBindings(b);
    EXPECT_EQ(ctl::bindingsJson(b),
              "[{\"ip\":\"198.18.0.5\",\"mac\":\"02:ab:00:00:00:04\",\"vlan\":10,\"port\":\"po2\",\"lease\":null},\n"
              " {\"ip\":\"198.18.0.23\",\"mac\":\"02:00:00:00:00:03\",\"vlan\":10,\"port\":\"1/0/3\",\"lease\":3597}]\n");
    EXPECT_EQ(ctl::bindingsJson({}), "[]\n");
    EXPECT_EQ(ctl::bindingsTable(b),
              "IP               MAC                VLAN  PORT         LEASE(s)\n"
              "198.18.0.5       02:ab:00:00:00:04    10  po2          infinite\n"
              "198.18.0.23      02:00:00:00:00:03    10  1/0/3        3597\n");
    EXPECT_EQ(ctl::bindingsTable({}), "No bindings.\n");
}

TEST(ControlAnswers, BindingsSortByVlanThenAddress)
{
    std::vector<Binding> b = {binding({10, 0, 0, 2}, 20, {1}, "1/0/1", 1), binding({10, 0, 0, 9}, 5, {2}, "1/0/1", 1),
                              binding({10, 0, 0, 1}, 20, {3}, "1/0/1", 1)};
    ctl::sortBindings(b);
    EXPECT_EQ(b[0].vlan, 5);
    EXPECT_EQ(b[1].ip, (std::array<uint8_t, 4>{10, 0, 0, 1}));
    EXPECT_EQ(b[2].ip, (std::array<uint8_t, 4>{10, 0, 0, 2}));
}

TEST(ControlAnswers, CountersJsonIsTheAgreedShape)
{
    live::PortCounters a;
    a.name = "1/0/3";
    a.interface = "sw3";
    a.rxFrames = 12;
    a.txFrames = 9;
    a.trapped = 4;
    a.dhcpForwarded = 3;
    a.sourceGuardDropped = 2;
    a.dropped["untrusted server message"] = 1;
    a.dropped["packet pool full"] = 5000000000ull;
    a.discarded["stacked VLAN tags"] = 6;
    a.txFailed["interface queue full"] = 7;
    a.fdbNotLearned = 8;
    live::PortCounters b;
    b.name = "1/0/4";
    b.interface = "sw\"4";
    EXPECT_EQ(ctl::countersJson({a, b}),
              "[{\"port\":\"1/0/3\",\"interface\":\"sw3\",\"rx\":12,\"tx\":9,\"trapped\":4,\"dhcp_forwarded\":3,"
              "\"source_guard_dropped\":2,\"dropped\":{\"packet pool full\":5000000000,\"untrusted server "
              "message\":1},\"discarded\":{\"stacked VLAN tags\":6},\"tx_failed\":{\"interface queue full\":7},"
              "\"fdb_not_learned\":8},\n"
              " {\"port\":\"1/0/4\",\"interface\":\"sw\\\"4\",\"rx\":0,\"tx\":0,\"trapped\":0,\"dhcp_forwarded\":0,"
              "\"source_guard_dropped\":0,\"dropped\":{},\"discarded\":{},\"tx_failed\":{},\"fdb_not_learned\":0}]\n");
    std::string table = ctl::countersTable({a});
    EXPECT_NE(table.find("1/0/3        sw3"), std::string::npos) << table;
    EXPECT_NE(table.find("5000000001\n"), std::string::npos) << table;
    EXPECT_NE(table.find("    dropped: untrusted server message: 1\n"), std::string::npos) << table;
    EXPECT_NE(table.find("    discarded: stacked VLAN tags: 6\n"), std::string::npos) << table;
    EXPECT_NE(table.find("    send failed: interface queue full: 7\n"), std::string::npos) << table;
    EXPECT_EQ(ctl::countersTable({}), "No ports.\n");
}

TEST(ControlAnswers, EventsJsonIsTheAgreedShape)
{
    live::Event e1{1795383601000ull, 4, "DHCP snooping: DHCP rate limit exceeded on port 1/0/3"};
    live::Event e2{1795383601999ull, 0x6C200002u, "tab\there"};
    EXPECT_EQ(ctl::eventsJson({e1, e2}),
              "[{\"time\":\"2026-11-22T21:40:01Z\",\"code\":4,\"text\":\"DHCP snooping: DHCP rate limit exceeded on "
              "port 1/0/3\"},\n"
              " {\"time\":\"2026-11-22T21:40:01Z\",\"code\":1814036482,\"text\":\"tab\\there\"}]\n");
    EXPECT_EQ(ctl::eventsTable({e1}),
              "2026-11-22T21:40:01Z  4  DHCP snooping: DHCP rate limit exceeded on port 1/0/3\n");
    EXPECT_EQ(ctl::eventsTable({}), "No events.\n");
}

TEST(ControlAnswers, JsonStringsEscapeEverythingBelowBlank)
{
    EXPECT_EQ(jsontext::quoted(std::string("a\"b\\c\n\r\t\x01\x1f\x7f", 11)),
              "\"a\\\"b\\\\c\\n\\r\\t\\u0001\\u001f\\u007f\"");
    EXPECT_EQ(jsontext::quoted("port 1/0/3 \xc3\xa9"), "\"port 1/0/3 \xc3\xa9\"");
}

// A backend that records what the daemon asks of the module.
struct FakeBackend {
    std::vector<Binding> bindings;
    bool bindingsFail = false;
    bool removeFail = false;
    std::vector<BindingKey> removed;
    std::vector<bool> debug;
    std::vector<std::pair<uint32_t, uint32_t>> levels;
    uint32_t levelResult = 0;
    std::vector<live::PortCounters> counters;
    std::vector<live::Event> events;
    live::Latency latency;
    std::vector<bool> latencyClears;
    live::SaveStatus saveStatus;

    ctl::Backend backend()
    {
        ctl::Backend b;
        b.bindings = [this](std::vector<Binding>& out, std::string& error) {
            if (bindingsFail) {
                error = "no snapshot";
                return false;
            }
            out = bindings;
            return true;
        };
        b.remove = [this](const BindingKey& k, std::string& error) {
            if (removeFail) {
                error = "queue full";
                return false;
            }
            removed.push_back(k);
            return true;
        };
        b.setDebug = [this](bool on) { debug.push_back(on); };
        b.setDebugLevel = [this](uint32_t level, uint32_t flag) {
            levels.push_back({level, flag});
            return levelResult;
        };
        b.counters = [this] { return counters; };
        b.events = [this] { return events; };
        b.latency = [this](bool clear) {
            latencyClears.push_back(clear);
            return latency;
        };
        b.saveStatus = [this] { return saveStatus; };
        return b;
    }
};

TEST(ControlCommands, DeleteOfAnUnknownBindingIsRefusedAndNotPosted)
{
    FakeBackend f;
    f.bindings = {binding({198, 18, 0, 23}, 10, {2, 0, 0, 0, 0, 3}, "1/0/3", 60)};
    Reply r = ctl::runCommand({"delete", "198.18.0.23", "11", "02:00:00:00:00:03"}, f.backend());
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.body, "delete: no binding 198.18.0.23 vlan 11 02:00:00:00:00:03");
    r = ctl::runCommand({"delete", "198.18.0.23", "10", "02:00:00:00:00:04"}, f.backend());
    EXPECT_FALSE(r.ok);
    EXPECT_TRUE(f.removed.empty());

    r = ctl::runCommand({"delete", "198.18.0.23", "10", "02:00:00:00:00:03"}, f.backend());
    EXPECT_TRUE(r.ok);
    EXPECT_EQ(r.body, "removal of 198.18.0.23 vlan 10 02:00:00:00:00:03 posted\n");
    ASSERT_EQ(f.removed.size(), 1u);
    EXPECT_EQ(f.removed[0].ip, (std::array<uint8_t, 4>{198, 18, 0, 23}));
    EXPECT_EQ(f.removed[0].vlan, 10);
    EXPECT_EQ(f.removed[0].mac, (std::array<uint8_t, 6>{2, 0, 0, 0, 0, 3}));

    f.removeFail = true;
    r = ctl::runCommand({"delete", "198.18.0.23", "10", "02:00:00:00:00:03"}, f.backend());
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.body, "delete: queue full");
    f.bindingsFail = true;
    r = ctl::runCommand({"delete", "198.18.0.23", "10", "02:00:00:00:00:03"}, f.backend());
    EXPECT_EQ(r.body, "delete: no snapshot");
    r = ctl::runCommand({"bindings"}, f.backend());
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.body, "bindings: no snapshot");
}

TEST(ControlCommands, LatencyAsJsonOrALineAndClearedOnRequest)
{
    FakeBackend f;
    Reply r = ctl::runCommand({"latency"}, f.backend());
    EXPECT_TRUE(r.ok);
    EXPECT_EQ(r.body, "no trapped frame sent on yet\n");
    f.latency.frames = 12;
    f.latency.p50Us = 21.5;
    f.latency.p99Us = 118;
    f.latency.maxUs = 2301.94;
    r = ctl::runCommand({"latency", "--json", "--clear"}, f.backend());
    EXPECT_TRUE(r.ok);
    EXPECT_EQ(r.body, "{\"frames\":12,\"p50_us\":21.5,\"p99_us\":118.0,\"max_us\":2301.9}\n");
    r = ctl::runCommand({"latency", "--clear"}, f.backend());
    EXPECT_EQ(r.body, "trap to transmit, 12 frames: p50 21.5 us, p99 118.0 us, max 2301.9 us\n");
    EXPECT_EQ(f.latencyClears, (std::vector<bool>{false, true, true}));
    for (auto words : {std::vector<std::string>{"latency", "--json", "--json"},
                       std::vector<std::string>{"latency", "now"}}) {
        r = ctl::runCommand(words, f.backend());
        EXPECT_FALSE(r.ok);
        EXPECT_EQ(r.body, "latency: usage: latency [--json] [--clear]");
    }
}

TEST(ControlCommands, DebugLevelSetIsFlagZeroClearIsFlagOne)
{
    FakeBackend f;
    EXPECT_TRUE(ctl::runCommand({"debug-level", "0x2", "set"}, f.backend()).ok);
    EXPECT_TRUE(ctl::runCommand({"debug-level", "3", "clear"}, f.backend()).ok);
    EXPECT_EQ(f.levels, (std::vector<std::pair<uint32_t, uint32_t>>{{2, 0}, {3, 1}}));
    f.levelResult = 1;
    Reply r = ctl::runCommand({"debug-level", "1", "set"}, f.backend());
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.body, "debug-level: the module refused level 1 (result 1)");
    r = ctl::runCommand({"debug-level", "4", "set"}, f.backend());
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(f.levels.size(), 3u) << "a bad level never reaches the module";
}

TEST(ControlCommands, DebugSwitchAndReads)
{
    FakeBackend f;
    EXPECT_EQ(ctl::runCommand({"debug", "on"}, f.backend()).body, "debug on\n");
    EXPECT_EQ(ctl::runCommand({"debug", "off"}, f.backend()).body, "debug off\n");
    EXPECT_EQ(f.debug, (std::vector<bool>{true, false}));
    EXPECT_EQ(ctl::runCommand({"counters", "--json"}, f.backend()).body, "[]\n");
    EXPECT_EQ(ctl::runCommand({"events", "--json"}, f.backend()).body, "[]\n");
    EXPECT_EQ(ctl::runCommand({"bindings", "--json"}, f.backend()).body, "[]\n");
    Reply r = ctl::runCommand({"debug", "maybe"}, f.backend());
    EXPECT_FALSE(r.ok);
    EXPECT_TRUE(f.debug.size() == 2);
}

// ---- the socket ----------------------------------------------------------------------

// A failed save stops every further save: the status says so, loudly.
TEST(ControlCommands, StatusShowsStoppedSavingAndTheLastGoodCopy)
{
    FakeBackend f;
    f.saveStatus.path = "/var/lib/dhcpsnoop/dhcpSnoop.cfg";
    f.saveStatus.savesCompleted = 3;
    f.saveStatus.lastGoodMs = 1795556401000ull;  // 2026-11-24T...
    f.saveStatus.lastGoodBindings = 2;
    Reply r = ctl::runCommand({"status"}, f.backend());
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.body, "binding file: /var/lib/dhcpsnoop/dhcpSnoop.cfg\n"
                      "saving: on\n"
                      "saves completed: 3\n"
                      "save failures: 0\n"
                      "last good copy: " + ctl::utcText(1795556401000ull) + " (2 bindings)\n");
    f.saveStatus.saving = false;
    f.saveStatus.saveFailures = 1;
    f.saveStatus.failedMs = 1795556461000ull;
    f.saveStatus.restoredAtStart = true;
    r = ctl::runCommand({"status"}, f.backend());
    EXPECT_NE(r.body.find("saving: STOPPED after a failed save at " + ctl::utcText(1795556461000ull) +
                          " (SIGHUP to the daemon starts it again)\n"),
              std::string::npos)
        << r.body;
    EXPECT_NE(r.body.find("save failures: 1\n"), std::string::npos);
    EXPECT_NE(r.body.find("restored at start: "), std::string::npos);
    r = ctl::runCommand({"status", "--json"}, f.backend());
    EXPECT_EQ(r.body, "{\"binding_file\":\"/var/lib/dhcpsnoop/dhcpSnoop.cfg\",\"saving\":false,\"saves_completed\":3,"
                      "\"save_failures\":1,\"failed_at\":\"" + ctl::utcText(1795556461000ull) +
                      "\",\"last_good_copy\":\"" + ctl::utcText(1795556401000ull) +
                      "\",\"last_good_bindings\":2,\"restored_at_start\":true}\n");
    f.saveStatus = live::SaveStatus();
    r = ctl::runCommand({"status", "--json"}, f.backend());
    EXPECT_NE(r.body.find("\"failed_at\":null,\"last_good_copy\":null"), std::string::npos) << r.body;
}

// How the daemon ends: a descriptor that cannot be read stops it with its
// own code, and an unfinished save outranks everything.
TEST(DaemonStop, SignalsThatCannotBeReadAndUnfinishedSavesAreNoCleanExit)
{
    std::string error;
    EXPECT_EQ(dstop::readSignal(-1, error), dstop::SignalEvent::Failed);
    EXPECT_EQ(error, "reading signals: Bad file descriptor");
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    ASSERT_EQ(write(p[1], "abc", 3), 3);
    EXPECT_EQ(dstop::readSignal(p[0], error), dstop::SignalEvent::Failed);
    EXPECT_EQ(error, "reading signals: short read");
    close(p[1]);
    EXPECT_EQ(dstop::readSignal(p[0], error), dstop::SignalEvent::Failed) << "end of file";
    close(p[0]);
    EXPECT_EQ(dstop::stopExitCode(false, true), 0);
    EXPECT_EQ(dstop::stopExitCode(true, true), 3);
    EXPECT_EQ(dstop::stopExitCode(false, false), 4);
    EXPECT_EQ(dstop::stopExitCode(true, false), 4);
}

TEST(ControlProtocol, RequestsAndReplies)
{
    std::string text, error;
    ASSERT_TRUE(ctl::encodeRequest({"delete", "1.2.3.4", "10", "02:00:00:00:00:01"}, text, error));
    EXPECT_EQ(text, "delete 1.2.3.4 10 02:00:00:00:00:01\n");
    EXPECT_FALSE(ctl::encodeRequest({"debug", "o n"}, text, error));
    EXPECT_FALSE(ctl::encodeRequest({"debug", ""}, text, error));
    EXPECT_FALSE(ctl::encodeRequest({"debug", "o\nn"}, text, error));
    EXPECT_FALSE(ctl::encodeRequest({std::string(ctl::kRequestMax, 'x')}, text, error));
    EXPECT_EQ(error, "command longer than 1024 bytes");

    std::vector<std::string> words;
    ASSERT_TRUE(ctl::decodeRequest("  bindings   --json ", words, error));
    EXPECT_EQ(words, (std::vector<std::string>{"bindings", "--json"}));
    EXPECT_FALSE(ctl::decodeRequest("bindings\r", words, error));

    Reply r;
    ASSERT_TRUE(ctl::decodeReply("ok\n[]\n", r, error));
    EXPECT_TRUE(r.ok);
    EXPECT_EQ(r.body, "[]\n");
    ASSERT_TRUE(ctl::decodeReply("error\nno", r, error));
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.body, "no");
    EXPECT_FALSE(ctl::decodeReply("", r, error));
    EXPECT_FALSE(ctl::decodeReply("OK\n", r, error));
    EXPECT_EQ(ctl::encodeReply({true, "x\n"}), "ok\nx\n");
}

class ControlSocket : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/dhcpsnoop-control-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        path = dir + "/ctl.sock";
        fdsBefore = openFds();
    }
    void TearDown() override
    {
        server.reset();
        EXPECT_EQ(openFds(), fdsBefore) << "descriptors left open";
        std::string cmd = "rm -rf '" + dir + "'";
        EXPECT_EQ(system(cmd.c_str()), 0);
    }

    void serve()
    {
        server.reset(new ctl::Server);
        std::string error;
        ASSERT_TRUE(server->listen(path, error)) << error;
        ASSERT_TRUE(server->start([this](const std::vector<std::string>& w) { return ctl::runCommand(w, fake.backend()); },
                                  error))
            << error;
    }

    int ctl(std::vector<std::string> args, std::string& out, std::string& err)
    {
        args.insert(args.begin(), {"--control", path});
        std::ostringstream o, e;
        int rc = ctl::ctlMain(args, o, e);
        out = o.str();
        err = e.str();
        return rc;
    }

    // A client socket connected to the server, or -1.
    int connectRaw()
    {
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        struct sockaddr_un a;
        memset(&a, 0, sizeof a);
        a.sun_family = AF_UNIX;
        snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
        if (connect(fd, (struct sockaddr*)&a, sizeof a) != 0) {
            close(fd);
            return -1;
        }
        return fd;
    }

    std::string dir;
    std::string path;
    size_t fdsBefore = 0;
    FakeBackend fake;
    std::unique_ptr<ctl::Server> server;
};

TEST_F(ControlSocket, RoundTripWithTheExitCodes)
{
    fake.bindings = {binding({198, 18, 0, 23}, 10, {2, 0, 0, 0, 0, 3}, "1/0/3", 3597)};
    serve();
    std::string out, err;
    EXPECT_EQ(ctl({"bindings", "--json"}, out, err), 0);
    EXPECT_EQ(out, "[{\"ip\":\"198.18.0.23\",\"mac\":\"02:00:00:00:00:03\",\"vlan\":10,\"port\":\"1/0/3\",\"lease\":3597}]\n");
    EXPECT_EQ(err, "");

    EXPECT_EQ(ctl({"delete", "198.18.0.23", "10", "02:00:00:00:00:03"}, out, err), 0);
    EXPECT_EQ(fake.removed.size(), 1u);

    // Refused by the daemon: 1, the daemon's reason.
    EXPECT_EQ(ctl({"delete", "198.18.0.24", "10", "02:00:00:00:00:03"}, out, err), 1);
    EXPECT_EQ(err, "dhcpsnoopctl: delete: no binding 198.18.0.24 vlan 10 02:00:00:00:00:03\n");
    EXPECT_EQ(out, "");

    // Refused before connecting: 1 as well, nothing reaches the daemon.
    EXPECT_EQ(ctl({"debug-level", "9", "set"}, out, err), 1);
    EXPECT_EQ(err, "dhcpsnoopctl: LEVEL \"9\": expected 0 to 3, decimal or 0x hex (2 turns on frame dumps)\n");
    EXPECT_TRUE(fake.levels.empty());
    EXPECT_EQ(ctl({"debug-level", "2", "set"}, out, err), 0);
    EXPECT_EQ(fake.levels.size(), 1u);

    server->stop();
    EXPECT_NE(access(path.c_str(), F_OK), 0) << "the socket file goes with the server";
    EXPECT_EQ(ctl({"bindings"}, out, err), 2);
    EXPECT_EQ(err.rfind("dhcpsnoopctl: cannot reach the daemon at " + path + ": ", 0), 0u) << err;
}

TEST_F(ControlSocket, CtlOptionsAndUsage)
{
    std::ostringstream o, e;
    EXPECT_EQ(ctl::ctlMain({"--help"}, o, e), 0);
    EXPECT_EQ(o.str().rfind("usage: dhcpsnoopctl [--control SOCKET] COMMAND\n", 0), 0u);
    std::ostringstream o2, e2;
    EXPECT_EQ(ctl::ctlMain({"--control"}, o2, e2), 1);
    EXPECT_EQ(e2.str(), "dhcpsnoopctl: --control needs a SOCKET path\n");
    std::ostringstream o3, e3;
    EXPECT_EQ(ctl::ctlMain({"--verbose", "bindings"}, o3, e3), 1);
    EXPECT_EQ(e3.str().rfind("dhcpsnoopctl: unknown option --verbose\n", 0), 0u);
    std::ostringstream o4, e4;
    EXPECT_EQ(ctl::ctlMain({}, o4, e4), 1);
    EXPECT_EQ(e4.str().rfind("dhcpsnoopctl: no command\n", 0), 0u);
    // --control=PATH, and a path nobody listens on: 2.
    std::ostringstream o5, e5;
    EXPECT_EQ(ctl::ctlMain({"--control=" + path, "events"}, o5, e5), 2);
    EXPECT_NE(e5.str().find(path), std::string::npos);
    std::ostringstream o6, e6;
    EXPECT_EQ(ctl::ctlMain({"--control", std::string(200, 'p'), "events"}, o6, e6), 2);
    EXPECT_NE(e6.str().find("longer than"), std::string::npos) << e6.str();
}

TEST_F(ControlSocket, SocketIsOwnerOnly)
{
    mode_t old = umask(0);
    serve();
    umask(old);
    struct stat st;
    ASSERT_EQ(lstat(path.c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST_F(ControlSocket, StaleSocketFileIsReplaced)
{
    // A socket file left by a daemon that died: bound, then closed.
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    struct sockaddr_un a;
    memset(&a, 0, sizeof a);
    a.sun_family = AF_UNIX;
    snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
    ASSERT_EQ(bind(fd, (struct sockaddr*)&a, sizeof a), 0);
    close(fd);
    ASSERT_EQ(access(path.c_str(), F_OK), 0);
    serve();
    std::string out, err;
    EXPECT_EQ(ctl({"events"}, out, err), 0);
    EXPECT_EQ(out, "No events.\n");
}

TEST_F(ControlSocket, ARunningDaemonsSocketIsNotTaken)
{
    serve();
    ctl::Server second;
    std::string error;
    EXPECT_FALSE(second.listen(path, error));
    EXPECT_EQ(error, "another daemon is listening on " + path + " (it holds " + path + ".lock)");
    std::string out, err;
    EXPECT_EQ(ctl({"events"}, out, err), 0) << "the first one still answers";
}

TEST_F(ControlSocket, AListeningSocketWithoutTheLockIsNotTakenEither)
{
    // A daemon that holds no lock file (an older one) listens on the path.
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un a;
    memset(&a, 0, sizeof a);
    a.sun_family = AF_UNIX;
    snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
    ASSERT_EQ(bind(fd, (struct sockaddr*)&a, sizeof a), 0);
    ASSERT_EQ(listen(fd, 1), 0);
    ctl::Server second;
    std::string error;
    EXPECT_FALSE(second.listen(path, error));
    EXPECT_EQ(error, "another daemon is listening on " + path);
    struct stat st;
    EXPECT_EQ(lstat(path.c_str(), &st), 0);
    close(fd);
    // Its lock is given up with the refusal: a later start may take it.
    EXPECT_TRUE(second.listen(path, error)) << error;
}

// Two daemons starting at once: the second probes the first one's socket
// after its bind and before its listen, when a connect is still refused.
TEST_F(ControlSocket, TwoDaemonsStartingAtOnceCannotBothListen)
{
    ctl::Server first;
    ctl::Server second;
    std::string error, secondError;
    bool secondListened = true;
    first.afterBindForTests = [&] { secondListened = second.listen(path, secondError); };
    ASSERT_TRUE(first.listen(path, error)) << error;
    EXPECT_FALSE(secondListened) << "both would serve";
    EXPECT_EQ(secondError, "another daemon is listening on " + path + " (it holds " + path + ".lock)");
    struct stat st;
    EXPECT_EQ(lstat(path.c_str(), &st), 0) << "the first one's socket stays";
    first.stop();
    // Once the first has stopped, its lock is free again (the lock file stays).
    EXPECT_TRUE(second.listen(path, error)) << error;
    second.stop();
    EXPECT_EQ(access((path + ".lock").c_str(), F_OK), 0);
}

// Whoever can write the socket's directory may swap the fresh socket file
// for a symbolic link: nothing may then change the link's target.
TEST_F(ControlSocket, ASymlinkPlantedAfterTheBindIsNotFollowed)
{
    std::string victim = dir + "/victim";
    std::ofstream(victim) << "x";
    ASSERT_EQ(chmod(victim.c_str(), 0644), 0);
    ctl::Server s;
    s.afterBindForTests = [&] {
        unlink(path.c_str());
        ASSERT_EQ(symlink(victim.c_str(), path.c_str()), 0);
    };
    std::string error;
    EXPECT_FALSE(s.listen(path, error)) << "the socket file is no longer ours";
    EXPECT_EQ(error, "control socket " + path + " was replaced while it was being made");
    struct stat st;
    ASSERT_EQ(stat(victim.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u) << "the link's target was changed";
    ASSERT_EQ(lstat(path.c_str(), &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode)) << "another's file is not removed";
}

TEST_F(ControlSocket, OnlyRootAndTheDaemonsOwnUserAreServed)
{
    serve();
    std::string out, err;
    EXPECT_EQ(ctl({"events"}, out, err), 0) << "the daemon's own user";
    // A server whose users are others than this test's.
    server.reset(new ctl::Server);
    server->allowUsers({(uint32_t)geteuid() + 4242u});
    std::string error;
    ASSERT_TRUE(server->listen(path, error)) << error;
    ASSERT_TRUE(server->start([this](const std::vector<std::string>& w) { return ctl::runCommand(w, fake.backend()); },
                              error))
        << error;
    EXPECT_EQ(ctl({"events"}, out, err), 1);
    EXPECT_EQ(err, "dhcpsnoopctl: user " + std::to_string(geteuid()) +
                       " may not use the control socket (root and the daemon's user only)\n");
    // A monitor is asked for like any command: refused the same way.
    EXPECT_EQ(ctl({"monitor"}, out, err), 1);
    EXPECT_EQ(err, "dhcpsnoopctl: user " + std::to_string(geteuid()) +
                       " may not use the control socket (root and the daemon's user only)\n");
    EXPECT_EQ(server->monitors().clients(), 0u);
    EXPECT_EQ(out, "");
}

#ifdef DHCPSNOOP_CTL_TOOL
// The socket file is owner-only; even where its mode or directory were
// opened up, another user's command is refused by its credentials.
TEST_F(ControlSocket, AnotherUserIsRefusedEvenThroughAnOpenSocketFile)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to run a client as another user";
    fake.bindings = {binding({198, 18, 0, 23}, 10, {2, 0, 0, 0, 0, 3}, "1/0/3", 3597)};
    serve();
    ASSERT_EQ(chmod(dir.c_str(), 0755), 0);
    ASSERT_EQ(chmod(path.c_str(), 0666), 0);
    std::string errFile = dir + "/err";
    std::string cmd = "setpriv --reuid=65534 --regid=65534 --clear-groups " + std::string(DHCPSNOOP_CTL_TOOL) +
                      " --control '" + path + "' delete 198.18.0.23 10 02:00:00:00:00:03 >/dev/null 2>'" +
                      errFile + "'";
    int st = system(cmd.c_str());
    ASSERT_TRUE(WIFEXITED(st));
    EXPECT_EQ(WEXITSTATUS(st), 1);
    std::ifstream in(errFile);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(text, "dhcpsnoopctl: user 65534 may not use the control socket (root and the daemon's user only)\n");
    EXPECT_TRUE(fake.removed.empty()) << "nothing of the command was run";
}
#endif

TEST_F(ControlSocket, AFileThatIsNoSocketIsLeftAlone)
{
    std::ofstream(path) << "keep me";
    ctl::Server s;
    std::string error;
    EXPECT_FALSE(s.listen(path, error));
    EXPECT_EQ(error, "control socket " + path + " exists and is not a socket");
    std::ifstream in(path);
    std::string text;
    std::getline(in, text);
    EXPECT_EQ(text, "keep me");
    EXPECT_FALSE(s.listen(dir + "/" + std::string(120, 'x'), error));
    EXPECT_NE(error.find("longer than"), std::string::npos);
}

TEST_F(ControlSocket, OversizedRequestIsRefusedWithoutReadingOn)
{
    serve();
    for (size_t size : {ctl::kRequestMax, ctl::kRequestMax + 10}) {
        // One byte too many with its newline, and far too many without one.
        std::string big = size == ctl::kRequestMax ? std::string(size, 'a') + "\n" : std::string(size, 'a');
        int fd = connectRaw();
        ASSERT_GE(fd, 0);
        ASSERT_EQ(send(fd, big.data(), big.size(), MSG_NOSIGNAL), (ssize_t)big.size());
        std::string reply;
        char buf[256];
        ssize_t n;
        while ((n = recv(fd, buf, sizeof buf, 0)) > 0)
            reply.append(buf, (size_t)n);
        close(fd);
        EXPECT_EQ(reply, "error\nrequest longer than 1024 bytes") << size;
    }
    // At the limit, newline included, it is read and answered.
    int fd = connectRaw();
    ASSERT_GE(fd, 0);
    std::string limit = std::string(ctl::kRequestMax - 1, 'a') + "\n";
    ASSERT_EQ(send(fd, limit.data(), limit.size(), MSG_NOSIGNAL), (ssize_t)limit.size());
    char buf[256];
    ssize_t n = recv(fd, buf, sizeof buf, 0);
    close(fd);
    ASSERT_GT(n, 0);
    EXPECT_EQ(std::string(buf, (size_t)n).rfind("error\nunknown command \"aaaa", 0), 0u);
    std::string out, err;
    EXPECT_EQ(ctl({"events"}, out, err), 0) << "the server serves the next client";
}

TEST_F(ControlSocket, RawRequestWithoutNewlineAndControlCharacters)
{
    serve();
    for (auto c : std::vector<std::pair<std::string, std::string>>{
             {"events --json", "ok\n[]\n"},
             {"events\x01", "error\nrequest with a control character"},
             {"", "error\nno command (bindings, delete, debug, debug-level, counters, events, latency, status, metrics, monitor)"}}) {
        int fd = connectRaw();
        ASSERT_GE(fd, 0);
        ASSERT_EQ(send(fd, c.first.data(), c.first.size(), MSG_NOSIGNAL), (ssize_t)c.first.size());
        shutdown(fd, SHUT_WR);
        std::string reply;
        char buf[256];
        ssize_t n;
        while ((n = recv(fd, buf, sizeof buf, 0)) > 0)
            reply.append(buf, (size_t)n);
        close(fd);
        EXPECT_EQ(reply, c.second);
    }
}

TEST_F(ControlSocket, ASilentClientNeitherBlocksOthersLongNorTheStop)
{
    serve();
    int silent = connectRaw();
    ASSERT_GE(silent, 0);
    // The next client waits at most for the silent one's time-out.
    auto t0 = std::chrono::steady_clock::now();
    std::string out, err;
    EXPECT_EQ(ctl({"events"}, out, err), 0) << err;
    auto waited = std::chrono::steady_clock::now() - t0;
    EXPECT_LT(waited, std::chrono::milliseconds(ctl::kClientTimeoutMs + 3000));

    int silent2 = connectRaw();
    ASSERT_GE(silent2, 0);
    usleep(100 * 1000);  // the server is now waiting on it
    t0 = std::chrono::steady_clock::now();
    server->stop();
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(1000));
    close(silent);
    close(silent2);
}

TEST_F(ControlSocket, AClientThatLeavesEarlyDoesNotHurtTheServer)
{
    fake.events.assign(20000, live::Event{0, 1, std::string(100, 'e')});
    serve();
    int fd = connectRaw();
    ASSERT_GE(fd, 0);
    ASSERT_EQ(send(fd, "events --json\n", 14, MSG_NOSIGNAL), 14);
    close(fd);  // the reply (2 MB) finds nobody: no SIGPIPE, no hang
    std::string out, err;
    EXPECT_EQ(ctl({"events"}, out, err), 0) << err;
    EXPECT_EQ(out.size(), 20000u * 126u);
}

// ---- monitors ---------------------------------------------------------------------

live::MonitorEvent monitorEvent(uint8_t n)
{
    live::MonitorEvent e;
    e.kind = live::MonitorEvent::BindingAdded;
    e.unixMs = 1795383601123ull;
    e.ip = {198, 18, 0, n};
    e.mac = {2, 0, 0, 0, 0, n};
    e.vlan = 10;
    e.port = "1/0/3";
    e.lease = 60;
    e.cause = "ACK";
    return e;
}

bool waitFor(const std::function<bool()>& f, int ms = 5000)
{
    for (int i = 0; i < ms / 10; ++i) {
        if (f())
            return true;
        usleep(10 * 1000);
    }
    return f();
}

// Reads one line within a time (no newline: what came).
std::string readLine(int fd, int ms = 5000)
{
    std::string line;
    char c;
    while (line.empty() || line.back() != '\n') {
        struct pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, ms) != 1 || recv(fd, &c, 1, 0) != 1)
            break;
        line += c;
    }
    return line;
}

TEST_F(ControlSocket, MonitorsGetEventsAsTheyHappenUntilTheDaemonStops)
{
    serve();
    int text = connectRaw();
    int json = connectRaw();
    ASSERT_GE(text, 0);
    ASSERT_GE(json, 0);
    ASSERT_EQ(send(text, "monitor\n", 8, MSG_NOSIGNAL), 8);
    ASSERT_EQ(send(json, "monitor --json\n", 15, MSG_NOSIGNAL), 15);
    EXPECT_EQ(readLine(text), "ok\n");
    EXPECT_EQ(readLine(json), "ok\n");
    ASSERT_TRUE(waitFor([&] { return server->monitors().clients() == 2; }));
    for (uint8_t n : {23, 24}) {
        server->monitors().publish(monitorEvent(n));
        // Each as it happens, not at the end of anything.
        EXPECT_EQ(readLine(text), ctl::monitorLine(monitorEvent(n), false));
        EXPECT_EQ(readLine(json), ctl::monitorLine(monitorEvent(n), true));
    }
    // Other commands are served meanwhile.
    std::string out, err;
    EXPECT_EQ(ctl({"events"}, out, err), 0) << err;
    server->stop();
    char c;
    EXPECT_EQ(recv(text, &c, 1, 0), 0) << "the stream ends with the daemon";
    EXPECT_EQ(recv(json, &c, 1, 0), 0);
    close(text);
    close(json);
}

TEST_F(ControlSocket, CtlMonitorCopiesTheLinesUntilTheDaemonEndsThem)
{
    serve();
    int rc = -1;
    std::string out, err;
    std::thread t([&] { rc = ctl({"monitor", "--json"}, out, err); });
    ASSERT_TRUE(waitFor([&] { return server->monitors().clients() == 1; }));
    server->monitors().publish(monitorEvent(23));
    live::MonitorEvent gone = monitorEvent(23);
    gone.kind = live::MonitorEvent::BindingRemoved;
    gone.cause = "RELEASE";
    server->monitors().publish(gone);
    usleep(300 * 1000);
    server->stop();
    t.join();
    EXPECT_EQ(rc, 2);
    EXPECT_EQ(out, ctl::monitorLine(monitorEvent(23), true) + ctl::monitorLine(gone, true));
    EXPECT_EQ(err, "dhcpsnoopctl: the daemon ended the monitor\n");
}

TEST_F(ControlSocket, MonitorsAreLimitedAndTheirPlacesComeBack)
{
    serve();
    std::vector<int> fds;
    for (size_t i = 0; i < ctl::kMonitorsMax; ++i) {
        int fd = connectRaw();
        ASSERT_GE(fd, 0);
        ASSERT_EQ(send(fd, "monitor\n", 8, MSG_NOSIGNAL), 8);
        EXPECT_EQ(readLine(fd), "ok\n");
        fds.push_back(fd);
    }
    std::string out, err;
    EXPECT_EQ(ctl({"monitor"}, out, err), 1);
    EXPECT_EQ(err, "dhcpsnoopctl: monitor: " + std::to_string(ctl::kMonitorsMax) +
                       " monitors are connected already\n");
    close(fds.back());
    fds.pop_back();
    ASSERT_TRUE(waitFor([&] { return server->monitors().clients() == ctl::kMonitorsMax - 1; }));
    int fd = connectRaw();
    ASSERT_GE(fd, 0);
    ASSERT_EQ(send(fd, "monitor --json\n", 15, MSG_NOSIGNAL), 15);
    EXPECT_EQ(readLine(fd), "ok\n");
    fds.push_back(fd);
    for (int f : fds)
        close(f);
    ASSERT_TRUE(waitFor([&] { return server->monitors().clients() == 0; }));
}

TEST_F(ControlSocket, AMonitorThatDoesNotReadNeverHoldsTheDaemon)
{
    serve();
    int stuck = connectRaw();
    ASSERT_GE(stuck, 0);
    ASSERT_EQ(send(stuck, "monitor\n", 8, MSG_NOSIGNAL), 8);
    ASSERT_TRUE(waitFor([&] { return server->monitors().clients() == 1; }));
    auto t0 = std::chrono::steady_clock::now();
    const int kEvents = 20000;
    for (int i = 0; i < kEvents; ++i)
        server->monitors().publish(monitorEvent((uint8_t)i));
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(5));
    std::string out, err;
    EXPECT_EQ(ctl({"events"}, out, err), 0) << "commands are still served";
    // Read late: lines and the lost count add up to everything published.
    std::string text;
    uint64_t lines = 0, lost = 0;
    while (lines + lost < (uint64_t)kEvents) {
        std::string l = readLine(stuck, 2000);
        if (l.empty())
            break;
        if (l == "ok\n")
            continue;
        size_t p = l.find(" lost ");
        if (p != std::string::npos)
            lost += std::stoull(l.substr(p + 6));
        else
            ++lines;
    }
    EXPECT_GT(lost, 0u);
    EXPECT_EQ(lines + lost, (uint64_t)kEvents);
    close(stuck);
}

TEST_F(ControlSocket, AMonitorRequestOnTheOneShotPathIsRefused)
{
    ctl::Reply r = ctl::runCommand({"monitor"}, FakeBackend().backend());
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.body, "monitor: only over a connection of its own (dhcpsnoopctl monitor)");
}

#ifdef DHCPSNOOP_CTL_TOOL
TEST_F(ControlSocket, TheProgramsExitCodes)
{
    serve();
    auto run = [&](const std::string& args) {
        std::string cmd = std::string(DHCPSNOOP_CTL_TOOL) + " --control '" + path + "' " + args + " >/dev/null 2>&1";
        int st = system(cmd.c_str());
        return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    };
    EXPECT_EQ(run("events --json"), 0);
    EXPECT_EQ(run("debug sideways"), 1);
    EXPECT_EQ(run("delete 1.2.3.4 10 02:00:00:00:00:01"), 1);
    server->stop();
    EXPECT_EQ(run("events"), 2);
}
#endif

// ---- the module behind it (simulation) -------------------------------------------------

class ControlModule : public SnoopTest {
protected:
    void file(std::array<uint8_t, 4> ip, uint16_t vlan, std::array<uint8_t, 6> mac, up port, uint32_t ttl)
    {
        DhcpSnoopElement* e = dhcpSnoopGetMem();
        ASSERT_NE(e, nullptr);
        DhcpSnoopElement v;
        memset(&v, 0, sizeof v);
        memcpy(v.clientIp, ip.data(), 4);
        v.vlan = vlan;
        memcpy(v.clientMac, mac.data(), 6);
        v.up = port;
        v.ttl = ttl;
        v.type = DHCP_SNOOP_TYPE_ACK;
        dhcpSnoopElementStore(e, &v);
        ASSERT_EQ(dhcpSnoopElementAddNew(e, DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    }
};

TEST_F(ControlModule, BindingsComeFromTheModulesSnapshot)
{
    startModule();
    file({198, 18, 0, 23}, 10, {2, 0, 0, 0, 0, 3}, sim::physicalPort(1, 3), 3597);
    file({198, 18, 0, 24}, 10, {2, 0, 0, 0, 0, 4}, sim::portChannel(2), DHCP_SNOOP_TTL_FOREVER);
    std::vector<Binding> b;
    std::string error;
    ASSERT_TRUE(ctl::readModuleBindings(b, error)) << error;
    ctl::sortBindings(b);
    EXPECT_EQ(ctl::bindingsJson(b),
              "[{\"ip\":\"198.18.0.23\",\"mac\":\"02:00:00:00:00:03\",\"vlan\":10,\"port\":\"1/0/3\",\"lease\":3597},\n"
              " {\"ip\":\"198.18.0.24\",\"mac\":\"02:00:00:00:00:04\",\"vlan\":10,\"port\":\"po2\",\"lease\":null}]\n");
    // The lease counts down with the module's aging.
    simrun::advance(2000);
    ASSERT_TRUE(ctl::readModuleBindings(b, error)) << error;
    ctl::sortBindings(b);
    EXPECT_EQ(b[0].lease, 3595u);
}

TEST_F(ControlModule, RemovalGoesThroughTheModulesQueue)
{
    startModule();
    file({198, 18, 0, 23}, 10, {2, 0, 0, 0, 0, 3}, sim::physicalPort(1, 3), 3597);
    FakeBackend unused;
    ctl::Backend backend = unused.backend();
    backend.bindings = ctl::readModuleBindings;
    backend.remove = ctl::postRemoval;
    Reply r = ctl::runCommand({"delete", "198.18.0.23", "10", "02:00:00:00:00:03"}, backend);
    ASSERT_TRUE(r.ok) << r.body;
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u) << "posted, not done behind the main task's back";
    EXPECT_EQ(simrun::pumpMain(), 1u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    EXPECT_TRUE(sim::qtable().empty()) << "with the removal's side effects";
}

TEST_F(ControlModule, ARemovalTheModuleCannotMatchIsItsOwnErrorLine)
{
    startModule();
    sim::setDebugFlag(1);
    std::string error;
    ASSERT_TRUE(ctl::postRemoval(BindingKey{{10, 0, 0, 1}, 5, {2, 0, 0, 0, 0, 1}}, error)) << error;
    EXPECT_EQ(simrun::pumpMain(), 1u);
    EXPECT_TRUE(sim::hasMessage("not found!!!!!!"));
    EXPECT_TRUE(sim::hasMessage("msg type:11"));
}

TEST_F(ControlModule, AFullQueueIsAClearRefusal)
{
    startModule();
    std::string error;
    uint32_t posted = 0;
    while (ctl::postRemoval(BindingKey{{10, 0, 0, 1}, 5, {2, 0, 0, 0, 0, 1}}, error) && posted < 10000)
        ++posted;
    EXPECT_EQ(posted, DHCP_SNOOP_QUEUE_DEPTH);
    EXPECT_EQ(error, "the module's queue took no removal message (result -1)");
    simrun::runUntilIdle();
}

TEST_F(ControlModule, SnapshotsAreReadWithinTheirLength)
{
    std::vector<uint8_t> buf(DHCP_SNOOP_SNAPSHOT_HEAD_SIZE + DHCP_SNOOP_RUNTIME_RECORD_SIZE, 0);
    dhcpSnoopPutU32(buf.data(), 2);  // counts one record more than it holds
    std::vector<Binding> b{Binding{}};
    std::string error;
    EXPECT_FALSE(ctl::decodeSnapshot(buf.data(), (uint32_t)buf.size(), b, error));
    EXPECT_EQ(error, "the module's snapshot counts 2 records in 56 bytes");
    EXPECT_EQ(b.size(), 1u) << "nothing lost on a refusal";
    EXPECT_FALSE(ctl::decodeSnapshot(buf.data(), 7, b, error));
    EXPECT_FALSE(ctl::decodeSnapshot(nullptr, 0, b, error));
    dhcpSnoopPutU32(buf.data(), 0xFFFFFFFFu);
    EXPECT_FALSE(ctl::decodeSnapshot(buf.data(), (uint32_t)buf.size(), b, error));
    dhcpSnoopPutU32(buf.data(), 1);
    dhcpSnoopPutU32(buf.data() + DHCP_SNOOP_SNAPSHOT_HEAD_SIZE, DHCP_SNOOP_SYNC_ADD);
    ASSERT_TRUE(ctl::decodeSnapshot(buf.data(), (uint32_t)buf.size(), b, error)) << error;
    EXPECT_EQ(b.size(), 1u);
}

}  // namespace
