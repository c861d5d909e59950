#pragma once
// The generation of a table's file set.
//
// A SharedMem::FenixId names one life of a table: the writer's process id in
// the low 16 bits and a generation counter in the high 16 bits. Every file of
// one generation carries the same id; a file with another id belongs to an
// earlier life and is re-formatted at attach. A wanted id of 0 matches any.
//
// SharedMem::FenixFile keeps the id of the current generation in the table's
// root directory, so that a restarted writer knows which generation its files
// should have. It is replaced whole (write to a temporary, rename), so a
// crash leaves either the old id or the new one.
//
// Thread safety: none; the writer's thread only.

#include "framework/VorHash.h"

#include <ctime>
#include <optional>
#include <string>

namespace SharedMem {

using Vor::U32;

struct FenixId {
   U32 value = 0;

   static FenixId of(U32 pid, U32 generation) {
      return FenixId{(pid & 0xFFFFu) | ((generation & 0xFFFFu) << 16)};
   }
   U32 pid() const { return value & 0xFFFFu; }
   U32 generation() const { return value >> 16; }
   // The same pid half with the generation raised by one.
   FenixId nextGeneration() const { return of(pid(), generation() + 1); }
   bool matches(FenixId wanted) const { return wanted.value == 0 || wanted.value == value; }
   bool operator==(FenixId const&) const = default;
   std::string toString() const;
};

// A new id for this process: its pid and a per-process counter.
FenixId newFenixId();

class FenixFile {
 public:
   explicit FenixFile(std::string path) : path_(std::move(path)) {}
   std::string const& path() const { return path_; }

   // The stored id; nullopt when the file is missing or not a fenix file.
   std::optional<FenixId> read() const;
   // Stores `id`; false on an I/O failure.
   bool write(FenixId id) const;
   // True when the file holds exactly `id`.
   bool validate(FenixId id) const;
   // Modification time, 0 when missing.
   std::time_t mtime() const;

 private:
   std::string path_;
};

} // namespace SharedMem
