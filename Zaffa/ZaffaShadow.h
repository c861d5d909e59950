#pragma once
// A private copy of another process's table, kept up to date through the
// notification queue, that tells its owner of every key that changed.
//
// Zaffa::ZaffaShadow<Key, Value, Store> holds a ZaffaReader on the shared
// files, a TrevineReader on the queue, and a store: an array of shadow slots
// indexed like the shared slots, with a private ShadowHashMap over them.
// Two stores:
//   ShadowStore<Key, Value>     key, value and link per slot; lookups and
//                               walks never touch the shared files.
//   KeyShadowStore<Key, Value>  key and link only; values are read from the
//                               shared slot when asked for.
//
// Synchronisation. initialize() reads the queue's writerSeq w, then looks at
// every shared slot (doSlot), then takes records after w. Any change made
// during the scan has a record after w, so nothing is missed. From then on
// poll() hands each record to doSlot(). A record only says "look at this slot
// again": doSlot reads the slot by the sequence protocol and compares it with
// what the store holds under that index:
//   - shared slot occupied by key K: if the store has K under another index
//     (the writer compacted and K moved down), K is moved, not reported
//     unless its value changed; if the store's index held another key, that
//     key is removed and reported; K is written and reported if new or
//     changed;
//   - shared slot free (or beyond the shared table): what the store held
//     there is removed and reported.
// Tombstones need nothing more: the moved key was re-found by its new slot's
// record, which comes first, and the old slot then reads as free or as
// another key. Records delivered twice, or for slots that did not change,
// report nothing.
//
// Notifications: keyChanged(key) once per change that the store saw, after
// the store holds the new state. During initialize, keys present in the
// shared table and not in the store (all of them, the first time) are
// reported too, so an owner that starts empty learns of every key, and a
// shadow that resynchronises with a new generation of the writer reports
// exactly the keys that differ.
//
// Wake-ups: the shadow holds a Jolt::ReaderJoltSm. initialize() connects it
// to the writer named in the owner file (connectJolt()); a wake-up from the
// writer makes jolt().service() run poll() and acknowledge, so an owner that
// watches jolt().fd() (or gives it a scheduler) follows every change without
// polling on a timer. When the writer's connection closes, the shadow runs
// handleDisconnect(). notifyingIs(false) stops acting on wake-ups (and asks
// the writer to stop sending them); notifyingIs(true) drains what piled up.
//
// Thread safety: one thread (the owner's activity thread). The store is
// private memory; the shared files are only read.
//
// Invariants (between calls):
//   1. Each key is in the store at most once, and the store's map holds
//      exactly its occupied slots.
//   2. Once synchronised, the store equals the shared table as of the last
//      processed record, up to the records not yet polled.

#include "Zaffa/platform/Jolt.h"
#include "Zaffa/ShadowHashMap.h"
#include "Zaffa/platform/SharedMemOwnerFile.h"
#include "Zaffa/platform/Trevine.h"
#include "Zaffa/ZaffaReader.h"

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <new>
#include <unordered_map>

namespace Zaffa {

// How many store slots are occupied, and the highest such index.
struct SlotCounters {
   U32 occupied = 0;
   template <typename Slot>
   U32 largestOccupied(Slot const* slots, U32 numSlots) const {
      for (U32 i = numSlots; i-- > 0;) {
         if (slots[i].occupied) return i;
      }
      return 0;
   }
};

template <typename Key, typename Value>
struct ValueShadowSlot {
   Value value;
   U32 rhash;
   U32 occupied;
   ValueShadowSlot* next;
   Key const& key() const { return ValueKey<Key, Value>::get(value); }
};

template <typename Key, typename Value>
struct KeyShadowSlot {
   Key key_;
   U32 rhash;
   U32 occupied;
   KeyShadowSlot* next;
   Key const& key() const { return key_; }
   // The value of this key from the shared table: from its slot when that
   // still holds the key, otherwise by lookup (the writer moved it).
   bool value(ZaffaReader<Key, Value>& reader, U32 slotIndex, Value& v, IterHint* hint) const {
      if (reader.getValue(slotIndex, v, hint) && ValueKey<Key, Value>::get(v) == key_) return true;
      return reader.lookup(key_, v);
   }
};

// The array of shadow slots, in private memory that moves when it is resized.
template <typename Key, typename Slot>
class ShadowStoreBase {
   static_assert(std::is_trivially_copyable_v<Slot>);

