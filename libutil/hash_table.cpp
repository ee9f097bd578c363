// Chained hash table with a fixed bucket count; header and buckets are one
// allocation, entries one allocation each.
#include "libutil/hash_table.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "libutil/kxlog.h"

namespace {

constexpr uint16_t kTypeName = 1;
constexpr uint16_t kTypeUint64 = 2;
constexpr uint16_t kTypeUint64Val = 3;
constexpr uint32_t kEntryHeaderSize = 16;   // key + next
constexpr uint32_t kPointerEntrySize = 24;  // key + next + one pointer value
constexpr int kMinStart = 0x7FFFFFF;

struct vd_hash_entry {
  union {
    uint64_t id;
    char *name;
  } key;
  vd_hash_entry *next;
  // value follows: one pointer (types 1, 2) or the inline bytes (type 3)
};
static_assert(sizeof(vd_hash_entry) == kEntryHeaderSize);

struct vd_hash_bucket {
  vd_hash_entry *head;
  uint32_t count;
};
static_assert(sizeof(vd_hash_bucket) == 16);

void *value_area(vd_hash_entry *e) {
  return reinterpret_cast<char *>(e) + kEntryHeaderSize;
}
void **value_slot(vd_hash_entry *e) {
  return static_cast<void **>(value_area(e));
}

// Key operations by table type; `key` is a const char * (type 1) or a
// const uint64_t * (types 2, 3).
uint32_t name_hash_op(const void *key) {
  return vd_name_hash(static_cast<const char *>(key));
}
uint32_t uint64_hash_op(const void *key) {
  return uint64_hash(static_cast<const uint64_t *>(key));
}

bool name_set_key(vd_hash_entry *e, const void *key) {
  e->key.name = strdup(static_cast<const char *>(key));
  return e->key.name != nullptr;
}
bool name_is_key(const vd_hash_entry *e, const void *key) {
  return std::strcmp(e->key.name, static_cast<const char *>(key)) == 0;
}
void name_destroy_key(vd_hash_entry *e) {  // the value belongs to the caller
  std::free(e->key.name);
  std::free(e);
}

bool uint64_set_key(vd_hash_entry *e, const void *key) {
  e->key.id = *static_cast<const uint64_t *>(key);
  return true;
}
bool uint64_is_key(const vd_hash_entry *e, const void *key) {
  return e->key.id == *static_cast<const uint64_t *>(key);
}
void uint64_destroy_key(vd_hash_entry *e) {  // the table owns the value
  std::free(*value_slot(e));
  std::free(e);
}
void uint64_val_destroy_key(vd_hash_entry *e) {
  std::free(e);
}

struct key_ops {
  uint32_t (*hash)(const void *key);
  bool (*set_key)(vd_hash_entry *e, const void *key);
  bool (*is_key)(const vd_hash_entry *e, const void *key);
  void (*destroy)(vd_hash_entry *e);
};

constexpr key_ops key_funcs[] = {
    {nullptr, nullptr, nullptr, nullptr},
    {name_hash_op, name_set_key, name_is_key, name_destroy_key},
    {uint64_hash_op, uint64_set_key, uint64_is_key, uint64_destroy_key},
    {uint64_hash_op, uint64_set_key, uint64_is_key, uint64_val_destroy_key},
};

}  // namespace

struct vd_hash {
  uint16_t type;
  uint16_t flags;
  uint32_t nbuckets;
  uint32_t count;
  uint32_t entry_size;
  const key_ops *ops;
  vd_hash_bucket *buckets;  // points just past this header
};
static_assert(sizeof(vd_hash) == 32);

