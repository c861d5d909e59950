#include "tools/ulonat-sim/Runner.h"

#include "sim/SimAsyncViews.h"

#include <iomanip>
#include <optional>
#include <sstream>

namespace UloNatSim {

namespace {

// The chip behind whichever helper the system has.
std::size_t chipEntries(Sim::SimSystem const& sys) {
   return sys.async() ? sys.chip()->entries() : sys.helper()->entries().size();
}
std::size_t chipCapacity(Sim::SimSystem const& sys) {
   return sys.async() ? sys.chip()->capacity() : sys.helper()->capacity();
}

std::string timeText(double t) {
   std::ostringstream os;
   os << std::fixed << std::setprecision(3) << t;
   return os.str();
}

// Checks one expectation against the system; each miss is one failure line.
void check(Sim::SimSystem const& sys, Event const& e, AsyncRunState const& asyncState, Report& report) {
   Expectation const& x = e.expect;
   std::string const at = "at " + timeText(sys.now()) + " s, " + e.label + ": ";
   std::vector<std::string> misses;
   auto expectEq = [&](std::string const& what, std::size_t want, std::size_t got) {
      if (want != got) {
         misses.push_back(what + " expected " + std::to_string(want) + ", got " + std::to_string(got));
      }
   };
   if (x.hwStaticTotal) expectEq("static entries in hardware status", *x.hwStaticTotal, sys.hwStaticCount());
   for (auto const& [intf, n] : x.hwStatic) {
      expectEq("static entries in hardware status of " + intf, n, sys.hwStaticCount(Lumet::IntfId(intf)));
   }
   if (x.unprogrammedTotal) expectEq("unprogrammed static entries", *x.unprogrammedTotal, sys.unprogrammedStaticCount());
   for (auto const& [intf, n] : x.unprogrammed) {
      expectEq("unprogrammed static entries of " + intf, n, sys.unprogrammedStaticCount(Lumet::IntfId(intf)));
   }
   if (x.chipEntries) expectEq("chip entries", *x.chipEntries, chipEntries(sys));
   if (x.engines) expectEq("engines", *x.engines, sys.root()->natIntfStatusSms().size());
   for (auto const& [name, n] : x.logs) expectEq(name + " messages", n, sys.logs().count(name));
   if (x.chipMatchesHwStatus && sys.async()) {
      for (auto const& m : Sim::asyncChipMismatches(sys)) misses.push_back("chip against the configuration: " + m);
   } else if (x.chipMatchesHwStatus) {
      expectEq("chip entries for what hardware status holds", sys.expectedChipEntries(),
               sys.helper()->entries().size());
   }
   if (x.hwTwiceTotal) expectEq("twice entries in hardware status", *x.hwTwiceTotal, sys.hwTwiceCount());
   for (auto const& [intf, n] : x.hwTwice) {
      expectEq("twice entries in hardware status of " + intf, n, sys.hwTwiceCount(Lumet::IntfId(intf)));
   }
   if (x.unprogrammedTwiceTotal) {
      expectEq("unprogrammed twice entries", *x.unprogrammedTwiceTotal, sys.unprogrammedTwiceCount());
   }
   for (auto const& [intf, n] : x.unprogrammedTwice) {
      expectEq("unprogrammed twice entries of " + intf, n, sys.unprogrammedTwiceCount(Lumet::IntfId(intf)));
   }
   if (x.chipTwiceEntries) expectEq("twice halves on the chip", *x.chipTwiceEntries, sys.helper()->twiceEntries());
   if (x.halfPairs) expectEq("half twice pairs on the chip", *x.halfPairs, sys.helper()->halfTwicePairs());
   if (x.staticOifs) {
      Ulo::NatMrouteOifSet want;
      for (auto const& name : x.staticOifs->oifs) want.oifIs(Lumet::IntfId(name));
      std::size_t entries = 0;
      for (auto const& [key, entry] : sys.helper()->entries()) {
         if (key.staticKey != x.staticOifs->key || key.kind != Sim::ChipEntryKey::Kind::staticDst) continue;
         ++entries;
         if (!(entry.oifSet == want)) {
            misses.push_back("outgoing interfaces of " + key.stringValue() + " expected " + want.stringValue() +
                             ", got " + entry.oifSet.stringValue());
         }
      }
      if (entries == 0) misses.push_back("no destination entry on the chip for " + x.staticOifs->key.stringValue());
   }
   if (x.twiceNextHop) {
      std::size_t halves = 0;
      auto const kind = x.twiceNextHop->forward ? Sim::ChipEntryKey::Kind::twiceForward
                                                : Sim::ChipEntryKey::Kind::twiceReverse;
      for (auto const& [key, entry] : sys.helper()->entries()) {
         if (key.kind != kind || key.group != x.twiceNextHop->group) continue;
         ++halves;
         expectEq("next hop of " + key.stringValue(), x.twiceNextHop->nextHopId, entry.nextHopId);
      }
      if (halves == 0) misses.push_back("no twice half of group " + std::to_string(x.twiceNextHop->group));
   }
   if (!x.helperCalls.empty()) {
      auto const& counts = sys.helper()->counts();
      std::map<std::string, std::size_t> const calls{
         {"adds", counts.adds},           {"deletes", counts.deletes},
         {"updates", counts.updates},     {"twiceAdds", counts.twiceAdds},
         {"twiceDeletes", counts.twiceDeletes}, {"twiceUpdates", counts.twiceUpdates}};
      for (auto const& [name, n] : x.helperCalls) expectEq("helper calls " + name, n, calls.at(name));
   }
   checkVrf(sys, x.vrf, misses);
   if (sys.async()) checkAsync(sys, x.async, asyncState, misses);
   checkDynamic(sys, x.dynamic, misses);
   if (misses.empty()) {
      report.passed.push_back(at + "ok");
   } else {
      for (auto const& m : misses) report.failures.push_back(at + m);
   }
}

Vor::Ptr<Ip::Nat::HwIntfStatus> hwIntf(Sim::SimSystem const& sys, Lumet::IntfId const& intf) {
   return sys.hwStatus()->intfStatus(intf);
}

} // namespace

Report runScenario(Scenario const& scenario) {
   Report report;
   report.name = scenario.name;
   std::optional<ShadowRootDir> shadowRoot;
   Sim::SimOptions options = scenario.options;
   if (options.async) {
      shadowRoot.emplace(options.shadowRoot);
      options.shadowRoot = shadowRoot->path();
   }
   AsyncRunState asyncState;
   Sim::SimSystem sys(options);
   if (!scenario.explicitStart) sys.start();

   // Events of one time happen together: the scheduler runs before the
   // first of them and after the last, not in between, so that a batch or a
   // fault injected at that time sees all of them.
   for (std::size_t i = 0; i < scenario.events.size(); ++i) {
      Event const& e = scenario.events[i];
      bool const firstOfItsTime = i == 0 || scenario.events[i - 1].at != e.at;
      bool const lastOfItsTime = i + 1 == scenario.events.size() || scenario.events[i + 1].at != e.at;
      if (firstOfItsTime) sys.runUntil(e.at);
      if (e.kind == "start") {
         sys.start();
      } else if (e.kind == "intf") {
         std::map<Lumet::IntfId, Vor::U16> members;
         for (auto const& [name, vlan] : e.members) members[Lumet::IntfId(name)] = vlan;
         sys.intfIs(Lumet::IntfId(e.intf), L3::VrfName(e.vrf), e.configKey, members);
      } else if (e.kind == "intfVrf") {
         sys.intfVrfIs(Lumet::IntfId(e.intf), L3::VrfName(e.vrf));
      } else if (e.kind == "intfDel") {
         sys.intfWithRulesDel(Lumet::IntfId(e.intf));
      } else if (e.kind == "intfDelAbrupt") {
         sys.intfDel(Lumet::IntfId(e.intf));
      } else if (e.kind == "vrf") {
         sys.vrfIs(L3::VrfName(e.vrf), e.vrfId);
      } else if (e.kind == "vrfDel") {
         sys.vrfDel(L3::VrfName(e.vrf));
      } else if (e.kind == "staticAdd") {
         if (sys.status()->intfStatus(Lumet::IntfId(e.intf))) {
            sys.staticIs(Lumet::IntfId(e.intf), *e.conn);
         } else {
            report.failures.push_back("at " + timeText(sys.now()) + " s, " + e.label + ": interface " +
                                      e.intf + " is not configured; rule ignored");
         }
      } else if (e.kind == "staticDel") {
         sys.staticDel(Lumet::IntfId(e.intf), *e.key);
      } else if (e.kind == "aclSharing") {
         sys.staticAclSharingStatusIs(e.value);
      } else if (e.kind == "counterStatus") {
         sys.counterStatusIs(e.value);
      } else if (e.kind == "nextHop") {
         sys.nextHopIs(Ulo::VrfAndIpAddr(e.vrfId, e.addr), e.nextHopId);
      } else if (e.kind == "twiceAdd") {
         if (sys.status()->intfStatus(Lumet::IntfId(e.intf))) {
            sys.twiceIs(Lumet::IntfId(e.intf), *e.twice);
         } else {
            report.failures.push_back("at " + timeText(sys.now()) + " s, " + e.label + ": interface " +
                                      e.intf + " is not configured; rule ignored");
         }
      } else if (e.kind == "twiceDel") {
         sys.twiceDel(Lumet::IntfId(e.intf), e.group);
      } else if (e.kind == "mcastMode") {
         sys.mcastTranslationModeIs(static_cast<Vor::U32>(e.count));
      } else if (e.kind == "mroute") {
         sys.mrouteIs(e.route, e.oifs);
      } else if (e.kind == "mrouteDel") {
         sys.mrouteDel(e.route);
      } else if (e.kind == "capacity" && sys.async()) {
         sys.chip()->capacityIs(e.count);
      } else if (e.kind == "capacity") {
         sys.helper()->capacityIs(e.count);
      } else if (e.kind == "refuseNext") {
         sys.helper()->refuseNextIs(static_cast<Vor::U32>(e.count));
      } else if (e.kind == "failNextCommit") {
         sys.helper()->failNextCommitIs(static_cast<Vor::U32>(e.count));
      } else if (runAsyncEvent(sys, e, asyncState)) {
         // An event of the asynchronous pipeline.
      } else if (runVrfEvent(sys, e, "at " + timeText(sys.now()) + " s, ", report.failures)) {
         // A VRF NAT event.
      } else if (runDynamicEvent(sys, e, "at " + timeText(sys.now()) + " s, ", report.passed, report.failures)) {
         // A dynamic NAT or trap rule event.
      } else if (e.kind == "faultRefCount" || e.kind == "faultLeak") {
         auto const vrfStatus = sys.started() ? sys.root()->natSmStatus()->natSmStatusVrf(e.vrfId)
                                              : Vor::Ptr<Ulo::NatSmStatusVrf>();
         if (!vrfStatus) {
            report.failures.push_back("at " + timeText(sys.now()) + " s, " + e.label + ": VRF id " +
                                      std::to_string(e.vrfId) + " has no engine; fault not applied");
         } else if (e.kind == "faultLeak") {
            // A record that no interface uses any more.
            auto const info = vrfStatus->ipAddrIntfInfoIs(e.addr);
            std::vector<Lumet::IntfId> users;
            for (auto const& it : info->intf()) users.push_back(it.key());
            for (auto const& intf : users) info->intfDel(intf);
         } else {
            vrfStatus->ipAddrIntfInfoIs(e.addr)->intfIs(Lumet::IntfId(e.intf), static_cast<Vor::U32>(e.count));
         }
      } else if (e.kind == "faultHwStaticDel") {
         auto const hw = sys.hwStatus()->intfStatus(Lumet::IntfId(e.intf));
         if (!hw || !hw->staticConnectionHw(*e.key)) {
            report.failures.push_back("at " + timeText(sys.now()) + " s, " + e.label + ": no such entry in " +
                                      "hardware status; fault not applied");
         } else {
            hw->staticConnectionHwDel(*e.key);
         }
      } else if (e.kind == "verify") {
         // Asked of a settled system, as an operator would.
         sys.runUntilIdle();
         VerifyRun run{sys.now(), e.label, sys.verify()};
         std::string const at = "at " + timeText(sys.now()) + " s, " + e.label + ": ";
         if (run.findings.size() == e.findings) {
            report.passed.push_back(at + "ok");
         } else {
            report.failures.push_back(at + "verify findings expected " + std::to_string(e.findings) + ", got " +
                                      std::to_string(run.findings.size()));
         }
         report.verifyRuns.push_back(std::move(run));
      } else if (e.kind == "expect") {
         sys.runUntilIdle();
         check(sys, e, asyncState, report);
         report.timeline.push_back(Snapshot{sys.now(), sys.hwStaticCount(), sys.unprogrammedStaticCount(),
                                            chipEntries(sys), chipCapacity(sys),
                                            sys.root()->natIntfStatusSms().size()});
      }
      if (lastOfItsTime) sys.runUntilIdle();
   }
   sys.runUntil(scenario.runUntil);
   report.endTime = sys.now();

   // Engines, and interfaces that have none (VRF not ready).
   for (auto const& [intf, engine] : sys.root()->natIntfStatusSms().members()) {
      EngineLine line;
      line.intf = intf.stringValue();
      line.vrf = engine->vrfName().stringValue();
      line.vrfId = engine->vrfId().value();
      line.hwStatic = sys.hwStaticCount(intf);
      line.unprogrammed = sys.unprogrammedStaticCount(intf);
      report.engines.push_back(line);
   }
   for (auto const& [intf, is] : sys.status()->intfStatus()) {
      if (!sys.root()->natIntfStatusSm(intf)) report.interfacesWithoutEngine.push_back(intf.stringValue());
   }
   report.hwTwice = sys.hwTwiceCount();
   report.unprogrammedTwice = sys.unprogrammedTwiceCount();
   report.hwStatic = sys.hwStaticCount();
   report.unprogrammed = sys.unprogrammedStaticCount();
   report.chipEntries = chipEntries(sys);
   report.chipCapacity = chipCapacity(sys);
   if (sys.async()) {
      for (auto const& [key, text] : Sim::asyncChipLines(sys)) report.chip.push_back(ChipLine{key, text});
   } else {
      for (auto const& [key, entry] : sys.helper()->entries()) {
         std::ostringstream os;
         os << entry.oldIpAndPort.stringValue() << " -> " << entry.newIpAndPort.stringValue()
            << " proto " << int(entry.protocol);
         if (entry.dstNewIpAndPort.isSet()) {
            os << " dst " << entry.dstOldIpAndPort.stringValue() << " -> " << entry.dstNewIpAndPort.stringValue();
         }
         if (entry.nextHopId) os << " nexthop " << entry.nextHopId;
         if (entry.multicast) os << " multicast";
         if (entry.oifSet.oifs()) os << " oifs " << entry.oifSet.stringValue();
         report.chip.push_back(ChipLine{key.stringValue(), os.str()});
      }
   }
   for (auto const& m : sys.logs().messages()) {
      report.messages.push_back(MessageLine{m.time, m.name, m.severity, m.text});
   }
   report.vrf = vrfReportOf(sys);
   report.async = asyncReportOf(sys, options.shadowRoot, asyncState);
   report.dynamic = dynamicReportOf(sys);
   (void)hwIntf;
   return report;
}

void printReport(std::ostream& os, Report const& r) {
   os << "Scenario: " << r.name << "\n";
   os << "Virtual time at end: " << timeText(r.endTime) << " s\n\n";
   os << "Engines (one per NAT interface whose VRF is ready):\n";
   for (auto const& e : r.engines) {
      os << "  " << std::left << std::setw(14) << e.intf << " VRF " << std::setw(10) << e.vrf
         << " id " << std::setw(4) << e.vrfId << " static in hardware status: " << e.hwStatic
         << ", unprogrammed: " << e.unprogrammed << "\n";
   }
   for (auto const& i : r.interfacesWithoutEngine) os << "  " << i << ": no engine (VRF not ready)\n";
   if (!r.timeline.empty()) {
      os << "\nCheckpoints:\n";
      for (auto const& t : r.timeline) {
         os << "  " << std::right << std::setw(9) << timeText(t.time) << " s  engines " << t.engines
            << ", static in hardware status " << t.hwStatic << ", unprogrammed " << t.unprogrammed
            << ", chip " << t.chipEntries << " of " << t.chipCapacity << "\n";
      }
   }
   os << "\nAt the end:\n";
   os << "Static entries in hardware status: " << r.hwStatic << "\n";
   os << "Unprogrammed static entries: " << r.unprogrammed << "\n";
   os << "Twice entries in hardware status: " << r.hwTwice << " (unprogrammed: " << r.unprogrammedTwice << ")\n";
   os << "Chip: " << r.chipEntries << " of " << r.chipCapacity << " entries\n";
   for (auto const& c : r.chip) os << "  " << c.key << ": " << c.translation << "\n";
   printVrfReport(os, r.vrf);
   printAsyncReport(os, r.async);
   printDynamicReport(os, r.dynamic);
   if (!r.verifyRuns.empty()) {
      os << "\nVerify:\n";
      for (auto const& v : r.verifyRuns) {
         os << "  " << std::right << std::setw(9) << timeText(v.time) << " s  " << v.label << ": "
            << v.findings.size() << " finding(s)\n";
         for (auto const& line : v.findings) os << "    " << line << "\n";
      }
   }
   os << "\nMessages:\n";
   if (r.messages.empty()) os << "  (none)\n";
   for (auto const& m : r.messages) {
      os << "  " << std::right << std::setw(9) << timeText(m.time) << " s  " << m.name << " (severity "
         << m.severity << "): " << m.text << "\n";
   }
   if (!r.passed.empty() || !r.failures.empty()) {
      os << "\nExpectations: " << r.passed.size() << " held, " << r.failures.size() << " failed\n";
      for (auto const& f : r.failures) os << "  FAILED " << f << "\n";
   }
}

nlohmann::json reportJson(Report const& r) {
   nlohmann::json j;
   // The report's layout version: raised when a field changes meaning or
   // goes away, left when one is added, so scripts can check what they read.
   j["format"] = 1;
   j["scenario"] = r.name;
   j["endTime"] = r.endTime;
   j["engines"] = nlohmann::json::array();
   for (auto const& e : r.engines) {
      j["engines"].push_back({{"intf", e.intf}, {"vrf", e.vrf}, {"vrfId", e.vrfId},
                              {"hwStatic", e.hwStatic}, {"unprogrammed", e.unprogrammed}});
   }
   j["interfacesWithoutEngine"] = r.interfacesWithoutEngine;
   j["hwStatic"] = r.hwStatic;
   j["unprogrammed"] = r.unprogrammed;
   j["hwTwice"] = r.hwTwice;
   j["unprogrammedTwice"] = r.unprogrammedTwice;
   j["chip"] = {{"entries", r.chipEntries}, {"capacity", r.chipCapacity}, {"table", nlohmann::json::array()}};
   for (auto const& c : r.chip) j["chip"]["table"].push_back({{"key", c.key}, {"translation", c.translation}});
   j["checkpoints"] = nlohmann::json::array();
   for (auto const& t : r.timeline) {
      j["checkpoints"].push_back({{"time", t.time}, {"engines", t.engines}, {"hwStatic", t.hwStatic},
                                  {"unprogrammed", t.unprogrammed}, {"chipEntries", t.chipEntries},
                                  {"chipCapacity", t.chipCapacity}});
   }
   j["messages"] = nlohmann::json::array();
   for (auto const& m : r.messages) {
      j["messages"].push_back({{"time", m.time}, {"name", m.name}, {"severity", m.severity}, {"text", m.text}});
   }
   j["verify"] = nlohmann::json::array();
   for (auto const& v : r.verifyRuns) {
      j["verify"].push_back({{"time", v.time}, {"event", v.label}, {"findings", v.findings}});
   }
   j["vrf"] = vrfReportJson(r.vrf);
   j["pipeline"] = asyncReportJson(r.async);
   j["dynamic"] = dynamicReportJson(r.dynamic);
   j["expectations"] = {{"held", r.passed.size()}, {"failed", r.failures}};
   return j;
}

} // namespace UloNatSim
