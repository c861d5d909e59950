#pragma once
// Views of a Sim::SimSystem built in asynchronous mode (options.async), for
// the simulator's report and expectations and for tests: what the chip holds
// against what the configuration wants, the shadow's dirty states, and the
// hardware keys of a static rule.
//
// All of these read; none changes the system. REQUIRES (each): a system in
// asynchronous mode with its own programmer (not remoteProgrammer), and an
// agent that is up.

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "sim/SimSystem.h"

namespace Sim {

// The source and destination keys (entry 0 of each) under which the
// asynchronous helper programs a static connection.
std::pair<Ulo::NatHwKey, Ulo::NatHwKey> staticHwKeys(Ip::Nat::NatStaticConnection const& conn);

// Shadow entries by the dirty state of entry 0 of each key: a connection is
// judged by its entry 0, since an update leaves its siblings `setting`.
struct ShadowCounts {
   std::size_t entries = 0;   // every entry, siblings included
   std::size_t clean = 0;
   std::size_t setting = 0;
   std::size_t clearing = 0;
};
ShadowCounts shadowCounts(SimSystem const& sys);

// Where the chip disagrees with what the agent wants, one line each. Empty
// when the chip holds, for every static connection of the configuration on an
// interface with an engine and every twice entry in hardware status, exactly
// the entries the shadow gives for its keys, less the keys the programmer
// refused (failedHwKey), and nothing else. Only meaningful at rest
// (SimSystem::asyncSettled()).
std::vector<std::string> asyncChipMismatches(SimSystem const& sys);

// One line per chip entry, "key: translation", in the chip's order.
std::vector<std::pair<std::string, std::string>> asyncChipLines(SimSystem const& sys);

} // namespace Sim
