#pragma once
// Sim::SimNatChip and Sim::SimNatProgrammer: a simulated chip behind the
// asynchronous pipeline, and the programmer that fills it from the shadow.
//
// The chip holds hardware entries by their full NatHwKey (one per filter
// address of a connection) up to its capacity, and counts what is done to
// it by kind: entries written new, entries written again, entries removed.
// It belongs to whoever plays the switch, not to the agent: a restarted
// agent finds it as the last life left it, so a test proves that nothing
// was reprogrammed by comparing the counts across the restart.
//
// The programmer is a real Ulo::NatAsyncProgrammerSm. For add and update it
// reads entries 0 .. numFilterAddrs - 1 of the key from the shadow and puts
// exactly them on the chip (dropping siblings the chip holds beyond them);
// for del it removes every sibling. It answers after a virtual delay, on
// the scheduler:
//  - failed when the chip has no room for the entries, when refuseNextIs(n)
//    asked to refuse, or when the key was marked with failKeyIs; the chip is
//    then left unchanged;
//  - success otherwise; a del always succeeds.
// An answer is given only if the key's command is still the one it was for
// and the programmer is running: a command replaced, cleaned up, or caught
// by a stop is answered by its successor or at the next start.
// forceAddIs(key) asks the helper to program a key again.
//
// Thread safety: the agent's one thread.

#include <map>
#include <set>
#include <unordered_map>
#include <vector>

#include "UloNat/UloNatAsyncProgrammerSm.h"
#include "framework/DovTask.h"

namespace Sim {

class SimNatChip : public Vor::PtrInterface {
 public:
   struct Counts {
      Vor::U64 writes = 0;     // entries that were not on the chip
      Vor::U64 rewrites = 0;   // entries written again (same key)
      Vor::U64 removals = 0;   // entries taken off
      Vor::U64 refusals = 0;   // operations refused for lack of room
      Vor::U64 total() const { return writes + rewrites + removals; }
      friend bool operator==(Counts const&, Counts const&) = default;
   };

   explicit SimNatChip(std::size_t capacity) : capacity_(capacity) {}

   std::size_t capacity() const { return capacity_; }
   void capacityIs(std::size_t capacity) { capacity_ = capacity; }
   // Entries held, all keys and filter addresses.
   std::size_t entries() const { return entries_; }
   Counts const& counts() const { return counts_; }
   // The entries of a connection, by filter address position; empty when
   // the chip holds none.
   std::vector<Ulo::NatHwData> const* connection(Ulo::NatHwKey const& key) const;
   // Calls `visit(key, data)` for each entry, key with its filterAddrId.
   template <typename Visit>
   void forEach(Visit visit) const {
      for (auto const& [key, siblings] : byKey_) {
         Ulo::NatHwKey k = key;
         for (std::size_t i = 0; i < siblings.size(); ++i) {
            k.filterAddrIdIs(static_cast<Vor::U32>(i));
            visit(k, siblings[i]);
         }
      }
   }

   // Makes the chip hold exactly `siblings` for the connection of `key`.
   // Returns false, changing nothing, when that would pass the capacity.
   bool connectionIs(Ulo::NatHwKey const& key, std::vector<Ulo::NatHwData> const& siblings);
   void connectionDel(Ulo::NatHwKey const& key);

 private:
   static Ulo::NatHwKey connectionKey(Ulo::NatHwKey key) {
      key.filterAddrIdIs(0);
      return key;
   }
   std::size_t capacity_;
   std::size_t entries_ = 0;
   Counts counts_;
   std::unordered_map<Ulo::NatHwKey, std::vector<Ulo::NatHwData>> byKey_;
};

Vor::Ptr<SimNatChip> simNatChipFactory(std::size_t capacity);

class SimNatProgrammer : public Ulo::NatAsyncProgrammerSm {
 public:
   SimNatProgrammer(Vor::Ptr<Ulo::NatAsyncHwConfigDir const> const& hwConfigDir,
                    Vor::Ptr<Ulo::NatAsyncHwStatusDir> const& hwStatusDir,
                    Vor::Ptr<Ulo::NatHwShadow const> const& hwShadow, Vor::Ptr<SimNatChip> const& chip,
                    Vor::Ptr<Dov::TaskScheduler> const& scheduler);
   ~SimNatProgrammer() override;

   Vor::Ptr<SimNatChip> const& chip() const { return chip_; }
   Vor::Ptr<Ulo::NatHwShadow const> const& hwShadow() const { return hwShadow_; }
   // Virtual seconds between a command and its answer; 0 answers at the
   // scheduler's next run.
   double delay() const { return delay_; }
   void delayIs(double seconds) { delay_ = seconds; }
   // Refuses the next n adds or updates.
   void refuseNextIs(Vor::U32 n) { refuseNext_ = n; }
   Vor::U32 refuseNext() const { return refuseNext_; }
   // Refuses every add and update of `key` while marked.
   void failKeyIs(Ulo::NatHwKey const& key, bool fail);
   bool failKey(Ulo::NatHwKey const& key) const { return failKeys_.count(key) != 0; }
   // Asks the helper to program `key` again (state forceAdd).
   void forceAddIs(Ulo::NatHwKey const& key);
   // Answers not yet given.
   std::size_t pending() const { return pending_.size(); }
   Vor::U64 steadyStates() const { return steadyStates_; }

   void doAdd(Ulo::NatHwKey const& key) override;
   void doDel(Ulo::NatHwKey const& key) override;
   void doUpdate(Ulo::NatHwKey const& key) override;
   void doCleanup(Ulo::NatHwKey const& key) override;
   void doHandleSteadyState(Ulo::NatHwKey const& key) override;

 private:
   class AnswerTask;
   struct Pending {
      Ulo::NatHwKey key;
      Ulo::NatRequestQueue::OpType op;
      Vor::U64 generation;
   };
   void schedule(Ulo::NatHwKey const& key, Ulo::NatRequestQueue::OpType op);
   void answerDue();
   void answer(Pending const& p);
   Ulo::NatAsyncHwStatus::State program(Ulo::NatHwKey const& key);

   Vor::Ptr<Ulo::NatHwShadow const> hwShadow_;
   Vor::Ptr<SimNatChip> chip_;
   Vor::Ptr<Dov::TaskScheduler> scheduler_;
   Vor::Ptr<AnswerTask> task_;
   double delay_ = 0.0;
   Vor::U32 refuseNext_ = 0;
   std::unordered_map<Ulo::NatHwKey, bool> failKeys_;
   std::multimap<double, Pending> pending_;
   std::unordered_map<Ulo::NatHwKey, Vor::U64> generation_;
   Vor::U64 nextGeneration_ = 1;
   Vor::U64 steadyStates_ = 0;
};

// The programmer with notification active, stopped.
Vor::Ptr<SimNatProgrammer> simNatProgrammerFactory(Vor::Ptr<Ulo::NatAsyncHwConfigDir const> const& hwConfigDir,
                                                   Vor::Ptr<Ulo::NatAsyncHwStatusDir> const& hwStatusDir,
                                                   Vor::Ptr<Ulo::NatHwShadow const> const& hwShadow,
                                                   Vor::Ptr<SimNatChip> const& chip,
                                                   Vor::Ptr<Dov::TaskScheduler> const& scheduler);

} // namespace Sim
