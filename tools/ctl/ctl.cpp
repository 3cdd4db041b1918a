#include "tools/ctl/ctl.h"

#include "tools/daemon/command.h"
#include "tools/daemon/control.h"

namespace ctl {

namespace {

const char* const kUsage =
    "usage: dhcpsnoopctl [--control SOCKET] COMMAND\n"
    "  bindings [--json]            the dynamic bindings\n"
    "  delete IP VLAN MAC           remove one binding\n"
    "  debug on|off                 the module's debug lines on standard error\n"
    "  debug-level LEVEL set|clear  LEVEL 0 to 3, decimal or 0x hex (2: frame dumps)\n"
    "  counters [--json]            frames per port: received, sent, trapped, dropped by reason\n"
    "  events [--json]              system-log entries, oldest first\n"
    "  latency [--json] [--clear]   trapped frames from the trap to their transmission: p50, p99, max\n"
    "  status [--json]              the binding file: saving or stopped, saves, failures, last good copy\n"
    "  metrics                      counters and bindings for Prometheus (text exposition)\n"
    "  monitor [--json]             binding changes, rate limits and drops as they happen, until interrupted\n"
    "SOCKET defaults to /run/dhcpsnoop/dhcpsnoopd.sock.\n";

int refuse(std::ostream& err, std::string message)
{
    while (!message.empty() && message.back() == '\n')
        message.pop_back();
    err << "dhcpsnoopctl: " << message << "\n";
    return 1;
}

}  // namespace

int ctlMain(const std::vector<std::string>& args, std::ostream& out, std::ostream& err)
{
    std::string path = kDefaultControlPath;
    size_t i = 0;
    // Options come before the command; after it every word is the command's.
    for (; i < args.size() && args[i].size() > 1 && args[i][0] == '-'; ++i) {
        const std::string& a = args[i];
        if (a == "-h" || a == "--help") {
            out << kUsage;
            return 0;
        }
        if (a == "--control") {
            if (i + 1 >= args.size())
                return refuse(err, "--control needs a SOCKET path");
            path = args[++i];
        } else if (a.compare(0, 10, "--control=") == 0) {
            path = a.substr(10);
        } else {
            return refuse(err, "unknown option " + a + "\n" + kUsage);
        }
        if (path.empty())
            return refuse(err, "--control needs a SOCKET path");
    }
    std::vector<std::string> words(args.begin() + (std::ptrdiff_t)i, args.end());
    Command cmd;
    std::string error;
    if (words.empty())
        return refuse(err, std::string("no command\n") + kUsage);
    if (!parseCommand(words, cmd, error))
        return refuse(err, error);

    Reply reply;
    if (cmd.kind == Command::Monitor) {
        CallResult m = monitor(path, words, out, reply, error);
        if (m != CallResult::Ok) {
            err << "dhcpsnoopctl: " << error << "\n";
            return 2;
        }
        if (!reply.ok)
            return refuse(err, reply.body);
        err << "dhcpsnoopctl: the daemon ended the monitor\n";
        return 2;
    }
    CallResult r = call(path, words, reply, error);
    if (r == CallResult::Unreachable || r == CallResult::BadReply) {
        err << "dhcpsnoopctl: " << error << "\n";
        return 2;
    }
    if (!reply.ok)
        return refuse(err, reply.body);
    out << reply.body;
    return 0;
}

}  // namespace ctl
