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

struct Delivered {
  int calls = 0;
  std::string name;
  std::string text;
  uint32_t sec = 0;
};
Delivered g_delivered;

int Hook(const char *name, const char *text, uint32_t sec, uint32_t usec) {
  ++g_delivered.calls;
  g_delivered.name = name;
  g_delivered.text = text;
  g_delivered.sec = sec;
  return usec < 1000000 ? 42 : -1;
}

class RasEventTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_delivered = {};
    saved_caller_ = CallerName;
    std::memcpy(saved_fs_, FsName, sizeof saved_fs_);
  }
  void TearDown() override {
    RasFn = nullptr;
    set_caller_name(saved_caller_);
    std::memcpy(FsName, saved_fs_, sizeof saved_fs_);
  }
  static std::string Pid() { return std::to_string(getpid()); }

  const char *saved_caller_ = nullptr;
  char saved_fs_[KX_FSNAME_SIZE];
};

TEST_F(RasEventTest, WithoutHookPrintsBareMessage) {
  EXPECT_STREQ("none", FsName);
  EXPECT_EQ("policy p bad\n", vdtest::StderrOf([] {
              EXPECT_EQ(0, RasEvent("SL_EVT_POLICY", "policy %s bad", "p"));
            }));
}

TEST_F(RasEventTest, HookGetsProgramPidAndMessage) {
  RasFn = Hook;
  set_caller_name("/usr/bin/tool");
  struct timeval before;
  gettimeofday(&before, nullptr);
  EXPECT_EQ(42, RasEvent("SL_EVT_REP_DEDUPE_COMM", "lost %d", 3));
  EXPECT_EQ(1, g_delivered.calls);
  EXPECT_EQ("SL_EVT_REP_DEDUPE_COMM", g_delivered.name);
  EXPECT_EQ("tool[PID=" + Pid() + "]: lost 3", g_delivered.text);
  EXPECT_LE(static_cast<uint32_t>(before.tv_sec), g_delivered.sec);
  EXPECT_LE(g_delivered.sec, static_cast<uint32_t>(before.tv_sec) + 5);
}

TEST_F(RasEventTest, NamedFileSystemIsQuotedAndNullCallerGivesEmptyProgram) {
  RasFn = Hook;
  set_caller_name("vdpostrestore");
  std::strcpy(FsName, "snfs1");
  RasEvent("E", "m");
  EXPECT_EQ("vdpostrestore[PID=" + Pid() + "]: fs 'snfs1': m", g_delivered.text);
  set_caller_name(nullptr);
  std::strcpy(FsName, "none");
  RasEvent("E", "m");
  EXPECT_EQ("[PID=" + Pid() + "]: m", g_delivered.text);
}

TEST_F(RasEventTest, LongMessageAndUnterminatedFsNameStayBounded) {
  RasFn = Hook;
  std::memset(FsName, 'f', sizeof FsName);  // no terminator at all
  const std::string message(2000, 'm');
  RasEvent("E", "%s", message.c_str());
  EXPECT_EQ(511u, g_delivered.text.size());
  EXPECT_EQ("libutil[PID=" + Pid() + "]: fs 'fff", g_delivered.text.substr(0, 22 + Pid().size()));
}

class NeedPerClntRasTest : public ::testing::Test {
 protected:
  // A fresh client id per call: the throttle lists live for the process.
  static std::array<unsigned char, KX_RAS_CLIENT_ID_SIZE> NewClient() {
    static unsigned char next = 1;
    std::array<unsigned char, KX_RAS_CLIENT_ID_SIZE> id{};
    id[0] = 0xA5;
    id[15] = next++;
    return id;
  }
};

// The first event of a client and class passes; repeats within the hour do not.
TEST_F(NeedPerClntRasTest, ClientsAndClassesAreThrottledApart) {
  auto a = NewClient();
  auto b = NewClient();
  std::string passed;
  for (auto [cls, id] : {std::pair{0, &a}, {0, &a}, {0, &a}, {0, &b}, {1, &a}, {1, &a}})
    passed += std::to_string(NeedPerClntRas(cls, id->data()));
  EXPECT_EQ("100110", passed);
}

uint32_t g_now = 0;

TEST_F(NeedPerClntRasTest, NextEventPassesOnlyAfterAFullHour) {
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

TEST_F(NeedPerClntRasTest, BadArgumentsLetTheEventThrough) {
  auto a = NewClient();
  EXPECT_EQ(1, NeedPerClntRas(2, a.data()));
  EXPECT_EQ(1, NeedPerClntRas(-1, a.data()));
  EXPECT_EQ(1, NeedPerClntRas(0, nullptr));
  EXPECT_EQ(1, NeedPerClntRas(2, a.data()));  // nothing was recorded
}

}  // namespace
