#include "tools/daemon/privilege.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <pwd.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#ifdef DHCPSNOOP_HAVE_CAPNG
#include <cap-ng.h>
#endif

namespace priv {

#ifdef DHCPSNOOP_HAVE_CAPNG
namespace {

// Threads of this process, by /proc/self/task; -1 when it cannot be read.
int threadCount()
{
    DIR* d = opendir("/proc/self/task");
    if (d == nullptr)
        return -1;
    int n = 0;
    while (struct dirent* e = readdir(d)) {
        if (e->d_name[0] != '.')
            ++n;
    }
    closedir(d);
    return n;
}

}  // namespace
#endif

bool supported()
{
#ifdef DHCPSNOOP_HAVE_CAPNG
    return true;
#else
    return false;
#endif
}

bool lookUp(const std::string& name, User& user, std::string& error)
{
    if (!supported()) {
        error = "--user: this dhcpsnoopd was built without libcap-ng";
        return false;
    }
    if (name.empty()) {
        error = "--user: no user named";
        return false;
    }
    struct passwd pw;
    struct passwd* found = nullptr;
    std::vector<char> buf(16384);
    int rc = getpwnam_r(name.c_str(), &pw, buf.data(), buf.size(), &found);
    if (rc != 0 || found == nullptr) {
        error = "--user " + name + ": " + (rc != 0 ? strerror(rc) : "no such user");
        return false;
    }
    if (pw.pw_uid == 0) {
        error = "--user " + name + ": that is root; leave --user off to run as root";
        return false;
    }
    user.name = name;
    user.uid = pw.pw_uid;
    user.gid = pw.pw_gid;
    return true;
}

bool dataDirPaths(const std::string& dir, std::vector<std::string>& paths, std::string& error)
{
    paths.clear();
    if (dir.empty())
        return true;
    std::error_code ec;
    std::filesystem::path canon = std::filesystem::weakly_canonical(dir, ec);
    if (ec || canon == canon.root_path()) {
        error = "--user: data directory " + dir + " cannot be given to another user";
        return false;
    }
    paths.push_back(dir);
    for (const auto& e : std::filesystem::directory_iterator(dir, ec)) {
        std::error_code ec2;
        if (!e.is_regular_file(ec2) || e.is_symlink(ec2)) {
            // /var/lib rather than /var/lib/dhcpsnoop: never hand over a tree.
            error = "--user: data directory " + dir + " holds " + e.path().filename().string() +
                    ", which is not a plain file: is it the daemon's own directory?";
            return false;
        }
        paths.push_back(e.path().string());
    }
    if (ec && ec != std::errc::no_such_file_or_directory) {
        error = "--user: data directory " + dir + ": " + ec.message();
        return false;
    }
    return true;
}

bool handOver(const User& user, const std::vector<std::string>& paths, std::string& error)
{
    for (const std::string& p : paths) {
        if (p.empty())
            continue;
        struct stat st;
        if (lstat(p.c_str(), &st) != 0) {
            if (errno == ENOENT)
                continue;
            error = "--user: " + p + ": " + strerror(errno);
            return false;
        }
        if (S_ISSOCK(st.st_mode)) {
            // The control socket this process has just bound; it cannot be opened.
            if (fchownat(AT_FDCWD, p.c_str(), user.uid, user.gid, AT_SYMLINK_NOFOLLOW) != 0) {
                error = "--user: cannot give " + p + " to " + user.name + ": " + strerror(errno);
                return false;
            }
            continue;
        }
        if (!S_ISDIR(st.st_mode) && !S_ISREG(st.st_mode)) {
            error = "--user: " + p + " is neither a plain file nor a directory; not handing it over";
            return false;
        }
        // Opened without following a link and checked on the descriptor: a
        // name swapped after lstat cannot redirect the change of owner.
        int flags = O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK |
                    (S_ISDIR(st.st_mode) ? O_DIRECTORY : 0);
        int fd = open(p.c_str(), flags);
        if (fd < 0) {
            error = "--user: " + p + ": " + (errno == ELOOP ? "a symbolic link" : strerror(errno)) +
                    "; not handing it over";
            return false;
        }
        struct stat fst;
        bool ok = fstat(fd, &fst) == 0 && (S_ISDIR(fst.st_mode) || S_ISREG(fst.st_mode));
        if (ok && S_ISREG(fst.st_mode) && fst.st_nlink != 1) {
            // A second name elsewhere could be any file of the system.
            close(fd);
            error = "--user: " + p + " has " + std::to_string(fst.st_nlink) + " hard links; not handing it over";
            return false;
        }
        if (!ok || fchown(fd, user.uid, user.gid) != 0) {
            int e = errno;
            close(fd);
            error = "--user: cannot give " + p + " to " + user.name + ": " + strerror(e);
            return false;
        }
        close(fd);
    }
    return true;
}

bool dropTo(const User& user, std::string& error)
{
#ifdef DHCPSNOOP_HAVE_CAPNG
    int threads = threadCount();
    if (threads != 1) {
        error = "--user: the process has " + std::to_string(threads) +
                " threads; capabilities can only be dropped with one";
        return false;
    }
    capng_clear(CAPNG_SELECT_BOTH);
    if (capng_updatev(CAPNG_ADD, (capng_type_t)(CAPNG_EFFECTIVE | CAPNG_PERMITTED | CAPNG_BOUNDING_SET),
                      CAP_NET_RAW, CAP_NET_ADMIN, -1) != 0) {
        error = "--user: cannot select the capabilities to keep";
        return false;
    }
    // The bounding set first, while CAP_SETPCAP is still there; the change
    // of user then keeps the two in effective and permitted.
    if (capng_apply(CAPNG_SELECT_BOUNDS) != 0) {
        error = "--user: cannot reduce the capability bounding set (needs CAP_SETPCAP)";
        return false;
    }
    int rc = capng_change_id((int)user.uid, (int)user.gid, CAPNG_DROP_SUPP_GRP);
    if (rc != 0) {
        error = "--user " + user.name + ": changing to uid " + std::to_string(user.uid) +
                " failed (capng_change_id " + std::to_string(rc) + "; needs CAP_SETUID, CAP_SETGID, CAP_SETPCAP)";
        return false;
    }
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
        error = std::string("--user: PR_SET_NO_NEW_PRIVS: ") + strerror(errno);
        return false;
    }
    // Never carry on with more than was asked for: root must be gone for good.
    if (getuid() != user.uid || geteuid() != user.uid || getgid() != user.gid || getegid() != user.gid ||
        setuid(0) == 0) {
        error = "--user " + user.name + ": the change of user did not hold";
        return false;
    }
    return true;
#else
    (void)user;
    error = "--user: this dhcpsnoopd was built without libcap-ng";
    return false;
#endif
}

}  // namespace priv
