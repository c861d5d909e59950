#pragma once
// How a finding of the verify command is reported, by the root
// (Ulo::NatSm::handleVerify) and by each interface engine
// (Ulo::NatIntfStatusSm::handleVerify).
//
// A finding is a disagreement between what the engine believes (its
// configuration copy, hardware status, watched-address maps, per-VRF
// reference counts) and what it should be. Every report site takes the same
// steps, in reportVerifyFinding():
//  1. Without a VerifyData in the common record no command is running:
//     nothing is reported, and the walk goes on.
//  2. With SIMULATION_VMID in the environment (its presence counts, its
//     value is never read) the system runs in simulation, where a finding is
//     a bug to stop at: the finding is stored as a Ulo::VerifyOutput (level
//     3) and the process ends in the assertion "0", reported at the source
//     line of the finding.
//  3. Otherwise the finding is one line of the command's output, under the
//     reporting function's full signature; nothing else changes.
//
// Broken invariants found on the way (an engine missing for an interface, a
// watched address missing from a map) are not findings: they are uloAssert
// failures in every environment.
//
// Thread safety: the agent's one thread.

#include <source_location>
#include <string>

#include "framework/UloBaseSm.h"

namespace Ulo {

// The level of every VerifyOutput this library records.
constexpr Vor::U32 verifyFindingLevel = 3;

// Reports one finding as the header describes. `functionName` is the
// reporting function's short name ("handleVerify"); the full signature and
// the source line come from `where`. Does not return when SIMULATION_VMID is
// set and the common record has a VerifyData.
void reportVerifyFinding(UloCommonSmData const* commonSmData, std::string const& message,
                         char const* functionName,
                         std::source_location const& where = std::source_location::current());

} // namespace Ulo
