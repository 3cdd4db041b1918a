// The daemon's own events: one entry point, kept beside the module's
// system-log entries, and to standard error only when asked.
#include <cstdio>
#include <string>

#include "live_fixture.h"

namespace {

class Events : public LiveTest {
protected:
    void TearDown() override
    {
        live::logging::configure(false, 256);
        live::logging::clearEvents();
        LiveTest::TearDown();
    }
};

TEST_F(Events, KeptWithCodeAndTextAndToStandardErrorOnlyWhenAsked)
{
    live::logging::clearEvents();
    testing::internal::CaptureStderr();
    live::logging::addEvent(0x12345678u, LOG_NOTICE, "kept only");
    live::logging::addEvent(live::logging::kEventPortGone, LOG_WARNING, "interface x of port 1/0/1 is gone",
                            live::logging::Echo::Stderr);
    fflush(stderr);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err, "dhcpsnoopd: interface x of port 1/0/1 is gone\n");
    auto e = live::events();
    ASSERT_EQ(e.size(), 2u);
    EXPECT_EQ(e[0].code, 0x12345678u);
    EXPECT_EQ(e[0].text, "kept only");
    EXPECT_EQ(e[1].code, live::logging::kEventPortGone);
    EXPECT_EQ(e[1].text, "interface x of port 1/0/1 is gone");
    EXPECT_NE(e[1].unixMs, 0u);
}

TEST_F(Events, TheOldestGoFirstAndNoneAreKeptWhenNoneAreAsked)
{
    live::logging::clearEvents();
    live::logging::configure(false, 2);
    for (uint32_t code = 1; code <= 3; ++code)
        live::logging::addEvent(code, LOG_INFO, "event " + std::to_string(code));
    auto e = live::events();
    ASSERT_EQ(e.size(), 2u);
    EXPECT_EQ(e[0].code, 2u);
    EXPECT_EQ(e[1].code, 3u);

    live::logging::configure(false, 0);
    EXPECT_TRUE(live::events().empty());
    live::logging::addEvent(4, LOG_ERR, "not kept");
    EXPECT_TRUE(live::events().empty());
}

}  // namespace
