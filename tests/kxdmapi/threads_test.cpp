// Several threads resolve paths and use the mount cache while it is being
// rebuilt, and read attributes through the open-file cache; run under
// ThreadSanitizer to check the locking.
#include <sys/stat.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "dm_test.h"
#include "kxdmapi/kxdmapi_private.h"

namespace {

constexpr int kWorkers = 4;
constexpr int kRounds = 40;
constexpr int kFiles = 6;

class ThreadsTest : public vdtest::SimFsTest {
 protected:
  void SetUp() override {
    vdtest::SimFsTest::SetUp();
    // Trace into the test's own directory so the tracer's shared state is
    // exercised by every thread too.
    setenv("KXFSLOGS", fs.root().c_str(), 1);
    ASSERT_EQ(0, mkdir((fs.root() + "/debug").c_str(), 0755));
    vdtest::RunCommand({"/usr/bin/touch", fs.root() + "/debug/dmapi.log"});
    ASSERT_TRUE(fs.MakeDir("d"));
    for (int i = 0; i < kFiles; ++i) ASSERT_TRUE(fs.MakeFile("d/f" + std::to_string(i), 10));
  }
  // Records the first failure; threads must not use gtest assertions.
  void Fail(const std::string &what) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (first_failure_.empty()) first_failure_ = what;
    failures_.fetch_add(1);
  }
  void ResolveRoundTrip(int worker, int round) {
    std::string path = fs.Path("d/f" + std::to_string((worker + round) % kFiles));
    vdtest::OwnedHandle handle;
    std::string error = handle.Resolve(path);
    if (!error.empty()) return Fail("path_to_handle " + path + ": " + error);
    if (handle.Path() != path) Fail("round trip gave " + handle.Path() + " for " + path);
    char mnt[DM_PATH_BUFSIZE];
    if (dm_fshandle_to_mountpoint(handle.hanp, handle.hlen, mnt) != 0 || fs.mnt() != mnt)
      Fail("mount point of " + path);
  }
  void ReportAndCheck() {
    int count = 0;
    dm_mnt_cache_t *report = dm_report_mnt_cache(&count);
    if (report == nullptr || count != 1) return Fail("report count " + std::to_string(count));
    free(report[0].cached_mnt);
    free(report);
    if (dm_check_mnt_cache_stale() < 0) Fail("stale check");
  }
  std::mutex mutex_;
  std::string first_failure_;
  std::atomic<int> failures_{0};
};

TEST_F(ThreadsTest, ResolveWhileTheMountTableChanges) {
  std::atomic<bool> stop{false};
  std::thread changer([&] {
    for (int i = 1; !stop.load(); ++i) {
      fs.TouchConfig(i);
      pthread_mutex_lock(&dm_mount_cache_lock);
      if (dm_build_mnt_cache() < 0) Fail("build");
      pthread_mutex_unlock(&dm_mount_cache_lock);
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  });
  std::vector<std::thread> workers;
  for (int w = 0; w < kWorkers; ++w) {
    workers.emplace_back([this, w] {
      // Half the workers start a session, the others' first request opens
      // the channel: both race the changer's first build for it.
      char *version = nullptr;
      if (w % 2 == 0 && dm_init_service(&version) != 0) Fail("init_service");
      for (int round = 0; round < kRounds; ++round) {
        ResolveRoundTrip(w, round);
        if (round % 8 == 0) ReportAndCheck();
      }
    });
  }
  for (auto &worker : workers) worker.join();
  stop = true;
  changer.join();
  EXPECT_EQ(0, failures_.load()) << first_failure_;
  EXPECT_GE(kxdmapi_dmfd, 0);
  EXPECT_NE(0, kxdmapi_debug_flags);
  EXPECT_FALSE(vdtest::ReadFile(fs.root() + "/debug/dmapi.log").empty());
}

// Attribute reads on one held handle share the cached descriptor: threads
// racing to open it first must leave exactly one behind, and the last release
// must close it.
TEST_F(ThreadsTest, AttributeReadsOnAHeldHandleShareOneDescriptor) {
  const std::string path = fs.Path("d/f0");
  ASSERT_EQ(0, fs.Kxsim({"attr", "set", path, "BFST", std::string(64, 'a')}).exit_code);
  ASSERT_EQ(0, fs.Kxsim({"events", "set", path, "0x1120"}).exit_code);
  vdtest::OwnedHandle handle;
  ASSERT_EQ("", handle.Resolve(path));
  ASSERT_EQ(0, dm_obj_ref_hold(0, -1, handle.hanp, handle.hlen));
  dm_attrname_t bfst{};
  std::memcpy(bfst.an_chars, "BFST", 4);
  std::vector<std::thread> workers;
  for (int w = 0; w < kWorkers; ++w) {
    workers.emplace_back([&] {
      for (int round = 0; round < kRounds; ++round) {
        unsigned char value[32] = {};
        size_t rlen = 0;
        if (dm_get_dmattr(0, handle.hanp, handle.hlen, -1, &bfst, sizeof value, value, &rlen) != 0)
          return Fail(std::string("get_dmattr: ") + strerror(errno));
        if (rlen != 32 || value[0] != 0xAA || value[31] != 0xAA) return Fail("BFST value");
        dm_stat_t st{};
        if (dm_get_fileattr(0, handle.hanp, handle.hlen, -1, 0, &st) != 0)
          return Fail(std::string("get_fileattr: ") + strerror(errno));
        if (st.dt_emask != 0x1120) return Fail("event mask");
      }
    });
  }
  for (auto &worker : workers) worker.join();
  EXPECT_EQ(0, failures_.load()) << first_failure_;
  int cached = -1;
  ASSERT_EQ(1, dm_fdcache_search(handle.hanp, handle.hlen, &cached));
  ASSERT_GE(cached, 0);
  EXPECT_EQ(0, dm_obj_ref_rele(0, -1, handle.hanp, handle.hlen));
  EXPECT_EQ(-1, fcntl(cached, F_GETFD)) << "the last release closes the cached descriptor";
}

}  // namespace
