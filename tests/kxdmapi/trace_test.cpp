// Call tracing: the trace file's line format, indentation, the switch that
// turns itself off when the file is missing, errno preservation, and the
// lines that operations write.
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <regex>

#include "dm_test.h"
#include "libutil/getroot.h"

namespace {

// The debug directory is resolved once per process, so every case shares one
// temporary log root and creates or removes "dmapi.log" itself.
class TraceEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    root_ = vdtest::MakeTempDir("kxdmapi-trace");
    ASSERT_FALSE(root_.empty());
    setenv("KXFSROOT", root_.c_str(), 1);
    setenv("KXFSLOGS", root_.c_str(), 1);
    ASSERT_EQ(0, mkdir((root_ + "/debug").c_str(), 0755));
    ASSERT_EQ(root_ + "/debug", std::string(GetKxfsDebugDir()));
  }
  void TearDown() override { vdtest::RemoveTree(root_); }
  static std::string root_;
};
std::string TraceEnvironment::root_;

const auto *const kEnv = ::testing::AddGlobalTestEnvironment(new TraceEnvironment);

class TraceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    log_ = TraceEnvironment::root_ + "/debug/dmapi.log";
    unlink(log_.c_str());
    // Back to the start-up state: tracing on, no descriptor, depth 0.
    if (kxdmapi_debug_fd >= 0) close(kxdmapi_debug_fd);
    kxdmapi_debug_fd = -1;
    kxdmapi_debug_flags = 1;
    kxdmapi_call_depth = 0;
  }
  void CreateLog() {
    int fd = open(log_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    close(fd);
  }
  std::vector<std::string> Lines() { return vdtest::SplitLines(vdtest::ReadFile(log_)); }
  // The message parts of the lines: whatever follows "(pid N): ".
  std::vector<std::string> Messages() {
    std::vector<std::string> messages;
    for (const std::string &line : Lines()) {
      size_t at = line.find("): ");
      messages.push_back(at == std::string::npos ? "<no prefix>" : line.substr(at + 3));
    }
    return messages;
  }
  static std::string Ptr(const void *p) {
    char text[32];
    snprintf(text, sizeof text, "%p", p);
    return text;
  }
  std::string log_;
};

TEST_F(TraceTest, MissingOrUnopenableFileTurnsTracingOff) {
  errno = EXDEV;
  kxdmapi_debug("first %d\n", 1);
  EXPECT_EQ(EXDEV, errno);
  EXPECT_EQ(0, kxdmapi_debug_flags);
  EXPECT_NE(0, access(log_.c_str(), F_OK)) << "the trace file must never be created";
  // Creating it later does not switch tracing back on.
  CreateLog();
  kxdmapi_debug("second\n");
  EXPECT_TRUE(Lines().empty());
  // A file that cannot be opened for writing (EISDIR) counts as missing.
  ASSERT_EQ(0, unlink(log_.c_str()));
  ASSERT_EQ(0, mkdir(log_.c_str(), 0755));
  kxdmapi_debug_flags = 1;
  KXDMAPI_TRACE_ENTER("lost\n");
  EXPECT_EQ(0, kxdmapi_debug_flags);
  EXPECT_EQ(0, kxdmapi_call_depth) << "no indentation left behind";
  rmdir(log_.c_str());
}

TEST_F(TraceTest, LinesCarryTimeTagPidAndMessageAndOutliveAStaleDescriptor) {
  CreateLog();
  errno = EXDEV;
  kxdmapi_debug("hello %s/%d\n", "world", 42);
  EXPECT_EQ(EXDEV, errno);
  EXPECT_EQ(std::string(TraceEnvironment::root_ + "/debug/dmapi.log"), kxdmapi_debug_file);
  ASSERT_GE(kxdmapi_debug_fd, 0);
  close(kxdmapi_debug_fd);  // the descriptor goes stale behind the tracer's back
  kxdmapi_debug("two\n");
  EXPECT_EQ(EXDEV, errno);
  auto lines = Lines();
  ASSERT_EQ(2u, lines.size());
  std::regex format(
      "[01][0-9][0-3][0-9] [0-2][0-9]:[0-5][0-9]:[0-6][0-9]\\.[0-9]{6}: KxDmapiDebug\\(pid " +
      std::to_string(getpid()) + "\\): hello world/42");
  EXPECT_TRUE(std::regex_match(lines[0], format)) << lines[0];
  EXPECT_EQ("two", Messages()[1]);
}

TEST_F(TraceTest, DepthIndentsNestedLinesAndNegativeDepthIsReset) {
  CreateLog();
  KXDMAPI_TRACE_ENTER("outer\n");
  KXDMAPI_TRACE_ENTER("middle\n");
  KXDMAPI_TRACE("inner\n");
  KXDMAPI_TRACE_EXIT("middle done\n");
  KXDMAPI_TRACE_EXIT("outer done\n");
  kxdmapi_call_depth = -3;
  kxdmapi_debug("after reset\n");
  EXPECT_EQ(0, kxdmapi_call_depth);
  std::vector<std::string> expected{"outer",        " middle",    "  inner",
                                    " middle done", "outer done", "after reset"};
  EXPECT_EQ(expected, Messages());
}

