// SPDX-License-Identifier: BSD-2-Clause
// The options that all programs of the fleet take.
#ifndef FLEET_OPTIONS_H
#define FLEET_OPTIONS_H

#include "engine.h"

namespace fleet {

/// The lines of a usage text about them.
#define FLEET_ENGINE_USAGE                                                                                             \
    "  --engine URL[,URL...]     the servers of the engine (default nats://localhost:4222)\n"                          \
    "  --credentials DIRECTORY   has ca.crt, client.crt and client.key, for TLS; without it neither is used\n"

/// Reads `--engine URL[,URL...]` or `--credentials DIRECTORY`. False when it is neither, or empty.
bool ReadEngineOption(const char* option, const char* value, EngineAddress* address);

/// Reads a whole number above 0, in decimal digits and nothing else.
bool ReadCount(const char* text, long* number);

} // namespace fleet

#endif
