// The service manager's readiness protocol (sd_notify): the daemon says when
// it is ready, reloading and stopping. Without $NOTIFY_SOCKET, or in a build
// without libsystemd, every call does nothing and returns false.
#pragma once

#include <string>

namespace svc {

// True when this build can notify at all (linked with libsystemd).
bool notifySupported();

// READY=1 with a status line: every port switches, the control socket listens.
bool notifyReady(const std::string& status);
// RELOADING=1 (with the monotonic time systemd 253 asks for) before a reload;
// notifyReady again once the reload is done, whether it worked or not.
bool notifyReloading();
// STOPPING=1 as the stop begins.
bool notifyStopping();
// STATUS= alone, e.g. why a reload kept the old configuration.
bool notifyStatus(const std::string& status);

}  // namespace svc