 public:
   ShadowStoreBase() = default;
   ~ShadowStoreBase() { std::free(slots_); }
   ShadowStoreBase(ShadowStoreBase const&) = delete;
   ShadowStoreBase& operator=(ShadowStoreBase const&) = delete;

   bool initialize(U32 numSlots) { return numSlots <= numSlots_ || resize(numSlots); }
   // Resizes the array to n slots; new slots are empty. Entries above n must
   // be gone. False when the memory cannot be had (the store is unchanged).
   bool resize(U32 n) {
      // Only the address of the old array is kept, as a number, to patch the
      // links by the distance moved; the old memory is never touched.
      std::uintptr_t const old = reinterpret_cast<std::uintptr_t>(slots_);
      void* p = std::realloc(slots_, std::max<std::size_t>(1, n) * sizeof(Slot));
      if (!p) return false;
      slots_ = static_cast<Slot*>(p);
      std::uintptr_t const now = reinterpret_cast<std::uintptr_t>(slots_);
      if (old != 0 && old != now) {
         ZAFFA_LOG(9, "base address moved from {:#x} to {:#x}", old, now);
         map_.patch(static_cast<std::ptrdiff_t>(now - old));
      }
      for (U32 i = numSlots_; i < n; ++i) {
         std::memset(static_cast<void*>(slots_ + i), 0, sizeof(Slot));
      }
      numSlots_ = n;
      return true;
   }
   Slot& at(U32 i) { return slots_[i]; }
   U32 indexOf(Slot const* s) const { return static_cast<U32>(s - slots_); }
   U32 numSlots() const { return numSlots_; }
   SlotCounters& counters() { return counters_; }
   SlotCounters const& counters() const { return counters_; }
   U32 largestOccupied() const { return counters_.largestOccupied(slots_, numSlots_); }
   ShadowHashMap<Slot, Key>& map() { return map_; }
   void clear() {
      for (U32 i = 0; i < numSlots_; ++i) slots_[i].occupied = 0;
      map_.clear();
      counters_ = SlotCounters{};
   }

 private:
   Slot* slots_ = nullptr;
   U32 numSlots_ = 0;
   SlotCounters counters_;
   ShadowHashMap<Slot, Key> map_;
};

template <typename Key, typename Value>
class ShadowStore : public ShadowStoreBase<Key, ValueShadowSlot<Key, Value>> {
 public:
   using Slot = ValueShadowSlot<Key, Value>;
   static constexpr bool holdsValues = true;
};

template <typename Key, typename Value>
class KeyShadowStore : public ShadowStoreBase<Key, KeyShadowSlot<Key, Value>> {
 public:
   using Slot = KeyShadowSlot<Key, Value>;
   static constexpr bool holdsValues = false;
};


} // namespace Zaffa

namespace Mem {

// What a shadow tells its owner.
template <typename Key, typename Value>
struct Notify {
   std::function<void(Key const&)> keyChanged;
   std::function<void(bool)> quiesced;        // synchronised (true) or not
   std::function<void()> mountStatus;         // attached or detached
   std::function<void()> disconnected;        // the writer went away
};

} // namespace Mem

namespace Zaffa {

struct ShadowCounters {
   Vor::U64 notifications = 0;   // records handed to doSlot
   Vor::U64 changes = 0;         // keys reported
   Vor::U64 discarded = 0;       // records of slots beyond the shared table
   Vor::U64 overtaken = 0;       // records dropped by validateNotif
   Vor::U64 syncs = 0;
};

template <typename Key, typename Value, typename Store = ShadowStore<Key, Value>>
class ZaffaShadow {
 public:
   using KeyOf = ValueKey<Key, Value>;
   using Slot = typename Store::Slot;

