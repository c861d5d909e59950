#pragma once
// The state of a collection backed by a shared-memory table.
//
// Zaffa::ZaffaMap<Key, Value> owns exactly one implementation behind
// Zaffa::ZaffaInterface<Key, Value> and swaps it as the collection changes
// state:
//
//   ZaffaDummy        before init, a reader waiting for its writer, or an
//                     orphan: finds nothing, refuses writes
//   ZaffaStrictDummy  an orphan whose descriptor has assertOnOrphanAccess:
//                     every operation ends the process
//   ZaffaWriterState  the writer of a table, shared (files under
//                     <root>/<name>) or process-local (private memory)
//   ZaffaReaderState  a reader straight on another process's files
//   ZaffaShadowState  a reader with a private copy that reports each
//                     changed key; poll() takes the writer's notifications
//
// A fresh map is a ZaffaDummy. init(descriptor) makes it what the descriptor
// says; createDefaultLocalWriter() gives it a private table without a
// descriptor, which a later init() replaces (the private entries are not
// carried over: a shared table may hold the entries of an earlier life, and
// those win).
//
// Thread safety: one thread, the activity thread of the process. The shared
// files are read without a lock by other processes; see ZaffaWriter.h.
//
// Invariants:
//   1. impl() is never null.
//   2. Once descriptor() is set it never changes (a second init with another
//      descriptor fails and leaves the map as it was).
//   3. After orphanIs() the implementation is a dummy, for good.
//
// Errors, and the state the caller is left in:
//   - init: Jorro::InvalidInitializeException for a bad descriptor, a second
//     init with a different descriptor, or a table that cannot be attached
//     ("failed to initialize collection {}"); the map keeps its previous
//     implementation. Re-initialising an orphan with assertOnOrphanAccess
//     ends the process (assertion).
//   - safeWrite, safeRemove, directWrite, directUpdate, directCommit, lookup,
//     first, next: Jorro::CorruptionDetectedException from the table is
//     caught, recorded by doCorruptionDetected() in the "corruption-detected"
//     marker, and ends the process; the next writer to attach re-formats.
//     Jorro::AssertException passes to the caller for misuse: a write or
//     remove on a dummy ("write to read-only Zaffa table", "remove to
//     read-only Zaffa table"), unbalanced direct mode, an operation on a
//     detached table ("not attached"). Zaffa::TableFullException passes to
//     the caller with the table unchanged.
//   - Any operation on a ZaffaStrictDummy ends the process with
//     "... . If you're seeing this, you're trying to operate on an orphan
//     zaffa entity".

#include "Zaffa/platform/Jolt.h"
#include "Zaffa/MapDescriptor.h"
#include "Zaffa/platform/MemReaderSentry.h"
#include "Zaffa/platform/MemVersionAnchor.h"
#include "Zaffa/ZaffaReader.h"
#include "Zaffa/ZaffaShadow.h"
#include "Zaffa/ZaffaWriter.h"
#include "framework/DovTask.h"
#include "framework/UloAssert.h"

#include <fmt/format.h>

#include <functional>
#include <memory>
#include <unistd.h>
#include <optional>
#include <string>
#include <vector>

namespace Zaffa {

enum class ImplType : U32 { dummy = 0, strictDummy = 1, writer = 2, reader = 3, shadow = 4 };
char const* implTypeName(ImplType type);

// Ends the process: "<name>::<operation>(). If you're seeing this, you're
// trying to operate on an orphan zaffa entity".
[[noreturn]] void orphanAccessFailed(std::string const& name, char const* operation);
// Writes the "corruption-detected" marker of `rootPath` (when it is not
// empty) and ends the process with `message` as the assertion text.
[[noreturn]] void corruptionDetected(std::string const& name, std::string const& rootPath,
                                     std::string const& message);

// The operations every state of a map answers.
template <typename Key, typename Value>
class ZaffaInterface {
 public:
   virtual ~ZaffaInterface() = default;

   // Stores `value` under its key; see ZaffaWriter::write. Null never.
   virtual Value const* write(Value const& value, bool overwrite) = 0;
   // Removes `key`, copying its value into `old`; false when absent.
   virtual bool remove(Key const& key, Value& old) = 0;
   // Copies the value of `key` into `value`; false when absent.
   virtual bool lookup(Key const& key, Value& value) const = 0;
   // The stored value in place, or null; only a writer has one.
   virtual Value const* directLookup(Key const& key) const = 0;
   virtual Value* directWrite(Key const& key) = 0;
   virtual Value* directUpdate(Key const& key) = 0;
   virtual Value const* directCommit() = 0;
   // Walk: first, then next of the last key seen; false at the end.
   virtual bool first(Value& value) const = 0;
   virtual bool next(Key const& key, Value& value) const = 0;

   virtual U32 members() const = 0;
   virtual U32 minSize() const = 0;
   virtual U32 maxSize() const = 0;
   virtual U32 capacity() const = 0;
   virtual ImplType type() const = 0;
   virtual MountStatus mountStatus() const = 0;
   // The number of changes published to readers.
   virtual U64 sequence() const = 0;
   virtual SharedMem::FenixId fenixId() const = 0;
   virtual bool validate() = 0;
   virtual void validateFiles() = 0;
   virtual void cleanup() = 0;
   virtual void detach(bool doCleanup) = 0;
   virtual std::string rootPath() const = 0;
   // The lookups, retries and lookaside reads of a reader (zero for others).
   virtual Reader::Counters readerCounters() const = 0;
   virtual WriterCounters writerCounters() const = 0;
   // Raises Mem::VersionMismatchException when the root directory now holds
   // another generation than the one this state has mapped (or, for a
   // shadow, last copied); Jorro::AssertException when it has none.
   virtual void validateVersionAnchor() const = 0;
   // The generation a cache of this table's values belongs to; not valid()
   // when nothing was ever mapped.
   virtual Mem::CacheVersionAnchor getCacheVersionAnchor() const = 0;
   virtual bool quiesced() const = 0;
   virtual bool connected() const = 0;
   virtual void notifyingIs(bool on) = 0;
   virtual void yieldTimeIs(double seconds) = 0;
};

// Finds nothing and refuses writes. Every call traces
// "{} rootPath:{} event:{}{}": the operation, the root, the event that put
// the dummy in place, and a detail.
template <typename Key, typename Value>
class ZaffaDummy : public ZaffaInterface<Key, Value> {
 public:
   ZaffaDummy(std::string name, std::string rootPath, std::string event, MountStatus status)
       : name_(std::move(name)), root_(std::move(rootPath)), event_(std::move(event)), status_(status) {}

