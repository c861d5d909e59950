#include "sim/SimSystem.h"

#include <chrono>
#include <thread>

#include "framework/UloAssert.h"

namespace Sim {

namespace {
// Virtual seconds between two looks of a remote programmer's tables.
constexpr double kRemoteStep = 0.002;
} // namespace

SimSystem::SimSystem(SimOptions const& options) {
   logs_ = std::make_unique<Vor::CapturingLogSink>();
   scheduler_ = Vor::Ptr<Dov::TaskScheduler>(new Dov::TaskScheduler());
   scheduler_->virtualTimeIs(true, 0.0);
   Dov::TaskSchedulerRoot::schedulerIs(scheduler_);

   // The agent's verify command: findings of the simulated engine go to its
   // output, where tests and the simulator read them.
   verifyData_ = Vor::Ptr<Ulo::VerifyData>(new Ulo::VerifyData());
   commonSmData_ = Vor::Ptr<Ulo::UloCommonSmData>(new Ulo::UloCommonSmData(verifyData_));
   status_ = Vor::Ptr<Ip::Nat::Status>(new Ip::Nat::Status());
   hwStatus_ = Vor::Ptr<Ip::Nat::HwStatus>(new Ip::Nat::HwStatus());
   dynamicConnectionStatus_ =
      Vor::Ptr<Ip::Nat::DynamicConnectionStatus>(new Ip::Nat::DynamicConnectionStatus());
   dynamicConnectionHwStatus_ =
      Vor::Ptr<Ip::Nat::DynamicConnectionHwStatus>(new Ip::Nat::DynamicConnectionHwStatus());
   hwCapabilities_ = Vor::Ptr<Ip::Nat::HwCapabilities>(new Ip::Nat::HwCapabilities());
   hwCapabilities_->dynamicNatSupportedIs(options.dynamicNatSupported);
   hwCapabilities_->destinationNatNextHopNeededIs(options.destinationNatNextHopNeeded);
   hwCapabilities_->natCountersSupportedIs(options.natCountersSupported);
   hwCapabilities_->natVrfHopStaticSupportedIs(options.natVrfHopStaticSupported);
   hwCapabilities_->natOutsideVrfSupportedIs(options.natOutsideVrfSupported);
   nhMapConfig_ = Vor::Ptr<Ulo::NextHopMapConfig>(new Ulo::NextHopMapConfig());
   nhMapStatus_ = Vor::Ptr<Ulo::NextHopMapStatus>(new Ulo::NextHopMapStatus());
   routeStatus_ = Vor::Ptr<Routing::Hardware::RouteStatus>(new Routing::Hardware::RouteStatus());
   staticNatInfo_ = Vor::Ptr<MrouteLib::StaticNatInfo>(new MrouteLib::StaticNatInfo());

   options_ = options;
   if (options.async && !options.remoteProgrammer) chip_ = simNatChipFactory(options.capacity);
   buildAgent();
}

void SimSystem::buildAgent() {
   Vor::Ptr<UloHelper::UloHelperNat> natHelper;
   if (!options_.async) {
      // The direct helper is the chip itself: it outlives a restart.
      if (!helper_) helper_ = simNatHelperFactory("simNatHelper", options_.capacity, options_.immediate);
      natHelper = helper_;
   } else {
      asyncHwConfigDir_ = Ulo::natAsyncHwConfigDirFactory();
      asyncHwStatusDir_ = Ulo::natAsyncHwStatusDirFactory();
      if (!options_.shadowRoot.empty()) {
         // A writer that attaches to the files of an earlier life keeps
         // their entries.
         hwShadow_ = Ulo::natHwShadowFactory(
            "natHwShadow", Zaffa::MapDescriptor::sharedWriter(options_.shadowRoot, 1024, 1u << 20));
      } else if (!hwShadow_) {
         hwShadow_ = Ulo::natHwShadowFactory("natHwShadow");
      }
      aclConfig_ = Ulo::natAclConfigFactory();
      aclStatus_ = Ulo::natAclStatusFactory();
      asyncHelper_ = Ulo::natAsyncHelperFactory();
      asyncHelper_->asyncHwConfigDirIs(asyncHwConfigDir_);
      asyncHelper_->asyncHwStatusDirIs(asyncHwStatusDir_);
      asyncHelper_->hwShadowIs(hwShadow_);
      asyncHelper_->aclHelperIs(Ulo::natAclHelperFactory(aclConfig_, aclStatus_));
      if (options_.remoteProgrammer) {
         uloAssert(!options_.shadowRoot.empty());
         // A shadow that starts empty was lost (or never was): the commands
         // an earlier life left describe hardware nobody can vouch for.
         adoptCommands_ = hwShadow_->entrys() != 0;
         hwShadow_->entryMap().map().watchIntervalIs(kRemoteStep);
         // The tables of the two directories are mounted at start(), once
         // the replay has filled them.
      } else {
         programmer_ = simNatProgrammerFactory(asyncHwConfigDir_, asyncHwStatusDir_, hwShadow_, chip_, scheduler_);
         programmer_->delayIs(options_.programmerDelay);
         programmer_->initializedIs(true);
      }
      natHelper = asyncHelper_;
   }
   natHelper->hwNatProfileSupportedIs(options_.hwNatProfileSupported);
   natHelper->counterPollingIntervalIs(options_.counterPollingInterval);

   root_ = Ulo::natSmFactory(commonSmData_, status_, hwStatus_, dynamicConnectionStatus_,
                             dynamicConnectionHwStatus_, hwCapabilities_, nhMapConfig_,
                             nhMapStatus_, routeStatus_, natHelper, staticNatInfo_,
                             Vor::Ptr<UloL3Intf::Table const>());
   if (!mcastMode_) mcastMode_ = Vor::Ptr<Ip::Nat::McastTranslationMode>(new Ip::Nat::McastTranslationMode());
   root_->mcastTranslationModeStatusIs(mcastMode_);
   if (options_.multicast) {
      mrouteSide_.reset();
      mrouteRequests_ = Vor::Ptr<Ulo::NatMrouteRequestSet>(new Ulo::NatMrouteRequestSet());
      mrouteResponses_ = Vor::Ptr<Ulo::NatMrouteResponseMap>(new Ulo::NatMrouteResponseMap());
      adapter_ = Ulo::natMulticastAdapterFactory(mrouteRequests_, mrouteResponses_,
                                                 Vor::Ptr<Ulo::NatMgroupRequestSet>(),
                                                 Vor::Ptr<Ulo::NatMgroupResponseMap const>(), root_.ptr());
      root_->multicastAdapterIs(adapter_);
      mrouteSide_ = std::make_unique<SimMrouteSide>(scheduler_, mrouteRequests_, mrouteResponses_);
   }
   if (options_.async) {
      root_->asyncHwConfigDirIs(asyncHwConfigDir_);
      root_->asyncHwStatusDirIs(asyncHwStatusDir_);
   }
}

void SimSystem::restart() {
   agentDown();
   agentUp();
}

void SimSystem::agentDown() {
   mrouteSide_.reset();
   root_ = nullptr;
   adapter_ = nullptr;
   programmer_ = nullptr;
   asyncHelper_ = nullptr;
   statusTable_.reset();
   configTable_.reset();
   asyncHwConfigDir_ = nullptr;
   asyncHwStatusDir_ = nullptr;
   aclConfig_ = nullptr;
   aclStatus_ = nullptr;
   if (!options_.shadowRoot.empty()) hwShadow_ = nullptr;
}

void SimSystem::agentUp() {
   buildAgent();
   start();
}

SimSystem::~SimSystem() {
   mrouteSide_.reset();
   root_ = nullptr;
   adapter_ = nullptr;
   programmer_ = nullptr;
   asyncHelper_ = nullptr;
   statusTable_.reset();
   configTable_.reset();
   helper_ = nullptr;
   hwShadow_ = nullptr;
   Dov::TaskSchedulerRoot::schedulerIs(nullptr);
   scheduler_ = nullptr;
}

void SimSystem::start() {
   root_->initializedIs(true);
   if (options_.async && options_.remoteProgrammer && !configTable_) mountRemoteTables();
   runUntilIdle();
}

void SimSystem::mountRemoteTables() {
   // The replay has issued every command this life wants, in this process
   // only: the programmer sees the table when it is whole, and what an
   // earlier life left beyond it is gone.
   configTable_ = std::make_unique<Ulo::NatAsyncHwConfigTable>(
      asyncHwConfigDir_, "natAsyncHwConfigDir",
      Zaffa::MapDescriptor::sharedWriter(options_.shadowRoot, 1024, 1u << 21), scheduler_, adoptCommands_);
   statusTable_ = std::make_unique<Ulo::NatAsyncHwStatusTable>(
      asyncHwStatusDir_, "natAsyncHwStatusDir", Zaffa::MapDescriptor::sharedReader(options_.shadowRoot, true),
      scheduler_, configTable_.get());
   // The tables look for wake-ups once per interval of the (virtual) clock,
   // which runWhileWaiting moves by this much at a time.
   configTable_->map().watchIntervalIs(kRemoteStep);
   statusTable_->map().watchIntervalIs(kRemoteStep);
}

bool SimSystem::runWhileWaiting(std::function<bool()> const& done, double seconds) {
   using Clock = std::chrono::steady_clock;
   auto const deadline = Clock::now() + std::chrono::duration<double>(seconds);
   while (!done()) {
      if (Clock::now() >= deadline) return false;
      Vor::U64 const ran = scheduler_->runFor(kRemoteStep);
      // Only the table watches ran: give the other process the processor.
      if (ran <= 3) std::this_thread::sleep_for(std::chrono::microseconds(200));
   }
   return true;
}

bool SimSystem::asyncSettled() const {
   if (!asyncHwConfigDir_) return true;
   for (auto const& m : asyncHwConfigDir_->config()) {
      if (m.value()->opType() != Ulo::NatRequestQueue::idle) return false;
      auto status = asyncHwStatusDir_->status(m.key());
      if (!status || status->state() != Ulo::NatAsyncHwStatus::idle) return false;
   }
   // A status whose command has gone is the programmer's to remove: until
   // it has, the programmer has not seen everything.
   if (asyncHwStatusDir_->statuss() != asyncHwConfigDir_->configs()) return false;
   if (statusTable_ && statusTable_->map().members() != asyncHwConfigDir_->configs()) return false;
   // The empty queues of sibling keys stay in the directory by design.
   auto queues = asyncHelper_->requestQueueDir();
   if (!queues) return true;
   for (auto const& m : queues->requestQ()) {
      if (!m.value()->pendingEmpty()) return false;
   }
   return true;
}

// ---- the central state store's writes ----

Vor::Ptr<Ip::Nat::IntfStatus> SimSystem::intfStatusMutable(Lumet::IntfId const& intf) const {
   return status_->intfStatus(intf);
}

void SimSystem::intfIs(Lumet::IntfId const& intf, L3::VrfName const& vrf,
                       std::string const& configKey,
                       std::map<Lumet::IntfId, Vor::U16> const& members) {
   status_->intfConfigKeyIs(intf, configKey);
   auto is = status_->intfStatusIs(intf);
   for (auto const& [member, vlan] : members) is->validIntfIs(member, vlan);
   is->vrfNameIs(vrf);
}

void SimSystem::intfVrfIs(Lumet::IntfId const& intf, L3::VrfName const& vrf) {
   if (auto is = intfStatusMutable(intf)) is->vrfNameIs(vrf);
}

void SimSystem::intfDel(Lumet::IntfId const& intf) {
   status_->intfStatusDel(intf);
   status_->intfConfigKeyDel(intf);
}

void SimSystem::intfWithRulesDel(Lumet::IntfId const& intf) {
   if (auto is = intfStatusMutable(intf)) {
      is->staticConnectionDelAll();
      is->twiceNatConnectionDelAll();
      is->trapRuleDelAll();
      runUntilIdle();
   }
   intfDel(intf);
}

void SimSystem::vrfIs(L3::VrfName const& vrf, Ulo::VrfId vrfId) {
   auto v = routeStatus_->vrfStatusIs(vrf);
   v->vrfIdIs(vrfId);
}

void SimSystem::vrfDel(L3::VrfName const& vrf) { routeStatus_->vrfStatusDel(vrf); }

void SimSystem::staticIs(Lumet::IntfId const& intf, Ip::Nat::NatStaticConnection const& conn) {
   auto is = intfStatusMutable(intf);
   uloAssert(is && "static connection on an unknown interface");
   is->staticConnectionIs(conn);
}

void SimSystem::staticDel(Lumet::IntfId const& intf, Ip::Nat::StaticKey const& key) {
   if (auto is = intfStatusMutable(intf)) is->staticConnectionDel(key);
}

void SimSystem::staticAclSharingStatusIs(bool sharing) { status_->staticAclSharingStatusIs(sharing); }

void SimSystem::counterStatusIs(bool on) { status_->counterStatusIs(on); }

void SimSystem::nextHopIs(Ulo::VrfAndIpAddr const& key, Vor::U64 nextHopId) {
   if (nextHopId == 0) {
      nhMapStatus_->resolvedAddrDel(key);
      return;
   }
   auto info = Ulo::natNextHopIdFactory(key);
   info->nextHopIdIs(nextHopId);
   nhMapStatus_->resolvedAddrIs(key, info);
}

void SimSystem::twiceIs(Lumet::IntfId const& intf, Ip::Nat::NatTwiceConnection const& conn) {
   auto is = intfStatusMutable(intf);
   uloAssert(is && "twice connection on an unknown interface");
   is->twiceNatConnectionIs(conn);
}

void SimSystem::twiceDel(Lumet::IntfId const& intf, Vor::U16 group) {
   if (auto is = intfStatusMutable(intf)) is->twiceNatConnectionDel(group);
}

void SimSystem::mcastTranslationModeIs(Vor::U32 numTranslationTypes) {
   mcastMode_->numTranslationTypesIs(numTranslationTypes);
}

void SimSystem::mrouteIs(SimMrouteSide::Route const& route, Ulo::NatMrouteOifSet const& oifs) {
   uloAssert(mrouteSide_ && "multicast routes need a system built with multicast");
   mrouteSide_->routeIs(route, oifs);
}

void SimSystem::mrouteDel(SimMrouteSide::Route const& route) {
   uloAssert(mrouteSide_ && "multicast routes need a system built with multicast");
   mrouteSide_->routeDel(route);
}

// ---- time ----

void SimSystem::runUntilIdle() { scheduler_->runUntilIdle(); }
void SimSystem::runFor(double seconds) { scheduler_->runFor(seconds); }
void SimSystem::runUntil(double time) { scheduler_->runUntil(time); }
double SimSystem::now() const { return scheduler_->now(); }

// ---- views ----

std::size_t SimSystem::hwStaticCount(Lumet::IntfId const& intf) const {
   auto hw = hwStatus_->intfStatus(intf);
   return hw ? hw->staticConnectionHw().size() : 0;
}

std::size_t SimSystem::hwStaticCount() const {
   std::size_t n = 0;
   for (auto const& [intf, hw] : hwStatus_->intfStatus()) n += hw->staticConnectionHw().size();
   return n;
}

std::size_t SimSystem::unprogrammedStaticCount(Lumet::IntfId const& intf) const {
   auto const& natSmStatus = root_->natSmStatus();
   if (!natSmStatus) return 0;
   auto ue = natSmStatus->unprogrammedEntries(intf);
   return ue ? ue->staticEntries().size() : 0;
}

std::size_t SimSystem::unprogrammedStaticCount() const {
   auto const& natSmStatus = root_->natSmStatus();
   if (!natSmStatus) return 0;
   std::size_t n = 0;
   for (auto it = natSmStatus->unprogrammedEntries().begin(); it; ++it) {
      if (it.isLive()) n += it.value()->staticEntries().size();
   }
   return n;
}

std::size_t SimSystem::hwTwiceCount(Lumet::IntfId const& intf) const {
   auto hw = hwStatus_->intfStatus(intf);
   if (!hw) return 0;
   std::size_t n = 0;
   for (auto const& [group, record] : hw->twiceNatConnectionHw()) n += record->entrys();
   return n;
}

std::size_t SimSystem::hwTwiceCount() const {
   std::size_t n = 0;
   for (auto const& [intf, hw] : hwStatus_->intfStatus()) n += hwTwiceCount(intf);
   return n;
}

std::size_t SimSystem::unprogrammedTwiceCount(Lumet::IntfId const& intf) const {
   auto const& natSmStatus = root_->natSmStatus();
   if (!natSmStatus) return 0;
   auto ue = natSmStatus->unprogrammedEntries(intf);
   return ue ? ue->twiceEntries().size() : 0;
}

std::size_t SimSystem::unprogrammedTwiceCount() const {
   auto const& natSmStatus = root_->natSmStatus();
   if (!natSmStatus) return 0;
   std::size_t n = 0;
   for (auto it = natSmStatus->unprogrammedEntries().begin(); it; ++it) {
      if (it.isLive()) n += it.value()->twiceEntries().size();
   }
   return n;
}

std::size_t SimSystem::expectedChipEntries() const {
   // Both halves of every twice entry.
   std::size_t n = 2 * hwTwiceCount();
   for (auto const& [intf, hw] : hwStatus_->intfStatus()) {
      for (auto const& [key, entry] : hw->staticConnectionHw()) {
         std::size_t const filters = entry->filterAddress().size() ? entry->filterAddress().size() : 1;
         bool const destination = entry->target() == Ip::Nat::destination;
         bool const egress = key.table() == Ip::Nat::StaticKey::egress;
         // An ingress connection takes both directions; an egress one only
         // the direction its target names. A multicast translated source
         // never gets a source translation.
         Lumet::IpAddr const srcNew =
            destination ? key.localAddress().ip() : entry->globalAddress().ip();
         std::size_t directions = 0;
         if (!srcNew.isMulticast() && !(destination && egress)) ++directions;
         if (!(!destination && egress)) ++directions;
         n += filters * directions;
      }
   }
   return n;
}

// ---- text forms ----

std::optional<Lumet::IpAndPort> parseIpAndPort(std::string const& text) {
   if (text.find(':') != std::string::npos) return Lumet::IpAndPort::parse(text);
   auto ip = Lumet::IpAddr::parse(text);
   if (!ip) return std::nullopt;
   return Lumet::IpAndPort(*ip, 0);
}

std::optional<Lumet::IpAddrWithFullMask> parseFilter(std::string const& text) {
   auto const slash = text.find('/');
   auto ip = Lumet::IpAddr::parse(text.substr(0, slash));
   if (!ip) return std::nullopt;
   if (slash == std::string::npos) return Lumet::IpAddrWithFullMask(*ip, 0xffffffffu);
   std::string const rest = text.substr(slash + 1);
   if (rest.find('.') != std::string::npos) {
      auto mask = Lumet::IpAddr::parse(rest);
      if (!mask) return std::nullopt;
      return Lumet::IpAddrWithFullMask(*ip, mask->value());
   }
   if (rest.empty() || rest.size() > 2 || rest.find_first_not_of("0123456789") != std::string::npos) {
      return std::nullopt;
   }
   int const len = std::stoi(rest);
   if (len > 32) return std::nullopt;
   Vor::U32 const mask = len == 0 ? 0u : ~0u << (32 - len);
   return Lumet::IpAddrWithFullMask(*ip, mask);
}

std::vector<std::string> SimSystem::verify() {
   verifyData_->outputDelAll();
   verifyData_->requestInc();
   std::vector<std::string> findings;
   for (auto const& line : verifyData_->cliOutput()) findings.push_back(line.text.stdString());
   return findings;
}

} // namespace Sim
