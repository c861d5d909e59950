#pragma once
// Sim::SimSystem: the whole NAT engine built the way an agent builds it,
// on a virtual clock, with a simulated chip behind the helper.
//
// It owns what the agent and the central state store own: the input entities
// (Ip::Nat::Status, Routing::Hardware::RouteStatus, the next-hop answers, the
// capabilities), the output entities (Ip::Nat::HwStatus, the next-hop
// requests), the helper (Sim::SimNatHelper) and the root state machine made
// through natSmFactory(). Its mutators are the central state store's writes;
// the engine reacts to them synchronously, and tasks run when the caller
// drives the scheduler (runFor, runUntilIdle).
//
// The scheduler of the process is replaced by a fresh one on virtual time for
// the life of the object, and the log sink by a capturing one, so each
// SimSystem starts at time 0 with no message.
//
// Thread safety: one thread. At most one SimSystem exists at a time in a
// process (it owns the process's scheduler and log sink).

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "UloNat/UloNatAclHelper.h"
#include <functional>

#include "UloNat/UloNatAsyncDirTable.h"
#include "UloNat/UloNatAsyncHelper.h"
#include "UloNat/UloNatSm.h"
#include "framework/VorLog.h"
#include "sim/SimMrouteSide.h"
#include "sim/SimNatHelper.h"
#include "sim/SimNatProgrammer.h"

namespace Sim {

struct SimOptions {
   // Entries of the chip's translation table.
   std::size_t capacity = 1024;
   // Commit mode of the chip: immediate, or batches by commitHwTranslations.
   bool immediate = true;
   bool dynamicNatSupported = false;
   bool destinationNatNextHopNeeded = false;
   bool natCountersSupported = false;
   bool hwNatProfileSupported = false;
   double counterPollingInterval = 0.0;
   // Builds the multicast adapter, its request set and response map, and a
   // simulated routing side that answers them.
   bool multicast = false;
   // The helper: false programs the simulated chip directly (SimNatHelper);
   // true goes through the asynchronous pipeline (Ulo::NatAsyncHelper, the
   // shadow, and Sim::SimNatProgrammer on a SimNatChip of `capacity`).
   bool async = false;
   // Asynchronous mode: the directory under which the shadow's table files
   // live. Empty keeps the shadow in a table of this process, which the
   // simulator then keeps across restart() as the files would be kept.
   std::string shadowRoot;
   // Asynchronous mode: virtual seconds before the programmer answers.
   double programmerDelay = 0.0;
   // Asynchronous mode with a shadowRoot: the programmer stands in another
   // process (ulonat-programmer on the same root). The command and status
   // directories are then mounted on tables under shadowRoot, and this
   // system has neither programmer nor chip; answers come as that process
   // gives them, in real time, so a driver runs the scheduler until
   // asyncSettled().
   bool remoteProgrammer = false;
   // VRF-to-VRF NAT, and translation into VRFs other than "default".
   bool natVrfHopStaticSupported = false;
   bool natOutsideVrfSupported = false;
};

class SimSystem {
 public:
   explicit SimSystem(SimOptions const& options);
   ~SimSystem();
   SimSystem(SimSystem const&) = delete;
   SimSystem& operator=(SimSystem const&) = delete;

   // The agent's start: initializedIs(true) on the root.
   void start();
   bool started() const { return root_->initialized(); }
   // The agent goes away and comes back: root, helper, programmer, their
   // directories and the shadow entity are destroyed; the central state
   // store's configuration, the chip and the shadow's table stay. The agent
   // is then built as at construction and started, so it replays the
   // configuration and reconciles it with the shadow.
   void restart();
   // The two halves of restart(): between them there is no agent, and the
   // central state store's writes reach nobody.
   void agentDown();
   void agentUp();
   bool async() const { return options_.async; }

