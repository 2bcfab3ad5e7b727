// SPDX-License-Identifier: BSD-2-Clause
// The servers of the engine in a storm of a fleet.
#ifndef TESTS_SYSTEM_FLEETSTORM_ENGINES_H
#define TESTS_SYSTEM_FLEETSTORM_ENGINES_H

#include <cstdint>
#include <map>
#include <string>

#include "tests/system/fleetstorm/shared.h"

namespace fleetstorm {

/// Where requests to remove messages of the stream come out, and where they have to go instead of that to be obeyed.
const char WithheldRemovals[] = "storm.remove";
const char RealRemovals[] = "storm.obey";

/// The engine's server program; empty where it is not installed.
std::string EngineProgram();
std::string EngineUrls();
/// Writes the configuration of a server. The name of the file.
std::string ConfigureEngine(const Settings& settings, int index);
std::string EngineName(int index);
/// The index of a server of that name; -1: there is none.
int EngineIndex(const std::string& name);
/// Whether a server says that all it has to keep is there.
bool IsHealthy(int index);
/// The number of the last message that each stream of a server has, as far as it says.
std::map<std::string, uint64_t> LastOfStreams(int index);

} // namespace fleetstorm

#endif
