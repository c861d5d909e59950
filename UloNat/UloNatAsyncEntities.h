#pragma once
// The entities through which the asynchronous helper and the hardware
// programmer speak, one record per hardware key:
//
//   NatRequestQueue      work waiting behind the operation in flight on a key
//   NatRequestQueueDir   the queues, by key
//   NatAsyncHwConfig     the command to the programmer (opType), by key
//   NatAsyncHwStatus     the programmer's answer (state), by key
//   NatFailedHwKeyStatus the keys hardware refused with nothing queued
//   NatHwShadow          what has been asked of hardware, per key
//
// Every mutator notifies the attached reactors when, and only when, it
// changes something; collections notify per member with a pointer to the
// key, on add and on remove.
//
// Keys of type NatHwKey are kept in hash collections only: the key's order
// leaves out filterAddrId, so an ordered map would merge siblings.
//
// NatHwShadow keeps its entries in a shared-memory table (VorZaffaMap): a
// private one by default, a shared one once its control initialises it.
//
// Thread safety: none; each side uses these from its one thread.

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "UloNat/UloNatAsyncTypes.h"
#include "framework/VorAttribute.h"
#include "framework/VorEntity.h"
#include "framework/VorHashMap.h"
#include "framework/VorHashMap2018.h"
#include "framework/VorPtr.h"
#include "framework/VorSet.h"
#include "VorZaffa/VorZaffaMap.h"
#include "UloNat/UloNatHwShadowTable.h"

namespace Ulo {

class NatRequestQueue;
class NatAsyncHwConfig;
class NatAsyncHwStatus;
Vor::Ptr<NatRequestQueue> natRequestQueueFactory(NatHwKey const& key);
Vor::Ptr<NatAsyncHwConfig> natAsyncHwConfigFactory(NatHwKey const& key);
Vor::Ptr<NatAsyncHwStatus> natAsyncHwStatusFactory(NatHwKey const& key);

// The queue of requests waiting on one key, oldest first.
//
// Invariants:
//  1. pendingMetadata().head <= pendingMetadata().tail; both only grow.
//  2. The members of pending are exactly the indices head .. tail - 1.
class NatRequestQueue : public Vor::Entity {
 public:
   static constexpr Vor::AttributeId pendingId = 1;

   enum OpType : U32 { unknown = 0, idle = 1, add = 2, update = 3, del = 4 };
   static char const* opTypeName(OpType type);

   class Request {
    public:
      Request() = default;
      Request(OpType type, NatHwData const& data) : type_(type), data_(data) {}
      OpType type() const { return type_; }
      NatHwData const& data() const { return data_; }
      friend bool operator==(Request const& a, Request const& b) {
         return a.type_ == b.type_ && a.data_ == b.data_;
      }
      // "Value('Ulo::NatRequestQueue::Request', ** {'type': <type>, 'data': <data>})"
      std::string stringValue() const;

    private:
      OpType type_ = unknown;
      NatHwData data_;
   };

   // The queue's cursor: the index of the head and the next index to use.
   struct PendingMetadata {
      U32 head = 0;
      U32 tail = 0;
      friend bool operator==(PendingMetadata const&, PendingMetadata const&) = default;
   };

   explicit NatRequestQueue(NatHwKey const& key);

   NatHwKey const& key() const { return key_; }
   // Appends `request` under the next index.
   void pendingEnq(Request const& request);
   // Removes and returns the head; from an empty queue, the default Request
   // (type unknown), which stands for no request.
   Request pendingDeq();
   // The request at `index`, or the default when there is none.
   Request pending(U32 index) const;
   std::size_t pendings() const { return pending_.size(); }
   bool pendingEmpty() const { return pending_.empty(); }
   PendingMetadata const& pendingMetadata() const { return metadata_; }
   // Requests dequeued over the queue's life.
   U32 dequeued() const { return dequeued_; }

 private:
   NatHwKey const key_;
   std::map<U32, Request> pending_;
   PendingMetadata metadata_;
   U32 dequeued_ = 0;
};

class NatRequestQueueDir : public Vor::Entity {
   VOR_ENTITY(NatRequestQueueDir, "Ulo::NatRequestQueueDir")
   // requestQ(key) is null when absent; requestQIs(key) returns the existing
   // queue or makes an empty one.
   VOR_ENTITY_COLLECTION(NatHwKey, NatRequestQueue, requestQ, 1, natRequestQueueFactory,
                         Vor::HashMap2018)

