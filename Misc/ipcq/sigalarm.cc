// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/ipcq.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: ipcq.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

// Alone in its file and called by nothing here, so that a program may have a function of this name of its own.
void sigalarm(int) {}
