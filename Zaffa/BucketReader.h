#pragma once
// The reader's side of the bucket file: a read-only mapping of the heads of
// the chains, and a local copy of numBuckets with its version.
//
// The writer publishes numBuckets and its version in one 8-byte store
// (BucketWriter::publish), after the heads that the new count needs are
// written (grow) or before the chains it no longer needs are left (shrink),
// see WriterHashMap.h. A reader works with its local copy, which may be one
// step behind the writer's; it must compare versions after a walk that found
// nothing (version()/current()) and call doResize() to catch up.
//
// The file is never made shorter while the table lives, so every head below
// the largest numBuckets this reader has seen stays readable.
//
// Thread safety: one thread.
//
// Invariants:
//   1. numBuckets() is a power of two that the writer published at some
//      moment, and the file was long enough for it then.

#include "Zaffa/BucketWriter.h"
#include "Zaffa/platform/Mem.h"

#include <string>

namespace ZaffaCore {

template <typename Link>
class BucketReader {
   static_assert(sizeof(Link) == 8, "a bucket head is one 8-byte word");

 public:
   BucketReader() = default;
   BucketReader(BucketReader const&) = delete;
   BucketReader& operator=(BucketReader const&) = delete;

   // Maps `path` read-only. False with a message when it cannot be mapped.
   bool attach(std::string const& path, std::string& message) {
      detach();
      std::string error;
      if (!file_.open(path, Mem::MappedFile::Mode::readOnly, error)) {
         message = fmt::format("cannot attach to shmem {} size:{}: {}", path, 0, error);
         return false;
      }
      if (file_.size() < bucketHeaderBytes) {
         message = fmt::format("bucket file size:{} below header", file_.size());
         detach();
         return false;
      }
      Mem::VerU32 n = view().numBuckets();
      numBuckets_ = n.value;
      version_ = n.version;
      return true;
   }
   void detach() {
      file_.close();
      numBuckets_ = 0;
      version_ = 0;
   }
   bool attached() const { return file_.isOpen(); }

   // Checks the file against generation `fenix` (0: any) and its size now.
   // The size is read before numBuckets: a writer that grows the table in
   // between (it extends the file before it publishes the larger count)
   // makes the file look too short, so a fault is only trusted once the
   // size has stopped changing.
   bool validate(U32 fenix, std::string& message) {
      if (!attached()) {
         message = "bucket table detached";
         return false;
      }
      for (std::size_t size = file_.refreshSize();; ) {
         if (view().validate(size, fenix, message)) return true;
         std::size_t const now = file_.refreshSize();
         if (now == size) return false;
         size = now;
      }
   }

   // Takes the writer's current numBuckets. True when it changed. Raises
   // Jorro::CorruptionDetectedException when the published count is not a
   // power of two.
   bool doResize() {
      Mem::VerU32 n = view().numBuckets();
      if (n.version == version_ && n.value == numBuckets_) return false;
      if (!isPowerOfTwo(n.value)) Jorro::throwCorruption("bucket file bad numBuckets:{}", n.value);
      numBuckets_ = n.value;
      version_ = n.version;
      return true;
   }
   // True when the writer has published another count since doResize().
   bool stale() const { return view().numBuckets().version != version_; }

   // The head of bucket i, one 8-byte acquire load. Raises
   // Jorro::CorruptionDetectedException "out-of-range, index:{} max:{}" for
   // an index at or beyond the local count.
   Link head(U32 i) const {
      if (i >= numBuckets_) Jorro::throwCorruption("out-of-range, index:{} max:{}", i, numBuckets_);
      U64 w = Mem::load64(view().head(i));
      Link l;
      static_assert(std::is_trivially_copyable_v<Link>);
      std::memcpy(&l, &w, sizeof l);
      return l;
   }
   void const* headAddress(U32 i) const { return view().head(i); }

   U32 numBuckets() const { return numBuckets_; }
   U32 version() const { return version_; }
   BucketView<Link> view() const { return BucketView<Link>(file_.base()); }
   std::string const& path() const { return file_.path(); }

 private:
   Mem::MappedFile file_;
   U32 numBuckets_ = 0;
   U32 version_ = 0;
};

} // namespace ZaffaCore