   ZaffaShadow(Mem::RootPath root, Mem::Notify<Key, Value> notify, std::string name = "ZaffaShadow")
       : reader_(root, name), trevine_(root.file(FileNames::trevine)), notify_(std::move(notify)),
         name_(std::move(name)),
         jolt_(name_, Jolt::ReaderJoltSm::Hooks{[this](double) { return poll(); },
                                                [this] { return trevine_.lastSeq(); },
                                                [this] { handleDisconnect(); }}) {}
   ZaffaShadow(ZaffaShadow const&) = delete;
   ZaffaShadow& operator=(ZaffaShadow const&) = delete;

   // Attaches to the writer's files and synchronises the store with them
   // (see above). False, detached, with the reason traced ("failed to read
   // fenix file", "failed to attach to slots", ..., "zaffa.initialize()
   // Failed") when the files are not there or not valid; the caller tries
   // again when the writer's files next appear. A
   // Jorro::CorruptionDetectedException during the scan is traced
   // ("corruption detected: {}") and passed on.
   bool initialize(std::string const& event);
   // Takes queued records, for at most yieldTime seconds when that is set.
   // Returns true when the queue is drained.
   bool poll();
   // One notification: look at shared slot `slot` again. `sequence` is the
   // record's (0 when there is none); `flush` forces the store to be
   // rewritten even when equal.
   void doSlot(U32 slot, Vor::U64 sequence, bool flush);
   // Takes one slot out of the store, reporting its key.
   void doFlushSlot(U32 slot);
   // The writer has gone: detach, report, and wait to be initialized again.
   // The store is kept, so that a later initialize reports only differences.
   void handleDisconnect();
   void detach(bool quiet = false);
   bool attached() const { return reader_.attached(); }
   bool synchronised() const { return synced_; }

   bool lookup(Key const& key, Value& value);
   bool first(Value& value, IterHint& hint);
   bool next(Key const& key, Value& value, IterHint& hint);
   U32 members() const { return store_.counters().occupied; }
   U32 capacity() const { return store_.numSlots(); }
   void yieldTimeIs(double seconds) {
      ZAFFA_LOG(7, "{} yieldTime:{}", name_, seconds);
      yieldTime_ = seconds;
      jolt_.yieldTimeIs(seconds);
   }
   void notifyingIs(bool on) {
      notifying_ = on;
      jolt_.notifyingIs(on);
   }
   // Connects the wake-ups to the writer named in the owner file. False
   // (traced) when attached to no writer, or when the writer does not listen
   // (yet): the sentry tells the owner when its contact appears.
   bool connectJolt();
   bool connected() const { return jolt_.connected(); }
   Jolt::ReaderJoltSm& jolt() { return jolt_; }
   ShadowCounters const& counters() const { return counters_; }
   ZaffaReader<Key, Value>& reader() { return reader_; }
   Store& store() { return store_; }
   Trevine::TrevineReader<U32>& trevine() { return trevine_; }

 private:
   void report(Key const& key) {
      ++counters_.changes;
      if (notifying_ && notify_.keyChanged) notify_.keyChanged(key);
   }
   U32 rhashOf(Key const& key) const { return Jorro::Util::reverse(static_cast<U32>(key.hash(reader_.hashSeed()))); }
   void removeAt(U32 index, bool doReport) {
      Slot& s = store_.at(index);
      if (!s.occupied) return;
      Key const key = s.key();
      store_.map().remove(&s);
      s.occupied = 0;
      --store_.counters().occupied;
      if (doReport) report(key);
   }
   // Keys taken out of a slot during a pass and not seen again by its end
   // are gone: report them.
   void reportPending() {
      for (auto const& [key, value] : pending_) {
         if (!store_.map().find(key, rhashOf(key))) report(key);
      }
      pending_.clear();
   }
   bool grow(U32 slot);
   void tryShrink();
   void syncComplete();
   bool valueOf(Slot const& s, Value& value, IterHint* hint) {
      if constexpr (Store::holdsValues) {
         value = s.value;
         return true;
      } else {
         return s.value(reader_, store_.indexOf(&s), value, hint);
      }
   }

