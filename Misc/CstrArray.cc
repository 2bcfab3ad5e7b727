// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/CstrArray.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: CstrArray.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

ZELOO_DEFINE_ARRAY(CString);
