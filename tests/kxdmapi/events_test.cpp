// Event lists and the event message path: the checks that decide whether a
// request is sent at all, then the requests made on a simulated mount by
// descriptor, by file handle and through the driver.
#include <array>

#include "dm_test.h"

namespace {

const dm_eventset_t kNone = 0;
const dm_eventset_t kManaged = DM_EVENT_MANAGED_MASK;

// Outside a simulated file system, descriptor requests fail with ENOTTY and
// driver requests with ENOSYS: the errno tells whether a request was sent.
TEST(EventsOutsideFsTest, MaxeventIsCheckedBeforeTheHandleByHandleFormsOnly) {
  std::array<unsigned char, 24> invalid{};  // fsid 0
  for (unsigned int maxevent : {0u, 41u, 1u, 40u}) {
    const std::string expected = maxevent == 0 || maxevent == 41 ? "-1 EINVAL" : "-1 EBADF";
    EXPECT_EQ(expected,
              OUTCOME(dm_update_eventlist(0, invalid.data(), 24, -1, &kNone, &kManaged, maxevent)))
        << maxevent;
    EXPECT_EQ(expected, OUTCOME(dm_set_eventlist(0, invalid.data(), 24, -1, &kNone, maxevent)))
        << maxevent;
  }
  const int fd = open("/dev/null", O_RDONLY);
  EXPECT_EQ("-1 ENOTTY", OUTCOME(dm_update_eventlist_fd(fd, 0, -1, &kNone, &kManaged, 41)));
  close(fd);
  // Valid, but with no fsid to send.
  EXPECT_EQ("-1 EBADF",
            OUTCOME(dm_set_eventlist(0, DM_GLOBAL_HANP, DM_GLOBAL_HLEN, -1, &kNone, 40)));
  dm_eventset_t set = 0;
  unsigned int nelem = 0;
  EXPECT_EQ("-1 EINVAL", OUTCOME(dm_get_eventlist(0, invalid.data(), 24, -1, 0, &set, &nelem)));
}

TEST(EventsOutsideFsTest, EventFileCallsTakeOnlyTheirTypesAndBoundedData) {
  // A call that passes reaches the absent driver (ENOSYS); the others are refused.
  std::vector<unsigned char> data(1233, 0xAB);
  EXPECT_EQ("-1 ENOSYS", OUTCOME(dm_add_evententry(0, 0, DM_EVENT_BLOCKLET, 1232, data.data())));
  EXPECT_EQ("-1 EINVAL", OUTCOME(dm_add_evententry(0, 0, DM_EVENT_BLOCKLET, 1233, data.data())));
  std::string rolled, added;
  for (int ev = -1; ev <= 64; ++ev) {
    // Cast in place: a variable of the enum type may not hold 64.
    if (OUTCOME(dm_roll_eventfile(0, 0, static_cast<dm_eventtype_t>(ev))) == "-1 ENOSYS")
      rolled += " " + std::to_string(ev);
    if (OUTCOME(dm_add_evententry(0, 0, static_cast<dm_eventtype_t>(ev), 0, nullptr)) ==
        "-1 ENOSYS")
      added += " " + std::to_string(ev);
  }
  EXPECT_EQ(" 7 20 28 40 41 42 43 44 45", rolled);
  EXPECT_EQ(rolled, added);
  char path[DM_GET_DIR_PATH_MAX];
  EXPECT_EQ("-1 EINVAL", OUTCOME(dm_get_dir(0, 2, path)));
}

// ---- On a simulated mount -------------------------------------------------

class EventsSimTest : public dmtest::SimFileTest {
 protected:
  void SetUp() override {
    SimFileTest::SetUp();
    ASSERT_EQ(0, dm_path_to_fshandle(path_.c_str(), &fs_.hanp, &fs_.hlen)) << strerror(errno);
  }
  void SetEvents(const std::string &mask) {
    ASSERT_EQ(0, fs.Kxsim({"events", "set", path_, mask}).exit_code);
  }
  std::string Events() { return fs.Query({"events", "get", path_}); }
  int Update(const void *hanp, size_t hlen) {
    return dm_update_eventlist(0, hanp, hlen, -1, &kNone, &kManaged, 40);
  }

