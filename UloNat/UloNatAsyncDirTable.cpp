#include "UloNat/UloNatAsyncDirTable.h"

#include <algorithm>
#include <vector>

#include "framework/UloAssert.h"
#include "framework/VorTrace.h"

namespace Ulo {

VOR_TRACE_HANDLE("UloNatAsyncDirTable");

std::string NatAsyncHwConfigRecord::stringValue() const {
   return "Value('Ulo::NatAsyncHwConfigRecord', ** {'key': " + key.stringValue() + ", 'opType': " +
          NatRequestQueue::opTypeName(static_cast<NatRequestQueue::OpType>(opType)) +
          ", 'command': " + std::to_string(command) + "})";
}

std::string NatAsyncHwStatusRecord::stringValue() const {
   return "Value('Ulo::NatAsyncHwStatusRecord', ** {'key': " + key.stringValue() + ", 'state': " +
          NatAsyncHwStatus::stateName(static_cast<NatAsyncHwStatus::State>(state)) +
          ", 'command': " + std::to_string(command) + "})";
}

namespace {

bool isWriter(Zaffa::MapDescriptor const& descriptor) {
   return descriptor.mode == Zaffa::MapDescriptor::writer || descriptor.mode == Zaffa::MapDescriptor::local;
}

template <typename Record, typename Map, typename Visit>
void forEachRecord(Map const& map, Visit&& visit) {
   Record record;
   bool more = map.first(record);
   while (more) {
      visit(record);
      NatHwKey const key = record.key;
      more = map.next(key, record);
   }
}

} // namespace

// ---- NatAsyncHwConfigTable ----

class NatAsyncHwConfigTable::VorConfigDir : public Vor::Reactor<NatAsyncHwConfigDir, NatAsyncHwConfigTable> {
 public:
   explicit VorConfigDir(NatAsyncHwConfigTable* table)
       : Reactor(table, [] {
            static Bindings const b{onKey<&NatAsyncHwConfigTable::handleConfig>(NatAsyncHwConfigDir::configId)};
            return std::cref(b);
         }()) {}
};

class NatAsyncHwConfigTable::VorConfig : public Vor::Reactor<NatAsyncHwConfig, VorConfig> {
 public:
   VorConfig(Vor::Ptr<NatAsyncHwConfig> const& config, NatAsyncHwConfigTable* table)
       : Reactor(this, [] {
            static Bindings const b{onEvent<&VorConfig::handleOpType>(NatAsyncHwConfig::opTypeId)};
            return std::cref(b);
         }()),
         table_(table),
         key_(config->key()) {
      notifierIs(config);
   }
   void handleOpType() {
      if (NatAsyncHwConfig const* config = notifier()) table_->publish(key_, config->opType());
   }

