#include "Zaffa/SlotTable.h"

namespace Zaffa {

char const* Compatibility::platformName(U32 platform) {
   switch (platform) {
    case platformLp32Le: return "lp32-le";
    case platformLp64Le: return "lp64-le";
    default: return "unknown";
   }
}

U32 SlotTableHeader::doHash() const {
   using Jorro::Impl::HashMix;
   U32 h = HashMix::basis;
   h = HashMix::mix(h, valueType, sizeof valueType);
   h = HashMix::mix(h, classType, sizeof classType);
   h = HashMix::mix(h, &valueSize, sizeof valueSize);
   h = HashMix::mix(h, &slotSize, sizeof slotSize);
   h = HashMix::mix(h, &maxSlots, sizeof maxSlots);
   h = HashMix::mix(h, &constFlags, sizeof constFlags);
   h = HashMix::mix(h, &hashSeed, sizeof hashSeed);
   return h;
}

bool SlotTableHeader::validate(bool debug, std::size_t fileSize, U32 wantedFenix,
                               std::string& message, SlotTableHeader const* expected) const {
   (void)debug;
   U64 m;
   std::memcpy(&m, magic, sizeof m);
   if (m != slotFileMagic) {
      message = fmt::format("bad magic: {:x}", m);
      return false;
   }
   if (version != slotFileVersion) {
      message = fmt::format("bad version: {}", version);
      return false;
   }
   if (wantedFenix != 0 && wantedFenix != fenix) {
      message = fmt::format("bad fenix:{} wanted:{}", fenix, wantedFenix);
      return false;
   }
   if (platform != Compatibility::thisPlatform) {
      message = fmt::format("bad platform specification: {} expecting: {}",
                            Compatibility::platformName(platform),
                            Compatibility::platformName(Compatibility::thisPlatform));
      return false;
   }
   // The file's own constant fields first: a field changed under an intact
   // hash (a stray store, a torn write of the header) must never be kept,
   // since the slot geometry and the type check are read from these fields.
   U32 const computed = doHash();
   if (computed != hash) {
      message = fmt::format("checksum fail: {:x} != {:x}", computed, hash);
      return false;
   }
   // Then the table the caller expects: a consistent file of another value
   // or collection type, or of other limits, hashes differently under this
   // file's seed and is refused with the same message.
   if (expected) {
      SlotTableHeader wanted = *expected;
      wanted.hashSeed = hashSeed;
      U32 const expectedHash = wanted.doHash();
      if (expectedHash != hash) {
         message = fmt::format("checksum fail: {:x} != {:x}", expectedHash, hash);
         return false;
      }
   }
   U32 n = numSlotsValue();
   if (occupiedSlots > n) {
      message = fmt::format("bad occupiedSlots: {} num slots: {}", occupiedSlots, n);
      return false;
   }
   if (freeSlots != noSlot && freeSlots >= n) {
      message = fmt::format("bad freeSlots: {} slots: {}", freeSlots, n);
      return false;
   }
   if (mostSlots < n) {
      message = fmt::format("bad mostSlots:{} numSlots:{}", mostSlots, n);
      return false;
   }
   if (fileSize < headerBytes()) {
      message = fmt::format("bad header file size: {} wanted:{}", fileSize, headerBytes());
      return false;
   }
   if (fileSize >= Mem::Local::maxMappingSize()) {
      message = fmt::format("bad file size:{}", fileSize);
      return false;
   }
   auto size = Mem::fileSizeHelper(n, slotSize, headerBytes());
   if (!size) {
      message = fmt::format("bad numSlots: {} message: {}", n, "size overflows the largest mapping");
      return false;
   }
   if (*size > fileSize) {
      message = fmt::format("bad shmem size:{} wanted:{} for {} slots", fileSize, *size, n);
      return false;
   }
   return true;
}

std::string SlotTableHeader::toString() const {
   U64 m;
   std::memcpy(&m, magic, sizeof m);
   Mem::VerU32 ns = Mem::loadVerU32(&numSlots);
   return fmt::format(
      "magic:{:#x} version:{} fenix:{} platform:{} valueType:\"{}\" classType:\"{}\" valueSize:{} "
      "slotSize:{} maxSlots:{} constFlags:{:#x} runtimeFlags:{:#x} hash:{:#x} occupiedSlots:{} "
      "freeSlots:{} mostSlots:{} hashSeed:{} numSlots:{}",
      m, version, fenix, platform, std::string(valueType, ::strnlen(valueType, sizeof valueType)),
      std::string(classType, ::strnlen(classType, sizeof classType)), valueSize, slotSize, maxSlots,
      constFlags, runtimeFlags, hash, occupiedSlots, freeSlots, mostSlots, hashSeed, ns.value);
}

} // namespace Zaffa