 public:
   using RequestQMap = requestQContainer;
   explicit NatRequestQueueDir(Vor::String name = "natRequestQueueDir") : Vor::Entity(std::move(name)) {}
};

// The command to the programmer for one key.
class NatAsyncHwConfig : public Vor::Entity {
   VOR_ENTITY(NatAsyncHwConfig, "Ulo::NatAsyncHwConfig")
   VOR_SCALAR(NatRequestQueue::OpType, opType, 1, NatRequestQueue::unknown)

 public:
   explicit NatAsyncHwConfig(NatHwKey const& key) : Vor::Entity("natAsyncHwConfig"), key_(key) {}
   NatHwKey const& key() const { return key_; }

 private:
   NatHwKey const key_;
};

class NatAsyncHwConfigDir : public Vor::Entity {
   VOR_ENTITY(NatAsyncHwConfigDir, "Ulo::NatAsyncHwConfigDir")
   // config(key) is null when absent; configIs(key) returns the existing
   // record or makes one with opType unknown.
   VOR_ENTITY_COLLECTION(NatHwKey, NatAsyncHwConfig, config, 1, natAsyncHwConfigFactory,
                         Vor::HashMap2018)

 public:
   using ConfigMap = configContainer;
   explicit NatAsyncHwConfigDir(Vor::String name = "natAsyncHwConfigDir") : Vor::Entity(std::move(name)) {}
};

// The programmer's answer for one key.
class NatAsyncHwStatus : public Vor::Entity {
 public:
   enum State : U32 { unknown = 0, idle = 1, inProgress = 2, success = 3, failed = 4, forceAdd = 5 };
   static char const* stateName(State state);

   VOR_ENTITY(NatAsyncHwStatus, "Ulo::NatAsyncHwStatus")
   VOR_SCALAR(State, state, 1, unknown)

 public:
   explicit NatAsyncHwStatus(NatHwKey const& key) : Vor::Entity("natAsyncHwStatus"), key_(key) {}
   NatHwKey const& key() const { return key_; }

 private:
   NatHwKey const key_;
};

class NatAsyncHwStatusDir : public Vor::Entity {
   VOR_ENTITY(NatAsyncHwStatusDir, "Ulo::NatAsyncHwStatusDir")
   // status(key) is null when absent; statusIs(key) returns the existing
   // record or makes one with state unknown.
   VOR_ENTITY_COLLECTION(NatHwKey, NatAsyncHwStatus, status, 1, natAsyncHwStatusFactory,
                         Vor::HashMap2018)

 public:
   using StatusMap = statusContainer;
   explicit NatAsyncHwStatusDir(Vor::String name = "natAsyncHwStatusDir") : Vor::Entity(std::move(name)) {}
};

// The keys that hardware refused and for which nothing is queued.
class NatFailedHwKeyStatus : public Vor::Entity {
   VOR_ENTITY(NatFailedHwKeyStatus, "Ulo::NatFailedHwKeyStatus")
   VOR_SET(NatHwKey, entry, 1, Vor::HashSet)

 public:
   using EntrySet = entryContainer;
   explicit NatFailedHwKeyStatus(Vor::String name) : Vor::Entity(std::move(name)) {}
};

// The shadow of what has been asked of hardware, one entry per key, kept in
// a shared-memory table so that it survives the agent.
//
// The entity starts on a private, process-local table, usable at once; the
// collection's control (entryControl()->initIs(descriptor)) turns it into the
// writer of a shared table under a root directory (by default /var/shmem,
// files in <root>/<name>/entry), or a reader of one. A writer that attaches
// to the files of an earlier life keeps their entries.
//
// Reactors on `entry` are told per key, after the table changed; a write
// that changes nothing notifies nobody. A reader's shadow reports the
// writer's changes through entryNotify(key).
//
// Counters: "entryIs" (each entryIs and entryCommit), "entryDel" (each
// entryDel), "entryNotify" (each notification delivered).
//
// Errors: a corruption of the table found by any operation ends the process
// after recording it (see Zaffa::ZaffaMap); writes to a reader raise
// Jorro::AssertException ("write to read-only Zaffa table"); a full table
// raises Zaffa::TableFullException with the table unchanged.
class NatHwShadow : public Vor::Entity {
 public:
   static constexpr Vor::AttributeId entryId = 1;
   using EntryWrapper = VorZaffa::VorZaffaMapValueWrapper<NatHwShadowEntry, NatHwKey, &NatHwShadowEntry::key>;
   using EntryMap = VorZaffa::VorZaffaMap<NatHwShadow, EntryWrapper>;

