#pragma once
// Sim::SimProgrammerHost: the simulated programmer and chip in a process of
// their own, attached to the agent's tables under a root directory:
//
//   <root>/natAsyncHwConfigDir/config   the agent's commands, followed here
//   <root>/natAsyncHwStatusDir/status   the answers, written here
//   <root>/natHwShadow/entry            the agent's shadow, read here
//
// The programmer runs only while the agent is there: it starts once the
// command table is mounted and synchronised and the shadow is readable, and
// it stops when either goes (the agent died). Each start sweeps the
// statuses whose command has gone and carries out each key's latest
// command once, so commands left in flight by a death on either side are
// carried out when both are back. A key whose command is idle costs no chip
// operation at a start.
//
// The chip belongs to this process: it lives as long as the host, and a
// restarted programmer process starts with an empty chip.
//
// Thread safety: the scheduler's thread.

#include <memory>
#include <ostream>
#include <string>

#include "UloNat/UloNatAsyncDirTable.h"
#include "sim/SimNatProgrammer.h"

namespace Sim {

class SimProgrammerHost {
 public:
   // Mounts the tables under `root` (waiting for their writers if need be)
   // and builds a stopped programmer on a chip of `capacity` entries.
   // `watchInterval` is how often, in seconds, the tables look for wake-ups.
   // Raises as Zaffa::ZaffaMap::init.
   SimProgrammerHost(std::string const& root, std::size_t capacity, Vor::Ptr<Dov::TaskScheduler> const& scheduler,
                     double watchInterval = 0.002);
   ~SimProgrammerHost();
   SimProgrammerHost(SimProgrammerHost const&) = delete;
   SimProgrammerHost& operator=(SimProgrammerHost const&) = delete;

   // Starts or stops the programmer as the agent's tables come and go; call
   // after each run of the scheduler. Returns whether it runs.
   bool poll();
   bool running() const { return programmer_->initialized(); }
   // Starts so far.
   Vor::U64 starts() const { return starts_; }

   SimNatProgrammer& programmer() { return *programmer_; }
   SimNatChip const& chip() const { return *chip_; }
   Ulo::NatAsyncHwConfigDir const& configDir() const { return *configDir_; }
   Ulo::NatAsyncHwStatusDir const& statusDir() const { return *statusDir_; }

   // One "name value" line each: running, starts, entries, writes, rewrites,
   // removals, refusals, steadyStates, adds, updates, dels, configs,
   // statuses, digest (see chipDigest).
   void statusIs(std::ostream& out) const;
   // One line per chip entry: the key's text, a tab, the data's text.
   void chipDumpIs(std::ostream& out) const;

 private:
   Vor::Ptr<Dov::TaskScheduler> scheduler_;
   Vor::Ptr<Ulo::NatAsyncHwConfigDir> configDir_;
   Vor::Ptr<Ulo::NatAsyncHwStatusDir> statusDir_;
   std::unique_ptr<Ulo::NatAsyncHwConfigTable> configTable_;
   std::unique_ptr<Ulo::NatAsyncHwStatusTable> statusTable_;
   Vor::Ptr<Ulo::NatHwShadow> hwShadow_;
   Vor::Ptr<SimNatChip> chip_;
   Vor::Ptr<SimNatProgrammer> programmer_;
   Vor::U64 starts_ = 0;
};

// A digest of entries that does not depend on their order: the sum of a
// hash of each entry's key and data texts. The agent's clean shadow and the
// chip that programs it have the same digest.
Vor::U64 entryDigest(Ulo::NatHwKey const& key, Ulo::NatHwData const& data);
Vor::U64 chipDigest(SimNatChip const& chip);
// The digest of the shadow's entries; also counts them, and the connections
// (entries 0) not clean.
Vor::U64 shadowDigest(Ulo::NatHwShadow const& shadow, std::size_t* entries = nullptr,
                      std::size_t* dirty = nullptr);

} // namespace Sim