   ZaffaReader<Key, Value> reader_;
   Trevine::TrevineReader<U32> trevine_;
   Store store_;
   Mem::Notify<Key, Value> notify_;
   std::string name_;
   double yieldTime_ = 0;
   bool notifying_ = true;
   bool synced_ = false;
   U32 seed_ = 0;   // the hash seed of the store's chains
   // Keyed by the table's own notion of a key, its hash and equality: a
   // key's ordering, if it has one, need not tell apart keys that the table
   // holds separately, and an ordered map would then keep only one of them
   // and lose the others' reports.
   struct KeyHash {
      std::size_t operator()(Key const& key) const { return key.hash(0); }
   };
   std::unordered_map<Key, Value, KeyHash> pending_;
   ShadowCounters counters_;
   // Last: its hooks reach the members above.
   Jolt::ReaderJoltSm jolt_;
};

// ---------------------------------------------------------------------------
// Implementation

template <typename Key, typename Value, typename Store>
bool ZaffaShadow<Key, Value, Store>::initialize(std::string const& event) {
   detach(true);
   std::string message;
   if (!reader_.attach(message)) {
      ZAFFA_LOG(5, "{} {} event:{}", name_, message, event);
      ZAFFA_LOG(5, "zaffa.initialize() Failed");
      return false;
   }
   if (!trevine_.attach(reader_.fenixId().value, message)) {
      ZAFFA_LOG(3, "{} failed to attach to trevine: {} event:{}", name_, message, event);
      reader_.detach();
      return false;
   }
   if (reader_.hashSeed() != seed_) {
      // A new generation hashes with a new seed: the private chains must be
      // rebuilt before any key can be found in them.
      seed_ = reader_.hashSeed();
      store_.map().clear();
      for (U32 i = 0; i < store_.numSlots(); ++i) {
         Slot& s = store_.at(i);
         if (!s.occupied) continue;
         s.rhash = rhashOf(s.key());
         store_.map().write(&s);
      }
   }
   if (!store_.initialize(reader_.capacity())) {
      ZAFFA_LOG(1, "zaffa.initialize() Failed");
      detach(true);
      return false;
   }
   try {
      // Every change from here on has a record after w.
      Vor::U64 const w = trevine_.writerSeq();
      U32 const n = std::max(store_.numSlots(), reader_.capacity());
      for (U32 s = 0; s < n; ++s) doSlot(s, 0, false);
      reportPending();
      trevine_.lastSeqIs(w);
   } catch (Jorro::CorruptionDetectedException const& e) {
      ZAFFA_LOG(1, "corruption detected: {}", e.what());
      throw;
   }
   ++counters_.syncs;
   ZAFFA_LOG(3, "success {} capacity:{} fenixId:{} mtime:{} delay:{} event:{}", reader_.rootPath().dir(),
             reader_.capacity(), reader_.fenixId().toString(),
             static_cast<long>(SharedMem::FenixFile(reader_.rootPath().file(FileNames::fenix)).mtime()), 0,
             event);
   syncComplete();
   if (notify_.mountStatus) notify_.mountStatus();
   connectJolt();
   return true;
}

template <typename Key, typename Value, typename Store>
bool ZaffaShadow<Key, Value, Store>::connectJolt() {
   if (!attached()) return false;
   if (jolt_.connected()) return true;
   SharedMem::OwnerFile owner(reader_.rootPath().file(FileNames::owner));
   std::string error;
   if (!owner.openReadOnly(error)) {
      ZAFFA_LOG(5, "{} no contact for wake-ups: {}", name_, error);
      return false;
   }
   SharedMem::ShocketInfo const info = owner.shocketInfo();
   if (info.socketName.empty()) {
      ZAFFA_LOG(5, "{} no contact for wake-ups in {}", name_, owner.path());
      return false;
   }
   return jolt_.connect(info);
}

template <typename Key, typename Value, typename Store>
void ZaffaShadow<Key, Value, Store>::syncComplete() {
   synced_ = true;
   ZAFFA_LOG(5, "Synchronization complete, seq:{}", trevine_.lastSeq());
   if (notify_.quiesced) notify_.quiesced(true);
}

template <typename Key, typename Value, typename Store>
bool ZaffaShadow<Key, Value, Store>::poll() {
   if (!attached()) return true;
   auto const start = std::chrono::steady_clock::now();
   for (;;) {
      auto result = trevine_.poll([this](U32 slot, Vor::U64 seq, bool) { doSlot(slot, seq, false); }, 256);
      if (result.caughtUp) {
         reportPending();
         return true;
      }
      if (yieldTime_ > 0 &&
          std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() >= yieldTime_) {
         return false;
      }
   }
}

template <typename Key, typename Value, typename Store>
bool ZaffaShadow<Key, Value, Store>::grow(U32 slot) {
   reader_.doResize();
   U32 const from = store_.numSlots();
   U32 const to = reader_.capacity();
   ZAFFA_LOG(7, "resize shadow slots from {} to {} due to out of range slot {}", from, to, slot);
   if (to <= slot) {
      ZAFFA_LOG(7, "complete. Never learned of slotIndex:{} so it is safe to ignore.", slot);
      return false;
   }
   if (!store_.resize(to)) {
      ZAFFA_LOG(1, "failed to resize {} from {} to {} slots - {}", name_, from, to, "out of memory");
      return false;
   }
   if (store_.numSlots() != to) ZAFFA_LOG(1, "Passed resize {} and got {} back.", to, store_.numSlots());
   return true;
}

template <typename Key, typename Value, typename Store>
void ZaffaShadow<Key, Value, Store>::doSlot(U32 slot, Vor::U64 sequence, bool flush) {
   ++counters_.notifications;
   if (slot >= store_.numSlots()) {
      reader_.doResize();
      if (slot >= reader_.capacity()) {
         ZAFFA_LOG(7, "skip growing of shadow table to accomodate slotIndex:{} because shared memory has "
                      "shrunk to {} slots", slot, reader_.capacity());
         ZAFFA_LOG(7, "discarding notification for slotIndex:{}", slot);
         ++counters_.discarded;
         return;
      }
      if (!grow(slot)) return;
   }
   Value v;
   bool const occupied = reader_.getValue(slot, v);
   if (sequence != 0 && !trevine_.validateNotif(slot, sequence)) {
      ZAFFA_LOG(9, "failed because sequence:{} may have been tombstoned", sequence);
      ++counters_.overtaken;
      return;
   }
   Slot& here = store_.at(slot);
   bool updated = false;
   if (!occupied) {
      updated = here.occupied != 0;
      if constexpr (Store::holdsValues) {
         // The key may only have moved: a compaction's record for its new
         // slot can come later than this one. Hold the report back until
         // the end of the pass, and drop it if the key comes back unchanged.
         if (here.occupied) pending_.emplace(here.key(), here.value);
         removeAt(slot, false);
      } else {
         removeAt(slot, true);
      }
   } else {
      Key const& key = KeyOf::get(v);
      U32 const rhash = rhashOf(key);
      bool changed = true;
      if (here.occupied && !(here.key() == key)) removeAt(slot, true);
      if (here.occupied) {
         if constexpr (Store::holdsValues) changed = flush || std::memcmp(&here.value, &v, sizeof v) != 0;
         if (!changed) ZAFFA_LOG(11, "no index update needed");
         if constexpr (Store::holdsValues) here.value = v;
      } else {
         Slot* elsewhere = store_.map().find(key, rhash);
         if (elsewhere) {
            // Moved down by a compaction: same key, new index.
            // A store without values cannot tell whether the value changed
            // too (its overwrite's record is gone, replaced by the move's).
            if constexpr (Store::holdsValues) changed = flush || std::memcmp(&elsewhere->value, &v, sizeof v) != 0;
            removeAt(store_.indexOf(elsewhere), false);
         }
         Slot& s = store_.at(slot);
         if constexpr (Store::holdsValues) {
            s.value = v;
         } else {
            s.key_ = key;
         }
         s.rhash = rhash;
         s.occupied = 1;
         ++store_.counters().occupied;
         store_.map().write(&s);
         ZAFFA_LOG(11, "value inserted");
      }
      if constexpr (Store::holdsValues) {
         auto it = pending_.find(key);
         if (it != pending_.end()) {
            changed = flush || std::memcmp(&it->second, &v, sizeof v) != 0;
            pending_.erase(it);
         }
      }
      updated = changed;
      if (changed) report(key);
   }
   ZAFFA_LOG(11, "updated: {} compare: {} slotIndex:{}{}", updated, !flush, slot, "");
   tryShrink();
}

template <typename Key, typename Value, typename Store>
void ZaffaShadow<Key, Value, Store>::doFlushSlot(U32 slot) {
   if (slot >= store_.numSlots() || !store_.at(slot).occupied) return;
   ZAFFA_LOG(9, "slotIndex {} key: {}", slot, describe(store_.at(slot).key()));
   removeAt(slot, true);
}

template <typename Key, typename Value, typename Store>
void ZaffaShadow<Key, Value, Store>::tryShrink() {
   U32 const n = store_.numSlots();
   if (n <= 64 || store_.counters().occupied > n / 4) return;
   U32 const largest = store_.largestOccupied();
   U32 const target = std::max<U32>(largest + 1, 64);
   if (target >= n) return;
   ZAFFA_LOG(9, "shadow slot occupancy <= 25% and can shrink to {} slots.", target);
   if (reader_.capacity() > target) {
      ZAFFA_LOG(9, "skip shrinking of shadow table to {} slots because shared memory has grown to {} slots",
                target, reader_.capacity());
      return;
   }
   store_.resize(target);
}

template <typename Key, typename Value, typename Store>
void ZaffaShadow<Key, Value, Store>::handleDisconnect() {
   if (!jolt_.notifying()) {
      ZAFFA_LOG(5, "disconnected while jolt processing is disabled, syncer mode:{} done:{}", "notify", synced_);
   }
   ZAFFA_LOG(5, "{} writer disconnected, synchronised:{}", name_, synced_);
   detach(true);
   if (notify_.quiesced) notify_.quiesced(false);
   if (notify_.disconnected) notify_.disconnected();
}

template <typename Key, typename Value, typename Store>
void ZaffaShadow<Key, Value, Store>::detach(bool quiet) {
   if (!attached()) {
      if (!quiet) ZAFFA_LOG(5, "{} already detached", name_);
      return;
   }
   jolt_.onDetach();
   reader_.detach();
   trevine_.detach();
   synced_ = false;
   if (notify_.mountStatus) notify_.mountStatus();
}

template <typename Key, typename Value, typename Store>
bool ZaffaShadow<Key, Value, Store>::lookup(Key const& key, Value& value) {
   Slot* s = store_.map().find(key, rhashOf(key));
   return s && valueOf(*s, value, nullptr);
}

template <typename Key, typename Value, typename Store>
bool ZaffaShadow<Key, Value, Store>::first(Value& value, IterHint& hint) {
   for (Slot* s = store_.map().first(); s; s = store_.map().next(s->key(), s->rhash)) {
      if (valueOf(*s, value, nullptr)) {
         hint = IterHint{0, store_.indexOf(s), 0};
         return true;
      }
   }
   return false;
}

template <typename Key, typename Value, typename Store>
bool ZaffaShadow<Key, Value, Store>::next(Key const& key, Value& value, IterHint& hint) {
   for (Slot* s = store_.map().next(key, rhashOf(key)); s; s = store_.map().next(s->key(), s->rhash)) {
      if (valueOf(*s, value, nullptr)) {
         hint = IterHint{0, store_.indexOf(s), 0};
         return true;
      }
   }
   return false;
}

} // namespace Zaffa