   Value const* write(Value const& value, bool) override {
      trace("write", describe(value));
      throw Jorro::AssertException("write to read-only Zaffa table");
   }
   bool remove(Key const& key, Value&) override {
      trace("remove", describe(key));
      throw Jorro::AssertException("remove to read-only Zaffa table");
   }
   bool lookup(Key const& key, Value&) const override {
      trace("lookup", describe(key));
      return false;
   }
   Value const* directLookup(Key const& key) const override {
      trace("directLookup", describe(key));
      return nullptr;
   }
   Value* directWrite(Key const& key) override {
      trace("directWrite", describe(key));
      throw Jorro::AssertException("write to read-only Zaffa table");
   }
   Value* directUpdate(Key const& key) override {
      trace("directUpdate", describe(key));
      throw Jorro::AssertException("write to read-only Zaffa table");
   }
   Value const* directCommit() override {
      trace("directCommit", "");
      throw Jorro::AssertException("write to read-only Zaffa table");
   }
   bool first(Value&) const override {
      trace("first", "");
      return false;
   }
   bool next(Key const& key, Value&) const override {
      trace("next", describe(key));
      return false;
   }
   U32 members() const override { return traced("members"); }
   U32 minSize() const override { return traced("minSize"); }
   U32 maxSize() const override { return traced("maxSize"); }
   U32 capacity() const override { return traced("capacity"); }
   ImplType type() const override { return ImplType::dummy; }
   MountStatus mountStatus() const override { return status_; }
   U64 sequence() const override { return traced("sequence"); }
   SharedMem::FenixId fenixId() const override { return SharedMem::FenixId{}; }
   bool validate() override {
      trace("validate", "");
      return true;
   }
   void validateFiles() override { trace("validateFiles", ""); }
   void cleanup() override { trace("cleanup", ""); }
   void detach(bool) override { trace("detach", ""); }
   std::string rootPath() const override { return root_; }
   Reader::Counters readerCounters() const override { return Reader::Counters{}; }
   WriterCounters writerCounters() const override { return WriterCounters{}; }
   void validateVersionAnchor() const override {
      trace("validateVersionAnchor", "");
      Mem::VersionAnchor().validate();
   }
   Mem::CacheVersionAnchor getCacheVersionAnchor() const override { return Mem::CacheVersionAnchor{}; }
   bool quiesced() const override { return true; }
   bool connected() const override { return false; }
   void notifyingIs(bool) override {}
   void yieldTimeIs(double) override {}

 private:
   void trace(char const* operation, std::string const& detail) const {
      ZAFFA_LOG(9, "{} rootPath:{} event:{}{}", fmt::format("ZaffaDummy::{} {}", operation, name_), root_,
                event_, detail.empty() ? std::string() : " " + detail);
   }
   U32 traced(char const* operation) const {
      trace(operation, "");
      return 0;
   }

   std::string name_;
   std::string root_;
   std::string event_;
   MountStatus status_;
};

// Stands for an orphan that must not be touched: every operation ends the
// process, naming the collection and the operation.
template <typename Key, typename Value>
class ZaffaStrictDummy : public ZaffaInterface<Key, Value> {
   [[noreturn]] void fail(char const* operation) const { orphanAccessFailed(name_, operation); }

 public:
   explicit ZaffaStrictDummy(std::string name) : name_(std::move(name)) {}

   Value const* write(Value const&, bool) override {
      fail("write");
      return {};   // not reached; the call is dependent, so the compiler cannot tell
   }
   bool remove(Key const&, Value&) override {
      fail("remove");
      return {};   // not reached; the call is dependent, so the compiler cannot tell
   }
   bool lookup(Key const&, Value&) const override {
      fail("lookup");
      return {};   // not reached; the call is dependent, so the compiler cannot tell
   }
   Value const* directLookup(Key const&) const override {
      fail("directLookup");
      return {};   // not reached; the call is dependent, so the compiler cannot tell
   }
   Value* directWrite(Key const&) override {
      fail("directWrite");
      return {};   // not reached; the call is dependent, so the compiler cannot tell
   }
   Value* directUpdate(Key const&) override {
      fail("directUpdate");
      return {};   // not reached; the call is dependent, so the compiler cannot tell
   }
   Value const* directCommit() override {
      fail("directCommit");
      return {};   // not reached; the call is dependent, so the compiler cannot tell
   }
   bool first(Value&) const override {
      fail("first");
      return {};   // not reached; the call is dependent, so the compiler cannot tell
   }
   bool next(Key const&, Value&) const override {
      fail("next");
      return {};   // not reached; the call is dependent, so the compiler cannot tell
   }
   U32 members() const override {
      fail("members");
      return {};   // not reached; the call is dependent, so the compiler cannot tell
   }
   U32 minSize() const override {
      fail("minSize");
      return {};   // not reached; the call is dependent, so the compiler cannot tell
   }
   U32 maxSize() const override {
      fail("maxSize");
      return {};   // not reached; the call is dependent, so the compiler cannot tell
   }
   U32 capacity() const override {
      fail("capacity");
      return {};   // not reached; the call is dependent, so the compiler cannot tell
   }
   ImplType type() const override { return ImplType::strictDummy; }
   MountStatus mountStatus() const override { return MountStatus::orphan; }
   U64 sequence() const override {
      fail("sequence");
      return {};   // not reached; the call is dependent, so the compiler cannot tell
   }
   SharedMem::FenixId fenixId() const override {
      fail("fenixId");
      return {};   // not reached; the call is dependent, so the compiler cannot tell
   }
   bool validate() override {
      fail("validate");
      return {};   // not reached; the call is dependent, so the compiler cannot tell
   }
   void validateFiles() override { fail("validateFiles"); }
   void cleanup() override { fail("cleanup"); }
   // Detaching an orphan is what its owner does on the way out; it has
   // nothing to detach and is no access.
   void detach(bool) override {}
   std::string rootPath() const override { return std::string(); }
   Reader::Counters readerCounters() const override {
      fail("readerCounters");
      return {};   // not reached; the call is dependent, so the compiler cannot tell
   }
   WriterCounters writerCounters() const override {
      fail("writerCounters");
      return {};   // not reached; the call is dependent, so the compiler cannot tell
   }
   void validateVersionAnchor() const override { fail("validateVersionAnchor"); }
   Mem::CacheVersionAnchor getCacheVersionAnchor() const override {
      fail("getCacheVersionAnchor");
      return {};   // not reached; the call is dependent, so the compiler cannot tell
   }
   bool quiesced() const override {
      fail("quiesced");
      return {};   // not reached; the call is dependent, so the compiler cannot tell
   }
   bool connected() const override {
      fail("connected");
      return {};   // not reached; the call is dependent, so the compiler cannot tell
   }
   void notifyingIs(bool) override {}
   void yieldTimeIs(double) override {}

