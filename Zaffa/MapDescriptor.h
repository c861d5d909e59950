#pragma once
// How a collection backed by a shared-memory table is to be set up.
//
// Zaffa::MapDescriptor is the value that ZaffaMap::init() receives: the mode
// (a process-local table, the writer of a shared table, a reader of one, or a
// reader with a private shadow copy), the root directory of the shared files,
// the size, and a few flags. Descriptors compare by value: initialising a map
// a second time with an equal descriptor is harmless, with a different one it
// is an error, since the table's files and its readers were set up after the
// first.
//
// Thread safety: a plain value.
//
// Invariants (checked by ZaffaMap::init, not by this type):
//   1. In writer mode maxSlots > 0.
//   2. heapAllocation only in local mode.
//   3. mode is one of the four known modes.

#include "framework/VorHash.h"

#include <string>

namespace Mem {

// The part of a descriptor that every kind of collection shares: which
// mode and which root the collection's storage lives under.
struct CollectionDescriptor {
   enum Mode : Vor::U32 { local = 0, writer = 1, reader = 2, shadow = 3 };
   static char const* modeName(Mode mode);

   Mode mode = local;
   // The directory under which the collection's own directory (named after
   // the collection) is made. Ignored in local mode.
   std::string root = "/var/shmem";

   bool operator==(CollectionDescriptor const&) const = default;
};

} // namespace Mem

namespace Zaffa {

// The state of a map as mount code sees it.
enum class MountStatus : Vor::U32 {
   unmounted = 0,   // dummy before init, or detached
   waiting = 1,     // a reader waiting for the writer's files
   mounted = 2,     // a writer attached, or a reader attached
   orphan = 3,      // the parent entity is gone
};
char const* mountStatusName(MountStatus status);

struct MapDescriptor : Mem::CollectionDescriptor {
   Vor::U32 minSlots = 64;
   // The soft maximum of the slot table; 0 is refused in writer mode.
   Vor::U32 maxSlots = 1024;
   bool fixed = false;
   bool shrink = true;
   // Every access after the parent entity went away ends the process,
   // instead of quietly finding nothing.
   bool assertOnOrphanAccess = false;
   // The table lives on the heap rather than in a file; only meaningful for a
   // process-local table.
   bool heapAllocation = false;
   // Notifications are delivered from the reader's activity loop rather than
   // inline; they must be switched on when the map is initialised.
   bool asynchronous = false;
   // A table that fails validation at attach is fatal instead of re-formatted
   // (on a physical device only).
   bool strictValidation = false;

   static MapDescriptor localWriter(Vor::U32 minSlots = 64, Vor::U32 maxSlots = 1024);
   static MapDescriptor sharedWriter(std::string root = "/var/shmem", Vor::U32 minSlots = 64,
                                     Vor::U32 maxSlots = 1024);
   static MapDescriptor sharedReader(std::string root = "/var/shmem", bool withShadow = false);

   bool operator==(MapDescriptor const&) const = default;
   // "mode:<mode> root:<root> minSlots:<n> maxSlots:<n> flags:<...>"
   std::string toString() const;
};

} // namespace Zaffa
