#pragma once
// Who writes a table, and how its readers reach the writer.
//
// SharedMem::OwnerFile is one small file in the table's root directory. It
// holds the process id of the last writer and the SharedMem::ShocketInfo by
// which readers ask that writer for wake-ups: a socket name and a table
// number. The record carries a checksum; a record that fails it makes the
// writer treat the whole table as lost.
//
// lock() takes an exclusive advisory lock on the file for the span of an
// attach, so that two processes never re-format the same files at once. It
// is released by unlock() or by the end of the process.
//
// Thread safety: none; the writer's thread only.

#include "framework/VorHash.h"

#include <string>

namespace SharedMem {

using Vor::U32;

struct ShocketInfo {
   std::string socketName;   // at most 107 bytes (a Unix socket path)
   U32 tableId = 0;
   bool operator==(ShocketInfo const&) const = default;
   std::string toString() const;
};

class OwnerFile {
 public:
   explicit OwnerFile(std::string path) : path_(std::move(path)) {}
   ~OwnerFile();
   OwnerFile(OwnerFile const&) = delete;
   OwnerFile& operator=(OwnerFile const&) = delete;

   // Opens or creates the file (an empty new file gets a fresh record).
   // Returns false with a message in `error`.
   bool open(std::string& error);
   // Opens an existing file for reading only, as a reader looking for the
   // writer's contact does; never creates it. False with a message in
   // `error` (no file yet, or no access).
   bool openReadOnly(std::string& error);
   // Blocks until the attach lock is ours. REQUIRES: open().
   void lock();
   void unlock();

   // True when the file holds a well-formed record.
   bool validate() const;
   bool validate(std::string& message) const;
   // Raises Jorro::CorruptionDetectedException with the message of validate().
   void validateFile() const;
   std::string headerToString() const;

   ShocketInfo shocketInfo() const;
   // Stores `info` with this process as owner; false on an I/O failure.
   bool shocketInfoIs(ShocketInfo const& info);
   U32 ownerPid() const;

   std::string const& path() const { return path_; }

 private:
   std::string path_;
   int fd_ = -1;
   bool locked_ = false;
};

} // namespace SharedMem
