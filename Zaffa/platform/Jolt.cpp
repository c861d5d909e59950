#include "Zaffa/platform/Jolt.h"

#include "Zaffa/platform/Jorro.h"
#include "Zaffa/platform/Mem.h"
#include "Zaffa/platform/Trevine.h"
#include "framework/VorTrace.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

VOR_TRACE_HANDLE("ZaffaJolt");

namespace Jolt {

namespace {

bool socketAddress(std::string const& path, sockaddr_un& addr) {
   std::memset(&addr, 0, sizeof addr);
   addr.sun_family = AF_UNIX;
   if (path.empty() || path.size() >= sizeof addr.sun_path) return false;
   std::memcpy(addr.sun_path, path.data(), path.size());
   return true;
}

unsigned long inodeOf(std::string const& path) {
   struct stat st;
   return ::stat(path.c_str(), &st) == 0 ? static_cast<unsigned long>(st.st_ino) : 0;
}

// Sends one message without blocking and without SIGPIPE. Returns 0, or the
// errno of the failure.
int sendMessage(int fd, Message const& m) {
   ssize_t n = ::send(fd, &m, sizeof m, MSG_DONTWAIT | MSG_NOSIGNAL);
   if (n == static_cast<ssize_t>(sizeof m)) return 0;
   return n < 0 ? errno : EMSGSIZE;
}

// Reads one message. 1: got one; 0: none waiting; -1: the connection is
// closed or broken (or the peer speaks another protocol).
int receiveMessage(int fd, Message& m) {
   for (;;) {
      ssize_t n = ::recv(fd, &m, sizeof m, MSG_DONTWAIT);
      if (n == static_cast<ssize_t>(sizeof m)) return m.magic == messageMagic ? 1 : -1;
      if (n == 0) return -1;
      if (n > 0) return -1;
      if (errno == EINTR) continue;
      return (errno == EAGAIN || errno == EWOULDBLOCK) ? 0 : -1;
   }
}

Message makeMessage(Message::Type type, U32 tableId, U32 flag, U64 seq, std::string const& name) {
   Message m;
   m.magic = messageMagic;
   m.type = type;
   m.tableId = tableId;
   m.flag = flag;
   m.seq = seq;
   std::size_t const n = std::min(name.size(), sizeof m.name - 1);
   std::memcpy(m.name, name.data(), n);
   return m;
}

} // namespace

// ---------------------------------------------------------------------------
// WriterJoltSm

WriterJoltSm::WriterJoltSm(std::string socketPath, Trevine::TrevineWriterBase& trevine, U32 tableId)
    : socketPath_(std::move(socketPath)), trevine_(trevine), tableId_(tableId) {
   trevine_.appendObserverIs([this] { doNotify(); });
}

WriterJoltSm::~WriterJoltSm() {
   trevine_.appendObserverIs({});
   if (task_) task_->unscheduleTask();
   closeAll();
}

void WriterJoltSm::closeAll() {
   for (auto& c : clients_) ::close(c.fd);
   clients_.clear();
   if (listenFd_ >= 0) {
      // A writer that took our place may already have bound the path anew.
      if (socketInode_ != 0 && inodeOf(socketPath_) == socketInode_) ::unlink(socketPath_.c_str());
      ::close(listenFd_);
      listenFd_ = -1;
   }
   if (epollFd_ >= 0) ::close(epollFd_);
   epollFd_ = -1;
}

void WriterJoltSm::doEnableListen() {
   if (listening()) return;
   sockaddr_un addr;
   if (!socketAddress(socketPath_, addr)) {
      Jorro::throwInvalidInitialize("cannot listen on {}: {}", socketPath_, "path too long or empty");
   }
   auto fail = [this](char const* what) {
      int const e = errno;
      closeAll();
      Jorro::throwInvalidInitialize("cannot listen on {}: {} {}", socketPath_, what, std::strerror(e));
   };
   listenFd_ = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
   if (listenFd_ < 0) fail("socket");
   // Readers' sentries take the socket's appearance at its path as the sign
   // to connect, so it must be listening by then: a connect between bind()
   // and listen() is refused, and nothing would tell the reader to try
   // again. Bind under a private name, listen, then rename into place.
   // The writer lock makes us the only writer, so a socket left at either
   // path belongs to a writer that is gone.
   std::string const bound = socketPath_ + ".new";
   sockaddr_un boundAddr;
   if (!socketAddress(bound, boundAddr)) {
      closeAll();
      Jorro::throwInvalidInitialize("cannot listen on {}: {}", bound, "path too long or empty");
   }
   ::unlink(bound.c_str());
   if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&boundAddr), sizeof boundAddr) != 0) fail("bind");
   if (::listen(listenFd_, 64) != 0) {
      int const e = errno;
      ::unlink(bound.c_str());
      errno = e;
      fail("listen");
   }
   if (::rename(bound.c_str(), socketPath_.c_str()) != 0) {
      int const e = errno;
      ::unlink(bound.c_str());
      errno = e;
      fail("rename");
   }
   socketInode_ = inodeOf(socketPath_);
   epollFd_ = ::epoll_create1(EPOLL_CLOEXEC);
   if (epollFd_ < 0) fail("epoll_create1");
   epoll_event ev{};
   ev.events = EPOLLIN;
   ev.data.fd = listenFd_;
   if (::epoll_ctl(epollFd_, EPOLL_CTL_ADD, listenFd_, &ev) != 0) fail("epoll_ctl");
   DUOLOG(5, "listening on {} tableId:{}", socketPath_, tableId_);
}

