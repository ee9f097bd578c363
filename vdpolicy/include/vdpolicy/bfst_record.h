/* The "BFST" data-management attribute that the policy engine keeps on the
 * files and directories it governs: 32 bytes, multi-byte fields big-endian.
 * Two fields matter outside the engine: the key of the object's policy
 * (bytes 0-7) and its flags (bytes 12-13). A value shorter than a field's
 * end says nothing about that field: its missing bytes are not zeros. */
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "libutil/big_endian.h"

#define BFST_ATTR_NAME "BFST"
#define BFST_RECORD_SIZE 32
#define BFST_KEY_END 8    /* the key is bytes 0-7 */
#define BFST_FLAGS_END 14 /* the flags are bytes 12-13 */

#define BFST_FLAG_STORED 0x0001u      /* the data has a copy in the engine's store */
#define BFST_FLAG_KEY_ROOT 0x0004u    /* the object is the root of its key */
#define BFST_FLAG_REPLICA 0x0100u     /* the object is a replica */
#define BFST_FLAG_OBJS_STORED 0x0400u /* the data is in object storage */

/* The policy key of a value at least BFST_KEY_END bytes long. */
static inline uint64_t bfst_key(const unsigned char *raw) {
  return kx_get_be(raw, 0, 8);
}

/* The flags of a value at least BFST_FLAGS_END bytes long. */
static inline uint16_t bfst_flags(const unsigned char *raw) {
  return (uint16_t)kx_get_be(raw, 12, 2);
}
