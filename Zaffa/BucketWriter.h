#pragma once
// The bucket file of a table: the heads of its chains.
//
//   0    magic "ZAFFABKT" (8), fenix U32, format version U32
//   16   version U32 (raised by 1 at each change of numBuckets) and
//        numBuckets U32, always stored together as one 8-byte word
//   24   reserved
//   32   numBuckets heads, each a Link stored as one 8-byte word
//
// numBuckets is a power of two. The file is never made shorter while the
// table lives: a reader whose copy of numBuckets is one step behind may still
// read heads above the current count, so those heads keep their last
// contents until a grow writes them again.
//
// Thread safety: one writer (this class); readers only read.
//
// Invariants:
//   1. numBuckets is a power of two and the file holds at least that many heads.
//   2. A head whose next has bit 31 set is an empty bucket.

#include "Zaffa/platform/Jorro.h"
#include "Zaffa/platform/Mem.h"
#include "Zaffa/SlotTable.h"

#include <cstring>
#include <string>
#include <unistd.h>

namespace ZaffaCore {

using Vor::U32;
using Vor::U64;

constexpr char bucketFileMagic[8] = {'Z', 'A', 'F', 'F', 'A', 'B', 'K', 'T'};
constexpr U32 bucketFileFormat = 1;
constexpr std::size_t bucketHeaderBytes = 32;

struct BucketHeader {
   char magic[8];
   U32 fenix;
   U32 format;
   Mem::VerU32 numBuckets;
   U64 reserved;
};
static_assert(sizeof(BucketHeader) == bucketHeaderBytes);

inline bool isPowerOfTwo(U32 n) { return n != 0 && (n & (n - 1)) == 0; }

// Read access to a mapped bucket file.
template <typename Link>
class BucketView {
 public:
   BucketView() = default;
   explicit BucketView(char* base) : base_(base) {}
   BucketHeader* header() const { return reinterpret_cast<BucketHeader*>(base_); }
   Mem::VerU32 numBuckets() const { return Mem::loadVerU32(&header()->numBuckets); }
   void* head(U32 i) const { return base_ + bucketHeaderBytes + static_cast<std::size_t>(i) * 8; }

   bool validate(std::size_t fileSize, U32 wantedFenix, std::string& message) const {
      if (fileSize < bucketHeaderBytes) {
         message = fmt::format("bucket file size:{} below header", fileSize);
         return false;
      }
      if (std::memcmp(header()->magic, bucketFileMagic, sizeof bucketFileMagic) != 0) {
         message = "bucket file bad magic";
         return false;
      }
      if (header()->format != bucketFileFormat) {
         message = fmt::format("bucket file bad format: {}", header()->format);
         return false;
      }
      if (wantedFenix != 0 && header()->fenix != wantedFenix) {
         message = fmt::format("bucket file bad fenix:{} wanted:{}", header()->fenix, wantedFenix);
         return false;
      }
      U32 n = numBuckets().value;
      if (!isPowerOfTwo(n)) {
         message = fmt::format("bucket file bad numBuckets:{}", n);
         return false;
      }
      if (bucketHeaderBytes + static_cast<std::size_t>(n) * 8 > fileSize) {
         message = fmt::format("bucket file size:{} too small for numBuckets:{}", fileSize, n);
         return false;
      }
      return true;
   }

   std::string headerToString() const {
      Mem::VerU32 n = numBuckets();
      return fmt::format("magic:\"{}\" format:{} fenix:{} version:{} numBuckets:{}",
                         std::string(header()->magic, ::strnlen(header()->magic, 8)),
                         header()->format, header()->fenix, n.version, n.value);
   }
   char* base() const { return base_; }

 private:
   char* base_ = nullptr;
};

template <typename Link>
class BucketWriter {
   static_assert(sizeof(Link) == 8, "a bucket head is one 8-byte word");

 public:
   enum AttachResult { newFile = 1, existingFile = 2, reformatted = 4 };

