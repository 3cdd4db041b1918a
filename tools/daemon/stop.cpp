#include "tools/daemon/stop.h"

#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace dstop {

SignalEvent readSignal(int fd, std::string& error)
{
    for (;;) {
        struct signalfd_siginfo si;
        ssize_t n = read(fd, &si, sizeof si);
        if (n < 0 && errno == EINTR)
            continue;
        if (n != (ssize_t)sizeof si) {
            error = std::string("reading signals: ") + (n < 0 ? strerror(errno) : "short read");
            return SignalEvent::Failed;
        }
        return si.ssi_signo == SIGHUP ? SignalEvent::Reload : SignalEvent::Stop;
    }
}

int stopExitCode(bool signalsLost, bool saveFinished)
{
    if (!saveFinished)
        return kSaveUnfinished;
    return signalsLost ? kSignalsLost : kOk;
}

}  // namespace dstop
