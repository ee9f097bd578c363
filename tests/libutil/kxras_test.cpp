#include "libutil/kxras.h"

#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <string>
#include <utility>

#include "libutil/kxras_clock.h"
#include "libutil/priv_check.h"
#include "support/test_support.h"

namespace {

std::string g_delivered;  // one "<name> <text>" line per call of the hook
uint32_t g_sec = 0;

int Hook(const char *name, const char *text, uint32_t sec, uint32_t usec) {
  g_delivered += std::string(name) + " " + text + "\n";
  g_sec = sec;
  return usec < 1000000 ? 42 : -1;
}

class RasEventTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_delivered.clear();
    std::memcpy(saved_fs_, FsName, sizeof saved_fs_);
  }
  void TearDown() override {
    RasFn = nullptr;
    set_caller_name(saved_caller_);
    std::memcpy(FsName, saved_fs_, sizeof saved_fs_);
  }

  const std::string pid_ = "[PID=" + std::to_string(getpid()) + "]: ";
  const char *saved_caller_ = CallerName;
  char saved_fs_[KX_FSNAME_SIZE];
};

TEST_F(RasEventTest, WithoutHookPrintsBareMessage) {
  EXPECT_STREQ("none", FsName);
  EXPECT_EQ("policy p bad\n", vdtest::StderrOf([] {
              EXPECT_EQ(0, RasEvent("SL_EVT_POLICY", "policy %s bad", "p"));
            }));
}

TEST_F(RasEventTest, HookGetsProgramPidFileSystemAndMessage) {
  RasFn = Hook;
  set_caller_name("/usr/bin/tool");
  struct timeval before;
  gettimeofday(&before, nullptr);
  EXPECT_EQ(42, RasEvent("SL_EVT_REP_DEDUPE_COMM", "lost %d", 3));
  EXPECT_LE(static_cast<uint32_t>(before.tv_sec), g_sec);
  EXPECT_LE(g_sec, static_cast<uint32_t>(before.tv_sec) + 5);
  set_caller_name("vdpostrestore");
  std::strcpy(FsName, "snfs1");
  RasEvent("E", "m");
  set_caller_name(nullptr);  // an empty program part
  std::strcpy(FsName, "none");
  RasEvent("E", "m");
  EXPECT_EQ("SL_EVT_REP_DEDUPE_COMM tool" + pid_ + "lost 3\nE vdpostrestore" + pid_ +
                "fs 'snfs1': m\nE " + pid_ + "m\n",
            g_delivered);
}

TEST_F(RasEventTest, LongMessageAndUnterminatedFsNameStayBounded) {
  RasFn = Hook;
  std::memset(FsName, 'f', sizeof FsName);  // no terminator at all
  RasEvent("E", "%s", std::string(2000, 'm').c_str());
  const std::string head = "E libutil" + pid_ + "fs 'fff";
  EXPECT_EQ(head, g_delivered.substr(0, head.size()));
  EXPECT_EQ(2u + 511u + 1u, g_delivered.size());  // "E ", the cut text, "\n"
}

// A fresh client id per call: the throttle lists live for the process.
std::array<unsigned char, KX_RAS_CLIENT_ID_SIZE> NewClient() {
  static unsigned char next = 1;
  std::array<unsigned char, KX_RAS_CLIENT_ID_SIZE> id{};
  id[0] = 0xA5;
  id[15] = next++;
  return id;
}

// The first event of a client and class passes; repeats within the hour do
// not. Bad classes and clients are let through and leave nothing recorded.
TEST(NeedPerClntRasTest, ClientsAndClassesAreThrottledApart) {
  auto a = NewClient();
  auto b = NewClient();
  std::string passed;
  for (auto [cls, id] :
       {std::pair{2, &a}, {-1, &a}, {2, &a}, {0, &a}, {0, &a}, {0, &a}, {0, &b}, {1, &a}, {1, &a}})
    passed += std::to_string(NeedPerClntRas(cls, id->data()));
  EXPECT_EQ("111100110", passed);
  EXPECT_EQ(1, NeedPerClntRas(0, nullptr));
}

uint32_t g_now = 0;

TEST(NeedPerClntRasTest, NextEventPassesOnlyAfterAFullHour) {
  const kx::ras::ClockFn saved = kx::ras::clock_seconds;
  kx::ras::clock_seconds = [] { return g_now; };
  auto a = NewClient();
  std::string passed;
  // The hour counts from the last event let through, and must be exceeded.
  for (uint32_t later : {0u, 3600u, 3601u, 7201u, 7202u}) {
    g_now = 1700000000u + later;
    passed += std::to_string(NeedPerClntRas(0, a.data()));
  }
  kx::ras::clock_seconds = saved;
  EXPECT_EQ("10101", passed);
}

}  // namespace
