#pragma once
// The command and status directories of the asynchronous pipeline carried
// by shared-memory tables, so that the helper (in the agent) and the
// programmer can stand in two processes.
//
// A directory entity stays what it is; a table object binds it to a table:
//
//   directory            table writer (this side's entity -> table)   table follower (table -> entity)
//   NatAsyncHwConfigDir  NatAsyncHwConfigTable in the agent            NatAsyncHwConfigTable in the programmer
//   NatAsyncHwStatusDir  NatAsyncHwStatusTable in the programmer       NatAsyncHwStatusTable in the agent
//
// The writer watches its directory and writes each change to the table; the
// follower mounts the table as a shadow and rebuilds the directory from the
// per-key wake-ups, so that reactors on the follower's side see the member
// and attribute notifications they would see in one process. Either side may
// start first (a follower waits for its writer), die and be replaced; a
// follower keeps its entities while its writer is away.
//
// Commands. Each command record carries a number, unique in its table, that
// changes with every command the agent issues. A follower that saw only the
// records before and after (wake-ups coalesce) still tells a command issued
// again from no change: on the same opType under a new number it passes
// through `unknown`, so the programmer's reactor runs again.
//
// An agent that restarts finds the records of its earlier life. It adopts a
// record when its replay issues the same opType for the key: nothing is
// written, the programmer sees nothing, and the answer already given to that
// command stands. This is what keeps an unchanged rule off the chip after a
// restart: its replay issues `idle`, as the record says. A different opType
// is a new command under a new number. Records that no command of the new
// life took up are removed by unclaimedDelAll(), once the replay is over.
// When the agent's shadow of hardware was lost (re-formatted, so empty),
// what the records describe can no longer be trusted: adoption is then
// turned off (adoptIs(false)) and every command is issued anew.
//
// Answers. Each status record carries the number of the command it answers.
// The agent's follower shows a status only when that number is the current
// command of the key in this life of the agent, so that an answer to a
// command of an earlier life (success of an add that a restart replaced by
// an idle, say) is never taken for an answer to the new one. The programmer's
// writer adopts the records of its own earlier life, so that its start-up
// sweeps the residual ones.
//
// Thread safety: the process's one activity thread.

#include <functional>
#include <memory>
#include <string>
#include <unordered_map>

#include "UloNat/UloNatAsyncEntities.h"
#include "Zaffa/ZaffaMap.h"
#include "framework/VorReactor.h"

namespace Ulo {

// A command as it stands in the table.
//   0   key      NatHwKey, 40 bytes
//   40  opType   U32, NatRequestQueue::OpType
//   44  command  U32, the command's number
struct NatAsyncHwConfigRecord {
   NatHwKey key;
   U32 opType = NatRequestQueue::unknown;
   U32 command = 0;
   bool operator==(NatAsyncHwConfigRecord const&) const = default;
   std::string stringValue() const;
};
static_assert(sizeof(NatAsyncHwConfigRecord) == 48);

// An answer as it stands in the table.
//   0   key      NatHwKey, 40 bytes
//   40  state    U32, NatAsyncHwStatus::State
//   44  command  U32, the number of the command answered
struct NatAsyncHwStatusRecord {
   NatHwKey key;
   U32 state = NatAsyncHwStatus::unknown;
   U32 command = 0;
   bool operator==(NatAsyncHwStatusRecord const&) const = default;
   std::string stringValue() const;
};
static_assert(sizeof(NatAsyncHwStatusRecord) == 48);

class NatAsyncHwConfigTable {
 public:
   using Map = Zaffa::ZaffaMap<NatHwKey, NatAsyncHwConfigRecord>;

   // Binds `dir` to the table "<root>/<name>/config" that `descriptor` names:
   // writer mode on the agent's side, shadow reader on the programmer's.
   // `scheduler` services the table's wake-ups.
   //
   // A writer numbers its commands after those of the records it finds. It
   // may be given a directory that the replay has filled already, and is
   // best given one: its commands are then published, adopted or anew (see
   // `adopt`), and the records that no command took up are removed, before
   // the constructor returns, so that the programmer never acts on a
   // half-replayed table.
   // REQUIRES: a follower's `dir` holds no config.
   // Raises as Zaffa::ZaffaMap::init.
   NatAsyncHwConfigTable(Vor::Ptr<NatAsyncHwConfigDir> const& dir, std::string const& name,
                         Zaffa::MapDescriptor const& descriptor, Vor::Ptr<Dov::TaskScheduler> const& scheduler,
                         bool adopt = true);
   ~NatAsyncHwConfigTable();
   NatAsyncHwConfigTable(NatAsyncHwConfigTable const&) = delete;
   NatAsyncHwConfigTable& operator=(NatAsyncHwConfigTable const&) = delete;

