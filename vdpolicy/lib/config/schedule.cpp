// Schedule entries: the five-field calendar syntax and the @keywords, read
// into one bit set per field.
#include "vdpolicy/lib/config/schedule.h"

#include <strings.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "libutil/kxlog.h"

extern "C" {
const char *const ecodes[SCHED_NERRORS] = {
    "no error",        "bad minute",  "bad hour",           "bad day-of-month", "bad month",
    "bad day-of-week", "bad command", "bad time specifier", "out of memory",
};
const char *const MonthNames[13] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",  "Jul",
                                    "Aug", "Sep", "Oct", "Nov", "Dec", nullptr};
const char *const DowNames[9] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun", nullptr};
}

namespace {

constexpr int kMaxToken = 99;  // digits or letters of one value
constexpr int kKeywordSize = 1000;

enum SchedError { kBadCommand = 6, kBadTimeSpecifier = 7, kOutOfMemory = 8 };

bool IsBlank(int ch) {
  return ch == ' ' || ch == '\t';
}
bool IsDigit(int ch) {
  return ch >= '0' && ch <= '9';
}
bool IsAlpha(int ch) {
  return (ch | 0x20) >= 'a' && (ch | 0x20) <= 'z';
}

// The end of the text (-1) ends every token; otherwise ch must be listed.
bool IsTerminator(int ch, const char *terminators) {
  return ch == -1 || (ch > 0 && strchr(terminators, ch) != nullptr);
}

void SetBit(unsigned char *set, int n) {
  set[n / 8] = static_cast<unsigned char>(set[n / 8] | (1u << (n % 8)));
}

void SetAll(unsigned char *set, int count) {
  for (int n = 0; n < count; ++n) SetBit(set, n);
}

struct EntryFree {
  void operator()(sched_entry_t *e) const { free(e); }
};
using EntryPtr = std::unique_ptr<sched_entry_t, EntryFree>;

unsigned char *FieldBits(sched_entry_t *e, int field) {
  switch (field) {
    case 0:
      return e->minute;
    case 1:
      return e->hour;
    case 2:
      return e->dom;
    case 3:
      return e->month;
    default:
      return e->dow;
  }
}

// The five fields, in the order they are written.
constexpr struct {
  int low, high;
  const char *const *names;
  int star_flag;
} kFields[5] = {
    {FIRST_MINUTE, LAST_MINUTE, nullptr, MIN_STAR}, {FIRST_HOUR, LAST_HOUR, nullptr, HR_STAR},
    {FIRST_DOM, LAST_DOM, nullptr, DOM_STAR},       {FIRST_MONTH, LAST_MONTH, MonthNames, 0},
    {FIRST_DOW, LAST_DOW, DowNames, DOW_STAR},
};

// Applies one @keyword; returns false for an unknown one.
bool ApplyKeyword(sched_entry_t *e, const char *word) {
  if (strcmp(word, "reboot") == 0) {
    e->flags |= WHEN_REBOOT;
    return true;
  }
  bool yearly = strcmp(word, "yearly") == 0 || strcmp(word, "annually") == 0;
  bool monthly = strcmp(word, "monthly") == 0;
  bool weekly = strcmp(word, "weekly") == 0;
  bool daily = strcmp(word, "daily") == 0 || strcmp(word, "midnight") == 0;
  bool hourly = strcmp(word, "hourly") == 0;
  if (!(yearly || monthly || weekly || daily || hourly)) return false;
  SetBit(e->minute, 0);
  if (hourly)
    SetAll(e->hour, 24);
  else
    SetBit(e->hour, 0);
  if (yearly || monthly)
    SetBit(e->dom, 0);
  else
    SetAll(e->dom, 31);
  if (yearly)
    SetBit(e->month, 0);
  else
    SetAll(e->month, 12);
  if (weekly) {
    SetBit(e->dow, 0);
    SetBit(e->dow, 7);
  } else {
    SetAll(e->dow, 8);
  }
  e->flags |= (yearly || monthly) ? DOW_STAR : DOM_STAR;
  if (hourly) e->flags |= HR_STAR;
  return true;
}

// Reads the five fields; returns 0 or the failing field's error number.
int ParseFields(sched_entry_t *e, const char **cursor) {
  int ch = get_char(cursor);
  for (int f = 0; f < 5; ++f) {
    const auto &field = kFields[f];
    unsigned char *bits = FieldBits(e, f);
    if (ch == '*') e->flags |= field.star_flag;
    int error = 0;
    for (;;) {
      ch = get_range(bits, field.low, field.high, field.names, ch, cursor, &error);
      if (error != 0) return f + 1;
      if (ch != ',') break;
      ch = get_char(cursor);
    }
    // Whatever is left of the field (a step after a single value) is ignored.
    while (ch != -1 && !IsBlank(ch) && ch != '\n') ch = get_char(cursor);
    while (IsBlank(ch)) ch = get_char(cursor);
  }
  return ch == -1 ? 0 : kBadCommand;
}

}  // namespace

