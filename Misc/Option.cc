// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/Option.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: Option.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

Option::Option(const char* name, const char* value) : Name(name), Value(value) {}

ZELOO_DEFINE_ARRAY(Option);
