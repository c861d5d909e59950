#include "Zaffa/ZaffaMap.h"

#include <poll.h>

namespace Zaffa {

char const* implTypeName(ImplType type) {
   switch (type) {
      case ImplType::dummy: return "ZaffaDummy";
      case ImplType::strictDummy: return "ZaffaStrictDummy";
      case ImplType::writer: return "ZaffaWriter";
      case ImplType::reader: return "ZaffaReader";
      case ImplType::shadow: return "ZaffaShadow";
   }
   return "invalid";
}

void orphanAccessFailed(std::string const& name, char const* operation) {
   std::string const text = fmt::format(
      "{}::{}(). If you're seeing this, you're trying to operate on an orphan zaffa entity", name, operation);
   ::Ulo::assertFailed(text.c_str(), __FILE__, __LINE__, __PRETTY_FUNCTION__);
}

void corruptionDetected(std::string const& name, std::string const& rootPath, std::string const& message) {
   Mem::RootPath const root(rootPath);
   if (!root.empty() && !Util::writeCorruptionMarker(root, message)) {
      ZAFFA_LOG(1, "{} cannot write corruption-detected marker in {}", name, root.dir());
   }
   ZAFFA_LOG(0, "{} corruption detected: {}", name, message);
   ::Ulo::assertFailed(message.c_str(), __FILE__, __LINE__, __PRETTY_FUNCTION__);
}

DescriptorWatchTask::DescriptorWatchTask(Vor::Ptr<Dov::TaskScheduler> const& scheduler, Vor::String name,
                                         Collect collect, double interval)
    : Dov::TimerTask(scheduler, 2, std::move(name)), collect_(std::move(collect)), interval_(interval) {}

void DescriptorWatchTask::start() {
   started_ = true;
   scheduleTask();
}

void DescriptorWatchTask::stop() {
   started_ = false;
   unscheduleTask();
}

void DescriptorWatchTask::intervalIs(double seconds) {
   interval_ = seconds;
   if (started_ && timerPending()) scheduleTaskDelay(interval_);
}

void DescriptorWatchTask::doRun() {
   if (!started_) return;
   std::vector<Watch> watches = collect_ ? collect_() : std::vector<Watch>();
   std::vector<pollfd> fds;
   fds.reserve(watches.size());
   for (Watch const& w : watches) fds.push_back(pollfd{w.fd, POLLIN, 0});
   int n = fds.empty() ? 0 : ::poll(fds.data(), fds.size(), 0);
   for (std::size_t i = 0; n > 0 && i < fds.size(); ++i) {
      if (fds[i].revents == 0) continue;
      --n;
      ++readables_;
      // A hang-up or an error is readable too: the component's service()
      // finds out what it is.
      if (watches[i].readable) watches[i].readable();
   }
   if (started_) scheduleTaskDelay(interval_);
}

} // namespace Zaffa