// Key lines of the handle and open-file cache calls: what was compared,
// found, held (slot and count) and closed.
TEST_F(TraceTest, OperationsTraceWhatTheyDid) {
  CreateLog();
  errno = 0;
  const dmtest::Bytes a = dmtest::FileHandle(1, 1), b = dmtest::FileHandle(1, 2);
  dm_handle_cmp(a.data(), 24, a.data(), 8);
  dm_handle_cmp(a.data(), 24, a.data(), 24);
  dm_ino_t ino = 0;
  dm_handle_to_ino(DM_GLOBAL_HANP, DM_GLOBAL_HLEN, &ino);
  dm_handle_hash(DM_GLOBAL_HANP, DM_GLOBAL_HLEN);
  for (const dmtest::Bytes *h : {&a, &b, &a}) ASSERT_EQ(0, dm_obj_ref_hold(0, -1, h->data(), 24));
  ASSERT_EQ(0, dm_obj_ref_rele(0, -1, a.data(), 24));
  ASSERT_EQ(-1, dm_obj_ref_rele(0, -1, dmtest::FileHandle(1, 3).data(), 24));
  ASSERT_EQ(0, dm_obj_ref_rele(0, -1, DM_GLOBAL_HANP, DM_GLOBAL_HLEN));
  const std::vector<std::string> messages = Messages();
  for (const char *line :
       {"dm_handle_cmp: != length, result/16", "dm_handle_cmp: EQUAL!, errno/0",
        "dm_handle_to_ino: NOT!", "dm_handle_hash", "dm_handle_is_global",
        "dm_fdcache_handle_hold: slot 1 cnt 1", "dm_fdcache_handle_hold: slot 0 cnt 2",
        "dm_fdcache_handle_rele: slot 0 cnt 1 fd -1", "dm_obj_ref_rele: !Found",
        "dm_fdcache_flush: -1", "dm_fdcache_flush: done"}) {
    EXPECT_NE(messages.end(), std::find(messages.begin(), messages.end(), line)) << line;
  }
}

// Calls that the driver's trace shows as one call must not show the helpers
// they could have been built from.
TEST_F(TraceTest, CallsTraceOnlyTheirOwnLines) {
  kxdmapi_debug_flags = 0;  // quiet while the file system is prepared
  vdtest::SimFs fs;
  ASSERT_EQ("", fs.error());
  ASSERT_TRUE(fs.MakeFile("f", 10));
  vdtest::OwnedHandle file;
  ASSERT_EQ("", file.Resolve(fs.Path("f")));
  void *fsh = nullptr;
  size_t fslen = 0;
  dm_stat_t st{};
  ASSERT_EQ(0, dm_get_fileattr(0, file.hanp, file.hlen, -1, 0, &st));  // builds the mount cache
  CreateLog();
  kxdmapi_debug_flags = 1;
  ASSERT_EQ(0, dm_handle_to_fshandle(file.hanp, file.hlen, &fsh, &fslen));
  dm_handle_free(fsh, fslen);
  ASSERT_EQ(0, dm_path_to_fshandle(fs.mnt().c_str(), &fsh, &fslen));
  const std::string second = Ptr(fsh);
  dm_handle_free(fsh, fslen);
  std::vector<std::string> messages = Messages();
  ASSERT_EQ(4u, messages.size());
  EXPECT_EQ("dm_handle_to_fshandle", messages[0]);
  EXPECT_EQ("dm_path_to_fshandle: success", messages[2]);
  EXPECT_EQ("dm_handle_free hp/" + second, messages[3]);
  // dm_get_fileattr opens by handle without the attribute calls' check.
  CreateLog();  // truncated; the tracer appends
  ASSERT_EQ(0, dm_get_fileattr(0, file.hanp, file.hlen, -1, 0, &st));
  messages = Messages();
  ASSERT_FALSE(messages.empty());
  EXPECT_EQ("dm_get_fileattr", messages.front());
  EXPECT_EQ("dm_get_fileattr: success", messages.back());
  for (const std::string &m : messages) EXPECT_EQ(std::string::npos, m.find("dm_handle_to_igen"));
  // dm_handle_to_path opens the mount point before it makes the root handle.
  CreateLog();
  fs.SetFaults("kind=open,path=" + fs.mnt() + ",errno=EACCES");
  EXPECT_EQ("ERROR " + std::string(strerror(EACCES)), file.Path());
  fs.ClearFaults();
  messages = Messages();
  ASSERT_GE(messages.size(), 2u);
  EXPECT_EQ("dm_handle_to_path: open mntpath<" + fs.mnt() + ">", messages[messages.size() - 2]);
  EXPECT_EQ("dm_handle_to_path: failed,  errno/13", messages.back());
  for (const std::string &m : messages) EXPECT_NE("dm_make_handle", m);
}

TEST_F(TraceTest, OverlongMessageIsCutButStaysOneLine) {
  CreateLog();
  std::string big(5000, 'm');
  kxdmapi_debug("%s\n", big.c_str());
  kxdmapi_call_depth = 100000;  // a runaway depth must not overflow the line
  kxdmapi_debug("deep\n");
  std::string text = vdtest::ReadFile(log_);
  auto lines = vdtest::SplitLines(text);
  ASSERT_EQ(2u, lines.size());
  EXPECT_LT(lines[0].size(), 1300u);
  EXPECT_EQ('\n', text.back());
}

}  // namespace
