#include "Misc/detail/assertion.h"

#include <cstdio>
#include <cstdlib>

[[maybe_unused]] static const char* ModuleId() { return "$Id: assertion.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

void zeloo::AssertionFailed(const char* expression, const char* unit, int line)
{
    std::fprintf(stderr, "Assertion failed: %s, file %s, line %d\n", expression, unit, line);
    std::fflush(stderr);
    std::abort();
}
