#pragma once
// Wake-ups from a table's writer to its shadows.
//
// A shadow learns what changed from the notification queue, but it has to be
// told when to look. Jolt::WriterJoltSm listens on a Unix-domain
// SOCK_SEQPACKET socket whose path the writer publishes in the owner file
// (SharedMem::ShocketInfo); each Jolt::ReaderJoltSm connects to it. The
// connection does three jobs:
//
//   1. Wake-ups. After the writer appends to the queue it calls doNotify(),
//      which only marks the queue as ahead and schedules the service task;
//      the task (or the owner's loop) calls service(), which sends one
//      message to each reader that is behind and has no wake-up outstanding.
//      A batch of writes therefore costs one wake-up per reader, not one per
//      write, and the writer never blocks on a slow reader (sends are
//      non-blocking; a full socket means a wake-up is already waiting).
//   2. Acknowledgement. A reader that has drained the queue answers with
//      the sequence it reached; that clears its outstanding wake-up, and if
//      the writer has gone further meanwhile, the next service() wakes it
//      again. So a change is never left unannounced: every record after a
//      reader's acknowledged sequence is followed by a wake-up.
//   3. Liveness. The kernel closes the connection when the writer's process
//      ends, however it ends; the reader sees end-of-stream, counts as not
//      connected(), and calls its disconnected hook (the shadow's
//      handleDisconnect). The writer drops a reader whose connection closed.
//
// Neither side ever blocks or sleeps: both expose a file descriptor for the
// agent's event loop (readable when service() has something to do) and a
// non-blocking service() step. With a Dov::TaskScheduler given, each side
// keeps a Dov::Task that runs service(); the loop only has to call
// handleReadable() when the descriptor is readable.
//
// Thread safety: each object belongs to one thread (the activity thread of
// its process). Writer and readers are normally in different processes;
// nothing but the socket is shared.
//
// Invariants:
//   1. A reader has at most one wake-up outstanding at the writer's side.
//   2. After service() returns, every connected, notifying reader whose
//      acknowledged sequence is below the queue's writerSeq has a wake-up
//      outstanding (unless its socket is full, in which case one is queued).
//   3. The socket path is unlinked only by the WriterJoltSm that bound it,
//      and only while the path still names that socket.

#include "framework/DovTask.h"
#include "framework/VorHash.h"
#include "Zaffa/platform/SharedMemOwnerFile.h"

#include <functional>
#include <string>
#include <vector>

namespace Trevine {
class TrevineWriterBase;
}

namespace Jolt {

using Vor::U32;
using Vor::U64;

// One message on the connection, either way. SOCK_SEQPACKET keeps message
// boundaries, so a message is read whole or not at all.
struct Message {
   enum Type : U32 { hello = 1, ack = 2, notifying = 3, wake = 4 };
   U32 magic = 0;
   U32 type = 0;
   U32 tableId = 0;
   U32 flag = 0;    // notifying: 1 on, 0 off
   U64 seq = 0;     // hello, ack: the reader's sequence; wake: the writer's
   char name[48] = {};
};
static_assert(sizeof(Message) == 72);
constexpr U32 messageMagic = 0x544c4f4au;   // "JOLT"

// A Dov::Task that calls a function when it runs.
class ServiceTask : public Dov::Task {
 public:
   ServiceTask(Vor::Ptr<Dov::TaskScheduler> const& scheduler, Dov::TaskPriority priority, Vor::String name,
               std::function<void()> fn)
       : Dov::Task(scheduler, priority, std::move(name)), fn_(std::move(fn)) {}

 protected:
   void doRun() override { fn_(); }

 private:
   std::function<void()> fn_;
};

class WriterJoltSm {
 public:
   struct Counters {
      U64 wakeupsSent = 0;
      U64 wakeupsSkipped = 0;   // reader's socket full: a wake-up was already queued
      U64 acks = 0;
      U64 accepted = 0;
      U64 dropped = 0;          // readers whose connection closed
   };

   // `socketPath` is where readers connect (at most 107 bytes); `trevine` is
   // the writer's queue, whose appends this object follows from now on and
   // whose writerSeq it announces. `tableId` tells tables apart that share
   // a contact. REQUIRES: `trevine` outlives this object.
   WriterJoltSm(std::string socketPath, Trevine::TrevineWriterBase& trevine, U32 tableId = 0);
   // Stops following the queue, closes every connection, and unlinks the
   // socket path if it still names our socket.
   ~WriterJoltSm();
   WriterJoltSm(WriterJoltSm const&) = delete;
   WriterJoltSm& operator=(WriterJoltSm const&) = delete;

   U32 tableId() const { return tableId_; }
   // What the writer puts in its owner file for readers.
   SharedMem::ShocketInfo shocketInfo() const { return SharedMem::ShocketInfo{socketPath_, tableId_}; }

