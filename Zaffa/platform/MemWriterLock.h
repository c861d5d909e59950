#pragma once
// The lock that keeps a table to one writer.
//
// Mem::WriterLock holds an exclusive advisory lock on a lock file in the
// table's root directory for as long as the writer lives, and records the
// holder's process id in it. The kernel drops the lock when the holder dies,
// however it dies, so a restarted writer gets in; while the holder lives, a
// second writer (in another process or in the same one) is refused.
//
// Thread safety: none; the writer's thread only.

#include "framework/VorHash.h"

#include <string>

namespace Mem {

class WriterLock {
 public:
   explicit WriterLock(std::string path) : path_(std::move(path)) {}
   ~WriterLock() { release(); }
   WriterLock(WriterLock const&) = delete;
   WriterLock& operator=(WriterLock const&) = delete;

   // Takes the lock. Raises Jorro::InvalidInitializeException when another
   // live writer holds it ("table {} already has a live writer, pid {}") or
   // the lock file cannot be opened.
   void acquireWriterLock();
   void release();

   // The process id recorded by the last holder; 0 if none.
   Vor::U32 ownerPid() const;
   // True when the last recorded holder is a running process.
   bool ownerIsAlive() const;
   bool ownerIsMe() const;
   // The process holding the lock now, as the kernel's lock table has it;
   // 0 when nobody holds it. Unlike ownerIsAlive() it cannot be fooled by a
   // reused process id, and unlike a trial lock it never makes a writer that
   // starts at the same moment fail. Also 0 when the lock table cannot be
   // read (no /proc).
   Vor::U32 holderPid() const;
   bool held() const { return fd_ >= 0; }

 private:
   std::string path_;
   int fd_ = -1;
};

} // namespace Mem
