// objs.conf as an administrator writes it, and the check that policies make
// against it. The configuration directory is a temporary one named by
// KXFSCONF, set before anything resolves the installation directories.
#include "vdpolicy/lib/check/vd_was_lib.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "libutil/getroot.h"
#include "support/log_capture.h"
#include "support/test_support.h"

namespace {

std::string g_conf_dir;
std::string g_conf_path;

// Installation directories are resolved once per process, so KXFSCONF is set
// here, before any test asks for them (and not while tests are only listed).
class ConfDir : public ::testing::Environment {
 public:
  void SetUp() override {
    g_conf_dir = vdtest::MakeTempDir("vd_was_lib_test");
    ASSERT_FALSE(g_conf_dir.empty());
    g_conf_path = g_conf_dir + "/objs.conf";
    setenv("KXFSCONF", g_conf_dir.c_str(), 1);
  }
  void TearDown() override { std::filesystem::remove_all(g_conf_dir); }
};
const auto *const g_conf_env = ::testing::AddGlobalTestEnvironment(new ConfDir);

std::string Join(char *const *items, int count) {
  std::string out;
  for (int i = 0; i < count; ++i) out += (i ? "|" : "") + std::string(items[i]);
  return out;
}

class ObjsConfTest : public ::testing::Test {
 protected:
  void SetUp() override { std::filesystem::remove(g_conf_path); }
  void TearDown() override { free_was_config_info(&info_); }

  static void Write(const std::string &text) { std::ofstream(g_conf_path) << text; }
  static std::string Anonymous(std::string msg, const std::string &path) {
    size_t at = msg.find(path);
    if (at != std::string::npos) msg.replace(at, path.size(), "@");
    return msg;
  }

  // Parses the file at path: "OK <count>" or the error message, with the
  // path cut to "@" for readability.
  std::string ParseFile(const std::string &path) {
    free_was_config_info(&info_);
    char *err = nullptr;
    int rc = parse_objs_config_file(path.c_str(), &info_, &err);
    if (rc == 0) {
      EXPECT_EQ(nullptr, err);
      return "OK " + std::to_string(info_.config_count);
    }
    EXPECT_EQ(0, info_.config_count);
    std::string msg = err != nullptr ? err : "(null)";
    free(err);
    return Anonymous(msg, path);
  }
  std::string Parse(const std::string &text) {
    Write(text);
    return ParseFile(g_conf_path);
  }
  // verify_was_policy_params: "0" (its message buffer emptied) or the message.
  static std::string Verify(const char *id, const char *ns) {
    char msg[4096] = "stale";
    int rc = verify_was_policy_params(id, ns, msg, sizeof msg);
    EXPECT_EQ(rc == 0, msg[0] == '\0');
    return rc == 0 ? "0" : Anonymous(msg, g_conf_path);
  }
  std::string Hosts(int i) const {
    return Join(info_.config[i]->host_ports, info_.config[i]->hosts_cnt);
  }
  std::string Spaces(int i) const {
    return Join(info_.config[i]->buckets, info_.config[i]->buckets_cnt);
  }