 private:
   std::string name_;
};

// The writer of a table, shared or local, as a state of the map.
template <typename Key, typename Value>
class ZaffaWriterState : public ZaffaInterface<Key, Value> {
 public:
   explicit ZaffaWriterState(WriterConfig config) : config_(config), writer_(std::move(config)) {}

   ~ZaffaWriterState() override { jolt_.reset(); }

   ZaffaWriter<Key, Value>& writer() { return writer_; }
   // The wake-ups of this table's shadows, null for a process-local table.
   Jolt::WriterJoltSm* jolt() const { return jolt_.get(); }
   // Attaches to the files and, for a shared table, listens for shadows at
   // the contact that attach() published in the owner file, serviced by
   // `scheduler`. Raises as ZaffaWriter::attach, and
   // Jorro::InvalidInitializeException when the socket cannot be made; the
   // state is then detached.
   void attach(Vor::Ptr<Dov::TaskScheduler> const& scheduler) {
      jolt_.reset();
      writer_.attach();
      if (writer_.local()) return;
      try {
         jolt_ = std::make_unique<Jolt::WriterJoltSm>(writer_.rootPath().file(FileNames::jolt), writer_.trevine());
         jolt_->taskSchedulerIs(scheduler);
         jolt_->doEnableListen();
      } catch (...) {
         jolt_.reset();
         writer_.detach(false);
         throw;
      }
   }

   Value const* write(Value const& value, bool overwrite) override {
      checkAttached();
      return writer_.write(value, overwrite);
   }
   bool remove(Key const& key, Value& old) override {
      checkAttached();
      return writer_.remove(key, old);
   }
   bool lookup(Key const& key, Value& value) const override {
      checkAttached();
      Value const* v = writer_.lookup(key);
      if (!v) return false;
      value = *v;
      return true;
   }
   Value const* directLookup(Key const& key) const override {
      checkAttached();
      return writer_.lookup(key);
   }
   Value* directWrite(Key const& key) override {
      checkAttached();
      return writer_.directWrite(key);
   }
   Value* directUpdate(Key const& key) override {
      checkAttached();
      return writer_.directUpdate(key);
   }
   Value const* directCommit() override {
      checkAttached();
      return writer_.directCommit();
   }
   bool first(Value& value) const override {
      checkAttached();
      Value const* v = writer_.first();
      if (!v) return false;
      value = *v;
      return true;
   }
   bool next(Key const& key, Value& value) const override {
      checkAttached();
      Value const* v = writer_.next(key);
      if (!v) return false;
      value = *v;
      return true;
   }
   U32 members() const override { return writer_.attached() ? writer_.members() : 0; }
   U32 minSize() const override { return config().fixed ? config().maxSlots : config().minSlots; }
   U32 maxSize() const override { return config().maxSlots; }
   U32 capacity() const override { return writer_.attached() ? writer_.capacity() : 0; }
   ImplType type() const override { return ImplType::writer; }
   MountStatus mountStatus() const override {
      return writer_.attached() ? MountStatus::mounted : MountStatus::unmounted;
   }
   U64 sequence() const override {
      WriterCounters const& c = writer_.counters();
      return c.inserts + c.overwrites + c.removes;
   }
   SharedMem::FenixId fenixId() const override { return writer_.fenixId(); }
   bool validate() override {
      checkAttached();
      return writer_.validate();
   }
   void validateFiles() override {
      checkAttached();
      writer_.validateFiles();
   }
   void cleanup() override {
      // The shadows lose their wake-ups with the files.
      jolt_.reset();
      writer_.cleanup();
   }
   void detach(bool doCleanup) override {
      // Closing the connections first tells each shadow that the writer is
      // gone before the files change under it.
      jolt_.reset();
      writer_.detach(doCleanup);
   }
   std::string rootPath() const override { return writer_.rootPath().dir(); }
   Reader::Counters readerCounters() const override { return Reader::Counters{}; }
   WriterCounters writerCounters() const override { return writer_.counters(); }
   void validateVersionAnchor() const override { anchor().validate(); }
   Mem::CacheVersionAnchor getCacheVersionAnchor() const override { return anchor().cacheVersionAnchor(); }
   bool quiesced() const override {
      return !writer_.attached() || const_cast<ZaffaWriter<Key, Value>&>(writer_).trevine().quiesced();
   }
   // Attached and, for a shared table, listening for shadows.
   bool connected() const override { return writer_.attached() && (writer_.local() || (jolt_ && jolt_->listening())); }
   void notifyingIs(bool) override {}
   void yieldTimeIs(double) override {}

 private:
   WriterConfig const& config() const { return config_; }
   void checkAttached() const {
      if (!writer_.attached()) throw Jorro::AssertException("not attached");
   }
   Mem::VersionAnchor anchor() const {
      return writer_.attached() ? Mem::VersionAnchor(writer_.rootPath().dir(), writer_.fenixId()) : Mem::VersionAnchor();
   }

   WriterConfig const config_;
   ZaffaWriter<Key, Value> writer_;
   // Last: it follows writer_'s queue, and must go before it.
   std::unique_ptr<Jolt::WriterJoltSm> jolt_;
};


// Walks of the reader states keep their place between first() and next().
// A reader straight on the shared files, as a state of the map. Writes are
// refused; a lookup never blocks the writer.
template <typename Key, typename Value>
class ZaffaReaderState : public ZaffaInterface<Key, Value> {
 public:
   explicit ZaffaReaderState(std::string const& rootPath, std::string const& name)
       : reader_(Mem::RootPath(rootPath), name), root_(rootPath) {}

