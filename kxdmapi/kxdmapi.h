/* The DMAPI (XDSM) client library of the kxfs file system: one include for
 * data-management applications. Each header documents its own ownership
 * and threading rules. */
#pragma once

#include "kxdmapi/kxdmapi_attributes.h"
#include "kxdmapi/kxdmapi_debug.h"
#include "kxdmapi/kxdmapi_events.h"
#include "kxdmapi/kxdmapi_fdcache.h"
#include "kxdmapi/kxdmapi_handles.h"
#include "kxdmapi/kxdmapi_init.h"
#include "kxdmapi/kxdmapi_paths.h"
#include "kxdmapi/kxdmapi_types.h"