   // Binds the socket (replacing a stale one left by a dead writer) and
   // listens. Raises Jorro::InvalidInitializeException when the socket
   // cannot be made ("cannot listen on {}: {}"); nothing is left half made.
   void doEnableListen();
   bool listening() const { return listenFd_ >= 0; }

   // Readable when a reader connects, speaks or goes. -1 before listening.
   int fd() const { return epollFd_; }
   // Runs service() through the task from now on (see the class comment).
   void taskSchedulerIs(Vor::Ptr<Dov::TaskScheduler> const& scheduler, Dov::TaskPriority priority = 2);
   // The loop saw fd() readable: schedules the task, or without one runs
   // service() at once.
   void handleReadable();

   // The queue was appended to. Cheap: no system call; called from the
   // queue on every append. Schedules the task when there is one.
   void doNotify();
   // Accepts readers, reads their messages, drops closed connections, and
   // sends the wake-ups that are due. Never blocks.
   void service();

   std::size_t readers() const { return clients_.size(); }
   // True when reader `name` is connected and has acknowledged everything
   // the queue holds now.
   bool clientQuiesced(std::string const& name) const;
   Counters const& counters() const { return counters_; }

 private:
   struct Client {
      int fd = -1;
      std::string name;
      U64 acked = 0;
      bool hello = false;
      bool outstanding = false;
      bool notifying = true;
   };
   U64 writerSeq() const;
   void acceptAll();
   // Reads what `c` sent; false when its connection closed.
   bool readClient(Client& c);
   void dropClient(std::size_t index);
   void closeAll();

   std::string socketPath_;
   Trevine::TrevineWriterBase& trevine_;
   U32 tableId_;
   int listenFd_ = -1;
   int epollFd_ = -1;
   unsigned long socketInode_ = 0;
   std::vector<Client> clients_;
   bool pending_ = false;
   Vor::Ptr<ServiceTask> task_;
   Counters counters_;
};

class ReaderJoltSm {
 public:
   // What a reader does when it is woken; normally a ZaffaShadow's.
   struct Hooks {
      // Takes queued records for at most `yieldTime` seconds (0: no limit);
      // true when the queue is drained.
      std::function<bool(double yieldTime)> drain;
      // The queue sequence the reader has reached.
      std::function<U64()> lastSeq;
      // The writer closed the connection (its process ended, or it
      // detached).
      std::function<void()> disconnected;
   };
   struct Counters {
      U64 wakeups = 0;
      U64 drains = 0;
      U64 disconnects = 0;
   };

   ReaderJoltSm(std::string name, Hooks hooks);
   ~ReaderJoltSm();
   ReaderJoltSm(ReaderJoltSm const&) = delete;
   ReaderJoltSm& operator=(ReaderJoltSm const&) = delete;

   // Connects to the writer at `info` and introduces itself with its
   // current sequence; a drain is due at the next service(), to take what
   // was written before the writer knew of us. False, not connected, when
   // no writer listens there (traced "cannot connect to {}: {}"). An
   // existing connection is closed first.
   bool connect(SharedMem::ShocketInfo const& info);
   bool connected() const { return fd_ >= 0; }
   // The connection's descriptor, readable when the writer woke us or went
   // away; -1 when not connected.
   int fd() const { return fd_; }
   void taskSchedulerIs(Vor::Ptr<Dov::TaskScheduler> const& scheduler, Dov::TaskPriority priority = 2);
   void handleReadable();

   // Off: wake-ups are not acted on, and the writer is asked to stop sending
   // them. On again: a drain is due at once, for what piled up.
   void notifyingIs(bool on);
   bool notifying() const { return notifying_; }
   // The longest one drain may run before service() gives way.
   void yieldTimeIs(double seconds);
   double yieldTime() const { return yieldTime_; }

   // The reader detached from the table: closes the connection without
   // calling the disconnected hook.
   void onDetach();

   // Reads the writer's messages; on a wake-up (or one still due) and while
   // notifying, drains and acknowledges. Never blocks. Returns true when a
   // drain was cut short by the yield time and service() should run again;
   // with a task, it has rescheduled itself.
   bool service();

   // Acknowledgements sent to the writer, each carrying a sequence.
   U64 sequencesSent() const { return sequencesSent_; }
   Counters const& counters() const { return counters_; }
   std::string const& name() const { return name_; }

 private:
   bool send(Message::Type type, U32 flag, U64 seq);
   void close();

   std::string name_;
   Hooks hooks_;
   int fd_ = -1;
   U32 tableId_ = 0;
   bool notifying_ = true;
   bool due_ = false;
   double yieldTime_ = 0;
   U64 sequencesSent_ = 0;
   Vor::Ptr<ServiceTask> task_;
   Counters counters_;
};

} // namespace Jolt
