#pragma once
// Memory-mapping wrappers of the shared-memory table.
//
// Mem::MappedFile maps one file of a table (or, for a process-local table,
// anonymous memory) into a fixed reservation of address space. The mapping
// is made once, at its largest possible size, and never moves: growing the
// table only extends the file underneath. A pointer into the mapping, or an
// offset from its base, therefore stays valid for the whole life of the
// mapping, in the writer and in every reader. Pages beyond the end of the
// file are mapped but must not be touched (SIGBUS); callers keep their
// accesses below the size that they last stored in the file's header.
//
// Thread safety: a MappedFile belongs to one thread. The memory it maps is
// shared; the table's own protocol (single 8-byte stores, sequence words)
// governs it.
//
// Invariants:
//   1. base() is constant between open() and close().
//   2. size() <= reservation() == Local::maxMappingSize().
//   3. A read-only mapping never changes the file.

#include "framework/VorHash.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace Mem {

using Vor::U16;
using Vor::U32;
using Vor::U64;

// The directory that holds the files of one table.
class RootPath {
 public:
   RootPath() = default;
   explicit RootPath(std::string dir) : dir_(std::move(dir)) {}
   std::string const& dir() const { return dir_; }
   std::string file(std::string const& name) const { return dir_ + "/" + name; }
   bool empty() const { return dir_.empty(); }
   // Creates the directory and its parents; false with errno text in `error`.
   bool create(std::string& error) const;

 private:
   std::string dir_;
};

namespace Local {
// The largest mapping of one table file, and so the largest file.
std::size_t maxMappingSize();
} // namespace Local

// size = headerBytes + n * slotBytes, or nullopt on overflow or beyond
// Local::maxMappingSize().
std::optional<std::size_t> fileSizeHelper(U64 n, U64 slotBytes, U64 headerBytes);

class MappedFile {
 public:
   enum class Mode { readWrite, readOnly, anonymous };
   MappedFile() = default;
   ~MappedFile() { close(); }
   MappedFile(MappedFile const&) = delete;
   MappedFile& operator=(MappedFile const&) = delete;

   // Opens (and with readWrite creates) `path` and maps it. The file keeps its
   // size. Returns false with a message in `error`.
   bool open(std::string const& path, Mode mode, std::string& error);
   void close();

   // Whether a growth provides the memory it adds at once, or leaves it to
   // the caller's provide() before first use.
   enum class Provision { all, onDemand };
   // Sets the length of the file (anonymous: only the recorded size). Returns
   // false with a message in `error` and leaves the size unchanged. With
   // Provision::all, memory that a growth adds is allocated and mapped here,
   // in one call, so that a full file system is a failed resize and not a
   // SIGBUS at the first store, and the first stores into it take no page
   // faults.
   bool resize(std::size_t bytes, std::string& error, Provision provision = Provision::all);
   // Allocates and maps [from, to) of the file, as a growth with
   // Provision::all does: false with a message in `error` when the file
   // system cannot back it. Memory must be provided before it is stored to.
   bool provide(std::size_t from, std::size_t to, std::string& error);
   // After a resize that grew the mapping: the offset from which its content
   // is known to read as zeros (never written since the file was extended).
   // Equal to size() when nothing is known to be zero.
   std::size_t zeroFrom() const { return zeroFrom_; }
   // Gives back the memory of [offset, offset+length) without changing the
   // size: later reads there see zeros. For the parts of a shrunk table that a
   // lagging reader may still touch.
   void discard(std::size_t offset, std::size_t length);
   // Re-reads the size of the file (a reader following a writer).
   std::size_t refreshSize();

   bool isOpen() const { return base_ != nullptr; }
   char* base() const { return base_; }
   std::size_t size() const { return size_; }
   std::string const& path() const { return path_; }
   Mode mode() const { return mode_; }

 private:
   // Allocates and maps [from, to) of the mapping. False with errno text in
   // `error`; `unsupported` when this kernel cannot do it in one call.
   bool populate(std::size_t from, std::size_t to, bool& unsupported, std::string& error);

   char* base_ = nullptr;
   std::size_t size_ = 0;
   std::size_t zeroFrom_ = 0;
   // Anonymous mappings: the largest size ever set. Beyond it the memory
   // was never touched, so it reads as zeros.
   std::size_t highWater_ = 0;
   int fd_ = -1;
   Mode mode_ = Mode::readWrite;
   std::string path_;
};

// A U32 with a version, stored together in one 8-byte word, so that a reader
// that sees a new value also sees that the version changed.
struct VerU32 {
   U32 version;
   U32 value;
};
static_assert(sizeof(VerU32) == 8);

inline U64 packVerU32(U32 version, U32 value) {
   return static_cast<U64>(version) | (static_cast<U64>(value) << 32);
}

// Single 8-byte loads and stores on shared memory. `where` must be 8-byte
// aligned. Release on store: everything written before it is visible to a
// reader that acquires the word.
inline U64 load64(void const* where) {
   return std::atomic_ref<U64>(*static_cast<U64*>(const_cast<void*>(where)))
      .load(std::memory_order_acquire);
}
inline void store64(void* where, U64 value) {
   std::atomic_ref<U64>(*static_cast<U64*>(where)).store(value, std::memory_order_release);
}
inline U32 load32(void const* where) {
   return std::atomic_ref<U32>(*static_cast<U32*>(const_cast<void*>(where)))
      .load(std::memory_order_acquire);
}
inline void store32(void* where, U32 value) {
   std::atomic_ref<U32>(*static_cast<U32*>(where)).store(value, std::memory_order_release);
}

inline VerU32 loadVerU32(void const* where) {
   U64 w = load64(where);
   return VerU32{static_cast<U32>(w), static_cast<U32>(w >> 32)};
}
inline void storeVerU32(void* where, VerU32 v) { store64(where, packVerU32(v.version, v.value)); }

namespace Atomics {
// Raises Jorro::InvalidInitializeException "Hardware does not support Atomics"
// when aligned 8-byte loads and stores are not single-copy atomic here.
void checkCpuSupport();
} // namespace Atomics

} // namespace Mem