 private:
   NatAsyncHwConfigTable* table_;
   NatHwKey const key_;
};

NatAsyncHwConfigTable::NatAsyncHwConfigTable(Vor::Ptr<NatAsyncHwConfigDir> const& dir, std::string const& name,
                                             Zaffa::MapDescriptor const& descriptor,
                                             Vor::Ptr<Dov::TaskScheduler> const& scheduler, bool adopt)
    : dir_(dir), writer_(isWriter(descriptor)), adopt_(adopt) {
   uloAssert(dir_ && (writer_ || dir_->configs() == 0));
   map_.nameIs(name + "/config");
   if (scheduler) map_.taskSchedulerIs(scheduler);
   if (!writer_) {
      Map::Callbacks callbacks;
      callbacks.key = [this](NatHwKey const& key) { follow(key); };
      map_.callbacksIs(std::move(callbacks));
   }
   map_.init(descriptor);
   if (writer_) {
      // Numbers go on from the highest an earlier life used, so that no
      // answer to an old command can pass for an answer to a new one.
      forEachRecord<NatAsyncHwConfigRecord>(map_, [this](NatAsyncHwConfigRecord const& r) { nextCommand_ = std::max(nextCommand_, r.command + 1); });
      vorConfigDir_ = std::make_unique<VorConfigDir>(this);
      vorConfigDir_->notifierIs(dir_);
      std::vector<NatHwKey> keys;
      for (auto const& member : dir_->config()) keys.push_back(member.key());
      for (NatHwKey const& key : keys) handleConfig(key);
      unclaimedDelAll();
   }
}

NatAsyncHwConfigTable::~NatAsyncHwConfigTable() {
   vorConfig_.clear();
   vorConfigDir_.reset();
}

U32 NatAsyncHwConfigTable::command(NatHwKey const& key) const {
   auto it = command_.find(key);
   return it == command_.end() ? 0 : it->second;
}

void NatAsyncHwConfigTable::handleConfig(NatHwKey const& key) {
   NatHwKey const k = key;
   Vor::Ptr<NatAsyncHwConfig> config = dir_->config(k);
   if (config) {
      if (vorConfig_.count(k)) return;
      vorConfig_.emplace(k, std::make_unique<VorConfig>(config, this));
      if (config->opType() != NatRequestQueue::unknown) publish(k, config->opType());
      return;
   }
   vorConfig_.erase(k);
   command_.erase(k);
   NatAsyncHwConfigRecord old;
   map_.safeRemove(k, old);
}

void NatAsyncHwConfigTable::publish(NatHwKey const& key, NatRequestQueue::OpType opType) {
   // A config whose opType is still unknown commands nothing: the programmer
   // does nothing for it either.
   if (opType == NatRequestQueue::unknown) return;
   NatAsyncHwConfigRecord present;
   bool const found = map_.lookup(key, present);
   auto const issued = command_.find(key);
   if (issued == command_.end() && adopt_ && found && present.opType == opType) {
      // The replay issued what the earlier life had issued: the same command.
      command_.emplace(key, present.command);
      ++commandsAdopted_;
   } else {
      if (found && issued != command_.end() && present.opType == opType && present.command == issued->second) {
         return;
      }
      U32 const number = nextCommand_++;
      map_.safeWrite(NatAsyncHwConfigRecord{key, opType, number}, true);
      command_[key] = number;
      ++commandsWritten_;
   }
   if (onCommand_) onCommand_(key);
}

std::size_t NatAsyncHwConfigTable::unclaimedDelAll() {
   uloAssert(writer_);
   std::vector<NatHwKey> unclaimed;
   forEachRecord<NatAsyncHwConfigRecord>(map_, [&](NatAsyncHwConfigRecord const& r) {
      if (!dir_->configHas(r.key)) unclaimed.push_back(r.key);
   });
   for (NatHwKey const& key : unclaimed) {
      VOR_TRACE(5, "unclaimed command " << key.stringValue());
      NatAsyncHwConfigRecord old;
      map_.safeRemove(key, old);
   }
   return unclaimed.size();
}

void NatAsyncHwConfigTable::follow(NatHwKey const& key) {
   NatHwKey const k = key;
   NatAsyncHwConfigRecord record;
   if (!map_.lookup(k, record)) {
      command_.erase(k);
      dir_->configDel(k);
      return;
   }
   Vor::Ptr<NatAsyncHwConfig> config = dir_->configIs(k);
   auto const opType = static_cast<NatRequestQueue::OpType>(record.opType);
   U32& seen = command_[k];
   // The same opType under a new number is a command issued again: pass
   // through unknown so that the programmer's reactor sees a change.
   if (seen != record.command && config->opType() == opType && opType != NatRequestQueue::unknown) {
      config->opTypeIs(NatRequestQueue::unknown);
   }
   seen = record.command;
   ++commandsAdopted_;
   config->opTypeIs(opType);
   if (onFollowed_) onFollowed_(k);
}

// ---- NatAsyncHwStatusTable ----

class NatAsyncHwStatusTable::VorStatusDir : public Vor::Reactor<NatAsyncHwStatusDir, NatAsyncHwStatusTable> {
 public:
   explicit VorStatusDir(NatAsyncHwStatusTable* table)
       : Reactor(table, [] {
            static Bindings const b{onKey<&NatAsyncHwStatusTable::handleStatus>(NatAsyncHwStatusDir::statusId)};
            return std::cref(b);
         }()) {}
};

class NatAsyncHwStatusTable::VorStatus : public Vor::Reactor<NatAsyncHwStatus, VorStatus> {
 public:
   VorStatus(Vor::Ptr<NatAsyncHwStatus> const& status, NatAsyncHwStatusTable* table)
       : Reactor(this, [] {
            static Bindings const b{onEvent<&VorStatus::handleState>(NatAsyncHwStatus::stateId)};
            return std::cref(b);
         }()),
         table_(table),
         key_(status->key()) {
      notifierIs(status);
   }
   void handleState() {
      if (NatAsyncHwStatus const* status = notifier()) table_->publish(key_, status->state());
   }