   bool attach(std::string& message) { return reader_.attach(message); }
   ZaffaReader<Key, Value>& reader() { return reader_; }

   Value const* write(Value const&, bool) override { throw Jorro::AssertException("write to read-only Zaffa table"); }
   bool remove(Key const&, Value&) override { throw Jorro::AssertException("remove to read-only Zaffa table"); }
   bool lookup(Key const& key, Value& value) const override {
      checkAttached();
      return reader_.lookup(key, value);
   }
   Value const* directLookup(Key const&) const override { return nullptr; }
   Value* directWrite(Key const&) override { throw Jorro::AssertException("write to read-only Zaffa table"); }
   Value* directUpdate(Key const&) override { throw Jorro::AssertException("write to read-only Zaffa table"); }
   Value const* directCommit() override { throw Jorro::AssertException("write to read-only Zaffa table"); }
   bool first(Value& value) const override {
      checkAttached();
      hint_ = IterHint{};
      return reader_.first(value, hint_);
   }
   bool next(Key const& key, Value& value) const override {
      checkAttached();
      return reader_.next(key, value, hint_);
   }
   U32 members() const override { return reader_.attached() ? reader_.members() : 0; }
   U32 minSize() const override { return 0; }
   U32 maxSize() const override { return capacity(); }
   U32 capacity() const override { return reader_.attached() ? reader_.capacity() : 0; }
   ImplType type() const override { return ImplType::reader; }
   MountStatus mountStatus() const override {
      return reader_.attached() ? MountStatus::mounted : MountStatus::waiting;
   }
   U64 sequence() const override { return reader_.attached() ? reader_.version() : 0; }
   SharedMem::FenixId fenixId() const override { return reader_.fenixId(); }
   bool validate() override { return reader_.attached(); }
   void validateFiles() override { checkAttached(); }
   // A reader never removes the writer's files.
   void cleanup() override {}
   void detach(bool) override { reader_.detach(true); }
   std::string rootPath() const override { return root_; }
   Reader::Counters readerCounters() const override { return reader_.counters(); }
   WriterCounters writerCounters() const override { return WriterCounters{}; }
   void validateVersionAnchor() const override {
      if (!reader_.attached()) Mem::VersionAnchor().validate();
      reader_.validateVersionAnchor();
   }
   Mem::CacheVersionAnchor getCacheVersionAnchor() const override {
      return Mem::CacheVersionAnchor{reader_.attached() ? reader_.fenixId() : SharedMem::FenixId{}};
   }
   bool quiesced() const override { return true; }
   bool connected() const override { return reader_.attached(); }
   void notifyingIs(bool) override {}
   void yieldTimeIs(double) override {}

 private:
   void checkAttached() const {
      if (!reader_.attached()) throw Jorro::AssertException("not attached");
   }

   mutable ZaffaReader<Key, Value> reader_;
   mutable IterHint hint_;
   std::string root_;
};

// A reader with a private copy of the table, as a state of the map. It
// reports every key that changes through the map's callbacks; poll() takes
// the writer's notifications.
template <typename Key, typename Value>
class ZaffaShadowState : public ZaffaInterface<Key, Value> {
 public:
   // The shadow's wake-ups are serviced by `scheduler`'s tasks.
   ZaffaShadowState(std::string const& rootPath, Mem::Notify<Key, Value> notify, std::string const& name,
                    Vor::Ptr<Dov::TaskScheduler> const& scheduler)
       : shadow_(Mem::RootPath(rootPath), std::move(notify), name), root_(rootPath) {
      shadow_.jolt().taskSchedulerIs(scheduler);
   }

   // Attaches and synchronises (see ZaffaShadow::initialize); the copy is
   // then of the generation found, which validateVersionAnchor() checks.
   bool initialize(std::string const& event) {
      if (!shadow_.initialize(event)) return false;
      anchor_ = Mem::VersionAnchor(root_, shadow_.reader().fenixId());
      return true;
   }
   bool poll() { return shadow_.attached() ? shadow_.poll() : true; }
   ZaffaShadow<Key, Value>& shadow() { return shadow_; }

   Value const* write(Value const&, bool) override { throw Jorro::AssertException("write to read-only Zaffa table"); }
   bool remove(Key const&, Value&) override { throw Jorro::AssertException("remove to read-only Zaffa table"); }
   // Answered from the private copy, which outlives a writer's absence.
   bool lookup(Key const& key, Value& value) const override { return shadow_.lookup(key, value); }
   Value const* directLookup(Key const&) const override { return nullptr; }
   Value* directWrite(Key const&) override { throw Jorro::AssertException("write to read-only Zaffa table"); }
   Value* directUpdate(Key const&) override { throw Jorro::AssertException("write to read-only Zaffa table"); }
   Value const* directCommit() override { throw Jorro::AssertException("write to read-only Zaffa table"); }
   bool first(Value& value) const override {
      hint_ = IterHint{};
      return shadow_.first(value, hint_);
   }
   bool next(Key const& key, Value& value) const override { return shadow_.next(key, value, hint_); }
   U32 members() const override { return shadow_.members(); }
   U32 minSize() const override { return 0; }
   U32 maxSize() const override { return capacity(); }
   U32 capacity() const override { return shadow_.capacity(); }
   ImplType type() const override { return ImplType::shadow; }
   MountStatus mountStatus() const override {
      return shadow_.attached() ? MountStatus::mounted : MountStatus::waiting;
   }
   U64 sequence() const override { return shadow_.counters().changes; }
   SharedMem::FenixId fenixId() const override { return shadow_.reader().fenixId(); }
   bool validate() override { return shadow_.attached(); }
   void validateFiles() override {
      if (!shadow_.attached()) throw Jorro::AssertException("not attached");
   }
   void cleanup() override {}
   void detach(bool) override { shadow_.detach(true); }
   std::string rootPath() const override { return root_; }
   Reader::Counters readerCounters() const override { return shadow_.reader().counters(); }
   WriterCounters writerCounters() const override { return WriterCounters{}; }
   // The copy outlives the writer: it is checked against the generation it
   // was last synchronised with, attached or not.
   void validateVersionAnchor() const override { anchor_.validate(); }
   Mem::CacheVersionAnchor getCacheVersionAnchor() const override { return anchor_.cacheVersionAnchor(); }
   bool quiesced() const override { return shadow_.synchronised(); }
   // Attached, and its wake-ups connected to the writer.
   bool connected() const override { return shadow_.attached() && shadow_.connected(); }
   void notifyingIs(bool on) override { shadow_.notifyingIs(on); }
   void yieldTimeIs(double seconds) override { shadow_.yieldTimeIs(seconds); }

