#include "Misc/client.h"

#include "Misc/detail/text.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: client.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

void zeloo::CopyIdentity(char* field, unsigned size, const char* text) { CopyText(field, size, text); }