namespace {

vd_hash_t *create(uint32_t nbuckets, uint16_t type, uint32_t entry_size) {
  if (nbuckets == 0) {  // the bucket choice would divide by zero
    __kxfs_logfn(KXLOG_ERROR, "hash_create: invalid bucket count 0.\n");
    errno = EINVAL;
    return nullptr;
  }
  const size_t bytes = (static_cast<size_t>(nbuckets) + 2) * 16;
  auto *t = static_cast<vd_hash_t *>(std::calloc(1, bytes));
  if (t == nullptr) {
    __kxfs_logfn(KXLOG_ERROR, "hash_create: failed to malloc space for %d buckets.\n",
                 static_cast<int>(nbuckets));
    errno = ENOMEM;
    return nullptr;
  }
  t->type = type;
  t->nbuckets = nbuckets;
  t->entry_size = entry_size;
  t->ops = &key_funcs[type];
  t->buckets = reinterpret_cast<vd_hash_bucket *>(t + 1);
  return t;
}

bool usable(const vd_hash_t *t, uint16_t type, const void *key) {
  if (t != nullptr && t->type == type && key != nullptr) return true;
  errno = EINVAL;
  return false;
}

vd_hash_bucket *bucket_of(vd_hash_t *t, const void *key) {
  return &t->buckets[t->ops->hash(key) % t->nbuckets];
}

vd_hash_entry *insert(vd_hash_t *t, const void *key) {
  auto *e = static_cast<vd_hash_entry *>(std::malloc(t->entry_size));
  if (e == nullptr || !t->ops->set_key(e, key)) {
    std::free(e);
    __kxfs_logfn(KXLOG_ERROR, "Failed to malloc memory for hash bucket.\n");
    errno = ENOMEM;
    return nullptr;
  }
  vd_hash_bucket *b = bucket_of(t, key);
  e->next = b->head;
  b->head = e;
  b->count++;
  t->count++;
  return e;
}

// First match in the chain; `link_out` receives the link that points to it.
vd_hash_entry *find(vd_hash_t *t, const void *key, vd_hash_entry ***link_out) {
  vd_hash_bucket *b = bucket_of(t, key);
  for (vd_hash_entry **link = &b->head; *link != nullptr; link = &(*link)->next) {
    if (t->ops->is_key(*link, key)) {
      if (link_out != nullptr) *link_out = link;
      return *link;
    }
  }
  return nullptr;
}

vd_hash_entry *search(vd_hash_t *t, const void *key) {
  vd_hash_entry **link = nullptr;
  vd_hash_entry *e = find(t, key, &link);
  if (e != nullptr && (t->flags & VD_HASH_MOVE_TO_FRONT) != 0) {
    vd_hash_bucket *b = bucket_of(t, key);
    if (b->head != e) {
      *link = e->next;
      e->next = b->head;
      b->head = e;
    }
  }
  return e;
}

int remove(vd_hash_t *t, const void *key) {
  vd_hash_entry **link = nullptr;
  vd_hash_entry *e = find(t, key, &link);
  if (e == nullptr) return 1;
  *link = e->next;
  bucket_of(t, key)->count--;
  t->ops->destroy(e);  // t->count stays: it counts inserts
  return 0;
}

}  // namespace

