#pragma once
// Proof of which generation of a table a mapping belongs to.
//
// A table's root directory holds one generation at a time, named by the id in
// its fenix file. A writer that re-formats the files (after a failed
// validation, or a corruption marker) raises the generation; a process that
// still has the old files mapped reads a table that no longer exists.
//
// Mem::VersionAnchor is what a mapping records when it attaches: the root and
// the fenix id it found. validate() compares it with the fenix file now.
//
// Mem::CacheVersionAnchor is the part of an anchor that a cache keeps beside
// what it copied out of a table (ZaffaMap::getCacheVersionAnchor()): when
// the map's anchor later differs, everything cached under the old one
// belongs to a table that is gone and must be rebuilt.
//
// Thread safety: plain values; validate() only reads a file.
//
// Invariants:
//   1. A default-constructed anchor names no generation (fenixId 0); no
//      attached mapping ever has one, since a written fenix id is never 0.

#include "Zaffa/platform/SharedMemFenixFile.h"

#include <string>

namespace Mem {

struct CacheVersionAnchor {
   SharedMem::FenixId fenixId;

   bool valid() const { return fenixId.value != 0; }
   bool operator==(CacheVersionAnchor const&) const = default;
   // "CacheVersionAnchor{ fenixId <id> }"
   std::string toString() const;
};

class VersionAnchor {
 public:
   VersionAnchor() = default;
   // `root` is the table's directory; empty for a process-local table, which
   // has no files that another process could re-format.
   VersionAnchor(std::string root, SharedMem::FenixId fenixId) : root_(std::move(root)), fenixId_(fenixId) {}

   bool valid() const { return fenixId_.value != 0; }
   SharedMem::FenixId fenixId() const { return fenixId_; }
   std::string const& rootPath() const { return root_; }
   CacheVersionAnchor cacheVersionAnchor() const { return CacheVersionAnchor{fenixId_}; }

   // Raises Mem::VersionMismatchException when the fenix file of the root
   // holds another generation, or none (the files were removed). Raises
   // Jorro::AssertException ("should not be called on a default-constructed
   // VersionAnchor") on an anchor that names no generation. Nothing changes
   // either way.
   void validate() const;

 private:
   std::string root_;
   SharedMem::FenixId fenixId_;
};

} // namespace Mem
