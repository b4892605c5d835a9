// Job services of the runtime: scaled and cancellable sleeps, the cancel flag, GUIDs, the
// focus name and the mount folder.
#include <sys/stat.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <cstring>
#include <set>
#include <thread>

#include "FxUtil.h"
#include "RuntimeTestSupport.h"
#include "VMInfo.h"

namespace {

using Clock = std::chrono::steady_clock;

template <class F>
long long TimedMs(F f) {
    auto start = Clock::now();
    f();
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

class ServicesTest : public RuntimeTest {};

TEST_F(ServicesTest, TimeScaleShortensSleeps) {
    ASSERT_TRUE(hxruntime::SetTimeScale(0.01));
    long long sleep = TimedMs([] { FXThread::Sleep(20000); });  // the plug-in's 20 s wait
    EXPECT_GE(sleep, 190);
    EXPECT_LT(sleep, 1500);
    long long zusleep = TimedMs([] { ZUSLEEP(10000); });
    EXPECT_GE(zusleep, 90);
    EXPECT_LT(zusleep, 1000);

    ASSERT_TRUE(hxruntime::SetTimeScale(0));
    EXPECT_LT(TimedMs([] { FXThread::Sleep(60000); }), 50);

    for (double bad : {-1.0, std::nan(""), 5000.0}) EXPECT_FALSE(hxruntime::SetTimeScale(bad)) << bad;
    EXPECT_EQ(hxruntime::GetTimeScale(), 0.0);
    ASSERT_TRUE(hxruntime::SetTimeScale(1));
    EXPECT_GE(TimedMs([] { FXThread::Sleep(120); }), 115);
}

TEST_F(ServicesTest, CancelIsSeenByTheJobAndEndsSleeps) {
    CVMInfo job(VSI_TYPE_ALIBABA_CLOUD_ECS);
    EXPECT_FALSE(job.IsJobCancelled());
    std::thread host([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        hxruntime::RaiseCancel();
    });
    long long slept = TimedMs([] { FXThread::Sleep(20000); });
    host.join();
    EXPECT_GE(slept, 100);
    EXPECT_LT(slept, 1000);
    EXPECT_TRUE(job.IsJobCancelled());
    EXPECT_LT(TimedMs([] { FXThread::Sleep(20000); }), 50) << "a raised flag ends sleeps at once";
    hxruntime::ClearCancel();
    EXPECT_FALSE(job.IsJobCancelled());
}

TEST_F(ServicesTest, GuidsAreRandomVersion4) {
    // x: a lower-case hex digit; y: the variant digit 8, 9, a or b.
    const std::string shape = "xxxxxxxx-xxxx-4xxx-yxxx-xxxxxxxxxxxx";
    auto fits = [&](const std::string& g) {
        if (g.size() != shape.size()) return false;
        for (size_t i = 0; i < g.size(); ++i) {
            const char* allowed = shape[i] == 'x' ? "0123456789abcdef" : shape[i] == 'y' ? "89ab" : nullptr;
            if (allowed ? !std::strchr(allowed, g[i]) || g[i] == 0 : g[i] != shape[i]) return false;
        }
        return true;
    };
    std::set<std::string> seen;
    for (int i = 0; i < 2000; ++i) {
        std::string g = CreateGuid();
        ASSERT_TRUE(fits(g)) << g;
        seen.insert(g);
    }
    EXPECT_EQ(seen.size(), 2000u);
}

TEST_F(ServicesTest, NamesComeFromTheHost) {
    EXPECT_EQ(EvDebug::getApplicationName(), "hxtest");
    ASSERT_TRUE(hxruntime::SetFocusName("backup-proxy"));
    EXPECT_EQ(HXPI_Focus::getFocus(), "backup-proxy");
    EXPECT_FALSE(hxruntime::SetApplicationName("../escape")) << "the name becomes part of a file name";
    EXPECT_FALSE(hxruntime::SetFocusName(""));
    EXPECT_EQ(HXPI_Focus::getFocus(), "backup-proxy");
    hxruntime::SetFocusName("hxagent");
}

TEST_F(ServicesTest, MountFolderIsPreparedOwnerOnly) {
    CVMInfo vm(VSI_TYPE_ALIBABA_CLOUD_ECS);
    const std::string nested = dir / "mnt/job-1/i-abc";
    EXPECT_EQ(vm._PrepareMountPathDirectory(nested, false), 0) << "missing and not to be created";
    ASSERT_EQ(vm._PrepareMountPathDirectory(nested, true), 1);
    for (const std::string& made : {dir / "mnt", dir / "mnt/job-1", nested}) {
        struct stat st{};
        ASSERT_EQ(::stat(made.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0700u) << made;
    }
    EXPECT_EQ(vm._PrepareMountPathDirectory(nested, false), 1) << "an existing folder is ready";
    std::ofstream(dir / "plain-file") << "x";
    EXPECT_EQ(vm._PrepareMountPathDirectory(dir / "plain-file", true), 0);
    EXPECT_EQ(vm._PrepareMountPathDirectory("", true), 0);
}

}  // namespace
