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
#include "tools/daemon/metrics_http.h"
#include "tools/daemon/notify.h"
#include "tools/daemon/privilege.h"

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

// The default socket lives in /run/dhcpsnoop, which systemd makes for the
// service (RuntimeDirectory); a daemon started by hand makes it itself. Only
// the last component: a missing /run is an error worth seeing. Returns the
// directory when it made it.
std::string makeSocketDir(const std::string& socketPath)
{
    size_t slash = socketPath.rfind('/');
    if (slash == std::string::npos || slash == 0)
        return "";
    std::string dir = socketPath.substr(0, slash);
    if (mkdir(dir.c_str(), 0755) == 0)
        return dir;
    if (errno != EEXIST)
        warn("cannot create " + dir + ": " + strerror(errno));
    return "";
}

// --user: what the daemon still writes as that user. The data directory and
// the files in it (the binding file and whatever it keeps beside it), the
// control socket (removed at the stop) and its directory when made here.
bool userPaths(const std::string& dataDir, const std::string& socketPath, const std::string& madeSocketDir,
               std::vector<std::string>& paths, std::string& error)
{
    if (!priv::dataDirPaths(dataDir, paths, error))
        return false;
    paths.push_back(socketPath);
    paths.push_back(madeSocketDir);
    return true;
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
    b.occupancy = live::occupancy;
    b.latencyDistribution = live::latencyDistribution;
    return b;
}

// SIGHUP. The debug switch and level follow the file only when the file
// changed them, so a reload for another reason keeps what the operator set
// with dhcpsnoopctl.
bool reload(const std::string& path, swcfg::SwitchConfig& current)
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
        return false;
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
    return true;
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
    std::string controlPath = "/run/dhcpsnoop/dhcpsnoopd.sock";
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
    std::string userName;
    app.add_option("--user", userName,
                   "Once the ports, the control socket and the data directory are open, continue as "
                   "this user with only CAP_NET_RAW and CAP_NET_ADMIN")
        ->type_name("NAME");
    std::string metricsAddress;
    app.add_option("--metrics", metricsAddress,
                   "Serve the counters and bindings for Prometheus at http://ADDRESS:PORT/metrics")
        ->type_name("ADDRESS:PORT");
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
    priv::User user;
    if (!userName.empty() && !priv::lookUp(userName, user, error))
        return fail(kStartFailed, error);

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
    std::string madeSocketDir = makeSocketDir(controlPath);
    if (!server.listen(controlPath, error))
        return fail(kStartFailed, error);
    if (!live::start(cfg, opt, error))
        return fail(kStartFailed, error);
    // Before the module's first thread: every thread inherits the reduced set.
    std::vector<std::string> handed;
    if (!userName.empty() && (!userPaths(opt.dataDir, controlPath, madeSocketDir, handed, error) ||
                              !priv::handOver(user, handed, error) || !priv::dropTo(user, error))) {
        live::stop();
        server.stop();
        fail(kStartFailed, error);
        leave(kStartFailed);
    }
    // The socket's clients: root and the user the daemon now runs as.
    if (!userName.empty())
        server.allowUsers({0u, (uint32_t)user.uid});
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
    // The monitors' events: composed only while one is connected.
    server.monitors().onListening(live::setMonitoring);
    live::setMonitorSink([&server](const live::MonitorEvent& e) { server.monitors().publish(e); });
    if (!live::run(error) || !server.start([backend = liveBackend()](const std::vector<std::string>& words) {
            return ctl::runCommand(words, backend);
        }, error)) {
        live::stop();
        server.stop();
        fail(kStartFailed, error);
        leave(kStartFailed);
    }
    // After the change of user: its threads inherit the reduced set.
    ctl::MetricsHttp metrics;
    if (!metricsAddress.empty()) {
        ctl::Backend backend = liveBackend();
        auto collect = [backend] {
            std::vector<ctl::Binding> bindings;
            std::string ignored;
            backend.bindings(bindings, ignored);  // none while the module cannot answer
            live::SaveStatus save = backend.saveStatus();
            live::Occupancy occupancy = backend.occupancy();
            live::LatencyDistribution latency = backend.latencyDistribution();
            ctl::MetricExtras extras;
            extras.save = &save;
            extras.occupancy = &occupancy;
            extras.latency = &latency;
            return ctl::metricFamilies(backend.counters(), bindings, backend.events().size(), extras);
        };
        if (!metrics.start(metricsAddress, collect, error)) {
            live::stop();
            server.stop();
            fail(kStartFailed, error);
            leave(kStartFailed);
        }
    }
    std::cerr << "dhcpsnoopd: ready" << std::endl;
    const std::string readyStatus = "switching " + std::to_string(cfg.ports.size()) + " ports";
    svc::notifyReady(readyStatus);

    bool signalsLost = false;
    for (;;) {
        SignalEvent ev = readSignal(sigFd, error);
        if (ev == SignalEvent::Reload) {
            svc::notifyReloading();
            bool reloaded = reload(configPath, cfg);
            svc::notifyReady(reloaded ? readyStatus : readyStatus + "; the last reload failed, previous configuration kept");
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

    svc::notifyStopping();
    metrics.stop();
    live::setMonitoring(false);
    live::setMonitorSink(nullptr);
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
