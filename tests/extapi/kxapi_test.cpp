// External representations kept by the simulated file system: what a set
// stores is what a get returns, and the tool's removal sequence removes all
// three keys. The records' bytes are checked in kxapi_record_test.cpp.
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "extapi/kxapi.h"
#include "support/sim_fs.h"

namespace {

class KxApiSimTest : public vdtest::SimFsTest {
 protected:
  void SetUp() override {
    SimFsTest::SetUp();
    ASSERT_TRUE(fs.MakeFile("f", 10));
    path_ = fs.Path("f");
    fd_ = open(path_.c_str(), O_RDONLY);
    ASSERT_GE(fd_, 0);
  }
  void TearDown() override { close(fd_); }
  int Set(const char *key, const std::string &value, uint32_t op_flags = 0) {
    return KxApi_SetExternalRep(fd_, 0, 0, 4096, 0, key, static_cast<uint32_t>(value.size()),
                                value.data(), op_flags, nullptr);
  }
  std::string path_;
  int fd_ = -1;
};

TEST_F(KxApiSimTest, GetReturnsWhatWasSetAsFarAsTheBufferReaches) {
  ASSERT_EQ(0, Set("OBJF", "object-identifier-xyz"));
  char buf[64] = {};
  uint32_t fieldlen = 0, buflen = sizeof buf;
  ASSERT_EQ(0, KxApi_GetExternalRep(fd_, 0, 4096, "OBJF", &fieldlen, &buflen, buf));
  EXPECT_EQ("object-identifier-xyz", std::string(buf, buflen));
  buflen = 6;  // too small: the file system reports both lengths
  ASSERT_EQ(0, KxApi_GetExternalRep(fd_, 0, 0, "OBJF", &fieldlen, &buflen, buf));
  EXPECT_EQ(21u, fieldlen);
  EXPECT_EQ(6u, buflen);
}

TEST_F(KxApiSimTest, ToolRemovalSequenceClearsAllThreeKeys) {
  ASSERT_EQ(0, Set("BLOB", "b"));
  ASSERT_EQ(0, Set("OBJF", "o"));
  ASSERT_EQ(0, Set("REPL", "r"));
  EXPECT_EQ(0, KxApi_RemoveExternalRep(fd_, 0, 4, "BLOB"));
  EXPECT_EQ(0, KxApi_RemoveExternalRep(fd_, 0, 4, "OBJF"));
  EXPECT_EQ(0, KxApi_RemoveExternalRep(fd_, 0, 0, "REPL"));
  char buf[4];
  uint32_t fieldlen = 5, buflen = sizeof buf;
  for (const char *key : {"BLOB", "OBJF", "REPL"}) {
    EXPECT_EQ(ENOENT, KxApi_GetExternalRep(fd_, 0, 0, key, &fieldlen, &buflen, buf)) << key;
  }
  EXPECT_EQ(5u, fieldlen) << "a failed get leaves its outputs";
  EXPECT_EQ(ENOENT, KxApi_RemoveExternalRep(fd_, 0, 0, "REPL")) << "a positive number";
}

}  // namespace