 private:
   mutable ZaffaShadow<Key, Value> shadow_;
   mutable IterHint hint_;
   std::string root_;
   Mem::VersionAnchor anchor_;
};

// Looks at a map's descriptors (its sentry's, its wake-up connection's)
// every interval() seconds and hands each readable one to its handler.
//
// The scheduler runs timers and queued tasks but does not wait on
// descriptors, so something has to ask the kernel. A poll(2) that does not
// wait, once per interval, is that something: the handlers only queue the
// component's own task (Jolt, ReaderSentry), which then does the work at
// its priority. Latency is at most one interval; an idle map costs one
// system call per interval. On virtual time the interval is virtual.
//
// Thread safety: the scheduler's thread.
class DescriptorWatchTask : public Dov::TimerTask {
 public:
   struct Watch {
      int fd = -1;
      std::function<void()> readable;
   };
   using Collect = std::function<std::vector<Watch>()>;

   DescriptorWatchTask(Vor::Ptr<Dov::TaskScheduler> const& scheduler, Vor::String name, Collect collect,
                       double interval);
   // Looks now, then every interval until stop().
   void start();
   void stop();
   bool started() const { return started_; }
   double interval() const { return interval_; }
   void intervalIs(double seconds);
   // Readable descriptors handed on so far.
   Vor::U64 readables() const { return readables_; }

 protected:
   void doRun() override;

 private:
   Collect collect_;
   double interval_;
   bool started_ = false;
   Vor::U64 readables_ = 0;
};

template <typename Key, typename Value>
class ZaffaMap {
 public:
   using Interface = ZaffaInterface<Key, Value>;

   // The owner's hooks: a key changed (in the table, by this process or, for
   // a reader, by the writer), the table's mount status changed, the
   // table's readers quiesced.
   struct Callbacks {
      std::function<void(Key const&)> key;
      std::function<void()> mountStatus;
      std::function<void(bool)> quiesced;
   };

   // "ZaffaTemp" is the name of a collection that has no home yet.
   explicit ZaffaMap(std::string name = "ZaffaTemp") : name_(std::move(name)) { installDummy("created"); }
   ~ZaffaMap() {
      stopWatching();
      impl_->detach(false);
   }
   ZaffaMap(ZaffaMap const&) = delete;
   ZaffaMap& operator=(ZaffaMap const&) = delete;

   std::string const& name() const { return name_; }
   // Renames the collection; the files of a table already attached stay
   // where they are.
   void nameIs(std::string name) { name_ = std::move(name); }
   void callbacksIs(Callbacks callbacks) { callbacks_ = std::move(callbacks); }
   std::optional<MapDescriptor> const& descriptor() const { return descriptor_; }
   Interface& impl() const { return *impl_; }
   ImplType type() const { return impl_->type(); }
   bool orphan() const { return orphan_; }
   // The directory of the table's files for this descriptor; empty for a
   // process-local table.
   std::string rootPathFor(MapDescriptor const& d) const {
      return d.mode == MapDescriptor::local ? std::string() : d.root + "/" + name_;
   }

   // The scheduler whose tasks service the map's sentry and wake-ups; the
   // process's (Dov::TaskSchedulerRoot) unless set before init().
   void taskSchedulerIs(Vor::Ptr<Dov::TaskScheduler> scheduler) { scheduler_ = std::move(scheduler); }
   Vor::Ptr<Dov::TaskScheduler> const& taskScheduler() const { return scheduler_; }
   // How often the map looks at its descriptors (see DescriptorWatchTask);
   // 0.05 s by default.
   void watchIntervalIs(double seconds);
   double watchInterval() const { return watchInterval_; }
   // The watch of a reader or shadow on its root; null in other modes.
   Mem::ReaderSentry const* sentry() const { return sentry_.get(); }
   DescriptorWatchTask const* watchTask() const { return watchTask_.ptr(); }

   // ---- life cycle ----

   // Sets the collection up as `descriptor` says. A second call with an
   // equal descriptor does nothing; see the header for the failures.
   void init(MapDescriptor const& descriptor);
   // For a reader whose writer's files appeared: builds the reader and
   // attaches it. Raises Jorro::AssertException ("invoked for a writer") on a
   // writer; on failure ("initialize failed for {}") the dummy stays for the
   // next attempt and false is returned.
   bool attach(std::string const& event);
   // A reader's attempt to attach now, if its descriptor asks for one and
   // the writer's files are there.
   bool tryAttach();
   // A shadow takes the writer's notifications now, reporting changed keys
   // through the callbacks (attaching first if it is not); true when all
   // were taken. Nothing to do in other states.
   bool poll();
   // A private table with default sizes, until init() replaces it.
   void createDefaultLocalWriter(bool debug);
   // Puts the dummy of the map's situation in place: ZaffaStrictDummy for an
   // orphan with assertOnOrphanAccess, otherwise ZaffaDummy.
   void installDummy(std::string const& event = "installDummy");
   // The parent entity is gone: detach and stand as an orphan for good.
   void orphanIs();

