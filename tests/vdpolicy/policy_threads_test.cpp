// Lookups and releases from several threads while the policy directory
// changes under them (run under the tsan preset for data races, under asan
// for leaks once every reference is gone and the caches are freed).
#include <atomic>
#include <thread>
#include <vector>

#include "policy_fixture.h"

namespace {

using vdtest::PolicyStoreTest;

TEST_F(PolicyStoreTest, ConcurrentLoadsWhileTheDirectoryChanges) {
  // Traces and the parse counter are not part of this test.
  facilities[9] = 0;
  constexpr int kKeys = 6;
  for (int k = 0; k < kKeys; ++k)
    Write("key_" + std::to_string(40 + k), "dedup_pri=" + std::to_string(k) + "\n");
  Write("parent", "trunc_pri=7\n");
  Write("key_46", "inherit=parent\n");
  std::atomic<bool> stop{false};
  std::atomic<int> failures{0};
  std::thread toucher([&] {
    for (int i = 0; !stop; ++i) {
      const std::string extra = dir_ + "/extra";
      if (i % 2 == 0)
        WriteFileAt(extra, "");
      else
        unlink(extra.c_str());
      std::this_thread::yield();
    }
  });
  std::vector<std::thread> loaders;
  for (int t = 0; t < 8; ++t) {
    loaders.emplace_back([&, t] {
      for (int i = 0; i < 200; ++i) {
        const vdp_key_t key = 40 + static_cast<vdp_key_t>((t + i) % (kKeys + 1));
        Vdp_t *r = nullptr;
        if (vdpol_load(handle_, nullptr, key, &r, nullptr, 0) != 0 || r->vdp_key != key) ++failures;
        Policy_t *held = lookup_policy(fsid(), nullptr, nullptr, key);
        if (held == nullptr) ++failures;
        vdp_free(&r);
        release_policy(held);
      }
    });
  }
  for (std::thread &t : loaders) t.join();
  stop = true;
  toucher.join();
  EXPECT_EQ(0, failures.load());
}

}  // namespace