void WriterJoltSm::taskSchedulerIs(Vor::Ptr<Dov::TaskScheduler> const& scheduler, Dov::TaskPriority priority) {
   if (task_) task_->unscheduleTask();
   task_ = scheduler ? Vor::Ptr<ServiceTask>(new ServiceTask(scheduler, priority, "joltWriter", [this] { service(); }))
                     : Vor::Ptr<ServiceTask>();
   if (task_ && pending_) task_->scheduleTask();
}

void WriterJoltSm::handleReadable() {
   if (task_) {
      task_->scheduleTask();
   } else {
      service();
   }
}

void WriterJoltSm::doNotify() {
   pending_ = true;
   if (task_ && !task_->taskScheduled()) task_->scheduleTask();
}

U64 WriterJoltSm::writerSeq() const {
   return trevine_.attached() ? Mem::load64(&trevine_.view().header()->writerSeq) : 0;
}

void WriterJoltSm::acceptAll() {
   for (;;) {
      int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (fd < 0) {
         if (errno == EINTR || errno == ECONNABORTED) continue;
         return;
      }
      epoll_event ev{};
      ev.events = EPOLLIN | EPOLLRDHUP;
      ev.data.fd = fd;
      if (::epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &ev) != 0) {
         DUOLOG(3, "cannot watch reader connection: {}", std::strerror(errno));
         ::close(fd);
         continue;
      }
      Client c;
      c.fd = fd;
      clients_.push_back(std::move(c));
      ++counters_.accepted;
   }
}

bool WriterJoltSm::readClient(Client& c) {
   Message m;
   for (;;) {
      int r = receiveMessage(c.fd, m);
      if (r == 0) return true;
      if (r < 0) return false;
      switch (m.type) {
      case Message::hello:
         c.hello = true;
         c.name.assign(m.name, ::strnlen(m.name, sizeof m.name));
         c.acked = m.seq;
         c.outstanding = false;
         DUOLOG(5, "reader {} connected at seq:{}", c.name, m.seq);
         break;
      case Message::ack:
         c.acked = m.seq;
         c.outstanding = false;
         ++counters_.acks;
         break;
      case Message::notifying:
         c.notifying = m.flag != 0;
         // A reader that resumes drains and acknowledges on its own.
         c.outstanding = false;
         DUOLOG(7, "reader {} notifying:{}", c.name, c.notifying);
         break;
      default:
         DUOLOG(3, "reader {} sent unknown message type:{}", c.name, m.type);
         break;
      }
   }
}

void WriterJoltSm::dropClient(std::size_t index) {
   DUOLOG(5, "reader {} disconnected", clients_[index].name);
   ::epoll_ctl(epollFd_, EPOLL_CTL_DEL, clients_[index].fd, nullptr);
   ::close(clients_[index].fd);
   clients_.erase(clients_.begin() + static_cast<std::ptrdiff_t>(index));
   ++counters_.dropped;
}

void WriterJoltSm::service() {
   pending_ = false;
   if (!listening()) return;
   acceptAll();
   for (std::size_t i = clients_.size(); i-- > 0;) {
      if (!readClient(clients_[i])) dropClient(i);
   }
   U64 const seq = writerSeq();
   for (std::size_t i = clients_.size(); i-- > 0;) {
      Client& c = clients_[i];
      if (!c.hello || !c.notifying || c.outstanding || c.acked >= seq) continue;
      int const e = sendMessage(c.fd, makeMessage(Message::wake, tableId_, 0, seq, std::string()));
      if (e == 0) {
         ++counters_.wakeupsSent;
      } else if (e == EAGAIN || e == EWOULDBLOCK) {
         // The socket is full of wake-ups the reader has not read yet.
         ++counters_.wakeupsSkipped;
      } else {
         dropClient(i);
         continue;
      }
      c.outstanding = true;
   }
}