   // ---- the central state store's writes ----
   void intfIs(Lumet::IntfId const& intf, L3::VrfName const& vrf, std::string const& configKey,
               std::map<Lumet::IntfId, Vor::U16> const& members);
   void intfVrfIs(Lumet::IntfId const& intf, L3::VrfName const& vrf);
   // The interface leaves the state store at once, whatever it still holds.
   // The engine's cleanup of a removed interface programs nothing, so its
   // rules stay on the chip until hwCleanup at the last interface: this is
   // an abrupt removal, not what a configuration side does.
   void intfDel(Lumet::IntfId const& intf);
   // What a configuration side does to remove an interface: its static and
   // twice connections and trap rules are deleted, the scheduler runs until
   // idle so that the engine takes them off the chip (a batch commits), and
   // only then the interface goes.
   void intfWithRulesDel(Lumet::IntfId const& intf);
   void vrfIs(L3::VrfName const& vrf, Ulo::VrfId vrfId);
   void vrfDel(L3::VrfName const& vrf);
   // Adds or replaces a static connection of an interface.
   void staticIs(Lumet::IntfId const& intf, Ip::Nat::NatStaticConnection const& conn);
   void staticDel(Lumet::IntfId const& intf, Ip::Nat::StaticKey const& key);
   void staticAclSharingStatusIs(bool sharing);
   void counterStatusIs(bool on);
   // The route resolver's answer for a watched address (id 0 removes it).
   void nextHopIs(Ulo::VrfAndIpAddr const& key, Vor::U64 nextHopId);
   // Adds or replaces the twice rule of a group on an interface.
   void twiceIs(Lumet::IntfId const& intf, Ip::Nat::NatTwiceConnection const& conn);
   void twiceDel(Lumet::IntfId const& intf, Vor::U16 group);
   void mcastTranslationModeIs(Vor::U32 numTranslationTypes);
   // The routing side's multicast routes. REQUIRES: options.multicast.
   void mrouteIs(SimMrouteSide::Route const& route, Ulo::NatMrouteOifSet const& oifs);
   void mrouteDel(SimMrouteSide::Route const& route);

   // ---- trap rules (sim/SimSystemTrap.cpp) ----
   // A dynamic rule's trap as its writer fills it in.
   struct TrapRuleSpec {
      Vor::U16 vlanId = 0;
      Vor::U32 ruleId = 0;
      Vor::U32 poolId = 0;
      bool trapAll = false;
      bool denyAll = false;
      bool fullCone = false;
      bool addrOnly = false;
      Ip::Nat::NatTarget target = Ip::Nat::NatTarget::source_;
      std::vector<Ip::Nat::NatTrapFilter> filters;
   };
   // Writes the rule of `key` on an interface: a rule already there is
   // removed first (a replaced rule is a new entity), then the new one is
   // made, filled and, unless `initialized` is false, marked initialized
   // last, as a writer does.
   void trapRuleIs(Lumet::IntfId const& intf, Ip::Nat::DynamicKey const& key, TrapRuleSpec const& spec,
                   bool initialized = true);
   // Marks an existing rule initialized; false when there is none.
   bool trapRuleInitializedIs(Lumet::IntfId const& intf, Ip::Nat::DynamicKey const& key);
   void trapRuleDel(Lumet::IntfId const& intf, Ip::Nat::DynamicKey const& key);
   // Unprogrammed trap ACLs of an interface / of all.
   std::size_t unprogrammedTrapAclCount(Lumet::IntfId const& intf) const;
   std::size_t unprogrammedTrapAclCount() const;

   // ---- NAT VRFs (sim/SimSystemVrf.cpp) ----
   // A NAT VRF of the configuration, made empty if absent.
   void natVrfIs(L3::VrfName const& vrf);
   void natVrfDel(L3::VrfName const& vrf);
   // Adds or replaces a VRF rule (keyed by srcAddressOld), making the NAT VRF
   // if absent.
   void vrfRuleIs(L3::VrfName const& vrf, Ip::Nat::NatVrfStaticConnection const& rule);
   void vrfRuleDel(L3::VrfName const& vrf, Lumet::IpAddr const& srcAddressOld);
   // The VRF's source policer (0 and 0 clear it), making the NAT VRF if absent.
   void vrfPolicerIs(L3::VrfName const& vrf, Vor::U32 rate, Vor::U32 burst);
   // Sets forceTableFull of the VRF's machine; false when it has none.
   bool forceTableFullIs(L3::VrfName const& vrf, bool on);
   // The VRF's machine, or null (not started, VRF NAT unsupported, no such VRF).
   Vor::Ptr<Ulo::NatVrfSm> natVrfSm(L3::VrfName const& vrf) const;
   // VRF rules in hardware status, of one VRF / of all.
   std::size_t hwVrfRuleCount(L3::VrfName const& vrf) const;
   std::size_t hwVrfRuleCount() const;
   // Rules of one VRF's machine / of all machines waiting for a VRF id.
   std::size_t pendingVrfRuleCount(L3::VrfName const& vrf) const;
   std::size_t pendingVrfRuleCount() const;
   // Refused VRF rules of one VRF / of all, waiting for a retry.
   std::size_t unprogrammedVrfRuleCount(L3::VrfName const& vrf) const;
   std::size_t unprogrammedVrfRuleCount() const;
   // Where the chip's VRF translations and what hardware status says is
   // programmed disagree, one line each; empty when both halves of every
   // rule in hardware status stand on the chip with its ids and nothing else.
   std::vector<std::string> vrfChipMismatches() const;

