// PolicyOptions: the C view of the policy keyword table (policy_keywords.h),
// the rows as parse_option reads them.
#include <cstddef>

#include "vdpolicy/lib/config/policy_keywords.h"

#define VDP_OPTION_ROW(syntax, slot, min, max, type, field, bits, help) \
  Option{syntax, slot, min, max, help, 0, type, static_cast<int>(offsetof(PolicyConfig_t, field))},

extern "C" const Option PolicyOptions[] = {
    VDP_POLICY_KEYWORDS(VDP_OPTION_ROW)                      // each row with its comma
    Option{nullptr, 0, 0, 0, nullptr, 0, VDOPT_INVALID, 0},  // a null keyword ends the table
};

#undef VDP_OPTION_ROW