   bool writer() const { return writer_; }
   Map& map() { return map_; }
   Map const& map() const { return map_; }
   Vor::Ptr<NatAsyncHwConfigDir> const& dir() const { return dir_; }
   // Writer: whether a command equal to an earlier life's record adopts it.
   bool adopt() const { return adopt_; }
   // Writer: removes the records that no config of this life holds.
   // Returns how many went.
   std::size_t unclaimedDelAll();
   // The number of the command in force for `key`: on the writer, the one
   // this life issued or adopted; on the follower, the last one seen. 0 when
   // there is none.
   U32 command(NatHwKey const& key) const;
   // Writer: called with each key whose command this life issued or adopted,
   // after the config's opType holds it.
   void onCommandIs(std::function<void(NatHwKey const&)> callback) { onCommand_ = std::move(callback); }
   // Follower: called with each key after its config took the record in.
   void onFollowedIs(std::function<void(NatHwKey const&)> callback) { onFollowed_ = std::move(callback); }
   // Commands written to the table (the writer), or taken from it (the follower).
   U64 commandsWritten() const { return commandsWritten_; }
   U64 commandsAdopted() const { return commandsAdopted_; }

 private:
   class VorConfigDir;
   class VorConfig;
   void handleConfig(NatHwKey const& key);
   void publish(NatHwKey const& key, NatRequestQueue::OpType opType);
   void follow(NatHwKey const& key);

   Vor::Ptr<NatAsyncHwConfigDir> dir_;
   bool writer_;
   bool adopt_ = true;
   Map map_;
   U32 nextCommand_ = 1;
   std::unordered_map<NatHwKey, U32> command_;
   std::unordered_map<NatHwKey, std::unique_ptr<VorConfig>> vorConfig_;
   std::unique_ptr<VorConfigDir> vorConfigDir_;
   std::function<void(NatHwKey const&)> onCommand_;
   std::function<void(NatHwKey const&)> onFollowed_;
   U64 commandsWritten_ = 0;
   U64 commandsAdopted_ = 0;
};

class NatAsyncHwStatusTable {
 public:
   using Map = Zaffa::ZaffaMap<NatHwKey, NatAsyncHwStatusRecord>;

   // Binds `dir` to the table "<root>/<name>/status". `commands` is the
   // same process's command table: on the programmer's side (writer) it
   // numbers each answer; on the agent's (follower) it says which answers
   // belong to this life's commands, and tells this table when a command
   // changes. A writer adopts the records it finds into `dir`.
   // REQUIRES: `dir` holds no status; `commands` outlives this.
   NatAsyncHwStatusTable(Vor::Ptr<NatAsyncHwStatusDir> const& dir, std::string const& name,
                         Zaffa::MapDescriptor const& descriptor, Vor::Ptr<Dov::TaskScheduler> const& scheduler,
                         NatAsyncHwConfigTable* commands);
   ~NatAsyncHwStatusTable();
   NatAsyncHwStatusTable(NatAsyncHwStatusTable const&) = delete;
   NatAsyncHwStatusTable& operator=(NatAsyncHwStatusTable const&) = delete;

   bool writer() const { return writer_; }
   Map& map() { return map_; }
   Map const& map() const { return map_; }
   // Writer: after the programmer's start, gives each command that the
   // start answered without changing a state (idle on an idle key) its
   // answer in the table. Done by itself for every command that arrives.
   void republishAll();
   // Follower: brings the status of `key` into line with its record and the
   // key's current command.
   void refresh(NatHwKey const& key);

 private:
   class VorStatusDir;
   class VorStatus;
   void handleStatus(NatHwKey const& key);
   void publish(NatHwKey const& key, NatAsyncHwStatus::State state);
   void republish(NatHwKey const& key);

   Vor::Ptr<NatAsyncHwStatusDir> dir_;
   bool writer_;
   NatAsyncHwConfigTable* commands_;
   Map map_;
   bool adopting_ = false;
   // Follower: the command number of the answer each status shows.
   std::unordered_map<NatHwKey, U32> shown_;
   std::unordered_map<NatHwKey, std::unique_ptr<VorStatus>> vorStatus_;
   std::unique_ptr<VorStatusDir> vorStatusDir_;
};

} // namespace Ulo
