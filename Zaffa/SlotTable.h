#pragma once
// The slot file of a table: its header, its slots, and the words that the
// lock-free protocol stores.
//
// File layout (all integers little-endian):
//
//   0    header (192 bytes, SlotTableHeader below)
//   192  lookaside slot, same layout as a slot
//   192 + slotSize        slot 0
//   192 + (i+1)*slotSize  slot i
//
// A slot:
//
//   0    SlotLink {seq, next}, always stored as one 8-byte word
//   8    sequence: bit 0 OCCUPIED, bit 1 LOOKASIDE, the rest a counter
//   12   rhash: the bit-reversed 32-bit hash of the key
//   16   the value, padded to slotSize (a multiple of 8)
//
// Slot states, from the sequence word:
//
//   OCCUPIED LOOKASIDE
//      0        0       free, or being filled before it is linked
//      0        1       first write into the slot in progress
//      1        0       holds a stable value
//      1        1       being overwritten; the new value stands whole in the
//                       lookaside slot
//
// Invariants of a table at rest (checked by the validator):
//   1. Every slot is either on exactly one chain (OCCUPIED, not LOOKASIDE) or
//      on the free list (not OCCUPIED); occupiedSlots + free list length ==
//      numSlots.
//   2. The chain of bucket b holds exactly the keys whose hash modulo
//      numBuckets is b, sorted by rhash and then by the key's operator<.
//   3. hash == doHash() of the constant fields; counters are not covered.
//   4. mostSlots >= numSlots; mostSlots never goes down.
//
// Thread safety: only the writer stores; see SlotWriter.h and the readers.

#include "Zaffa/platform/Jorro.h"
#include "Zaffa/platform/Mem.h"

#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

namespace Zaffa {

using Vor::U16;
using Vor::U32;
using Vor::U64;

constexpr U64 slotFileMagic = 0x544c53414646415aull;   // "ZAFFASLT"
constexpr U32 slotFileVersion = 18;
constexpr U32 noSlot = 0xFFFFFFFFu;        // end of the free list, no slot
constexpr U32 endOfChainBit = 0x80000000u; // in SlotLink.next: end of chain
constexpr U32 slotIndexMask = 0x7FFFFFFFu;

constexpr U32 seqOccupied = 1;
constexpr U32 seqLookaside = 2;

constexpr U16 runtimeFlagInOperation = 1;

// Constant flags of a table, covered by the header checksum.
constexpr U16 constFlagFixed = 1;        // the table never grows nor shrinks
constexpr U16 constFlagShrinkable = 2;   // the table compacts when emptied

namespace Compatibility {
// The memory layout a file was written for. Only files of our own layout can
// be mapped.
enum Platform : U32 {
   platformUnknown = 0,
   platformLp32Le = 1,
   platformLp64Le = 2,
};
char const* platformName(U32 platform);
constexpr Platform thisPlatform = platformLp64Le;
} // namespace Compatibility

struct SlotLink {
   U32 seq;
   U32 next;

   bool endOfChain() const { return (next & endOfChainBit) != 0; }
   U32 slot() const { return next & slotIndexMask; }
   U64 packed() const { return Mem::packVerU32(seq, next); }
   static SlotLink unpack(U64 w) { return SlotLink{static_cast<U32>(w), static_cast<U32>(w >> 32)}; }
};
static_assert(sizeof(SlotLink) == 8);

inline SlotLink loadLink(void const* where) { return SlotLink::unpack(Mem::load64(where)); }
inline void storeLink(void* where, SlotLink link) { Mem::store64(where, link.packed()); }
// The one way a link changes: a new target, and the link's own sequence
// raised by 4 so that a reader that read the old link sees that it moved.
inline void relink(void* where, U32 next) {
   SlotLink old = loadLink(where);
   storeLink(where, SlotLink{old.seq + 4, next});
}

constexpr std::size_t slotValueOffset = 16;
constexpr std::size_t slotHeaderBytes = 192;

constexpr U32 slotSizeFor(std::size_t valueSize) {
   return static_cast<U32>((slotValueOffset + valueSize + 7) / 8 * 8);
}

struct SlotTableHeader {
   char magic[8];
   U32 version;
   U32 fenix;
   U32 platform;
   char valueType[64];
   char classType[64];
   U32 valueSize;
   U32 slotSize;
   U32 maxSlots;
   U16 constFlags;
   U16 runtimeFlags;
   U32 hash;
   U32 occupiedSlots;
   U32 freeSlots;
   U32 mostSlots;
   U32 hashSeed;
   Mem::VerU32 numSlots;

   // Checksum of the constant fields, from the FNV-1a basis: valueType,
   // classType, valueSize, slotSize, maxSlots, constFlags, hashSeed.
   U32 doHash() const;

   // Checks the header against the size of its file. The checksum is always
   // doHash() over this file's own constant fields. With `expected`, the
   // stored hash must in addition be the one the expected table would have
   // with this file's seed, so that a file of another value or collection
   // type, or of other limits, fails too. Returns false with the first fault
   // in `message`.
   bool validate(bool debug, std::size_t fileSize, U32 wantedFenix, std::string& message,
                 SlotTableHeader const* expected = nullptr) const;

   std::string toString() const;

   U32 numSlotsValue() const { return Mem::loadVerU32(&numSlots).value; }
   U32 headerBytes() const { return static_cast<U32>(slotHeaderBytes) + slotSize; }
};
static_assert(sizeof(SlotTableHeader) == 192);
static_assert(offsetof(SlotTableHeader, valueType) == 20);
static_assert(offsetof(SlotTableHeader, classType) == 84);
static_assert(offsetof(SlotTableHeader, valueSize) == 148);
static_assert(offsetof(SlotTableHeader, constFlags) == 160);
static_assert(offsetof(SlotTableHeader, hash) == 164);
static_assert(offsetof(SlotTableHeader, hashSeed) == 180);
static_assert(offsetof(SlotTableHeader, numSlots) == 184);

// Type names written into the header. The compiler's spelling of the type,
// e.g. "Ulo::NatHwShadowEntry".
template <typename T>
constexpr std::string_view typeName() {
   std::string_view f = __PRETTY_FUNCTION__;
   auto start = f.find("T = ") + 4;
   auto end = f.find_first_of(";]", start);
   return f.substr(start, end - start);
}

// A raw view of one slot, for code that does not know the value type (the
// validator, the tool).
struct RawSlot {
   char* p;
   void* link() const { return p; }
   U32 seq() const { return Mem::load32(p + 8); }
   void seqIs(U32 s) const { Mem::store32(p + 8, s); }
   U32 rhash() const { return *reinterpret_cast<U32 const*>(p + 12); }
   void rhashIs(U32 r) const { *reinterpret_cast<U32*>(p + 12) = r; }
   char* value() const { return p + slotValueOffset; }
};

// The memory of a mapped slot file, typed only by its slot size.
class SlotMemory {
 public:
   SlotMemory() = default;
   explicit SlotMemory(char* base) : base_(base) {}
   SlotTableHeader* header() const { return reinterpret_cast<SlotTableHeader*>(base_); }
   U32 slotSize() const { return header()->slotSize; }
   RawSlot lookaside() const { return RawSlot{base_ + slotHeaderBytes}; }
   RawSlot slot(U32 i) const {
      return RawSlot{base_ + slotHeaderBytes + (static_cast<std::size_t>(i) + 1) * slotSize()};
   }
   char* base() const { return base_; }

 private:
   char* base_ = nullptr;
};

} // namespace Zaffa
