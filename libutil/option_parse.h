/* Table-driven `keyword=value` option parsing.
 *
 * A table of `Option` rows (ended by a row whose m_name is null) gives each
 * keyword its value syntax, after the first '=' of m_name:
 *   %s string, %d plain decimal, %D number with k/m/g suffix, %t interval,
 *   %b boolean, |a,b|c choice list (the value is the index of the group).
 * A name without '=' is a flag (value 1).
 *
 * Cursors point into NUL-terminated text owned by the caller; every parser
 * advances the cursor past what it has read. Nothing here allocates, and
 * every routine is thread-safe (no shared state; the tables are constant).
 * Numbers wrap silently on overflow.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum VdOpt_type_e {
  VDOPT_INVALID = 0,
  VDOPT_SUBTYPE_NBR = 4096,
  VDOPT_INT8 = 4097,
  VDOPT_UINT8 = 4098,
  VDOPT_INT16 = 4099,
  VDOPT_UINT16 = 4100,
  VDOPT_INT32 = 4101,
  VDOPT_UINT32 = 4102,
  VDOPT_INT64 = 4103,
  VDOPT_UINT64 = 4104,
  VDOPT_SUBTYPE_STR = 8192,
  VDOPT_STR_STATIC = 8193,
  VDOPT_STR_DYNAMIC = 8194,
  VDOPT_SUBTYPE_SPECIAL = 12288,
  VDOPT_BOOL = 12289,
  VDOPT_BITMASK = 12291,
  VDOPT_SUBSTRUCT = 12292
} VdOpt_type_e;

/* Field order is the row layout every option table is written in. */
typedef struct Option {      /* NOLINT(clang-analyzer-optin.performance.Padding) */
  const char *m_name;        /* "keyword=syntax"; null ends the table */
  int m_option;              /* number parse_option returns; below 4096 */
  uint64_t m_min;            /* 0 = no lower bound (%d, %D, %t only) */
  uint64_t m_max;            /* 0 = no upper bound (%d, %D, %t only) */
  const char *m_usage;       /* help text or null */
  int m_silent;              /* non-zero: not listed by parser_usage */
  VdOpt_type_e m_vdopt_type; /* type of the target field (for the caller) */
  int m_field_offset;        /* offset of the target field (for the caller) */
} Option;

/* parse_option results besides option numbers. */
#define PARSE_OPTION_END 4096    /* end of text, or a '#' comment */
#define PARSE_OPTION_ERROR 4097  /* syntax or range error; err_msg says why */
#define PARSE_OPTION_HIDDEN 4098 /* rows with this number are not listed */

typedef struct Boolstr_t {
  const char *bs_name;
  int bs_value;
} Boolstr_t;

/* Boolean spellings in the order they are tried (prefix match). */
#define BOOLSTR_COUNT 10
extern const Boolstr_t Boolstr[BOOLSTR_COUNT];

/* Reads one option at *cursor. Returns the row's m_option, PARSE_OPTION_END
 * or PARSE_OPTION_ERROR. Numbers, booleans, choice indexes and intervals go
 * to *int_value; strings to str_value (str_len bytes, so at most str_len - 1
 * characters; a longer string is an error). err_msg (err_len bytes, may be
 * null/0) is emptied first and receives one message on error. */
int parse_option(const char **cursor, const Option *table, uint64_t *int_value, char *str_value,
                 size_t str_len, char *err_msg, size_t err_len);

/* choices is the text after '=' in the row's name, starting with '|'.
 * Returns 1 with the group index in *int_value, or 0. */
int parse_choice(const char **cursor, const char *choices, uint64_t *int_value);

/* Returns 1 with 0/1 in *int_value, or 0 (cursor unchanged). */
int parse_boolean(const char **cursor, uint64_t *int_value);

/* Copies a string of at most str_len - 1 characters into str_value (str_len
 * bytes) and returns 1; or returns 0 with a static reason in *err_str
 * ("" when there is none to give). */
int parse_string(const char **cursor, char *str_value, size_t str_len, const char **err_str);

/* Seconds of an interval such as 90, 1:30, 1m30s, 2w. Returns 1, or 0 with
 * *out = 0 and a "Bad time format..." line written to err_msg. */
int parse_interval(const char **cursor, uint64_t *out, char *err_msg, size_t err_msg_sz);

/* Number with automatic base and optional k/m/g suffix. Returns 1, or 0 with
 * a static reason in *err_str. */
int parse_number(const char **cursor, uint64_t *out, const char **err_str);

/* Plain base-10 number; stops after the digits. Returns 1, or 0. */
int parse_decimal(const char **cursor, uint64_t *out);

/* Print a value back in the parsers' syntax ("4K", "1:30", "2d").
 * FORMAT_BUF_SIZE bytes hold any value. Returns the length written
 * (the text is cut, and always terminated, when size is smaller). */
#define FORMAT_BUF_SIZE 32
int format_number(uint64_t value, char *buffer, size_t size);
int format_interval(uint64_t value, char *buffer, size_t size);

/* Lists the table's keywords, placeholders and help on standard error. */
void parser_usage(const Option *table);

#ifdef __cplusplus
}
#endif
