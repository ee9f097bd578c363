#include "libutil/hash_table.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "support/log_capture.h"

namespace {

// Captures the table's log lines; every table made through Make() is
// destroyed at the end of the case (so ASan sees every entry freed).
class HashTableTest : public ::testing::Test {
 protected:
  void TearDown() override {
    for (vd_hash_t *t : tables_) vd_hash_destroy(t);
  }
  vd_hash_t *Make(vd_hash_t *t) {
    if (t != nullptr) tables_.push_back(t);
    return t;
  }
  static void *Str(const char *s) { return const_cast<char *>(s); }

  vdtest::LogCapture log_;
  std::vector<vd_hash_t *> tables_;
};

TEST_F(HashTableTest, NameHashArithmetic) {
  EXPECT_EQ(0u, vd_name_hash(""));
  EXPECT_EQ(6363201u, vd_name_hash("ab"));
  // 0xE9 is read as -23: 97 * 65599 - 23, and alone it wraps below zero.
  EXPECT_EQ(6363080u, vd_name_hash("a\xE9"));
  EXPECT_EQ(static_cast<uint32_t>(-23), vd_name_hash("\xE9"));
  // Unsigned 32-bit wrap-around over a longer name.
  EXPECT_EQ(179976611u, vd_name_hash("policy_name_long"));
}

// The table copies string keys but leaves values to the caller; a duplicate
// is found first until deleted; the count is of inserts, not entries.
TEST_F(HashTableTest, StringTableCopiesKeysAndStacksDuplicates) {
  vd_hash_t *t = Make(vd_hash_create(1));
  char key[] = "dup";
  std::string value = "caller owned";
  void **slot = vd_hash_insert(t, key, value.data());
  ASSERT_NE(nullptr, slot);
  EXPECT_EQ(value.data(), *slot);
  key[0] = 'g';
  vd_hash_insert(t, "other", Str("x"));
  vd_hash_insert(t, "dup", Str("second"));
  EXPECT_STREQ("second", static_cast<char *>(vd_hash_search(t, "dup")));
  EXPECT_EQ(0, vd_hash_delete(t, "dup"));
  EXPECT_EQ(value.data(), vd_hash_search(t, "dup"));
  EXPECT_STREQ("x", static_cast<char *>(vd_hash_search(t, "other")));
  EXPECT_EQ(0, vd_hash_delete(t, "dup"));
  EXPECT_EQ("caller owned", value);  // still ours
  EXPECT_EQ(nullptr, vd_hash_search(t, "dup"));
  EXPECT_EQ(1, vd_hash_delete(t, "dup"));
  EXPECT_EQ(3u, vd_hash_count(t));
}

TEST_F(HashTableTest, Uint64TableOwnsValues) {
  vd_hash_t *t = Make(vd_hash_create_uint64(5));
  // Heap values: the table frees them on delete and destroy (ASan checks).
  for (uint64_t k = 0; k < 20; ++k) vd_hash_insert_uint64(t, k << 32, std::malloc(8));
  void *mine = std::malloc(16);
  vd_hash_insert_uint64(t, 99, mine);
  EXPECT_EQ(mine, vd_hash_search_uint64(t, 99));
  EXPECT_EQ(0, vd_hash_delete_uint64(t, 99));
  EXPECT_EQ(nullptr, vd_hash_search_uint64(t, 99));
  EXPECT_EQ(1, vd_hash_delete_uint64(t, 99));
  EXPECT_EQ(0, vd_hash_delete_uint64(t, 5ull << 32));
}

TEST_F(HashTableTest, InlineValuesStartZeroed) {
  vd_hash_t *t = Make(vd_hash_create_uint64_val(3, 40));
  const std::string zeros(40, '\0');
  auto *v = static_cast<char *>(vd_hash_insert_uint64_val(t, 7));
  ASSERT_NE(nullptr, v);
  EXPECT_EQ(zeros, std::string(v, 40));
  std::memset(v, 0xEE, 40);
  EXPECT_EQ(v, vd_hash_search_uint64_val(t, 7));
  EXPECT_EQ(0, vd_hash_delete_uint64_val(t, 7));
  EXPECT_EQ(zeros, std::string(static_cast<char *>(vd_hash_insert_uint64_val(t, 7)), 40));
  EXPECT_EQ(nullptr, vd_hash_search_uint64_val(t, 8));
}

struct Visit {
  std::string order;
  vd_hash_t *table = nullptr;
};

TEST_F(HashTableTest, IterateBucketsInOrderChainsFromHead) {
  vd_hash_t *t = Make(vd_hash_create_uint64_val(3, sizeof(int)));
  // Keys 0..8 land in buckets 0,1,2,0,...; each insert becomes its chain's head.
  for (uint64_t k = 0; k < 9; ++k)
    *static_cast<int *>(vd_hash_insert_uint64_val(t, k)) = int(k) * 10;
  // Only with the flag does a search move its entry to the chain's head.
  vd_hash_search_uint64_val(t, 3);
  vd_hash_set_flags(t, VD_HASH_MOVE_TO_FRONT);
  vd_hash_search_uint64_val(t, 7);
  vd_hash_search_uint64_val(t, 5);
  Visit visit{"", t};
  vd_hash_iterate_uint64_val(t, &visit, [](void *arg, uint64_t key, void *value) {
    auto *v = static_cast<Visit *>(arg);
    v->order += std::to_string(key) + "=" + std::to_string(*static_cast<int *>(value)) + " ";
    vd_hash_delete_uint64_val(v->table, key);  // deleting the visited entry is allowed
  });
  EXPECT_EQ("6=60 3=30 0=0 7=70 4=40 1=10 5=50 8=80 2=20 ", visit.order);
  EXPECT_EQ(nullptr, vd_hash_search_uint64_val(t, 4));
}

TEST_F(HashTableTest, IterateVisitsPointerFlavoursWithTheirValueSlots) {
  vd_hash_t *names = Make(vd_hash_create(2));
  vd_hash_t *ids = Make(vd_hash_create_uint64(2));
  void **name_slot = vd_hash_insert(names, "n", Str("v"));
  void **id_slot = vd_hash_insert_uint64(ids, 9, std::malloc(1));
  std::vector<std::pair<uint64_t, void *>> seen;
  const vd_hash_iter_fn record = [](void *arg, uint64_t key, void *value) {
    static_cast<std::vector<std::pair<uint64_t, void *>> *>(arg)->emplace_back(key, value);
  };
  vd_hash_iterate_uint64_val(names, &seen, record);
  vd_hash_iterate_uint64_val(ids, &seen, record);
  ASSERT_EQ(2u, seen.size());
  EXPECT_STREQ("n", reinterpret_cast<const char *>(seen[0].first));  // the table's copy
  EXPECT_EQ(static_cast<void *>(name_slot), seen[0].second);
  EXPECT_EQ(9u, seen[1].first);
  EXPECT_EQ(static_cast<void *>(id_slot), seen[1].second);
}

TEST_F(HashTableTest, InfoLogsChainStatistics) {
  vd_hash_t *t = Make(vd_hash_create_uint64(4));
  for (uint64_t k : {0, 4, 8, 1, 2}) vd_hash_insert_uint64(t, k, nullptr);
  vd_hash_info(t);
  ASSERT_EQ(1u, log_.Lines().size());
  EXPECT_EQ("1:4 buckets, min 0, max 3, avg 1\n", log_.Lines()[0]);
}

TEST_F(HashTableTest, BadArgumentsAreRefused) {
  EXPECT_EQ(nullptr, Make(vd_hash_create(0)));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(nullptr, Make(vd_hash_create_uint64_val(2, UINT32_MAX)));
  vd_hash_t *names = Make(vd_hash_create(2));
  vd_hash_t *ids = Make(vd_hash_create_uint64(2));
  EXPECT_EQ(nullptr, vd_hash_insert(names, nullptr, nullptr));
  EXPECT_EQ(nullptr, vd_hash_insert_uint64(names, 1, nullptr));  // wrong flavour
  EXPECT_EQ(nullptr, vd_hash_insert(ids, "x", nullptr));
  EXPECT_EQ(nullptr, vd_hash_search(nullptr, "x"));
  EXPECT_EQ(1, vd_hash_delete(names, nullptr));
  EXPECT_EQ(0u, vd_hash_count(names));
  vd_hash_destroy(nullptr);
}

}  // namespace
