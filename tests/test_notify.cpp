// The daemon's service-manager notifications, read from a datagram socket
// that stands in for systemd's ($NOTIFY_SOCKET).
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>

#include "tools/daemon/notify.h"

namespace {

class NotifySocket : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!svc::notifySupported())
            GTEST_SKIP() << "built without libsystemd: the daemon notifies nothing";
        char tmpl[] = "/tmp/dhcpsnoop-notify-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        path_ = dir_ + "/notify";
        fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        ASSERT_GE(fd_, 0);
        struct sockaddr_un sa = {};
        sa.sun_family = AF_UNIX;
        ASSERT_LT(path_.size(), sizeof sa.sun_path);
        path_.copy(sa.sun_path, path_.size());
        ASSERT_EQ(bind(fd_, (struct sockaddr*)&sa, sizeof sa), 0);
        struct timeval tv = {2, 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        setenv("NOTIFY_SOCKET", path_.c_str(), 1);
    }
    void TearDown() override
    {
        unsetenv("NOTIFY_SOCKET");
        if (fd_ >= 0)
            close(fd_);
        if (!path_.empty())
            unlink(path_.c_str());
        if (!dir_.empty())
            rmdir(dir_.c_str());
    }
    // The next message, or "" when none came within 2 s.
    std::string next()
    {
        char buf[4096];
        ssize_t n = recv(fd_, buf, sizeof buf, 0);
        return n > 0 ? std::string(buf, (size_t)n) : std::string();
    }
    // Nothing more is waiting.
    bool empty()
    {
        char buf[16];
        return recv(fd_, buf, sizeof buf, MSG_DONTWAIT) < 0;
    }

    std::string dir_, path_;
    int fd_ = -1;
};

TEST_F(NotifySocket, ReadyCarriesItsStatus)
{
    EXPECT_TRUE(svc::notifyReady("switching 4 ports"));
    EXPECT_EQ(next(), "READY=1\nSTATUS=switching 4 ports");
    EXPECT_TRUE(empty());
}

TEST_F(NotifySocket, ReloadIsReloadingThenReadyAgain)
{
    struct timespec before;
    clock_gettime(CLOCK_MONOTONIC, &before);
    EXPECT_TRUE(svc::notifyReloading());
    EXPECT_TRUE(svc::notifyReady("switching 4 ports"));
    std::string first = next();
    EXPECT_EQ(first.rfind("RELOADING=1\n", 0), 0u) << first;
    // systemd matches the reload by the monotonic time it was asked at.
    size_t at = first.find("\nMONOTONIC_USEC=");
    ASSERT_NE(at, std::string::npos) << first;
    unsigned long long usec = std::stoull(first.substr(at + 16));
    unsigned long long beforeUsec = (unsigned long long)before.tv_sec * 1000000ULL + before.tv_nsec / 1000;
    EXPECT_GE(usec, beforeUsec);
    EXPECT_LT(usec, beforeUsec + 2000000ULL);
    EXPECT_EQ(next(), "READY=1\nSTATUS=switching 4 ports");
    EXPECT_TRUE(empty());
}

TEST_F(NotifySocket, StoppingIsSent)
{
    EXPECT_TRUE(svc::notifyStopping());
    std::string m = next();
    EXPECT_EQ(m.rfind("STOPPING=1\n", 0), 0u) << m;
}

TEST_F(NotifySocket, SocketKeptForLaterMessages)
{
    // Ready, a reload and the stop all reach the same socket.
    EXPECT_TRUE(svc::notifyReady("a"));
    EXPECT_NE(getenv("NOTIFY_SOCKET"), nullptr);
    EXPECT_TRUE(svc::notifyStopping());
    EXPECT_EQ(next(), "READY=1\nSTATUS=a");
    EXPECT_EQ(next().rfind("STOPPING=1", 0), 0u);
}

TEST_F(NotifySocket, StatusWithANewlineStaysOneField)
{
    // A newline would start a field of its own: "READY=1" smuggled in a status.
    EXPECT_TRUE(svc::notifyStatus("reload failed\nREADY=1"));
    EXPECT_EQ(next(), "STATUS=reload failed READY=1");
}

TEST_F(NotifySocket, NoSocketNoMessage)
{
    unsetenv("NOTIFY_SOCKET");
    EXPECT_FALSE(svc::notifyReady("x"));
    EXPECT_FALSE(svc::notifyStopping());
    EXPECT_TRUE(empty());
}

}  // namespace