bool WriterJoltSm::clientQuiesced(std::string const& name) const {
   U64 const seq = writerSeq();
   for (auto const& c : clients_) {
      if (c.name == name) return c.hello && c.acked >= seq;
   }
   return false;
}

// ---------------------------------------------------------------------------
// ReaderJoltSm

ReaderJoltSm::ReaderJoltSm(std::string name, Hooks hooks) : name_(std::move(name)), hooks_(std::move(hooks)) {}

ReaderJoltSm::~ReaderJoltSm() {
   if (task_) task_->unscheduleTask();
   close();
}

void ReaderJoltSm::close() {
   if (fd_ >= 0) ::close(fd_);
   fd_ = -1;
}

bool ReaderJoltSm::connect(SharedMem::ShocketInfo const& info) {
   close();
   sockaddr_un addr;
   if (!socketAddress(info.socketName, addr)) {
      DUOLOG(5, "cannot connect to {}: {}", info.socketName, "path too long or empty");
      return false;
   }
   int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
   if (fd < 0) {
      DUOLOG(3, "cannot connect to {}: {}", info.socketName, std::strerror(errno));
      return false;
   }
   int r;
   do {
      r = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
   } while (r != 0 && errno == EINTR);
   if (r != 0) {
      DUOLOG(5, "cannot connect to {}: {}", info.socketName, std::strerror(errno));
      ::close(fd);
      return false;
   }
   fd_ = fd;
   tableId_ = info.tableId;
   U64 const seq = hooks_.lastSeq ? hooks_.lastSeq() : 0;
   if (!send(Message::hello, 0, seq) || (!notifying_ && !send(Message::notifying, 0, 0))) {
      DUOLOG(3, "cannot introduce {} to {}", name_, info.socketName);
      close();
      return false;
   }
   DUOLOG(5, "{} connected to {} tableId:{} seq:{}", name_, info.socketName, tableId_, seq);
   // What was written between our last drain and the writer reading our
   // hello has been announced to nobody.
   due_ = true;
   if (task_) task_->scheduleTask();
   return true;
}

bool ReaderJoltSm::send(Message::Type type, U32 flag, U64 seq) {
   if (fd_ < 0) return false;
   int const e = sendMessage(fd_, makeMessage(type, tableId_, flag, seq, name_));
   // A full socket only delays the writer's reading of a small message: the
   // writer drains its side whenever it runs.
   return e == 0 || e == EAGAIN || e == EWOULDBLOCK;
}

void ReaderJoltSm::taskSchedulerIs(Vor::Ptr<Dov::TaskScheduler> const& scheduler, Dov::TaskPriority priority) {
   if (task_) task_->unscheduleTask();
   task_ = scheduler ? Vor::Ptr<ServiceTask>(new ServiceTask(scheduler, priority, "joltReader", [this] { service(); }))
                     : Vor::Ptr<ServiceTask>();
   if (task_ && due_) task_->scheduleTask();
}

void ReaderJoltSm::handleReadable() {
   if (task_) {
      task_->scheduleTask();
   } else {
      service();
   }
}

void ReaderJoltSm::notifyingIs(bool on) {
   if (on == notifying_) return;
   notifying_ = on;
   DUOLOG(5, "{} notifying:{}", name_, on);
   send(Message::notifying, on ? 1 : 0, 0);
   if (on) {
      due_ = true;
      if (task_) task_->scheduleTask();
   }
}

void ReaderJoltSm::yieldTimeIs(double seconds) {
   DUOLOG(7, "{} yieldTime:{}", name_, seconds);
   yieldTime_ = seconds;
}

void ReaderJoltSm::onDetach() {
   if (fd_ >= 0) DUOLOG(5, "{} detached, closing connection", name_);
   close();
   due_ = false;
}

bool ReaderJoltSm::service() {
   if (fd_ >= 0) {
      Message m;
      for (;;) {
         int const r = receiveMessage(fd_, m);
         if (r == 0) break;
         if (r < 0) {
            DUOLOG(5, "{} writer closed the connection", name_);
            close();
            due_ = false;
            ++counters_.disconnects;
            if (hooks_.disconnected) hooks_.disconnected();
            return false;
         }
         if (m.type == Message::wake) {
            ++counters_.wakeups;
            due_ = true;
         }
      }
   }
   if (!due_ || !notifying_ || !hooks_.drain) return false;
   ++counters_.drains;
   if (!hooks_.drain(yieldTime_)) {
      if (task_) task_->scheduleTask();
      return true;
   }
   due_ = false;
   if (fd_ >= 0 && send(Message::ack, 0, hooks_.lastSeq ? hooks_.lastSeq() : 0)) ++sequencesSent_;
   return false;
}

} // namespace Jolt
