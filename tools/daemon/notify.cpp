#include "tools/daemon/notify.h"

#include <time.h>

#ifdef DHCPSNOOP_HAVE_SYSTEMD
#include <systemd/sd-daemon.h>
#endif

namespace svc {

namespace {

// One line: a status with a newline would end the field early.
std::string oneLine(const std::string& s)
{
    std::string out = s;
    for (char& c : out) {
        if (c == '\n' || c == '\r')
            c = ' ';
    }
    return out;
}

bool send(const std::string& state)
{
#ifdef DHCPSNOOP_HAVE_SYSTEMD
    // Keep $NOTIFY_SOCKET: a reload and the stop notify again later.
    return sd_notify(0, state.c_str()) > 0;
#else
    (void)state;
    return false;
#endif
}

}  // namespace

bool notifySupported()
{
#ifdef DHCPSNOOP_HAVE_SYSTEMD
    return true;
#else
    return false;
#endif
}

bool notifyReady(const std::string& status)
{
    return send("READY=1\nSTATUS=" + oneLine(status));
}

bool notifyReloading()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    unsigned long long usec = (unsigned long long)ts.tv_sec * 1000000ULL + (unsigned long long)ts.tv_nsec / 1000ULL;
    return send("RELOADING=1\nSTATUS=reloading the configuration\nMONOTONIC_USEC=" + std::to_string(usec));
}

bool notifyStopping()
{
    return send("STOPPING=1\nSTATUS=stopping");
}

bool notifyStatus(const std::string& status)
{
    return send("STATUS=" + oneLine(status));
}

}  // namespace svc
