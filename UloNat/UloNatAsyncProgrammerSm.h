#pragma once
// Ulo::NatAsyncProgrammerSm: the far side of the asynchronous pipeline. It
// watches the command records of a NatAsyncHwConfigDir and answers in a
// NatAsyncHwStatusDir, and knows nothing of NAT rules: only keys, commands
// and answers. What to program for a key is read from the shadow
// (NatHwShadow) by the subclass, which its owner gives the same shadow.
//
// Built from nothing but the two directories, it can stand in another agent
// than the helper, and be stopped and started (initializedIs) without losing
// the command state. Where the directories live (this process, or tables
// shared with another) is the owner's business.
//
// The class is a framework: doAdd, doDel, doUpdate, doCleanup and
// doHandleSteadyState are the platform's. This class only counts.
//
// What a subclass owes. doAdd, doUpdate and doDel may finish later; the
// key's state stays inProgress until the subclass sets it on the key's
// status:
//  - success when the whole operation is in hardware, for every sibling
//    entry of the key (filterAddrId 0 .. numFilterAddrs - 1 in the shadow);
//  - failed when hardware refused an add or an update; a del never fails;
//  - forceAdd when it wants the key programmed again.
// doHandleSteadyState runs each time a key's command goes to idle, also for
// a key that came back unchanged from a restart of the helper.
//
// Sequence of one command:
//   helper: shadow written, then config.opType = add
//   here:   status.state = inProgress, doAdd(key)
//   subclass, later: status.state = success
//   helper: shadow clean, config.opType = idle
//   here:   status.state = idle, doHandleSteadyState(key)
// A config that goes runs doCleanup(key) and removes the status: that tells
// the helper the key is gone from this side.
//
// Stopped (initialized false), nothing is answered; commands that arrive
// are kept, and at the next start only each key's latest command is carried
// out, once. At each start every status without a command is removed
// first, as a leftover of an earlier life.
//
// Thread safety: one thread, as every state machine of the library.

#include <memory>
#include <unordered_map>

#include "UloNat/UloNatAsyncEntities.h"
#include "framework/UloBaseSm.h"
#include "framework/VorReactor.h"

namespace Ulo {

class NatAsyncProgrammerSm : public UloBaseSm {
 public:
   // Reactor on the command directory's config collection.
   class VorHwConfigDir : public Vor::Reactor<NatAsyncHwConfigDir, NatAsyncProgrammerSm> {
    public:
      explicit VorHwConfigDir(NatAsyncProgrammerSm* sm);
   };
   // Reactor on one key's command.
   class VorHwConfig : public Vor::Reactor<NatAsyncHwConfig, VorHwConfig> {
    public:
      VorHwConfig(Vor::Ptr<NatAsyncHwConfig const> const& config, NatAsyncProgrammerSm* sm);
      NatHwKey const& key() const { return key_; }
      bool initialized() const { return initialized_; }
      void initializedIs(bool v) { initialized_ = v; }
      // The programmer started: carry out the command left from before.
      void handleInitialized();
      // The command changed: set the state and call the operation.
      void handleOpType();
      // The config went: the platform's cleanup, then the status goes.
      void doCleanup();

    private:
      NatAsyncProgrammerSm* sm_;
      NatHwKey const key_;
      bool initialized_ = false;
   };

   using VorHwConfigMap = std::unordered_map<NatHwKey, std::unique_ptr<VorHwConfig>>;

   NatAsyncProgrammerSm(Vor::Ptr<NatAsyncHwConfigDir const> const& hwConfigDir,
                        Vor::Ptr<NatAsyncHwStatusDir> const& hwStatusDir);
   ~NatAsyncProgrammerSm() override;

   Vor::Ptr<NatAsyncHwConfigDir const> hwConfigDir() const { return hwConfigDir_.notifier(); }
   Vor::Ptr<NatAsyncHwStatusDir> const& hwStatusDir() const { return hwStatusDir_; }
   VorHwConfigMap const& vorHwConfig() const { return vorHwConfig_; }
   VorHwConfig* vorHwConfig(NatHwKey const& key) const;
   Vor::U32 addCount() const { return addCount_; }
   void addCountInc(Vor::U32 n = 1) { addCount_ += n; }
   Vor::U32 delCount() const { return delCount_; }
   void delCountInc(Vor::U32 n = 1) { delCount_ += n; }
   Vor::U32 updateCount() const { return updateCount_; }
   void updateCountInc(Vor::U32 n = 1) { updateCount_ += n; }

   void deInit() { initializedIs(false); }

   // ---- the platform's operations (defaults count, or do nothing) ----
   virtual void doAdd(NatHwKey const& key);
   virtual void doDel(NatHwKey const& key);
   virtual void doUpdate(NatHwKey const& key);
   virtual void doCleanup(NatHwKey const& key);
   virtual void doHandleSteadyState(NatHwKey const& key);

   // Stop: every key reactor forgets that it ran. Start: the residual
   // statuses go, then each key's latest command runs once.
   void handleInitialized() override;
   // A config appeared, or went.
   void hwConfigIs(Vor::Ptr<NatAsyncHwConfig const> const& config);
   virtual void hwConfigDel(NatHwKey const& key);
   // The config collection changed for `key`.
   void handleConfig(NatHwKey const& key);

 private:
   Vor::ReactorSlot<VorHwConfigDir> hwConfigDir_;
   Vor::Ptr<NatAsyncHwStatusDir> hwStatusDir_;
   VorHwConfigMap vorHwConfig_;
   Vor::U32 addCount_ = 0;
   Vor::U32 delCount_ = 0;
   Vor::U32 updateCount_ = 0;
};

// The programmer with notification active, stopped.
Vor::Ptr<NatAsyncProgrammerSm> natAsyncProgrammerSmFactory(Vor::Ptr<NatAsyncHwConfigDir const> const& hwConfigDir,
                                                           Vor::Ptr<NatAsyncHwStatusDir> const& hwStatusDir);

} // namespace Ulo