extern "C" int get_char(const char **cursor) {
  if (**cursor == '\0') return -1;
  return static_cast<unsigned char>(*(*cursor)++);
}

extern "C" void unget_char(int ch, const char **cursor) {
  if (ch != -1) --*cursor;
}

extern "C" int sched_bit_test(const unsigned char *set, int n) {
  return (set[n / 8] >> (n % 8)) & 1;
}

extern "C" int get_string(char *buffer, int size, const char **cursor, const char *terminators) {
  int ch = get_char(cursor);
  int len = 0;
  while (!IsTerminator(ch, terminators)) {
    if (len < size - 1) buffer[len++] = static_cast<char>(ch);
    ch = get_char(cursor);
  }
  if (size > 0) buffer[len] = '\0';
  return ch;
}

extern "C" int get_number(int *value, int low, const char *const *names, int ch,
                          const char **cursor, const char *terminators, int *error) {
  int len = 0;
  if (IsDigit(ch)) {
    int v = 0;
    for (; IsDigit(ch) && len <= kMaxToken; ++len, ch = get_char(cursor))
      if (v < 100000) v = v * 10 + (ch - '0');  // far beyond every field's range
    if (len <= kMaxToken && IsTerminator(ch, terminators)) {
      *value = v;
      return ch;
    }
  } else if (names != nullptr && IsAlpha(ch)) {
    char word[kMaxToken + 1];
    for (; IsAlpha(ch) && len < kMaxToken; ++len, ch = get_char(cursor))
      word[len] = static_cast<char>(ch);
    word[len] = '\0';
    if (!IsAlpha(ch) && IsTerminator(ch, terminators)) {
      for (int i = 0; names[i] != nullptr; ++i) {
        if (strcasecmp(word, names[i]) == 0) {
          *value = low + i;
          return ch;
        }
      }
    }
  }
  unget_char(ch, cursor);
  *error = 1;
  return -1;
}

extern "C" int get_range(unsigned char *bits, int low, int high, const char *const *names, int ch,
                         const char **cursor, int *error) {
  int first = low, last = high;
  if (ch == '*') {
    ch = get_char(cursor);
  } else {
    // '/' ends a single value too: its step, and the rest of the field, are
    // ignored by the caller.
    ch = get_number(&first, low, names, ch, cursor, ",-/ \t\n", error);
    if (*error != 0) return -1;
    if (ch != '-') {
      if (first < low || first > high) return *error = 1, -1;
      SetBit(bits, first - low);
      return ch;
    }
    ch = get_number(&last, low, names, get_char(cursor), cursor, "/, \t\n", error);
    if (*error != 0 || first > last) return *error = 1, -1;
  }
  int step = 1;
  if (ch == '/') {
    ch = get_number(&step, 0, nullptr, get_char(cursor), cursor, ", \t\n", error);
    if (*error != 0 || step == 0) return *error = 1, -1;
  }
  if (first < low || first > high) return *error = 1, -1;
  for (int n = first; n <= last; n += step) {
    if (n > high) return *error = 1, -1;
    SetBit(bits, n - low);
  }
  return ch;
}

extern "C" sched_entry_t *load_entry(const char *input) {
  if (input == nullptr) return nullptr;
  const char *cursor = input;
  while (IsBlank(*cursor)) ++cursor;
  if (*cursor == '\0') return nullptr;
  EntryPtr entry(static_cast<sched_entry_t *>(calloc(1, sizeof(sched_entry_t))));
  if (!entry) {
    __kxfs_logfn(KXLOG_ERROR, "load_entry: calloc failed.\n");
    return nullptr;
  }
  int failure = 0;
  if (*cursor == '@') {
    ++cursor;
    char word[kKeywordSize];
    get_string(word, sizeof word, &cursor, " \t\n");
    if (!ApplyKeyword(entry.get(), word)) failure = kBadTimeSpecifier;
  } else {
    failure = ParseFields(entry.get(), &cursor);
  }
  if (failure != 0) {
    __kxfs_logfn(KXLOG_ERROR, "Failed to parse schedule: %s\n", ecodes[failure]);
    return nullptr;
  }
  // Sunday is both day 0 and day 7.
  if (sched_bit_test(entry->dow, 0) || sched_bit_test(entry->dow, 7)) {
    SetBit(entry->dow, 0);
    SetBit(entry->dow, 7);
  }
  return entry.release();
}

extern "C" void free_entry(sched_entry_t *entry) {
  free(entry);
}