   // ---- the verify command ----
   // Runs the agent's verify command and returns its output lines, one per
   // finding (the command's earlier output is dropped first). Without
   // SIMULATION_VMID in the environment a finding never ends the process.
   std::vector<std::string> verify();
   Vor::Ptr<Ulo::VerifyData> const& verifyData() const { return verifyData_; }

   // ---- time ----
   void runUntilIdle();
   void runFor(double seconds);
   void runUntil(double time);
   double now() const;

   // ---- views ----
   Vor::Ptr<Ulo::NatSm> const& root() const { return root_; }
   // The direct chip helper; null in asynchronous mode.
   Vor::Ptr<SimNatHelper> const& helper() const { return helper_; }
   // Asynchronous mode (null otherwise): the helper, the programmer, the
   // directories between them, the shadow, and the chip.
   Vor::Ptr<Ulo::NatAsyncHelper> const& asyncHelper() const { return asyncHelper_; }
   Vor::Ptr<SimNatProgrammer> const& programmer() const { return programmer_; }
   Vor::Ptr<Ulo::NatAsyncHwConfigDir> const& asyncHwConfigDir() const { return asyncHwConfigDir_; }
   Vor::Ptr<Ulo::NatAsyncHwStatusDir> const& asyncHwStatusDir() const { return asyncHwStatusDir_; }
   Vor::Ptr<Ulo::NatHwShadow> const& hwShadow() const { return hwShadow_; }
   Vor::Ptr<SimNatChip> const& chip() const { return chip_; }
   // Remote programmer (null otherwise): the tables the directories stand on.
   Ulo::NatAsyncHwConfigTable* asyncHwConfigTable() const { return configTable_.get(); }
   Ulo::NatAsyncHwStatusTable* asyncHwStatusTable() const { return statusTable_.get(); }
   // Asynchronous mode: every command is idle, confirmed idle by the
   // programmer, and no request waits.
   bool asyncSettled() const;
   // Remote programmer: runs the scheduler in small steps of virtual time
   // while the other process works on real time, until `done()` holds or
   // `seconds` of real time have passed. Returns done().
   bool runWhileWaiting(std::function<bool()> const& done, double seconds);
   Vor::Ptr<Ulo::NatAclConfig> const& aclConfig() const { return aclConfig_; }
   Vor::Ptr<Ip::Nat::Status> const& status() const { return status_; }
   Vor::Ptr<Ip::Nat::HwStatus> const& hwStatus() const { return hwStatus_; }
   Vor::Ptr<Ip::Nat::HwCapabilities> const& hwCapabilities() const { return hwCapabilities_; }
   Vor::Ptr<Ip::Nat::DynamicConnectionStatus> const& dynamicConnectionStatus() const {
      return dynamicConnectionStatus_;
   }
   Vor::Ptr<Ip::Nat::DynamicConnectionHwStatus> const& dynamicConnectionHwStatus() const {
      return dynamicConnectionHwStatus_;
   }
   Vor::Ptr<Ulo::NextHopMapConfig> const& nhMapConfig() const { return nhMapConfig_; }
   Vor::Ptr<Ulo::NextHopMapStatus> const& nhMapStatus() const { return nhMapStatus_; }
   Vor::Ptr<Routing::Hardware::RouteStatus> const& routeStatus() const { return routeStatus_; }
   Vor::Ptr<Dov::TaskScheduler> const& scheduler() const { return scheduler_; }
   Vor::CapturingLogSink const& logs() const { return *logs_; }
   Vor::Ptr<Ip::Nat::McastTranslationMode> const& mcastTranslationMode() const { return mcastMode_; }
   // Null without options.multicast.
   Vor::Ptr<Ulo::NatMulticastAdapter> const& multicastAdapter() const { return adapter_; }
   Vor::Ptr<Ulo::NatMrouteRequestSet> const& mrouteRequestSet() const { return mrouteRequests_; }
   Vor::Ptr<Ulo::NatMrouteResponseMap> const& mrouteResponseMap() const { return mrouteResponses_; }
   SimMrouteSide* mrouteSide() const { return mrouteSide_.get(); }