  cla_was_config_info info_{};
  vdtest::LogCapture log;
};

constexpr char kMinimal[] = "objs_id=c1,access_host_ports=h1,namespaces=ns1\n";

TEST_F(ObjsConfTest, ReadsEveryKeyword) {
  ASSERT_EQ("OK 1", Parse("# object storage\n"
                          "objs_id=Cloud1,provider=amazons3,access_host_ports=h1:80|h2\n"
                          "\n"
                          "manager_host=m1,manager_port=8443,manager_https=yes\n"
                          "manager_username=admin,manager_password=\"p,w\"\n"
                          "namespaces=a|b,namespaces=c,authentication=awsv4\n"
                          "username=x,username=u,password=pw,use_zlib,server_auth=1\n"
                          "capath=/tmp,cacertfile=/dev/null,max_seg_size=1g\n"
                          "objs_transfertimeout=1800,s3_virtual_hosting=on,s3_ss_encryption=1\n"));
  const CLA_PARAM_T &c = *info_.config[0];
  EXPECT_STREQ("Cloud1", c.cloud_id);
  EXPECT_EQ(CLA_PROVIDER_AMAZON_S3, c.provider);
  EXPECT_EQ("h1:80|h2", Hosts(0));
  EXPECT_STREQ("m1", c.manager_host);
  EXPECT_EQ(8443u, c.manager_port);
  EXPECT_TRUE(c.manager_https);
  EXPECT_STREQ("admin", c.manager_username);
  EXPECT_STREQ("p,w", c.manager_password);
  EXPECT_EQ("a|b|c", Spaces(0));
  EXPECT_EQ(CLA_AUTH_AWSV4, c.authentication);
  EXPECT_STREQ("u", c.username);
  EXPECT_STREQ("pw", c.password);
  EXPECT_TRUE(c.use_zlib);
  EXPECT_FALSE(c.use_https);
  EXPECT_EQ(CLA_VERIFY_PEERHOST, c.server_auth);
  EXPECT_STREQ("/tmp", c.capath);
  EXPECT_STREQ("/dev/null", c.cacertfile);
  EXPECT_EQ(1ull << 30, c.max_seg_size);
  EXPECT_EQ(1800u, c.was_transfertimeout);
  EXPECT_TRUE(c.s3_virtual_hosting);
  EXPECT_TRUE(c.s3_ss_encryption);
}

TEST_F(ObjsConfTest, DefaultsOfANewConfigurationAndOfHttps) {
  was_tune_keepalive_idle = 11;
  was_tune_keepalive_intvl = 12;
  ASSERT_EQ("OK 2", Parse(std::string(kMinimal) + "OBJS_ID=c2,access_host_ports=h,namespaces=n\n"));
  was_tune_keepalive_idle = 60;
  was_tune_keepalive_intvl = 30;
  const CLA_PARAM_T &c = *info_.config[1];
  EXPECT_STREQ("c2", c.cloud_id);
  EXPECT_EQ(CLA_PROVIDER_FENWYK, c.provider);
  EXPECT_EQ(180u, c.was_transfertimeout);
  EXPECT_EQ(11, c.was_keepalive_idle);
  EXPECT_EQ(12, c.was_keepalive_intvl);
  // https brings peer-only verification and the installation's certificate
  // directory, unless the configuration gives its own.
  ASSERT_EQ("OK 1", Parse(std::string(kMinimal) + "use_https=yes\n"));
  EXPECT_EQ(CLA_VERIFY_PEERONLY, info_.config[0]->server_auth);
  EXPECT_EQ(g_conf_dir + "/ssl", info_.config[0]->capath);
  ASSERT_EQ("OK 1", Parse(std::string(kMinimal) + "server_auth=0,capath=/tmp,use_https\n"));
  EXPECT_EQ(CLA_VERIFY_NONE, info_.config[0]->server_auth);
  EXPECT_STREQ("/tmp", info_.config[0]->capath);
  ASSERT_EQ("OK 1", Parse(std::string(kMinimal) + "use_https=no\n"));
  EXPECT_EQ(nullptr, info_.config[0]->capath);
}

TEST_F(ObjsConfTest, UnreadableFile) {
  EXPECT_EQ("Unable to parse OBJS configuration file(@): OBJS config file read failed",
            ParseFile(g_conf_dir));
  const std::string fifo = g_conf_dir + "/fifo";
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  EXPECT_EQ("Unable to parse OBJS configuration file(@): Cannot open OBJS config file",
            ParseFile(fifo));  // must not block
  unlink(fifo.c_str());
  const std::string nul = g_conf_dir + "/nul";
  std::ofstream(nul) << std::string("objs_id=c1,\0provider=AmazonS3\n", 31);
  EXPECT_EQ("Unable to parse OBJS configuration file(@): OBJS config file holds a NUL byte",
            ParseFile(nul));
  unlink(nul.c_str());
  EXPECT_EQ(-1, parse_objs_config_file(g_conf_path.c_str(), &info_, nullptr));
}

// Ranges expand to one endpoint per port and span at most 256 ports; empty
// entries are skipped; the table keeps its first 256 endpoints and drops
// the rest with a warning.
TEST_F(ObjsConfTest, EndpointLists) {
  ASSERT_EQ("OK 1", Parse("objs_id=c,namespaces=n,access_host_ports=h1:8080-8082||h2|\n"));
  EXPECT_EQ("h1:8080|h1:8081|h1:8082|h2", Hosts(0));
  EXPECT_TRUE(log.Lines().empty());
  for (auto [hosts, last] : {std::pair{"a:1-256|c", "a:256"}, {"h:8000-8256", "h:8255"}}) {
    log.Lines().clear();
    ASSERT_EQ("OK 1", Parse(std::string("objs_id=c,namespaces=n,access_host_ports=") + hosts));
    EXPECT_EQ(CLA_MAX_HOST_PORTS, info_.config[0]->hosts_cnt) << hosts;
    EXPECT_STREQ(last, info_.config[0]->host_ports[255]) << hosts;
    EXPECT_EQ(std::vector<std::string>{"2:Too many host-port pairs specified in OBJS config.\n"},
              log.Lines());
  }
  // A second list in one configuration is ignored.
  log.Lines().clear();
  ASSERT_EQ("OK 1", Parse("objs_id=c,namespaces=n,access_host_ports=h1\naccess_host_ports=h2\n"));
  EXPECT_EQ("h1", Hosts(0));
  EXPECT_EQ(std::vector<std::string>{"2:hosts redefined, ignored.\n"}, log.Lines());
}

// Each row is a file and the message it fails with, after the common
// "Failed to parse OBJS configuration file(@) at line ".
TEST_F(ObjsConfTest, ErrorsNameTheLineAndTheCause) {
  const std::string m = kMinimal;
  std::string sixteen = "objs_id=c,access_host_ports=h,namespaces=n0";
  for (int i = 1; i < CLA_MAX_BUCKETS; ++i) sixteen += "|n" + std::to_string(i);
  ASSERT_EQ("OK 1", Parse(sixteen));
  std::string sixty_four;
  for (int i = 0; i < CLA_MAX_CONFIGS; ++i)
    sixty_four += "objs_id=c" + std::to_string(i) + ",access_host_ports=h,namespaces=n\n";
  ASSERT_EQ("OK 64", Parse(sixty_four));
  const std::pair<std::string, std::string> cases[] = {
      {"objs_id=c,namespaces=n\naccess_host_ports=h1:9000-8000\n",
       "2: incorrect ports specified.\n"},
      {"objs_id=c,namespaces=n,access_host_ports=h:8000-8257\n", "1: incorrect ports specified.\n"},
      {"objs_id=c,access_host_ports=h:80-x\n", "1: incorrect ports specified.\n"},
      {"objs_id=c,provider=S3\n", "1: Unknown Object Storage provider"},
      {"objs_id=c,authentication=plain\n",
       "1: Unknown Authentication method. Only none|digest|awsv2 are supported."},
      // A configuration is verified when the next one starts or the file ends.
      {"objs_id=a\nobjs_id=b\n", "2: Verification failed: access hosts are not configured."},
      {"objs_id=a,access_host_ports=h\n\n# end\n",
       "3: Verification failed: namespaces are not configured."},
      {"namespaces=a\n", "1: OBJS ID should be defined first."},
      {m + "max_seg_size=512k\n",
       "2: Parameter 'max_seg_size' (524288) out of range, min 1048576 max 281474976710656\n"},
      {"objs_id=c,server_auth=3\n", "1: Parameter 'server_auth' (3) out of range, min 0 max 2\n"},
      {m + "cacertfile=/no/such\n", "2: Certificate file /no/such doesn't exist."},
      {m + "capath=/no/dir\n", "2: Path for certificates /no/dir doesn't exist."},
      {sixteen + "\nnamespaces=x\n", "2: Too many namespaces specified in OBJS config"},
      {sixty_four + "objs_id=one_more\n",
       "65: Too many OBJS configurations specified, max 64 allowed."},
  };
  for (const auto &[text, message] : cases) {
    EXPECT_EQ("Failed to parse OBJS configuration file(@) at line " + message, Parse(text)) << text;
  }
}

// The calls C callers make directly: names in any case, and the
// arguments a file cannot give.
TEST_F(ObjsConfTest, DirectCalls) {
  EXPECT_EQ(CLA_PROVIDER_FENWYK_S3, getProviderByName("FENWYKS3"));
  EXPECT_EQ(0, getProviderByName(nullptr));
  EXPECT_EQ(CLA_AUTH_DIGEST_IE, getAuthByName("Digest_IE"));
  EXPECT_EQ(CLA_AUTH_UNKNOWN, getAuthByName("kerberos"));
  CLA_PARAM_T *cfg = static_cast<CLA_PARAM_T *>(calloc(1, sizeof(CLA_PARAM_T)));
  init_obj_store_cfg(cfg);
  const char *msg = nullptr;
  EXPECT_EQ(0, parse_host_port_str(nullptr, cfg, &msg));
  EXPECT_EQ(-1, parse_host_port_str("c:5-", cfg, &msg));
  EXPECT_STREQ("incorrect ports specified.\n", msg);
  cfg->provider = CLA_PROVIDER_NONE;
  EXPECT_EQ(1, verify_obj_store_cfg(cfg, &msg));
  EXPECT_STREQ("Verification failed: Object Storage Provider.", msg);
  was_config_param_destroy(cfg);
  was_config_param_destroy(nullptr);
}

// Found by fuzzing: an empty identifier, a carriage return inside a value
// and a range that fills the endpoint table. (A NUL byte, also found so, now
// refuses the whole file.)
TEST_F(ObjsConfTest, EmptyIdentifierFromFuzzing) {
  static const char kInput[] =
      "objs_id=,access_host_ports=aAmazonS3:1-256|b,namespaces=n@accesshost_portmse\r\n";
  ASSERT_EQ("OK 1", Parse(std::string(kInput, sizeof kInput - 1)));
  EXPECT_STREQ("", info_.config[0]->cloud_id);
  EXPECT_EQ(CLA_MAX_HOST_PORTS, info_.config[0]->hosts_cnt);
  EXPECT_EQ("n@accesshost_portmse\r", Spaces(0));
  char msg[256];
  EXPECT_EQ(0, verify_was_policy_params("", "n@accesshost_portmse\r", msg, sizeof msg));
}

TEST_F(ObjsConfTest, VerifyReadsTheFileEachTimeAndMatchesIdInAnyCase) {
  EXPECT_EQ("couldn't find objs_id c1 in @", Verify("c1", "ns1"));  // no file yet
  Write("objs_id=Cloud,access_host_ports=h,namespaces=Bucket|b2\n");
  EXPECT_EQ("0", Verify("cLOUD", "Bucket"));
  EXPECT_EQ("0", Verify("cloud", "b2"));
  EXPECT_EQ("couldn't find namespace bucket for objs_id cloud in @", Verify("cloud", "bucket"));
  EXPECT_EQ("couldn't find namespace 1M:a|b for objs_id cloud in @", Verify("cloud", "1M:a|b"));
  EXPECT_EQ("couldn't find objs_id other in @", Verify("other", "Bucket"));
  EXPECT_EQ(-1, verify_was_policy_params("other", "x", nullptr, 0));
  char small[8];
  EXPECT_EQ(-1, verify_was_policy_params("other", "x", small, sizeof small));
  EXPECT_STREQ("couldn'", small);
  // The file is read afresh on every check.
  Write(kMinimal);
  EXPECT_EQ("0", Verify("c1", "ns1"));
  Write("objs_id=c1\n");
  EXPECT_EQ(
      "Failed to parse OBJS configuration file(@) at line 1: Verification failed: access "
      "hosts are not configured.",
      Verify("c1", "ns1"));
}

}  // namespace
