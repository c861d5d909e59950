#pragma once
// Thin bases of the library's state machines and helpers, and the record
// that all state machines of the agent share.
//
// Every state machine is built the same way: a factory allocates it and at
// once calls hasNotificationActiveIs(true); its constructor stores its
// arguments and builds its reactors (which attach without delivery); the
// owner calls initializedIs(true) when it is to start. Handlers return at
// once while initialized() is false.
//
// Destruction: the last reference dropped runs the destructor, which calls
// the machine's doCleanup() while the object is still whole, then
// vorDoZombieReactors(true), then tears down its parts. Derived machines do
// that in their own destructor (only they know their doCleanup()).

#include <vector>

#include "framework/VorEntity.h"
#include "framework/VorReactor.h"
#include "framework/VorString.h"

namespace Ulo {

using Vor::Ptr;

// One finding of the verify command.
struct VerifyOutput {
   Vor::String message;
   Vor::String file;
   Vor::U32 line = 0;
   Vor::String function;
   Vor::U32 level = 0;

   bool operator==(VerifyOutput const&) const = default;
   std::string stringValue() const;
};

// The agent's verify command as the library sees it: a request counter that
// the root watches, and the output that findings go to.
class VerifyData : public Vor::Entity {
 public:
   static constexpr Vor::AttributeId requestId = 1;
   static constexpr Vor::AttributeId verifyOutputId = 2;

   VerifyData() : Vor::Entity("verifyData") {}

   Vor::U32 request() const { return request_; }
   // A new verify command: bumps the counter, which the root reacts to.
   void requestInc(Vor::U32 n = 1) {
      request_ += n;
      attributeChanged(requestId);
   }

   // Appends a finding to the output of the running command.
   void updateCliVerifyOutput(Vor::String const& function, Vor::String const& text) const;
   // Records a finding as a VerifyOutput.
   void verifyOutputIs(VerifyOutput const& output) const;

   struct CliLine {
      Vor::String function;
      Vor::String text;
   };
   std::vector<CliLine> const& cliOutput() const { return cliOutput_; }
   std::vector<VerifyOutput> const& verifyOutput() const { return verifyOutput_; }
   void outputDelAll() const {
      cliOutput_.clear();
      verifyOutput_.clear();
   }

 private:
   Vor::U32 request_ = 0;
   // The output is the command's, not the entity's state: writable through
   // the const reference that state machines hold.
   mutable std::vector<CliLine> cliOutput_;
   mutable std::vector<VerifyOutput> verifyOutput_;
};

// The record shared by all state machines of the agent.
class UloCommonSmData : public Vor::PtrInterface {
 public:
   explicit UloCommonSmData(Ptr<VerifyData> const& verifyData = Ptr<VerifyData>())
       : verifyData_(verifyData) {}
   Ptr<VerifyData> const& verifyData() const { return verifyData_; }
   void verifyDataIs(Ptr<VerifyData> const& v) { verifyData_ = v; }

 private:
   Ptr<VerifyData> verifyData_;
};

class UloBaseSm : public Vor::PtrInterface, public Vor::PartOwner {
 public:
   explicit UloBaseSm(Ptr<UloCommonSmData const> const& commonSmData)
       : commonSmData_(commonSmData) {}

   Ptr<UloCommonSmData const> const& commonSmData() const { return commonSmData_; }

   bool initialized() const { return initialized_; }
   // Sets `initialized`; when the value changed, runs handleInitialized().
   void initializedIs(bool v) {
      if (initialized_ == v) return;
      initialized_ = v;
      handleInitialized();
   }
   // Runs at a change of `initialized`; returns at once while it is false.
   virtual void handleInitialized() {}

   // Switches delivery for the machine and, in declaration order, for each
   // of its reactors, member reactors and child machines.
   void hasNotificationActiveIs(bool active) override {
      Vor::PtrInterface::hasNotificationActiveIs(active);
      partsNotificationActiveIs(active);
   }
   // Marks the machine and all it owns as being deleted.
   virtual void vorDoZombieReactors(bool zombie) { partsZombieIs(zombie); }

 private:
   Ptr<UloCommonSmData const> commonSmData_;
   bool initialized_ = false;
};

// Base of helpers: an entity with a name.
class UloBaseHelper : public Vor::Entity {
 public:
   explicit UloBaseHelper(Vor::String name) : Vor::Entity(std::move(name)) {}
};

} // namespace Ulo
