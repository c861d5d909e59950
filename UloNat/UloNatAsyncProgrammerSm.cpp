#include "UloNat/UloNatAsyncProgrammerSm.h"

#include <vector>

#include "framework/VorTrace.h"

namespace Ulo {

VOR_TRACE_HANDLE("UloNatAsyncProgrammerSm");

NatAsyncProgrammerSm::VorHwConfigDir::VorHwConfigDir(NatAsyncProgrammerSm* sm)
    : Reactor(sm, [] {
         static Bindings const b{onKey<&NatAsyncProgrammerSm::handleConfig>(NatAsyncHwConfigDir::configId)};
         return std::cref(b);
      }()) {}

NatAsyncProgrammerSm::VorHwConfig::VorHwConfig(Vor::Ptr<NatAsyncHwConfig const> const& config,
                                               NatAsyncProgrammerSm* sm)
    : Reactor(this, [] {
         static Bindings const b{onEvent<&VorHwConfig::handleOpType>(NatAsyncHwConfig::opTypeId)};
         return std::cref(b);
      }()),
      sm_(sm),
      key_(config->key()) {
   notifierIs(config);
}

void NatAsyncProgrammerSm::VorHwConfig::handleInitialized() {
   if (!sm_->initialized() || initialized_) return;
   initialized_ = true;
   VOR_TRACE(7, "NAPSm::VorHwConfig::" << "handleInitialized" << " key " << key_.stringValue());
   handleOpType();
}

void NatAsyncProgrammerSm::VorHwConfig::handleOpType() {
   if (!initialized_) return;
   NatAsyncHwConfig const* config = notifier();
   if (!config) return;
   NatRequestQueue::OpType const opType = config->opType();
   VOR_TRACE(7, "NAPSm::VorHwConfig::" << "handleOpType" << " key " << key_.stringValue() << " configOp "
                                       << NatRequestQueue::opTypeName(opType));
   Vor::Ptr<NatAsyncHwStatus> const status = sm_->hwStatusDir()->statusIs(key_);
   // The key is copied: the call may end in this reactor's removal.
   NatHwKey const key = key_;
   NatAsyncProgrammerSm* const sm = sm_;
   switch (opType) {
   case NatRequestQueue::unknown:
      return;
   case NatRequestQueue::idle:
      status->stateIs(NatAsyncHwStatus::idle);
      sm->doHandleSteadyState(key);
      return;
   case NatRequestQueue::add:
      status->stateIs(NatAsyncHwStatus::inProgress);
      sm->doAdd(key);
      return;
   case NatRequestQueue::update:
      status->stateIs(NatAsyncHwStatus::inProgress);
      sm->doUpdate(key);
      return;
   case NatRequestQueue::del:
      status->stateIs(NatAsyncHwStatus::inProgress);
      sm->doDel(key);
      return;
   }
}

void NatAsyncProgrammerSm::VorHwConfig::doCleanup() {
   if (!initialized_) return;
   VOR_TRACE(7, "NAPSm::VorHwConfig::" << "doCleanup" << " key " << key_.stringValue());
   NatHwKey const key = key_;
   sm_->doCleanup(key);
   sm_->hwStatusDir()->statusDel(key);
}

NatAsyncProgrammerSm::NatAsyncProgrammerSm(Vor::Ptr<NatAsyncHwConfigDir const> const& hwConfigDir,
                                           Vor::Ptr<NatAsyncHwStatusDir> const& hwStatusDir)
    : UloBaseSm(Vor::Ptr<UloCommonSmData const>()),
      hwConfigDir_(this, [this] { return std::make_unique<VorHwConfigDir>(this); }),
      hwStatusDir_(hwStatusDir) {
   hwConfigDir_.notifierIs(hwConfigDir);
   // Commands already in the directory (a programmer that starts after the
   // helper) get their reactors now, as if they had just arrived.
   if (hwConfigDir) {
      for (auto const& m : hwConfigDir->config()) hwConfigIs(m.value());
   }
}

NatAsyncProgrammerSm::~NatAsyncProgrammerSm() {
   vorDoZombieReactors(true);
   vorHwConfig_.clear();
}

NatAsyncProgrammerSm::VorHwConfig* NatAsyncProgrammerSm::vorHwConfig(NatHwKey const& key) const {
   auto it = vorHwConfig_.find(key);
   return it == vorHwConfig_.end() ? nullptr : it->second.get();
}

void NatAsyncProgrammerSm::doAdd(NatHwKey const&) { addCountInc(1); }
void NatAsyncProgrammerSm::doDel(NatHwKey const&) { delCountInc(1); }
void NatAsyncProgrammerSm::doUpdate(NatHwKey const&) { updateCountInc(1); }
void NatAsyncProgrammerSm::doCleanup(NatHwKey const&) {}
void NatAsyncProgrammerSm::doHandleSteadyState(NatHwKey const&) {}

void NatAsyncProgrammerSm::handleInitialized() {
   VOR_TRACE(5, "NAPSm::" << "handleInitialized" << " initialized: " << initialized());
   if (!initialized()) {
      for (auto& [key, reactor] : vorHwConfig_) reactor->initializedIs(false);
   }
   // A status without a command has no meaning any more.
   std::vector<NatHwKey> residual;
   for (auto const& m : hwStatusDir_->status()) {
      if (!vorHwConfig_.count(m.key())) residual.push_back(m.key());
   }
   for (NatHwKey const& key : residual) {
      VOR_TRACE(5, "residual status for " << key.stringValue());
      hwStatusDir_->statusDel(key);
   }
   // Each call may change the set (an answer given at once can remove a
   // config), so the keys are copied and looked up again.
   std::vector<NatHwKey> keys;
   keys.reserve(vorHwConfig_.size());
   for (auto const& [key, reactor] : vorHwConfig_) keys.push_back(key);
   for (NatHwKey const& key : keys) {
      if (VorHwConfig* reactor = vorHwConfig(key)) reactor->handleInitialized();
   }
}

void NatAsyncProgrammerSm::handleConfig(NatHwKey const& configKey) {
   NatHwKey const key = configKey;
   Vor::Ptr<NatAsyncHwConfigDir const> const dir = hwConfigDir();
   Vor::Ptr<NatAsyncHwConfig> const config = dir ? dir->config(key) : Vor::Ptr<NatAsyncHwConfig>();
   if (config) {
      hwConfigIs(config);
   } else {
      hwConfigDel(key);
   }
}

void NatAsyncProgrammerSm::hwConfigIs(Vor::Ptr<NatAsyncHwConfig const> const& config) {
   auto [it, inserted] = vorHwConfig_.try_emplace(config->key());
   if (!inserted) return;
   it->second = std::make_unique<VorHwConfig>(config, this);
   // Running: a command set with the config's creation is carried out now;
   // later changes come through the reactor.
   it->second->handleInitialized();
}

void NatAsyncProgrammerSm::hwConfigDel(NatHwKey const& configKey) {
   NatHwKey const key = configKey;
   auto it = vorHwConfig_.find(key);
   if (it == vorHwConfig_.end()) return;
   std::unique_ptr<VorHwConfig> reactor = std::move(it->second);
   vorHwConfig_.erase(it);
   reactor->doCleanup();
}

Vor::Ptr<NatAsyncProgrammerSm> natAsyncProgrammerSmFactory(Vor::Ptr<NatAsyncHwConfigDir const> const& hwConfigDir,
                                                           Vor::Ptr<NatAsyncHwStatusDir> const& hwStatusDir) {
   Vor::Ptr<NatAsyncProgrammerSm> sm(new NatAsyncProgrammerSm(hwConfigDir, hwStatusDir));
   sm->hasNotificationActiveIs(true);
   return sm;
}

} // namespace Ulo