   bool validate() { return impl_->validate(); }
   void validateFiles() { impl_->validateFiles(); }
   // Removes the files of a writer's table; nothing for a dummy or reader.
   void cleanup();
   void cleanupAndDetach();
   void detach(bool doCleanup);
   // Detach on behalf of the collection's control: the table goes back to a
   // dummy that can be initialised again.
   void controlDetach();
   MountStatus mountStatus() const { return orphan_ ? MountStatus::orphan : impl_->mountStatus(); }
   // Off: a shadow stops acting on its writer's wake-ups (and asks the
   // writer to stop sending them) and reports no keys; on again: it takes
   // what piled up. Kept across attaches.
   void notifyingIs(bool on) {
      notifying_ = on;
      impl_->notifyingIs(on);
   }
   bool notifying() const { return notifying_; }
   // The longest a shadow's synchronisation may run in one task run; kept
   // across attaches.
   void yieldTimeIs(double seconds) {
      yieldTime_ = seconds;
      impl_->yieldTimeIs(seconds);
   }
   double yieldTime() const { return yieldTime_; }
   // A writer listening for its shadows, a shadow connected to its writer's
   // wake-ups, a reader attached.
   bool connected() const { return impl_->connected(); }
   bool quiesced() const { return impl_->quiesced(); }
   U64 sequence() const { return impl_->sequence(); }
   SharedMem::FenixId fenixId() const { return impl_->fenixId(); }
   U32 capacity() const { return impl_->capacity(); }
   Reader::Counters readerCounters() const { return impl_->readerCounters(); }
   WriterCounters writerCounters() const { return impl_->writerCounters(); }
   // See ZaffaInterface; Mem::VersionMismatchException when the table this
   // map holds has been replaced by another generation.
   void validateVersionAnchor() const { impl_->validateVersionAnchor(); }
   Mem::CacheVersionAnchor getCacheVersionAnchor() const { return impl_->getCacheVersionAnchor(); }

   // ---- operations ----

   Value const* safeWrite(Value const& value, bool overwrite = true) {
      try {
         return impl_->write(value, overwrite);
      } catch (Jorro::CorruptionDetectedException const& e) {
         doCorruptionDetected(e.what());
      }
   }
   bool safeRemove(Key const& key, Value& old) {
      try {
         return impl_->remove(key, old);
      } catch (Jorro::CorruptionDetectedException const& e) {
         doCorruptionDetected(e.what());
      }
   }
   Value* directWrite(Key const& key) {
      try {
         return impl_->directWrite(key);
      } catch (Jorro::CorruptionDetectedException const& e) {
         doCorruptionDetected(e.what());
      }
   }
   Value* directUpdate(Key const& key) {
      try {
         return impl_->directUpdate(key);
      } catch (Jorro::CorruptionDetectedException const& e) {
         doCorruptionDetected(e.what());
      }
   }
   Value const* directCommit() {
      try {
         return impl_->directCommit();
      } catch (Jorro::CorruptionDetectedException const& e) {
         doCorruptionDetected(e.what());
      }
   }
   bool lookup(Key const& key, Value& value) const {
      try {
         return impl_->lookup(key, value);
      } catch (Jorro::CorruptionDetectedException const& e) {
         doCorruptionDetected(e.what());
      }
   }
   bool first(Value& value) const {
      try {
         return impl_->first(value);
      } catch (Jorro::CorruptionDetectedException const& e) {
         doCorruptionDetected(e.what());
      }
   }
   bool next(Key const& key, Value& value) const {
      try {
         return impl_->next(key, value);
      } catch (Jorro::CorruptionDetectedException const& e) {
         doCorruptionDetected(e.what());
      }
   }
   U32 members() const { return impl_->members(); }

   // Records `message` in the table's "corruption-detected" marker (a shared
   // table only) and ends the process with it as the assertion text. The
   // next writer to attach finds the marker and re-formats the table.
   [[noreturn]] void doCorruptionDetected(std::string const& message) const {
      corruptionDetected(name_, impl_->rootPath(), message);
   }

 private:
   void swapIn(std::unique_ptr<Interface> impl) {
      if (impl_) impl_->detach(false);
      impl_ = std::move(impl);
      impl_->notifyingIs(notifying_);
      if (yieldTime_ > 0) impl_->yieldTimeIs(yieldTime_);
      if (callbacks_.mountStatus) callbacks_.mountStatus();
   }
   WriterConfig writerConfig(MapDescriptor const& d) const;
   std::unique_ptr<Interface> buildWriter(MapDescriptor const& d);
   Vor::Ptr<Dov::TaskScheduler> const& scheduler() {
      if (!scheduler_) scheduler_ = Dov::TaskSchedulerRoot::findOrCreateScheduler();
      return scheduler_;
   }
   ZaffaShadowState<Key, Value>* shadowState() const {
      return impl_->type() == ImplType::shadow ? static_cast<ZaffaShadowState<Key, Value>*>(impl_.get()) : nullptr;
   }
   // Starts the sentry of a reader or shadow (which reports a writer that is
   // already there at once) and the watch of the map's descriptors.
   void startWatching();
   void stopWatching();
   std::vector<DescriptorWatchTask::Watch> watches();
   void handleSentry(Mem::ReaderSentry::Event event, SharedMem::FenixId fenix);
   // The writer went away: a reader goes back to waiting behind a dummy; a
   // shadow keeps its copy, detached, for the next attach to compare with.
   void handleWriterGone(std::string const& event);