  vdtest::OwnedHandle fs_;
};

TEST_F(EventsSimTest, ClearingTheManagedBitsByDescriptorKeepsTheOthers) {
  SetEvents("0x70010000");
  const int fd = open(path_.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  fs.StartLog();
  ASSERT_EQ(0, dm_update_eventlist_fd(fd, 0, -1, &kNone, &kManaged, 40)) << strerror(errno);
  EXPECT_EQ("0x10000", Events());
  EXPECT_EQ(1u, fs.LogLinesWith({"ioctl 0x426 ", "maxevent=40", "mask=0x70000000"}).size());
  dm_eventset_t set = 0;
  unsigned int nelem = 0;
  ASSERT_EQ(0, dm_get_eventlist_fd(fd, 0, -1, 40, &set, &nelem));
  EXPECT_EQ(0x10000u, set);
  EXPECT_EQ(40u, nelem);
  close(fd);
}

TEST_F(EventsSimTest, FileHandleGoesByIoctlOnADescriptorOpenedByHandle) {
  SetEvents("0x70000120");
  fs.StartLog();
  ASSERT_EQ(0, Update(file_.hanp, file_.hlen));
  EXPECT_EQ("0x120", Events());
  EXPECT_EQ(1u, fs.LogLinesWith({"ioctl 0x426 "}).size());
  EXPECT_TRUE(fs.LogLinesWith({"dmig 0x28 "}).empty());
  dm_eventset_t newset = 0x1120, set = 0;
  unsigned int nelem = 0;
  ASSERT_EQ(0, dm_set_eventlist(0, file_.hanp, file_.hlen, -1, &newset, 40));
  ASSERT_EQ(0, dm_get_eventlist(0, file_.hanp, file_.hlen, -1, 40, &set, &nelem));
  EXPECT_EQ(0x1120u, set);
}

TEST_F(EventsSimTest, FileSystemHandleGoesThroughTheDriver) {
  dm_eventset_t fsset = (1u << DM_EVENT_MOUNT) | (1u << DM_EVENT_BLOCKLET), set = 0;
  unsigned int nelem = 0;
  fs.StartLog();
  ASSERT_EQ(0, dm_set_eventlist(0, fs_.hanp, fs_.hlen, -1, &fsset, 40)) << strerror(errno);
  ASSERT_EQ(0, Update(fs_.hanp, fs_.hlen));
  ASSERT_EQ(0, dm_get_eventlist(0, fs_.hanp, fs_.hlen, -1, 40, &set, &nelem));
  EXPECT_EQ(1u << DM_EVENT_MOUNT, set);
  for (const char *code : {"dmig 0xa ", "dmig 0x28 ", "dmig 0x9 "}) {
    EXPECT_EQ(1u, fs.LogLinesWith({code, "result=0"}).size()) << code;
  }
  EXPECT_TRUE(fs.LogLinesWith({"ioctl 0x426 "}).empty());
}

TEST_F(EventsSimTest, FailuresKeepTheirErrno) {
  SetEvents("0x70000000");
  fs.SetFaults("kind=ioctl,code=1062,errno=EIO");
  EXPECT_EQ("-1 EIO", OUTCOME(Update(file_.hanp, file_.hlen)));
  EXPECT_EQ("0x70000000", Events());
  fs.SetFaults("kind=dmig,code=9,errno=EPERM");
  dm_eventset_t set = 0;
  unsigned int nelem = 0;
  EXPECT_EQ("-1 EPERM", OUTCOME(dm_get_eventlist(0, fs_.hanp, fs_.hlen, -1, 40, &set, &nelem)));
  fs.ClearFaults();
  ASSERT_EQ(0, unlink(path_.c_str()));
  errno = 0;
  EXPECT_EQ(-1, Update(file_.hanp, file_.hlen));
  EXPECT_TRUE(errno == ENOENT || errno == ESTALE) << strerror(errno);
}

TEST_F(EventsSimTest, EventFileAndDispositionRequestsAreSent) {
  fs.StartLog();
  EXPECT_EQ(0, dm_roll_eventfile(1, 77, DM_EVENT_BLOCKLET)) << strerror(errno);
  std::vector<unsigned char> data(1232, 0x5A);
  EXPECT_EQ(0, dm_add_evententry(1, 0, DM_EVENT_REPLICATE, data.size(), data.data()));
  dm_eventset_t set = 1u << DM_EVENT_DESTROY;
  EXPECT_EQ(0, dm_set_disp(1, DM_GLOBAL_HANP, DM_GLOBAL_HLEN, -1, &set, 40));
  for (const char *code : {"dmig 0x25 ", "dmig 0x26 ", "dmig 0xf "}) {
    EXPECT_EQ(1u, fs.LogLinesWith({code, "result=0"}).size()) << code;
  }
}

}  // namespace
