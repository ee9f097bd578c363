// Units of the tool that need no simulated file system: the mount point's
// trailing slashes (a lone "/" cannot be walked in a test), the operator's
// one question, how paths are shown, the last look before a file examined
// ahead of the walk goes, how a file is opened for its "BFST", and how a
// directory's relation-point answers are judged.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "options.h"
#include "rules/dir_attrs.h"
#include "rules/dir_policy.h"
#include "rules/file_rules.h"
#include "settings.h"
#include "shown_path.h"

namespace {

// With --jobs a file is examined by another thread before the walk decides
// about it. A file that has been written since (it has blocks now), or
// replaced by another, is kept; the file examined, unchanged, goes.
TEST(PostRestoreReadAheadRaceTest, FileChangedSinceItWasExaminedIsKept) {
  const std::filesystem::path dir =
      std::filesystem::temp_directory_path() / ("race." + std::to_string(getpid()));
  std::filesystem::create_directories(dir);
  const int dir_fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY);
  ASSERT_GE(dir_fd, 0);
  // As the read-ahead saw each file: a size and no blocks.
  auto examined = [&](const char *name) {
    std::ofstream(dir / name).close();
    std::filesystem::resize_file(dir / name, 4096);
    struct stat st;
    EXPECT_EQ(0, fstatat(dir_fd, name, &st, 0));
    return st;
  };
  const struct stat written = examined("written"), replaced = examined("replaced"),
                    unchanged = examined("unchanged");
  std::ofstream(dir / "written") << std::string(4096, 'x');
  std::filesystem::rename(dir / "replaced", dir / "moved aside");
  examined("replaced");
  LogFile = std::tmpfile();
  Remove_Files = 1;
  testing::internal::CaptureStdout();
  for (const auto &[name, st] : {std::pair{"written", written}, std::pair{"replaced", replaced},
                                 std::pair{"unchanged", unchanged}}) {
    const std::string path = (dir / name).string();
    const FileRef file{dir_fd, name, path.c_str(), nullptr, true, st.st_dev, st.st_ino};
    EXPECT_TRUE(apply_file_rules(file, st, DirState{})) << name;
  }
  const std::string shown = dir.string();
  EXPECT_EQ("  File " + shown + "/written changed since it was examined, Skipping.\n"
            "  File " + shown + "/replaced changed since it was examined, Skipping.\n"
            "  Removing file " + shown + "/unchanged.\n",
            testing::internal::GetCapturedStdout());
  EXPECT_TRUE(std::filesystem::exists(dir / "written"));
  EXPECT_TRUE(std::filesystem::exists(dir / "replaced"));
  EXPECT_FALSE(std::filesystem::exists(dir / "unchanged"));
  std::fclose(LogFile);
  LogFile = nullptr;
  Remove_Files = 0;
  close(dir_fd);
  std::filesystem::remove_all(dir);
}

// A file's "BFST" is read through a descriptor of the file itself: a link
// planted in its place is not followed, and a FIFO does not hold the run.
TEST(PostRestoreReadBfstTest, NeitherFollowsALinkNorWaitsOnAFifo) {
  const std::filesystem::path dir =
      std::filesystem::temp_directory_path() / ("bfst." + std::to_string(getpid()));
  std::filesystem::create_directories(dir);
  std::ofstream(dir / "target").close();
  std::filesystem::create_symlink(dir / "target", dir / "link");
  ASSERT_EQ(0, mkfifo((dir / "fifo").c_str(), 0600));
  const int dir_fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY);
  ASSERT_GE(dir_fd, 0);
  EXPECT_EQ(ELOOP, read_bfst(FileRef{dir_fd, "link", "link"}).open_errno);
  alarm(10);  // a blocking open would hang the test: end it instead
  EXPECT_EQ(0, read_bfst(FileRef{dir_fd, "fifo", "fifo"}).open_errno);
  alarm(0);
  close(dir_fd);
  std::filesystem::remove_all(dir);
}

// What the answers to a directory's requests make of it: a relation point
// only with "VDEA" and all three events, and a directory whose events
// cannot be read; the run stops where the directory cannot be resolved, is
// no longer the one held open, or its "VDEA" cannot be read for another
// reason than its absence.
TEST(PostRestoreDirAttrsTest, EachAnswerIsJudged) {
  constexpr dm_eventset_t kAll = 0x1120;
  const std::string gone = ": No such file or directory.\n";
  const struct {
    RelationRead read;
    bool ok, relation_point;
    std::string err;
  } cases[] = {
      {{.handle_errno = EIO}, false, false,
       "Failed to get path-to-handle for directory /fs/d: Input/output error.\n"},
      {{}, false, false, "Directory /fs/d changed while it was being processed.\n"},
      {{.names_dir = true, .events = kAll}, true, true, ""},
      {{.names_dir = true, .events = 0x1100}, true, false, ""},
      {{.names_dir = true, .fileattr_errno = EIO}, true, true,
       "Failed to get attributes for directory /fs/d: Input/output error.\n"},
      {{.names_dir = true, .vdea_errno = ENODATA}, true, false, ""},
      {{.names_dir = true, .vdea_errno = ENOENT, .fs_located = true}, true, false, ""},
      {{.names_dir = true, .vdea_errno = ENOENT}, false, false,
       "Failed to get xattr for directory /fs/d" + gone},
      {{.names_dir = true, .vdea_errno = EIO, .fs_located = true}, false, false,
       "Failed to get xattr for directory /fs/d: Input/output error.\n"},
  };
  for (const auto &c : cases) {
    bool relation_point = !c.relation_point;
    testing::internal::CaptureStderr();
    EXPECT_EQ(c.ok, get_dir_attrs(-1, "/fs/d", 0, relation_point, &c.read)) << c.err;
    EXPECT_EQ(c.err, testing::internal::GetCapturedStderr());
    EXPECT_EQ(c.relation_point, relation_point) << c.err;
  }
}