   explicit NatHwShadow(Vor::String name);
   ~NatHwShadow() override;

   bool entryHas(NatHwKey const& key) const;
   // The default entry when there is none.
   NatHwShadowEntry entry(NatHwKey const& key) const;
   std::size_t entrys() const { return entry_.map().members(); }
   // Stores the entry under its key; notifies when that changed anything.
   // REQUIRES: the key is not the default key (asserted "!!shadowEntry.key()").
   void entryIs(NatHwShadowEntry const& shadowEntry);
   void entryDel(NatHwKey const& key);
   void entryDelAll();
   // Direct mode: fill the returned entry in place (its key is set), then
   // publish it with entryCommit. Nothing else may change the shadow between
   // the two calls.
   NatHwShadowEntry* entryDirectWrite(NatHwKey const& key);
   void entryCommit(NatHwShadowEntry const* shadowEntry);
   // Visits the entries until `visit` returns false; the order is
   // unspecified. The visitor must not change the shadow.
   void entryForEach(std::function<bool(NatHwShadowEntry const&)> const& visit) const;

   // The table's callbacks.
   void entryNotify(NatHwKey const& key);
   void entryNotifyMountStatus();
   void entryNotifyQuiesced(bool quiesced);

   // The collection's control; null once the entity has handed itself to it
   // (see handleZeroRef).
   Vor::Ptr<VorZaffa::CollectionControl> const& entryControl() const { return entry_.control(); }
   EntryMap& entryMap() { return entry_; }
   EntryMap const& entryMap() const { return entry_; }
   Vor::U64 counter(std::string const& name) const;

 protected:
   // When the last outside reference goes while the control still exists,
   // the entity hands itself to the control instead of dying: the mount code
   // may still need the collection. It dies when the control lets it go.
   void handleZeroRef() const override;

 private:
   class NatHwShadowZeroReferencesNotifiee;
   void notifyEntry(NatHwKey const& key);

   EntryMap entry_;
   VorZaffa::NamedCounter entryIsCounter_{"entryIs"};
   VorZaffa::NamedCounter entryDelCounter_{"entryDel"};
   VorZaffa::NamedCounter entryNotifyCounter_{"entryNotify"};
   std::unique_ptr<NatHwShadowZeroReferencesNotifiee> zeroReferencesNotifiee_;
};

// Factories; each returns its entity with notification active.
Vor::Ptr<NatRequestQueue> natRequestQueueFactory(NatHwKey const& key);
Vor::Ptr<NatRequestQueueDir> natRequestQueueDirFactory();
Vor::Ptr<NatAsyncHwConfig> natAsyncHwConfigFactory(NatHwKey const& key);
Vor::Ptr<NatAsyncHwConfigDir> natAsyncHwConfigDirFactory();
Vor::Ptr<NatAsyncHwStatus> natAsyncHwStatusFactory(NatHwKey const& key);
Vor::Ptr<NatAsyncHwStatusDir> natAsyncHwStatusDirFactory();
Vor::Ptr<NatFailedHwKeyStatus> natFailedHwKeyStatusFactory(Vor::String name);
Vor::Ptr<NatHwShadow> natHwShadowFactory(Vor::String name);
// A shadow initialised with `descriptor` (for example a shared writer under a
// root directory); raises as Zaffa::ZaffaMap::init.
Vor::Ptr<NatHwShadow> natHwShadowFactory(Vor::String name, Zaffa::MapDescriptor const& descriptor);

} // namespace Ulo