 private:
   NatAsyncHwStatusTable* table_;
   NatHwKey const key_;
};

NatAsyncHwStatusTable::NatAsyncHwStatusTable(Vor::Ptr<NatAsyncHwStatusDir> const& dir, std::string const& name,
                                             Zaffa::MapDescriptor const& descriptor,
                                             Vor::Ptr<Dov::TaskScheduler> const& scheduler,
                                             NatAsyncHwConfigTable* commands)
    : dir_(dir), writer_(isWriter(descriptor)), commands_(commands) {
   uloAssert(dir_ && dir_->statuss() == 0 && commands_);
   map_.nameIs(name + "/status");
   if (scheduler) map_.taskSchedulerIs(scheduler);
   if (!writer_) {
      Map::Callbacks callbacks;
      callbacks.key = [this](NatHwKey const& key) { refresh(key); };
      map_.callbacksIs(std::move(callbacks));
   }
   map_.init(descriptor);
   if (writer_) {
      // The answers of this side's earlier life: the programmer's start
      // sweeps those whose command has gone.
      adopting_ = true;
      forEachRecord<NatAsyncHwStatusRecord>(map_, [this](NatAsyncHwStatusRecord const& r) {
         dir_->statusIs(r.key)->stateIs(static_cast<NatAsyncHwStatus::State>(r.state));
      });
      adopting_ = false;
      vorStatusDir_ = std::make_unique<VorStatusDir>(this);
      vorStatusDir_->notifierIs(dir_);
      for (auto const& member : dir_->status()) {
         vorStatus_.emplace(member.key(), std::make_unique<VorStatus>(member.value(), this));
      }
      commands_->onFollowedIs([this](NatHwKey const& key) { republish(key); });
   } else {
      commands_->onCommandIs([this](NatHwKey const& key) { refresh(key); });
   }
}

NatAsyncHwStatusTable::~NatAsyncHwStatusTable() {
   if (writer_) {
      commands_->onFollowedIs(nullptr);
   } else {
      commands_->onCommandIs(nullptr);
   }
   vorStatus_.clear();
   vorStatusDir_.reset();
}

void NatAsyncHwStatusTable::handleStatus(NatHwKey const& key) {
   NatHwKey const k = key;
   Vor::Ptr<NatAsyncHwStatus> status = dir_->status(k);
   if (status) {
      if (vorStatus_.count(k)) return;
      vorStatus_.emplace(k, std::make_unique<VorStatus>(status, this));
      if (status->state() != NatAsyncHwStatus::unknown) publish(k, status->state());
      return;
   }
   vorStatus_.erase(k);
   NatAsyncHwStatusRecord old;
   map_.safeRemove(k, old);
}

void NatAsyncHwStatusTable::publish(NatHwKey const& key, NatAsyncHwStatus::State state) {
   if (adopting_ || state == NatAsyncHwStatus::unknown) return;
   map_.safeWrite(NatAsyncHwStatusRecord{key, state, commands_->command(key)}, true);
}

void NatAsyncHwStatusTable::republish(NatHwKey const& key) {
   // The programmer has just handled a command. When that left the state
   // as it was (an idle command on an idle key), no change was published,
   // and the record would still name the previous command: the helper
   // would wait for an answer forever.
   // Only the two states that the programmer sets on a command itself can
   // stand as its answer: idle for an idle command, inProgress otherwise.
   // (A stopped programmer left an earlier answer, which answers nothing.)
   Vor::Ptr<NatAsyncHwStatus> status = dir_->status(key);
   Vor::Ptr<NatAsyncHwConfig> config = commands_->dir()->config(key);
   if (!status || !config) return;
   bool const idleAnswer = status->state() == NatAsyncHwStatus::idle && config->opType() == NatRequestQueue::idle;
   bool const inProgress = status->state() == NatAsyncHwStatus::inProgress && config->opType() != NatRequestQueue::idle &&
                           config->opType() != NatRequestQueue::unknown;
   if (!idleAnswer && !inProgress) return;
   NatAsyncHwStatusRecord record;
   U32 const current = commands_->command(key);
   if (map_.lookup(key, record) && record.command == current && record.state == status->state()) return;
   map_.safeWrite(NatAsyncHwStatusRecord{key, status->state(), current}, true);
}

void NatAsyncHwStatusTable::republishAll() {
   std::vector<NatHwKey> keys;
   for (auto const& member : dir_->status()) keys.push_back(member.key());
   for (NatHwKey const& key : keys) republish(key);
}

void NatAsyncHwStatusTable::refresh(NatHwKey const& key) {
   NatHwKey const k = key;
   NatAsyncHwStatusRecord record;
   if (!map_.lookup(k, record)) {
      // The programmer has dropped the key.
      shown_.erase(k);
      dir_->statusDel(k);
      return;
   }
   U32 const current = commands_->command(k);
   // An answer to another command than the one in force (one of an earlier
   // life, or one overtaken) is not shown; the answer to this one will come.
   if (current == 0 || record.command != current) return;
   auto const state = static_cast<NatAsyncHwStatus::State>(record.state);
   Vor::Ptr<NatAsyncHwStatus> status = dir_->statusIs(k);
   auto shown = shown_.find(k);
   // An answer equal to the one shown, but to a new command: pass through
   // unknown so that the agent's reactor sees it.
   if (shown != shown_.end() && shown->second != record.command && status->state() == state) {
      status->stateIs(NatAsyncHwStatus::unknown);
   }
   shown_[k] = record.command;
   status->stateIs(state);
}

} // namespace Ulo