TEST(PostRestoreOptionsTest, StripTrailingSlashesKeepsALoneSlash) {
  struct Case {
    const char *in, *out;
  } cases[] = {{"/", "/"},    {"//", "/"},   {"///", "/"}, {"/fs/a///", "/fs/a"},
               {"fs/", "fs"}, {"/fs", "/fs"}};
  for (const auto &c : cases) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "%s", c.in);
    strip_trailing_slashes(buf);
    EXPECT_STREQ(c.out, buf) << "input " << c.in;
  }
}

// Whether to keep deduplicated files: "<y>" is the answer at end of input
// only, a bare Enter does not keep.
TEST(PostRestoreDedupQuestionTest, AnswersAndEndOfInput) {
  const struct {
    const char *input;
    int keep;
  } cases[] = {{"Yes\n", 1}, {"y\n", 1}, {"\n", 0}, {"no\n", 0}, {"", 1}};
  Verbosity = 0;  // keep the question off the test's output
  for (const auto &c : cases) {
    Prompt_for_dedup_files = 0;
    Preserve_dedup_files = 0;
    FILE *in = std::tmpfile();
    std::fputs(c.input, in);
    std::rewind(in);
    ask_keep_dedup_files(in);
    std::fclose(in);
    EXPECT_EQ(c.keep, Preserve_dedup_files) << "answer '" << c.input << "'";
    EXPECT_EQ(1, Prompt_for_dedup_files);
  }
  Verbosity = 1;
}

// The bytes that $'...' quoting stands for (what a shell would read).
std::string unquote(const std::string &shown) {
  if (!shown.starts_with("$'")) return shown;
  std::string out;
  for (std::size_t i = 2; i + 1 < shown.size(); ++i) {
    if (shown[i] != '\\') {
      out += shown[i];
      continue;
    }
    const char c = shown[++i];
    if (c == 'x') {
      out += static_cast<char>(std::stoi(shown.substr(i + 1, 2), nullptr, 16));
      i += 2;
    } else {
      out += c == 'n' ? '\n' : c == 'r' ? '\r' : c == 't' ? '\t' : c;
    }
  }
  return out;
}

// A path is shown as it is unless a reader could not take it back exactly:
// control bytes, bytes that are not UTF-8, or a leading "$'". Quoted or not,
// every shown path reads back as the exact bytes of the name.
TEST(ShownPathTest, QuotedOnlyWhereNeededAndAlwaysReadsBack) {
  const struct {
    const char *path, *shown;  // shown null: as it is
  } cases[] = {
      {"/fs/a b/\xc3\xa9/\xf0\x9f\x98\x80", nullptr},  // blank, é, an emoji
      {"/fs/x$'y'", nullptr},
      {"/fs/nl\n/fs/keep_me", "$'/fs/nl\\n/fs/keep_me'"},
      {"/fs/tab\t", "$'/fs/tab\\t'"},
      {"/fs/cr\r\\'\x01\x7f\xc3\xa9", "$'/fs/cr\\r\\\\\\'\\x01\\x7f\xc3\xa9'"},
      {"/fs/\x80", "$'/fs/\\x80'"},                             // a lone continuation byte
      {"/fs/\xc3", "$'/fs/\\xc3'"},                             // a sequence cut short
      {"/fs/\xc0\xaf", "$'/fs/\\xc0\\xaf'"},                    // an overlong '/'
      {"/fs/\xed\xa0\x80", "$'/fs/\\xed\\xa0\\x80'"},           // a surrogate
      {"/fs/\xf4\x90\x80\x80", "$'/fs/\\xf4\\x90\\x80\\x80'"},  // beyond U+10FFFF
      {"$'x'", "$'$\\'x\\''"},
  };
  for (const auto &c : cases) {
    const ShownPath shown(c.path);
    if (c.shown == nullptr) {
      EXPECT_EQ(c.path, shown.c_str()) << "shown unchanged, not copied: " << c.path;
    } else {
      EXPECT_STREQ(c.shown, shown.c_str());
    }
    EXPECT_EQ(c.path, unquote(shown.c_str()));
  }
}

}  // namespace