   // path empty: process-local memory.
   BucketWriter(std::string path, U32 initialBuckets)
       : path_(std::move(path)), initialBuckets_(initialBuckets) {}

   // Opens the bucket file; keeps it when it is of generation `fenix` and
   // sane, otherwise lays it out anew with the initial number of buckets.
   // Raises Jorro::InvalidInitializeException when it cannot be mapped.
   int attach(U32 fenix) {
      detach();
      std::string error;
      auto mode = path_.empty() ? Mem::MappedFile::Mode::anonymous : Mem::MappedFile::Mode::readWrite;
      if (!file_.open(path_, mode, error)) {
         Jorro::throwInvalidInitialize("cannot attach to shmem {} size:{}: {}", path_, 0, error);
      }
      if (file_.size() == 0) {
         format(fenix);
         return newFile;
      }
      std::string message;
      if (view().validate(file_.size(), fenix, message)) return existingFile;
      format(fenix);
      return reformatted;
   }
   void detach() { file_.close(); }
   bool attached() const { return file_.isOpen(); }

   bool validate(U32 fenix, std::string& message) const {
      if (!file_.isOpen()) {
         message = "bucket table detached";
         return false;
      }
      return view().validate(file_.size(), fenix, message);
   }
   void validateFile(U32 fenix) const {
      std::string message;
      if (!validate(fenix, message)) throw Jorro::CorruptionDetectedException(message);
   }

   U32 numBuckets() const { return view().numBuckets().value; }
   void* head(U32 i) const { return view().head(i); }

   // Makes the file hold at least n heads; new heads are empty. Raises
   // Jorro::CorruptionDetectedException when the file cannot grow.
   void reserve(U32 n) {
      std::size_t want = bucketHeaderBytes + static_cast<std::size_t>(n) * 8;
      if (want <= file_.size()) return;
      std::size_t old = file_.size();
      std::string error;
      if (!file_.resize(want, error)) {
         Jorro::throwCorruption("failed to resize {} to {} buckets: {}", path_, n, error);
      }
      for (std::size_t off = old; off < want; off += 8) {
         Zaffa::storeLink(file_.base() + off, Zaffa::SlotLink{0, Zaffa::noSlot});
      }
   }
   // Publishes n as the number of buckets, with the version raised by 1.
   void publish(U32 n) {
      Mem::VerU32 cur = view().numBuckets();
      Mem::storeVerU32(&view().header()->numBuckets, Mem::VerU32{cur.version + 1, n});
   }
   void resize(U32 n) {
      reserve(n);
      publish(n);
   }

   // Removes the file. REQUIRES: detached.
   void cleanup() {
      detach();
      if (!path_.empty()) ::unlink(path_.c_str());
   }

   BucketView<Link> view() const { return BucketView<Link>(file_.base()); }
   std::string const& path() const { return path_; }
   std::size_t fileSize() const { return file_.size(); }

 private:
   void format(U32 fenix) {
      std::string error;
      std::size_t want = bucketHeaderBytes + static_cast<std::size_t>(initialBuckets_) * 8;
      if (!file_.resize(0, error) || !file_.resize(want, error)) {
         Jorro::throwInvalidInitialize("cannot attach to shmem {} size:{}: {}", path_, want, error);
      }
      BucketHeader* h = view().header();
      std::memcpy(h->magic, bucketFileMagic, sizeof bucketFileMagic);
      h->fenix = fenix;
      h->format = bucketFileFormat;
      h->reserved = 0;
      for (U32 i = 0; i < initialBuckets_; ++i) {
         Zaffa::storeLink(head(i), Zaffa::SlotLink{0, Zaffa::noSlot});
      }
      Mem::storeVerU32(&h->numBuckets, Mem::VerU32{0, initialBuckets_});
   }

   std::string path_;
   U32 initialBuckets_;
   Mem::MappedFile file_;
};

} // namespace ZaffaCore