   std::string name_;
   std::unique_ptr<Interface> impl_;
   std::optional<MapDescriptor> descriptor_;
   Callbacks callbacks_;
   bool orphan_ = false;
   bool notifying_ = true;
   double yieldTime_ = 0;
   double watchInterval_ = 0.05;
   Vor::Ptr<Dov::TaskScheduler> scheduler_;
   std::unique_ptr<Mem::ReaderSentry> sentry_;
   Vor::Ptr<DescriptorWatchTask> watchTask_;
};

// ---------------------------------------------------------------------------
// Implementation

template <typename Key, typename Value>
WriterConfig ZaffaMap<Key, Value>::writerConfig(MapDescriptor const& d) const {
   WriterConfig c;
   c.rootPath = rootPathFor(d);
   c.minSlots = d.fixed ? d.maxSlots : d.minSlots;
   c.maxSlots = d.maxSlots;
   c.fixed = d.fixed;
   c.shrink = d.shrink;
   c.strictValidation = d.strictValidation;
   c.className = "Zaffa::ZaffaMap";
   return c;
}

template <typename Key, typename Value>
std::unique_ptr<ZaffaInterface<Key, Value>> ZaffaMap<Key, Value>::buildWriter(MapDescriptor const& d) {
   WriterConfig const c = writerConfig(d);
   Mem::RootPath const root(c.rootPath);
   std::string const marker = Util::readCorruptionMarker(root);
   if (!marker.empty()) {
      // The last life of this table ended on a corruption found at run time.
      // The validator may not see what the operation saw (a torn chain that
      // was later relinked), so the table is not trusted: removing the slot
      // file makes the files disagree, which re-formats them under the
      // writer lock with a raised generation. A live writer still holds the
      // lock, and then nothing is touched.
      Mem::WriterLock lock(root.file(FileNames::writerLock));
      lock.acquireWriterLock();
      ZAFFA_LOG(1, "{} corruption-detected marker found: {}; re-formatting", c.rootPath, marker);
      ::unlink(root.file(FileNames::slots).c_str());
   }
   auto state = std::make_unique<ZaffaWriterState<Key, Value>>(c);
   state->attach(scheduler());
   return state;
}

template <typename Key, typename Value>
void ZaffaMap<Key, Value>::init(MapDescriptor const& d) {
   if (orphan_ && d.assertOnOrphanAccess) {
      ::Ulo::assertFailed(
         "Re-initializing a collection that has already become an orphan and has assertOnOrphanAccess set",
         __FILE__, __LINE__, __PRETTY_FUNCTION__);
   }
   if (descriptor_) {
      if (*descriptor_ == d) {
         ZAFFA_LOG(5, "name:{} already initialized, new {}", name_, d.toString());
         return;
      }
      Jorro::throwInvalidInitialize("name:{} already initialized, old {}, new {}", name_, descriptor_->toString(),
                                    d.toString());
   }
   if (d.mode != MapDescriptor::local && d.mode != MapDescriptor::writer && d.mode != MapDescriptor::reader &&
       d.mode != MapDescriptor::shadow) {
      Jorro::throwInvalidInitialize("not a valid reader type:{}", static_cast<U32>(d.mode));
   }
   bool const writerMode = d.mode == MapDescriptor::local || d.mode == MapDescriptor::writer;
   if (writerMode && d.maxSlots == 0) {
      Jorro::throwInvalidInitialize("0 is not a valid initialization size for collection {} in writer mode", name_);
   }
   if (d.heapAllocation && d.mode != MapDescriptor::local) {
      Jorro::throwInvalidInitialize("cannot initialize collection {} heap allocation in non-local mode not allowed",
                                    name_);
   }
   if (d.asynchronous && !notifying_) {
      Jorro::throwInvalidInitialize("notifications unexpectedly disabled prior to initialization with asynchronous mode");
   }
   if (writerMode) {
      std::unique_ptr<Interface> writer;
      try {
         writer = buildWriter(d);
      } catch (std::exception const& e) {
         ZAFFA_LOG(1, "failed to initialize collection {}: {}", name_, e.what());
         Jorro::throwInvalidInitialize("failed to initialize collection {}", name_);
      }
      stopWatching();
      descriptor_ = d;
      swapIn(std::move(writer));
      // A shared writer's shadows connect and acknowledge on its socket.
      if (d.mode == MapDescriptor::writer) startWatching();
      return;
   }
   // A reader waits for its writer behind a dummy; the sentry calls attach()
   // when the writer's files appear, at once if they are there.
   stopWatching();
   descriptor_ = d;
   swapIn(std::make_unique<ZaffaDummy<Key, Value>>(name_, rootPathFor(d), "waiting for writer",
                                                  MountStatus::waiting));
   try {
      startWatching();
   } catch (...) {
      // A root that cannot be watched leaves the map initialisable again.
      stopWatching();
      descriptor_.reset();
      installDummy("sentry failed");
      throw;
   }
}

template <typename Key, typename Value>
bool ZaffaMap<Key, Value>::attach(std::string const& event) {
   if (!descriptor_ || impl_->type() == ImplType::writer ||
       descriptor_->mode == MapDescriptor::writer || descriptor_->mode == MapDescriptor::local) {
      throw Jorro::AssertException("invoked for a writer");
   }
   std::string const root = rootPathFor(*descriptor_);
   bool const shadow = descriptor_->mode == MapDescriptor::shadow;
   ZAFFA_LOG(3, "attempting to attach {} as {}", name_, shadow ? "ZaffaShadow" : "ZaffaReader");
   if (shadow) {
      // A shadow that lost its writer keeps its copy: initialising it again
      // reports only what differs.
      auto* present = dynamic_cast<ZaffaShadowState<Key, Value>*>(impl_.get());
      if (present) {
         if (present->initialize(event)) return true;
         ZAFFA_LOG(1, "initialize failed for {}", name_);
         return false;
      }
      Mem::Notify<Key, Value> notify;
      notify.keyChanged = [this](Key const& key) {
         if (callbacks_.key) callbacks_.key(key);
      };
      notify.quiesced = [this](bool quiesced) {
         if (callbacks_.quiesced) callbacks_.quiesced(quiesced);
      };
      notify.mountStatus = [this] {
         if (callbacks_.mountStatus) callbacks_.mountStatus();
      };
      // The shadow has detached itself and stays in place with its copy;
      // the sentry attaches it again when a writer writes the fenix file.
      notify.disconnected = [this] { ZAFFA_LOG(3, "{} writer gone, waiting for it", name_); };
      // In place before it synchronises: the owner, told of each key,
      // looks the key up through this map and must find the shadow's copy.
      swapIn(std::make_unique<ZaffaShadowState<Key, Value>>(root, std::move(notify), name_, scheduler()));
      if (!shadowState()->initialize(event)) {
         ZAFFA_LOG(1, "initialize failed for {}", name_);
         swapIn(std::make_unique<ZaffaDummy<Key, Value>>(name_, root, "initialize failed", MountStatus::waiting));
         return false;
      }
      return true;
   }
   auto state = std::make_unique<ZaffaReaderState<Key, Value>>(root, name_);
   std::string message;
   if (!state->attach(message)) {
      ZAFFA_LOG(1, "initialize failed for {}: {} event:{}", name_, message, event);
      return false;
   }
   swapIn(std::move(state));
   return true;
}

template <typename Key, typename Value>
bool ZaffaMap<Key, Value>::poll() {
   auto* shadow = dynamic_cast<ZaffaShadowState<Key, Value>*>(impl_.get());
   if (!shadow) return true;
   try {
      if (shadow->mountStatus() != MountStatus::mounted) tryAttach();
      return shadow->poll();
   } catch (Jorro::CorruptionDetectedException const& e) {
      doCorruptionDetected(e.what());
   }
}

template <typename Key, typename Value>
bool ZaffaMap<Key, Value>::tryAttach() {
   if (!descriptor_ || orphan_) return false;
   if (descriptor_->mode != MapDescriptor::reader && descriptor_->mode != MapDescriptor::shadow) return false;
   if (impl_->mountStatus() == MountStatus::mounted) return true;
   Mem::RootPath const root(rootPathFor(*descriptor_));
   if (::access(root.file(FileNames::fenix).c_str(), F_OK) != 0) return false;
   return attach("tryAttach");
}

template <typename Key, typename Value>
void ZaffaMap<Key, Value>::createDefaultLocalWriter(bool debug) {
   ZAFFA_LOG(debug ? 1 : 5, "{} creating local ZaffaWriter", name_);
   MapDescriptor d = MapDescriptor::localWriter();
   swapIn(buildWriter(d));
}

template <typename Key, typename Value>
void ZaffaMap<Key, Value>::installDummy(std::string const& event) {
   std::string const root = descriptor_ ? rootPathFor(*descriptor_) : std::string();
   if (orphan_ && descriptor_ && descriptor_->assertOnOrphanAccess) {
      swapIn(std::make_unique<ZaffaStrictDummy<Key, Value>>(name_));
   } else {
      swapIn(std::make_unique<ZaffaDummy<Key, Value>>(name_, root, event,
                                                     orphan_ ? MountStatus::orphan : MountStatus::unmounted));
   }
}

template <typename Key, typename Value>
void ZaffaMap<Key, Value>::orphanIs() {
   orphan_ = true;
   stopWatching();
   installDummy("orphan");
}

template <typename Key, typename Value>
void ZaffaMap<Key, Value>::watchIntervalIs(double seconds) {
   watchInterval_ = seconds;
   if (watchTask_) watchTask_->intervalIs(seconds);
}

template <typename Key, typename Value>
void ZaffaMap<Key, Value>::startWatching() {
   bool const reader = descriptor_ &&
                       (descriptor_->mode == MapDescriptor::reader || descriptor_->mode == MapDescriptor::shadow);
   if (!watchTask_) {
      watchTask_ = Vor::Ptr<DescriptorWatchTask>(new DescriptorWatchTask(
         scheduler(), Vor::String(name_ + " watch"), [this] { return watches(); }, watchInterval_));
   }
   if (reader && !sentry_) {
      sentry_ = std::make_unique<Mem::ReaderSentry>(
         Mem::RootPath(rootPathFor(*descriptor_)),
         [this](Mem::ReaderSentry::Event e, SharedMem::FenixId fenix) { handleSentry(e, fenix); });
      sentry_->taskSchedulerIs(scheduler());
      sentry_->start();
   }
   watchTask_->start();
}

template <typename Key, typename Value>
void ZaffaMap<Key, Value>::stopWatching() {
   if (watchTask_) watchTask_->stop();
   watchTask_ = nullptr;
   sentry_.reset();
}

template <typename Key, typename Value>
std::vector<DescriptorWatchTask::Watch> ZaffaMap<Key, Value>::watches() {
   std::vector<DescriptorWatchTask::Watch> w;
   if (sentry_ && sentry_->fd() >= 0) {
      w.push_back({sentry_->fd(), [this] {
                      if (sentry_) sentry_->handleReadable();
                   }});
   }
   if (auto* shadow = shadowState(); shadow && shadow->shadow().jolt().fd() >= 0) {
      w.push_back({shadow->shadow().jolt().fd(), [this] {
                      if (auto* s = shadowState()) s->shadow().jolt().handleReadable();
                   }});
   }
   if (impl_->type() == ImplType::writer) {
      auto* writer = static_cast<ZaffaWriterState<Key, Value>*>(impl_.get());
      if (writer->jolt() && writer->jolt()->fd() >= 0) {
         w.push_back({writer->jolt()->fd(), [this] {
                         if (impl_->type() != ImplType::writer) return;
                         auto* jolt = static_cast<ZaffaWriterState<Key, Value>*>(impl_.get())->jolt();
                         if (jolt) jolt->handleReadable();
                      }});
      }
   }
   return w;
}

template <typename Key, typename Value>
void ZaffaMap<Key, Value>::handleSentry(Mem::ReaderSentry::Event event, SharedMem::FenixId fenix) {
   if (orphan_ || !descriptor_) return;
   std::string const what = Mem::ReaderSentry::toString(event);
   ZAFFA_LOG(5, "{} sentry {} fenixId:{}", name_, what, fenix.toString());
   switch (event) {
   case Mem::ReaderSentry::Event::writerAppeared:
      // A writer that (re)attached, maybe to a new generation: attach again;
      // a shadow reports exactly the keys that differ from its copy.
      try {
         attach(what);
      } catch (Jorro::CorruptionDetectedException const& e) {
         doCorruptionDetected(e.what());
      }
      return;
   case Mem::ReaderSentry::Event::writerGone:
      handleWriterGone(what);
      return;
   case Mem::ReaderSentry::Event::contactAppeared:
      // The writer listens now; a shadow that attached before it did
      // connects its wake-ups and takes what it missed meanwhile.
      if (auto* shadow = shadowState(); shadow && shadow->mountStatus() == MountStatus::mounted) {
         shadow->shadow().connectJolt();
      }
      return;
   }
}

template <typename Key, typename Value>
void ZaffaMap<Key, Value>::handleWriterGone(std::string const& event) {
   if (auto* shadow = shadowState()) {
      if (shadow->mountStatus() == MountStatus::mounted) shadow->shadow().handleDisconnect();
      return;
   }
   if (impl_->type() == ImplType::reader) {
      swapIn(std::make_unique<ZaffaDummy<Key, Value>>(name_, rootPathFor(*descriptor_), event, MountStatus::waiting));
   }
}

template <typename Key, typename Value>
void ZaffaMap<Key, Value>::cleanup() {
   if (!descriptor_ && impl_->type() == ImplType::dummy) {
      ZAFFA_LOG(3, "{} trying to cleanup uninitialized zaffa.", name_);
      return;
   }
   impl_->cleanup();
}

template <typename Key, typename Value>
void ZaffaMap<Key, Value>::cleanupAndDetach() {
   cleanup();
   detach(false);
}

template <typename Key, typename Value>
void ZaffaMap<Key, Value>::detach(bool doCleanup) {
   impl_->detach(doCleanup);
}

template <typename Key, typename Value>
void ZaffaMap<Key, Value>::controlDetach() {
   stopWatching();
   impl_->detach(false);
   descriptor_.reset();
   installDummy("controlDetach");
}

} // namespace Zaffa
