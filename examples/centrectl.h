// SPDX-License-Identifier: BSD-2-Clause
// The commands of faultctl for a centre.
#ifndef EXAMPLES_CENTRECTL_H
#define EXAMPLES_CENTRECTL_H

#include "ctl.h"
#include "faultcentre.h"

const std::vector<Command>& CentreCommands();

#endif