extern "C" {

uint32_t vd_name_hash(const char *name) {
  uint32_t h = 0;
  if (name == nullptr) return h;
  for (const char *p = name; *p != '\0'; ++p) {
    // Characters above 127 are read signed and so subtract; stored hashes
    // depend on that.
    const auto c =
        static_cast<int32_t>(static_cast<signed char>(*p));  // NOLINT(bugprone-signed-char-misuse)
    h = h * 65599u + static_cast<uint32_t>(c);
  }
  return h;
}

uint32_t uint64_hash(const uint64_t *key) {
  return static_cast<uint32_t>(*key) ^ static_cast<uint32_t>(*key >> 32);
}

vd_hash_t *vd_hash_create(uint32_t buckets) {
  return create(buckets, kTypeName, kPointerEntrySize);
}

vd_hash_t *vd_hash_create_uint64(uint32_t buckets) {
  return create(buckets, kTypeUint64, kPointerEntrySize);
}

vd_hash_t *vd_hash_create_uint64_val(uint32_t buckets, uint32_t value_size) {
  if (value_size > UINT32_MAX - kEntryHeaderSize) {
    __kxfs_logfn(KXLOG_ERROR, "hash_create: value size %u too large.\n", value_size);
    errno = EINVAL;
    return nullptr;
  }
  return create(buckets, kTypeUint64Val, value_size + kEntryHeaderSize);
}

void vd_hash_set_flags(vd_hash_t *table, uint16_t flags) {
  if (table != nullptr) table->flags = flags;
}

void **vd_hash_insert(vd_hash_t *table, const char *name, void *value) {
  if (!usable(table, kTypeName, name)) return nullptr;
  vd_hash_entry *e = insert(table, name);
  if (e == nullptr) return nullptr;
  *value_slot(e) = value;
  return value_slot(e);
}

void **vd_hash_insert_uint64(vd_hash_t *table, uint64_t key, void *value) {
  if (!usable(table, kTypeUint64, &key)) return nullptr;
  vd_hash_entry *e = insert(table, &key);
  if (e == nullptr) return nullptr;
  *value_slot(e) = value;
  return value_slot(e);
}

void *vd_hash_insert_uint64_val(vd_hash_t *table, uint64_t key) {
  if (!usable(table, kTypeUint64Val, &key)) return nullptr;
  vd_hash_entry *e = insert(table, &key);
  if (e == nullptr) return nullptr;
  std::memset(value_area(e), 0, table->entry_size - kEntryHeaderSize);
  return value_area(e);
}

void *vd_hash_search(vd_hash_t *table, const char *name) {
  if (!usable(table, kTypeName, name)) return nullptr;
  vd_hash_entry *e = search(table, name);
  return e != nullptr ? *value_slot(e) : nullptr;
}

void *vd_hash_search_uint64(vd_hash_t *table, uint64_t key) {
  if (!usable(table, kTypeUint64, &key)) return nullptr;
  vd_hash_entry *e = search(table, &key);
  return e != nullptr ? *value_slot(e) : nullptr;
}

void *vd_hash_search_uint64_val(vd_hash_t *table, uint64_t key) {
  if (!usable(table, kTypeUint64Val, &key)) return nullptr;
  vd_hash_entry *e = search(table, &key);
  return e != nullptr ? value_area(e) : nullptr;
}

int vd_hash_delete(vd_hash_t *table, const char *name) {
  return usable(table, kTypeName, name) ? remove(table, name) : 1;
}

int vd_hash_delete_uint64(vd_hash_t *table, uint64_t key) {
  return usable(table, kTypeUint64, &key) ? remove(table, &key) : 1;
}

int vd_hash_delete_uint64_val(vd_hash_t *table, uint64_t key) {
  return usable(table, kTypeUint64Val, &key) ? remove(table, &key) : 1;
}

void vd_hash_iterate_uint64_val(vd_hash_t *table, void *arg, vd_hash_iter_fn callback) {
  if (table == nullptr || callback == nullptr) return;
  for (uint32_t i = 0; i < table->nbuckets; ++i) {
    vd_hash_entry *next = nullptr;
    for (vd_hash_entry *e = table->buckets[i].head; e != nullptr; e = next) {
      next = e->next;  // the callback may delete e
      // Every flavour hands over its raw 8-byte key and the address of its
      // value, so one callback shape serves all three.
      const uint64_t key =
          table->type == kTypeName ? reinterpret_cast<uintptr_t>(e->key.name) : e->key.id;
      callback(arg, key, value_area(e));
    }
  }
}

uint32_t vd_hash_count(const vd_hash_t *table) {
  return table != nullptr ? table->count : 0;
}

void vd_hash_info(const vd_hash_t *table) {
  if (table == nullptr || table->nbuckets == 0) return;
  uint32_t min = kMinStart;
  uint32_t max = 0;
  uint64_t sum = 0;
  for (uint32_t i = 0; i < table->nbuckets; ++i) {
    const uint32_t n = table->buckets[i].count;
    if (n < min) min = n;
    if (n > max) max = n;
    sum += n;
  }
  __kxfs_logfn(KXLOG_NOTICE, "%d buckets, min %d, max %d, avg %d\n",
               static_cast<int>(table->nbuckets), static_cast<int>(min), static_cast<int>(max),
               static_cast<int>(sum / table->nbuckets));
}

void vd_hash_destroy(vd_hash_t *table) {
  if (table == nullptr) return;
  for (uint32_t i = 0; i < table->nbuckets; ++i) {
    vd_hash_entry *next = nullptr;
    for (vd_hash_entry *e = table->buckets[i].head; e != nullptr; e = next) {
      next = e->next;
      table->ops->destroy(e);
    }
  }
  std::free(table);
}

}  // extern "C"
