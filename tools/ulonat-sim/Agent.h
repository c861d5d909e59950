#pragma once
// `ulonat-sim --agent ROOT`: the agent side of a two-process run. The
// engine runs here with the asynchronous helper, its shadow and command
// table under ROOT; the programmer is `ulonat-programmer --root ROOT`.

#include <cstddef>
#include <string>

namespace UloNatSim {

struct AgentOptions {
   std::string root;
   std::size_t rules = 1000;
   // Start with the configuration of step `from` (see Sim::SimRuleChurn),
   // settle, then go through the steps up to `to` without waiting for the
   // programmer between them, and settle again.
   unsigned long long from = 0;
   unsigned long long to = 0;
   // Rewritten after each settling: "<name> <value>" lines (see runAgent).
   std::string report;
   // Rewritten after each step given to the engine: the step's number.
   std::string progress;
   // Real seconds that each settling may take.
   double timeout = 60.0;
};

// Runs the agent as the options say. Returns the exit status: 0 settled
// (twice when `to` > `from`), 1 not settled within the timeout, 2 a root
// that cannot be used. The report holds: step, rules (present), hwStatic,
// shadowEntries, dirty (connections not clean), digest (of the shadow, see
// Sim::shadowDigest), settleSeconds, commands (keys with a command),
// commandsWritten, commandsAdopted.
int runAgent(AgentOptions const& options);

} // namespace UloNatSim
