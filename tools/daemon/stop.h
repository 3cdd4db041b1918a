// How dhcpsnoopd waits for its signals and how it ends: the exit codes an
// init system or a script can act on.
#pragma once

#include <string>

namespace dstop {

enum Exit {
    kOk = 0,
    kBadConfig = 1,
    kStartFailed = 2,       // interface, privileges, socket, module, usage
    kSignalsLost = 3,       // the signal descriptor could not be read: stopped blind
    kSaveUnfinished = 4,    // a binding-file save was still running at the stop limit
};

enum class SignalEvent { Stop, Reload, Failed };

// One signal from a signalfd (interrupted reads are retried). Failed with
// error set when the descriptor cannot be read or gives a short record.
SignalEvent readSignal(int fd, std::string& error);

// The exit code of a stop: an unfinished save (the binding file may be cut
// short) outranks lost signals, which outrank a clean stop.
int stopExitCode(bool signalsLost, bool saveFinished);

}  // namespace dstop
