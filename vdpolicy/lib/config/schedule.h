/* Schedule entries: five-field calendar windows ("0 8-18 * * Mon-Fri") and
 * the @keywords (@daily, @weekly, ...), parsed into bit sets.
 *
 * load_entry returns a record allocated with calloc and owned by the caller,
 * who releases it with free_entry. Bit n of a set is bit n % 8 of byte n / 8.
 * Parsing is thread-safe: it uses no shared state besides the constant name
 * tables and the logging hook.
 */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/* Field bounds. */
#define FIRST_MINUTE 0
#define LAST_MINUTE 59
#define FIRST_HOUR 0
#define LAST_HOUR 23
#define FIRST_DOM 1
#define LAST_DOM 31
#define FIRST_MONTH 1
#define LAST_MONTH 12
#define FIRST_DOW 0
#define LAST_DOW 7 /* 0 and 7 are both Sunday */

/* flags */
#define MIN_STAR 0x1
#define HR_STAR 0x2
#define DOM_STAR 0x4
#define DOW_STAR 0x8
#define WHEN_REBOOT 0x10

typedef struct sched_entry {
  struct sched_entry *next; /* chaining; null from load_entry */
  unsigned char minute[8];  /* bit m: minute m */
  unsigned char hour[3];    /* bit h: hour h */
  unsigned char dom[4];     /* bit d-1: day of month d */
  unsigned char month[2];   /* bit m-1: month m */
  unsigned char dow[1];     /* bit w: day of week w, 0-7 */
  int flags;
} sched_entry_t;

/* Error words, indexed by failure number 0-8. */
#define SCHED_NERRORS 9
extern const char *const ecodes[SCHED_NERRORS];

/* "Jan".."Dec" then null; "Sun".."Sat","Sun" then null. */
extern const char *const MonthNames[13];
extern const char *const DowNames[9];

/* Parses one entry. Returns a new record, or null on failure after logging
 * "Failed to parse schedule: <word>" at error level (an empty or blank text
 * returns null without logging). */
sched_entry_t *load_entry(const char *input);
/* Releases a record from load_entry; null is ignored. */
void free_entry(sched_entry_t *entry);

/* True when bit n of the set is on. */
int sched_bit_test(const unsigned char *set, int n);

/* Character helpers over a cursor into NUL-terminated text. */
/* Next character, or -1 at the end (the cursor then stays). */
int get_char(const char **cursor);
/* Steps back over ch, the character get_char returned (-1 is ignored). */
void unget_char(int ch, const char **cursor);
/* Copies characters up to a terminator (at most size - 1 of them, the rest
 * are skipped) and terminates buffer. Returns the terminator, which is
 * consumed, or -1 at the end of the text. */
int get_string(char *buffer, int size, const char **cursor, const char *terminators);
/* Reads a number (or, with a name table, a name whose value is low plus its
 * index) starting with ch, which must be followed by the end of the text or
 * a terminator. Returns the character after it (-1 at the end); on failure
 * sets *error to 1, steps back one character and returns -1. */
int get_number(int *value, int low, const char *const *names, int ch, const char **cursor,
               const char *terminators, int *error);
/* Reads one list element (*, N, N-M, with an optional /S) starting with ch
 * and sets its bits in bits (range low..high). Returns the character after
 * the element (-1 at the end); on failure sets *error and returns -1. */
int get_range(unsigned char *bits, int low, int high, const char *const *names, int ch,
              const char **cursor, int *error);

#ifdef __cplusplus
}
#endif
