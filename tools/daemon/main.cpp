// dhcpsnoopd: the DHCP snooping module as a software switch between Linux
// network interfaces. See the README's quick start.
#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <iostream>

#include "platform/linux/live.h"
#include "snooping/dhcpSnoop.h"
#include "tools/daemon/control.h"
#include "tools/daemon/module_backend.h"
#include "tools/daemon/stop.h"

namespace {

using namespace dstop;

// A stop waits this long for a queued binding-file save.
constexpr int kSaveWaitMs = 10000;

// The module's tasks run for the life of the process: leave without running
// static destructors under their feet.
[[noreturn]] void leave(int code)
{
    std::cout.flush();
    std::cerr.flush();
    _exit(code);
}

void warn(const std::string& message)
{
    std::cerr << "dhcpsnoopd: " << message << std::endl;
}

int fail(int code, const std::string& message)
{
    warn(message);
    return code;
}

void sleepMs(long ms)
{
    struct timespec ts = {ms / 1000, (ms % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

ctl::Backend liveBackend()
{
    ctl::Backend b;
    b.bindings = ctl::readModuleBindings;
    b.remove = ctl::postRemoval;
    b.setDebug = live::setDebug;
    b.setDebugLevel = dhcpSnoopSetDebugLevel;
    b.counters = live::counters;
    b.events = live::events;
    b.latency = live::latency;
    b.saveStatus = live::saveStatus;
    return b;
}

// SIGHUP. The debug switch and level follow the file only when the file
// changed them, so a reload for another reason keeps what the operator set
// with dhcpsnoopctl.
void reload(const std::string& path, swcfg::SwitchConfig& current)
{
    // Saving stopped by a failed save starts again, whatever the file says.
    if (!live::saveStatus().saving) {
        std::string why;
        if (live::restartSaving(why))
            warn("saving the binding file restarted");
        else
            warn("saving the binding file not restarted: " + why);
    }
    swcfg::SwitchConfig next;
    std::string error;
    if (!swcfg::loadSwitchConfig(path, next, error) || !live::reconfigure(next, error)) {
        warn("reload: " + error + "; keeping the previous configuration");
        return;
    }
    if (next.debug != current.debug)
        live::setDebug(next.debug);
    if (next.debugLevel != current.debugLevel) {
        dhcpSnoopSetDebugLevel(current.debugLevel & ~next.debugLevel & 3u, 1);
        dhcpSnoopSetDebugLevel(next.debugLevel & 3u, 0);
    }
    current = next;
    DhcpSnoopMsg msg;
    memset(&msg, 0, sizeof msg);
    msg.type = DHCP_SNOOP_MSG_CFG_CHANGE;
    if (dhcpSnoopSendMsgToMainQueue(&msg, 500) != DHCP_SNOOP_OK)
        warn("reload: the module's queue took no configuration-change message");
    std::cerr << "dhcpsnoopd: configuration reloaded from " << path << std::endl;
}

}  // namespace

int main(int argc, char** argv)
{
    CLI::App app{"Runs the DHCP snooping module as a software switch between the network\n"
                 "interfaces named in the configuration, until SIGTERM or SIGINT.\n"
                 "SIGHUP re-reads the configuration.",
                 "dhcpsnoopd"};
    std::string configPath;
    live::Options opt;
    std::string controlPath = "/run/dhcpsnoop.sock";
    bool debug = false;
    app.add_option("--config", configPath, "The switch and its ports, in TOML (see the README)")
        ->type_name("FILE")
        ->required();
    app.add_option("--data-dir", opt.dataDir, "Where the binding file dhcpSnoop.cfg is kept")
        ->type_name("DIR")
        ->capture_default_str();
    app.add_option("--control", controlPath, "The control socket dhcpsnoopctl talks to")
        ->type_name("SOCKET")
        ->capture_default_str();
    app.add_flag("--debug", debug, "Write the module's debug lines to standard error from the start");
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        app.exit(e);
        return kStartFailed;
    }

    // Files and sockets of the daemon are its owner's only: the binding file
    // the module creates names every client's address and MAC.
    umask(077);

    swcfg::SwitchConfig cfg;
    std::string error;
    if (!swcfg::loadSwitchConfig(configPath, cfg, error))
        return fail(kBadConfig, error);

    // Every thread made from here on inherits the mask: the signals arrive
    // only through the descriptor, read by this thread.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGHUP);
    signal(SIGPIPE, SIG_IGN);
    if (pthread_sigmask(SIG_BLOCK, &signals, nullptr) != 0)
        return fail(kStartFailed, "cannot block signals");
    int sigFd = signalfd(-1, &signals, SFD_CLOEXEC);
    if (sigFd < 0)
        return fail(kStartFailed, std::string("signalfd: ") + strerror(errno));

    // The socket first: a second daemon stops here, before it touches the ports.
    ctl::Server server;
    if (!server.listen(controlPath, error))
        return fail(kStartFailed, error);
    if (!live::start(cfg, opt, error))
        return fail(kStartFailed, error);
    live::setDebug(debug || cfg.debug);
    uint32_t rv = dhcpSnoopInit();
    if (rv != DHCP_SNOOP_OK) {
        live::stop();
        server.stop();
        fail(kStartFailed, "the module did not start: dhcpSnoopInit returned " + std::to_string(rv));
        leave(kStartFailed);
    }
    if (cfg.debugLevel != 0 && dhcpSnoopSetDebugLevel(cfg.debugLevel, 0) != DHCP_SNOOP_OK)
        warn("debug_level " + std::to_string(cfg.debugLevel) + " refused by the module");
    if (!live::run(error) || !server.start([backend = liveBackend()](const std::vector<std::string>& words) {
            return ctl::runCommand(words, backend);
        }, error)) {
        live::stop();
        server.stop();
        fail(kStartFailed, error);
        leave(kStartFailed);
    }
    std::cerr << "dhcpsnoopd: ready" << std::endl;

    bool signalsLost = false;
    for (;;) {
        SignalEvent ev = readSignal(sigFd, error);
        if (ev == SignalEvent::Reload) {
            reload(configPath, cfg);
            continue;
        }
        if (ev == SignalEvent::Failed) {
            // Without its signals the daemon could be neither stopped nor
            // reloaded: stop now, and say so in the exit code.
            warn(error + "; stopping");
            signalsLost = true;
        }
        break;
    }

    server.stop();
    live::stop();
    int waited = 0;
    while (!live::saveIdle() && waited < kSaveWaitMs) {
        sleepMs(50);
        waited += 50;
    }
    bool saveFinished = live::saveIdle();
    if (!live::saveStatus().saving)
        warn("saving the binding file was stopped by a failed save: the file misses the changes since");
    if (!saveFinished)
        warn("the binding file save did not finish within 10 s: the file may be cut short (its last good copy "
             "is restored at the next start)");
    std::cerr << "dhcpsnoopd: stopped" << std::endl;
    close(sigFd);
    leave(stopExitCode(signalsLost, saveFinished));
}
