#include "Zaffa/SlotWriter.h"

#include "framework/VorTrace.h"

#include <algorithm>
#include <limits>
#include <random>

VOR_TRACE_HANDLE("ZaffaSlotWriter");

namespace Zaffa {

namespace {

void copyName(char (&field)[64], std::string const& name) {
   std::memset(field, 0, sizeof field);
   std::memcpy(field, name.data(), std::min(name.size(), sizeof field - 1));
}

U32 drawSeed() {
   std::random_device device;
   return device();
}

} // namespace

SlotWriterTable::SlotWriterTable(SlotTableConfig config) : config_(std::move(config)) {
   if (config_.valueType.size() >= 64) {
      Jorro::throwInvalidInitialize("value typename {} exceeds {} characters", config_.valueType, 64);
   }
   if (config_.classType.size() >= 64) {
      Jorro::throwInvalidInitialize("class typename: {} exceeds {} characters ", config_.classType,
                                    64);
   }
   if (config_.fixed) config_.minSlots = config_.maxSlots;
   config_.minSlots = std::max<U32>(config_.minSlots, 1);
   config_.maxSlots = std::max(config_.maxSlots, config_.minSlots);
   std::memset(&expected_, 0, sizeof expected_);
   copyName(expected_.valueType, config_.valueType);
   copyName(expected_.classType, config_.classType);
   expected_.valueSize = config_.valueSize;
   expected_.slotSize = slotSizeFor(config_.valueSize);
   expected_.maxSlots = config_.maxSlots;
   expected_.constFlags = static_cast<U16>((config_.fixed ? constFlagFixed : 0) |
                                           (config_.shrink ? constFlagShrinkable : 0));
   defaultIsZero_ = true;
   if (config_.defaultValue) {
      std::vector<unsigned char> probe(config_.valueSize, 0);
      config_.defaultValue(probe.data());
      defaultIsZero_ = std::all_of(probe.begin(), probe.end(), [](unsigned char b) { return b == 0; });
   }
}

int SlotWriterTable::attach(U32 fenix) {
   detach();
   U32 wanted = config_.minSlots;
   auto wantedSize = Mem::fileSizeHelper(wanted, expected_.slotSize, slotHeaderBytes + expected_.slotSize);
   std::string error;
   auto mode = config_.path.empty() ? Mem::MappedFile::Mode::anonymous
                                    : Mem::MappedFile::Mode::readWrite;
   if (!wantedSize || !file_.open(config_.path, mode, error)) {
      Jorro::throwInvalidInitialize("cannot attach to shmem {} size:{}: {}", config_.path,
                                    wantedSize.value_or(0), wantedSize ? error : "size overflow");
   }
   mem_ = SlotMemory(file_.base());
   bool hadContent = file_.size() != 0;
   if (hadContent && file_.size() >= sizeof(SlotTableHeader) && header()->fenix == fenix) {
      std::string message;
      bool ok = header()->validate(false, file_.size(), fenix, message, &expected_);
      if (ok && config_.fixed && header()->numSlotsValue() != config_.maxSlots) {
         message = fmt::format("wanted capacity:{} for fixed-size table, but existing file has capacity:{}",
                               config_.maxSlots, header()->numSlotsValue());
         ok = false;
      }
      if (ok) {
         numSlots_ = header()->numSlotsValue();
         shrinkThreshold_ = computeShrinkThreshold();
         DUOLOG(7, "shrinkThreshold_:{}", shrinkThreshold_);
         DUOLOG(5, "to existing {}", config_.path);
         return existingFile;
      }
      DUOLOG(3, "{} {}", config_.path, message);
   }
   reformat(fenix);
   if (hadContent) {
      DUOLOG(3, "re-formatted {}", config_.path);
      return reformatted;
   }
   DUOLOG(5, "to new file {}", config_.path);
   return newFile;
}

void SlotWriterTable::reformat(U32 fenix) {
   U32 n = config_.minSlots;
   std::size_t size = *Mem::fileSizeHelper(n, expected_.slotSize, slotHeaderBytes + expected_.slotSize);
   std::string error;
   if (!file_.resize(0, error) || !file_.resize(size, error)) {
      Jorro::throwInvalidInitialize("cannot attach to shmem {} size:{}: {}", config_.path, size, error);
   }
   SlotTableHeader* h = header();
   *h = expected_;
   std::memcpy(h->magic, &slotFileMagic, sizeof h->magic);
   h->version = slotFileVersion;
   h->fenix = fenix;
   h->platform = Compatibility::thisPlatform;
   h->runtimeFlags = 0;
   h->hashSeed = drawSeed();
   h->hash = h->doHash();
   h->occupiedSlots = 0;
   h->freeSlots = noSlot;
   h->mostSlots = n;
   Mem::storeVerU32(&h->numSlots, Mem::VerU32{0, n});
   RawSlot look = lookaside();
   storeLink(look.link(), SlotLink{0, noSlot});
   look.seqIs(0);
   look.rhashIs(0);
   if (config_.defaultValue) config_.defaultValue(look.value());
   numSlots_ = 0;
   initSlots(0, n, file_.zeroFrom());
   h->freeSlots = addFreeSlots(0, n);
   numSlots_ = n;
   shrinkThreshold_ = computeShrinkThreshold();
}

void SlotWriterTable::initSlot(U32 i) {
   // A slot that held entries before a shrink keeps its counters rising, so
   // that a reader can never mistake its new life for its old one.
   RawSlot s = slot(i);
   SlotLink link = loadLink(s.link());
   storeLink(s.link(), SlotLink{link.seq, noSlot});
   U32 seq = s.seq();
   s.seqIs(seq == 0 ? 0 : (seq + 4) & ~(seqOccupied | seqLookaside));
   s.rhashIs(0);
   if (config_.defaultValue) config_.defaultValue(s.value());
}

void SlotWriterTable::initSlots(U32 from, U32 to, std::size_t zeroFrom) {
   U32 fresh = to;
   if (defaultIsZero_) {
      // The first slot that starts at or after zeroFrom: it and all above it
      // read as zeros, which is a new slot's sequence, rhash and value.
      // Their links are set by addFreeSlots.
      std::size_t const base = slotHeaderBytes + expected_.slotSize;
      U64 first = zeroFrom <= base ? 0 : (zeroFrom - base + expected_.slotSize - 1) / expected_.slotSize;
      fresh = static_cast<U32>(std::clamp<U64>(first, from, to));
   }
   for (U32 i = from; i < fresh; ++i) initSlot(i);
}

void SlotWriterTable::detach() {
   file_.close();
   mem_ = SlotMemory();
   numSlots_ = 0;
}

U32 SlotWriterTable::addFreeSlots(U32 from, U32 to) {
   if (header()->freeSlots != noSlot) throw Jorro::AssertException("free-list is not empty");
   U32 head = noSlot;
   for (U32 i = to; i-- > from;) {
      SlotLink link = loadLink(slot(i).link());
      storeLink(slot(i).link(), SlotLink{link.seq + 4, head});
      head = i;
   }
   return head;
}

U32 SlotWriterTable::alloc(U32 rhash) {
   SlotTableHeader* h = header();
   if (h->freeSlots == noSlot) {
      if (h->occupiedSlots != numSlots_) {
         Jorro::throwCorruption(
            "the slot table is full but numSlots: {} and occupiedSlots: {} are not equal",
            numSlots_, h->occupiedSlots);
      }
      std::string message = "fixed-size table";
      bool grown = false;
      if (!config_.fixed) {
         U64 n = numSlots_;
         U64 next = n >= config_.maxSlots ? (n * 11 + 9) / 10 : std::min<U64>(config_.maxSlots, n * 2);
         next = std::min<U64>(std::max<U64>(next, n + 1), slotIndexMask);
         grown = next > n && resize(static_cast<U32>(next), message);
      }
      if (!grown) {
         throw TableFullException(fmt::format("Zaffa table full (occupancy:{} tableSize:{}) {}",
                                              h->occupiedSlots, numSlots_, message));
      }
   }
   U32 i = h->freeSlots;
   if (i >= numSlots_) Jorro::throwCorruption("out-of-range index: {} max:{}", i, numSlots_);
   RawSlot s = slot(i);
   s.rhashIs(rhash);
   U32 const next = loadLink(s.link()).next;
   h->freeSlots = next;
   ++h->occupiedSlots;
   // The next insert fills that slot: start fetching it now, so that its
   // misses overlap this insert's work instead of stalling the next one.
   if (next < numSlots_) prefetchForWrite(next);
   return i;
}

void SlotWriterTable::prefetchForWrite(U32 i) const {
   constexpr std::uintptr_t line = 64;
   auto const start = reinterpret_cast<std::uintptr_t>(slot(i).link()) & ~(line - 1);
   auto const end = reinterpret_cast<std::uintptr_t>(slot(i).link()) + header()->slotSize;
   for (std::uintptr_t p = start; p < end; p += line) {
      __builtin_prefetch(reinterpret_cast<void const*>(p), 1);
   }
}

void SlotWriterTable::release(U32 i) {
   SlotTableHeader* h = header();
   relink(slot(i).link(), h->freeSlots);
   h->freeSlots = i;
}

bool SlotWriterTable::resize(U32 n, std::string& message) {
   SlotTableHeader* h = header();
   U32 old = numSlots_;
   if (n == old) return true;
   auto size = Mem::fileSizeHelper(n, h->slotSize, h->headerBytes());
   if (!size) {
      message = fmt::format("failed to resize {} from {} to {} slots, needed {} bytes. Reason: {}",
                            config_.path, old, n, "more", "beyond the largest mapping");
      DUOLOG(3, "{}", message);
      return false;
   }
   if (n > old) {
      // Slots within the file's present length may hold what an earlier,
      // larger table left there (a shrink keeps the length).
      std::size_t zeroFrom = std::numeric_limits<std::size_t>::max();
      if (*size > file_.size()) {
         std::size_t before = file_.size();
         std::string error;
         if (!file_.resize(*size, error)) {
            message = fmt::format("failed to resize {} from {} to {} slots, needed {} bytes. Reason: {}",
                                  config_.path, old, n, *size, error);
            DUOLOG(3, "{}", message);
            return false;
         }
         if (file_.size() < *size) {
            message = fmt::format("requesting to map {} {} slots. Requested file resize to {} but real file size is {}",
                                  config_.path, n, *size, before);
            DUOLOG(3, "{}", message);
            return false;
         }
         zeroFrom = file_.zeroFrom();
      }
      if (n > config_.maxSlots) DUOLOG(5, "overflowing by {} slots", n - config_.maxSlots);
      initSlots(old, n, zeroFrom);
      U32 head = addFreeSlots(old, n);
      if (n > h->mostSlots) h->mostSlots = n;
      Mem::VerU32 cur = Mem::loadVerU32(&h->numSlots);
      Mem::storeVerU32(&h->numSlots, Mem::VerU32{cur.version + 1, n});
      h->freeSlots = head;
   } else {
      Mem::VerU32 cur = Mem::loadVerU32(&h->numSlots);
      Mem::storeVerU32(&h->numSlots, Mem::VerU32{cur.version + 1, n});
      // The file keeps its length: a reader that has not yet seen the new
      // numSlots may still read the slots above it.
      file_.discard(*size, file_.size() - *size);
   }
   numSlots_ = n;
   shrinkThreshold_ = computeShrinkThreshold();
   DUOLOG(7, "shrinkThreshold_:{}", shrinkThreshold_);
   return true;
}

void SlotWriterTable::purgeFreeSlots(U32 target) {
   SlotTableHeader* h = header();
   std::vector<bool> keep(target, false);
   U32 length = 0;
   for (U32 i = h->freeSlots; i != noSlot; i = loadLink(slot(i).link()).next) {
      if (i >= numSlots_) Jorro::throwCorruption("out-of-range index: {} max:{}", i, numSlots_);
      if (++length > numSlots_) break;
      if (i < target) keep[i] = true;
   }
   if (static_cast<U64>(length) + h->occupiedSlots != numSlots_) {
      Jorro::throwCorruption(
         "numSlots mismatch, length of freeList: {}, occupiedSlots: {} do not add up to numSlots: {}",
         length, h->occupiedSlots, numSlots_);
   }
   // Rebuilt lowest first, so that the compaction fills the bottom of the
   // table in order.
   U32 head = noSlot;
   for (U32 i = target; i-- > 0;) {
      if (!keep[i]) continue;
      relink(slot(i).link(), head);
      head = i;
   }
   h->freeSlots = head;
}

U32 SlotWriterTable::computeShrinkThreshold() const {
   if (!config_.shrink || config_.fixed || numSlots_ <= config_.minSlots) return 0;
   U32 t = 1;
   while (static_cast<U64>(t) * 2 < numSlots_) t *= 2;
   return t;
}

void SlotWriterTable::cleanup() {
   detach();
   if (!config_.path.empty()) ::unlink(config_.path.c_str());
}

} // namespace Zaffa