   // Twice entries (tuples) in hardware status, of an interface / of all.
   std::size_t hwTwiceCount(Lumet::IntfId const& intf) const;
   std::size_t hwTwiceCount() const;
   // Unprogrammed twice entries, of an interface / of all.
   std::size_t unprogrammedTwiceCount(Lumet::IntfId const& intf) const;
   std::size_t unprogrammedTwiceCount() const;

   // Static entries of an interface in hardware status (0 when it has none).
   std::size_t hwStaticCount(Lumet::IntfId const& intf) const;
   std::size_t hwStaticCount() const;
   // Unprogrammed static entries of an interface / of all interfaces.
   std::size_t unprogrammedStaticCount(Lumet::IntfId const& intf) const;
   std::size_t unprogrammedStaticCount() const;
   // Entries the chip would hold for what hardware status says is in force:
   // one per filter address (at least one) and per programmed direction of
   // a static connection, two per twice entry.
   std::size_t expectedChipEntries() const;

 private:
   Vor::Ptr<Ip::Nat::IntfStatus> intfStatusMutable(Lumet::IntfId const& intf) const;
   // Builds what the agent owns: helper (and in asynchronous mode the
   // pipeline and its programmer) and root.
   void buildAgent();
   void mountRemoteTables();

   SimOptions options_;

   std::unique_ptr<Vor::CapturingLogSink> logs_;
   Vor::Ptr<Dov::TaskScheduler> scheduler_;
   Vor::Ptr<Ulo::VerifyData> verifyData_;
   Vor::Ptr<Ulo::UloCommonSmData> commonSmData_;
   Vor::Ptr<Ip::Nat::Status> status_;
   Vor::Ptr<Ip::Nat::HwStatus> hwStatus_;
   Vor::Ptr<Ip::Nat::DynamicConnectionStatus> dynamicConnectionStatus_;
   Vor::Ptr<Ip::Nat::DynamicConnectionHwStatus> dynamicConnectionHwStatus_;
   Vor::Ptr<Ip::Nat::HwCapabilities> hwCapabilities_;
   Vor::Ptr<Ulo::NextHopMapConfig> nhMapConfig_;
   Vor::Ptr<Ulo::NextHopMapStatus> nhMapStatus_;
   Vor::Ptr<Routing::Hardware::RouteStatus> routeStatus_;
   Vor::Ptr<SimNatHelper> helper_;
   Vor::Ptr<SimNatChip> chip_;
   Vor::Ptr<Ulo::NatHwShadow> hwShadow_;
   Vor::Ptr<Ulo::NatAsyncHwConfigDir> asyncHwConfigDir_;
   Vor::Ptr<Ulo::NatAsyncHwStatusDir> asyncHwStatusDir_;
   Vor::Ptr<Ulo::NatAclConfig> aclConfig_;
   Vor::Ptr<Ulo::NatAclStatus> aclStatus_;
   Vor::Ptr<Ulo::NatAsyncHelper> asyncHelper_;
   Vor::Ptr<SimNatProgrammer> programmer_;
   std::unique_ptr<Ulo::NatAsyncHwConfigTable> configTable_;
   std::unique_ptr<Ulo::NatAsyncHwStatusTable> statusTable_;
   bool adoptCommands_ = true;
   Vor::Ptr<MrouteLib::StaticNatInfo> staticNatInfo_;
   Vor::Ptr<Ip::Nat::McastTranslationMode> mcastMode_;
   Vor::Ptr<Ulo::NatMrouteRequestSet> mrouteRequests_;
   Vor::Ptr<Ulo::NatMrouteResponseMap> mrouteResponses_;
   Vor::Ptr<Ulo::NatSm> root_;
   Vor::Ptr<Ulo::NatMulticastAdapter> adapter_;
   std::unique_ptr<SimMrouteSide> mrouteSide_;
};

// Text forms used by the simulator and the scenario files.
// "10.0.0.1:80" or "10.0.0.1" (port 0).
std::optional<Lumet::IpAndPort> parseIpAndPort(std::string const& text);
// "10.0.0.0/8", "10.0.0.1" (/32) or "10.0.0.0/255.0.0.255" (any mask).
std::optional<Lumet::IpAddrWithFullMask> parseFilter(std::string const& text);

} // namespace Sim
