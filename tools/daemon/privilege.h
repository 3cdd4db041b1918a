// dhcpsnoopd --user: once its sockets and files are open, the daemon
// continues as an ordinary user that keeps only the capabilities the data
// plane still uses (CAP_NET_RAW, CAP_NET_ADMIN), with an empty bounding set
// otherwise and no way back (no_new_privs).
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace priv {

struct User {
    std::string name;
    uid_t uid = 0;
    gid_t gid = 0;
};

// True when this build can change its user (linked with libcap-ng).
bool supported();

// The user NAME (a name, not a number), refused when it is root (running as
// root is what leaving it off means) or the build has no libcap-ng.
bool lookUp(const std::string& name, User& user, std::string& error);

// The data directory and the plain files in it, to hand over. Refused for
// "/" and for a directory holding anything but plain files (a tree such as
// /var/lib is not the daemon's own); a missing directory gives nothing.
bool dataDirPaths(const std::string& dir, std::vector<std::string>& paths, std::string& error);

// Gives the user what the daemon writes later: each existing path (the data
// directory, the binding file, the control socket and the directory made
// for it) is changed to the user's ownership. A symbolic link, a file with
// more than one hard link, or anything but a plain file, a directory or a
// socket is refused.
bool handOver(const User& user, const std::vector<std::string>& paths, std::string& error);

// Switches the whole process to the user. Capabilities are a thread's own:
// it must run while the process has this one thread, so that every thread
// made later inherits the reduced set; refused otherwise.
bool dropTo(const User& user, std::string& error);

}  // namespace priv
