// VRF-to-VRF NAT in ulonat-sim: loading, running, checking and reporting.

#include "tools/ulonat-sim/ScenarioVrf.h"

#include <limits>

#include "sim/SimSystem.h"
#include "tools/ulonat-sim/Scenario.h"
#include "tools/ulonat-sim/ScenarioFields.h"

namespace UloNatSim {

namespace {

std::string vrfNameOf(Fields const& f, char const* field) {
   std::string const name = f.string(field);
   if (name.empty() || name.size() > 100) f.fail(field, "must be 1 to 100 bytes");
   return name;
}

// A total, or an object of NAT VRF names to counts.
void totalOrByVrf(Fields const& f, char const* field, std::optional<std::size_t>& total,
                  std::map<std::string, std::size_t>& byVrf) {
   if (!f.has(field)) return;
   if (!f.raw(field).is_object()) {
      total = f.integer(field, 0, std::numeric_limits<std::size_t>::max());
      return;
   }
   for (auto const& [name, n] : f.raw(field).items()) {
      if (!n.is_number_unsigned() && !(n.is_number_integer() && n.get<long long>() >= 0)) {
         f.fail(field, "count of '" + name + "' must be a non-negative integer");
      }
      if (name.empty() || name.size() > 100) f.fail(field, "'" + name + "' is not a VRF name");
      byVrf[name] = n.get<std::size_t>();
   }
}

std::string policerText(Vor::U32 vrfId, Vor::U32 rate, Vor::U32 burst) {
   return "VRF id " + std::to_string(vrfId) + ": rate " + std::to_string(rate) + ", burst " +
          std::to_string(burst);
}

} // namespace

bool loadVrfEvent(Fields const& f, Event& e) {
   if (e.kind == "natVrf" || e.kind == "natVrfDel") {
      e.vrf = vrfNameOf(f, "vrf");
   } else if (e.kind == "vrfRuleAdd") {
      e.vrf = vrfNameOf(f, "vrf");
      Ip::Nat::NatVrfStaticConnection rule;
      rule.srcAddressOld = f.ip("old");
      rule.srcAddressNew = f.ip("new");
      rule.outsideVrf = L3::VrfName(f.has("outsideVrf") ? vrfNameOf(f, "outsideVrf") : "default");
      std::string const target = f.string("target", "source");
      if (target != "source" && target != "destination") {
         f.fail("target", "must be \"source\" or \"destination\"");
      }
      rule.target = target == "destination" ? Ip::Nat::destination : Ip::Nat::source_;
      e.vrfFields.rule = rule;
   } else if (e.kind == "vrfRuleDel") {
      e.vrf = vrfNameOf(f, "vrf");
      e.vrfFields.addr = f.ip("old");
   } else if (e.kind == "policer") {
      e.vrf = vrfNameOf(f, "vrf");
      e.vrfFields.rate = static_cast<Vor::U32>(f.integer("rate", 0, 0xffffffffu));
      e.vrfFields.burst = static_cast<Vor::U32>(f.integer("burst", 0, 0xffffffffu));
   } else if (e.kind == "forceTableFull") {
      e.vrf = vrfNameOf(f, "vrf");
      e.value = f.boolean("value");
   } else {
      return false;
   }
   return true;
}

void loadVrfExpectation(Fields const& f, VrfExpectation& x) {
   totalOrByVrf(f, "hwVrfRules", x.hwVrfRulesTotal, x.hwVrfRules);
   totalOrByVrf(f, "pendingVrfRules", x.pendingVrfRulesTotal, x.pendingVrfRules);
   totalOrByVrf(f, "unprogrammedVrfRules", x.unprogrammedVrfRulesTotal, x.unprogrammedVrfRules);
   if (f.has("vrfChipEntries")) {
      x.vrfChipEntries = f.integer("vrfChipEntries", 0, std::numeric_limits<std::size_t>::max());
   }
   if (f.has("policers")) {
      json const& v = f.raw("policers");
      if (!v.is_object()) f.fail("policers", "must be an object of VRF ids to {\"rate\", \"burst\"}");
      std::map<Vor::U32, std::pair<Vor::U32, Vor::U32>> policers;
      for (auto const& [id, p] : v.items()) {
         std::size_t used = 0;
         unsigned long vrfId = 0;
         try {
            vrfId = std::stoul(id, &used);
         } catch (std::exception const&) {
            used = 0;
         }
         if (used == 0 || used != id.size() || vrfId > 0xffffffffu) {
            f.fail("policers", "'" + id + "' is not a VRF id");
         }
         Fields const pf(f.file(), f.where() + ", policer of VRF id " + id, p);
         auto const rate = static_cast<Vor::U32>(pf.integer("rate", 0, 0xffffffffu));
         auto const burst = static_cast<Vor::U32>(pf.integer("burst", 0, 0xffffffffu));
         pf.noOthers();
         policers[static_cast<Vor::U32>(vrfId)] = {rate, burst};
      }
      x.policers = policers;
   }
   if (f.has("hwVrfRuleIds")) {
      json const& v = f.raw("hwVrfRuleIds");
      if (!v.is_object()) f.fail("hwVrfRuleIds", "must be an object of \"vrf/address\" to [inside id, outside id]");
      for (auto const& [rule, ids] : v.items()) {
         auto const slash = rule.find('/');
         if (slash == std::string::npos || slash == 0 || !Lumet::IpAddr::parse(rule.substr(slash + 1))) {
            f.fail("hwVrfRuleIds", "'" + rule + "' is not \"vrf/address\"");
         }
         if (!ids.is_array() || ids.size() != 2 || !ids[0].is_number_unsigned() || !ids[1].is_number_unsigned() ||
             ids[0].get<Vor::U64>() > 0xffffffffu || ids[1].get<Vor::U64>() > 0xffffffffu) {
            f.fail("hwVrfRuleIds", "ids of '" + rule + "' must be [inside id, outside id]");
         }
         x.hwVrfRuleIds[rule] = {ids[0].get<Vor::U32>(), ids[1].get<Vor::U32>()};
      }
   }
   x.vrfChipMatchesHwStatus = f.boolean("vrfChipMatchesHwStatus", false);
}

bool runVrfEvent(Sim::SimSystem& sys, Event const& e, std::string const& at,
                 std::vector<std::string>& failures) {
   L3::VrfName const vrf(e.vrf);
   if (e.kind == "natVrf") {
      sys.natVrfIs(vrf);
   } else if (e.kind == "natVrfDel") {
      sys.natVrfDel(vrf);
   } else if (e.kind == "vrfRuleAdd") {
      sys.vrfRuleIs(vrf, *e.vrfFields.rule);
   } else if (e.kind == "vrfRuleDel") {
      sys.vrfRuleDel(vrf, e.vrfFields.addr);
   } else if (e.kind == "policer") {
      sys.vrfPolicerIs(vrf, e.vrfFields.rate, e.vrfFields.burst);
   } else if (e.kind == "forceTableFull") {
      if (!sys.forceTableFullIs(vrf, e.value)) {
         failures.push_back(at + e.label + ": VRF " + e.vrf +
                            " has no VRF NAT machine (not a NAT VRF, not started, or VRF NAT "
                            "unsupported); forceTableFull ignored");
      }
   } else {
      return false;
   }
   return true;
}

void checkVrf(Sim::SimSystem const& sys, VrfExpectation const& x, std::vector<std::string>& misses) {
   auto expectEq = [&](std::string const& what, std::size_t want, std::size_t got) {
      if (want != got) {
         misses.push_back(what + " expected " + std::to_string(want) + ", got " + std::to_string(got));
      }
   };
   if (x.hwVrfRulesTotal) expectEq("VRF rules in hardware status", *x.hwVrfRulesTotal, sys.hwVrfRuleCount());
   for (auto const& [vrf, n] : x.hwVrfRules) {
      expectEq("VRF rules in hardware status of " + vrf, n, sys.hwVrfRuleCount(L3::VrfName(vrf)));
   }
   if (x.pendingVrfRulesTotal) {
      expectEq("VRF rules waiting for an id", *x.pendingVrfRulesTotal, sys.pendingVrfRuleCount());
   }
   for (auto const& [vrf, n] : x.pendingVrfRules) {
      expectEq("VRF rules of " + vrf + " waiting for an id", n, sys.pendingVrfRuleCount(L3::VrfName(vrf)));
   }
   if (x.unprogrammedVrfRulesTotal) {
      expectEq("unprogrammed VRF rules", *x.unprogrammedVrfRulesTotal, sys.unprogrammedVrfRuleCount());
   }
   for (auto const& [vrf, n] : x.unprogrammedVrfRules) {
      expectEq("unprogrammed VRF rules of " + vrf, n, sys.unprogrammedVrfRuleCount(L3::VrfName(vrf)));
   }
   if (x.vrfChipEntries) {
      expectEq("VRF translations on the chip", *x.vrfChipEntries, sys.helper()->vrfEntries().size());
   }
   if (x.policers) {
      std::map<Vor::U32, std::pair<Vor::U32, Vor::U32>> got;
      for (auto const& [id, p] : sys.helper()->policers()) got[id] = {p.rate, p.burst};
      if (got != *x.policers) {
         std::string text = "policers expected {";
         for (auto const& [id, p] : *x.policers) text += " " + policerText(id, p.first, p.second) + ";";
         text += " }, got {";
         for (auto const& [id, p] : got) text += " " + policerText(id, p.first, p.second) + ";";
         misses.push_back(text + " }");
      }
   }
   for (auto const& [rule, ids] : x.hwVrfRuleIds) {
      auto const slash = rule.find('/');
      auto const hw = sys.hwStatus()->vrfStatus(L3::VrfName(rule.substr(0, slash)));
      auto const conn = hw ? hw->staticNat(*Lumet::IpAddr::parse(rule.substr(slash + 1)))
                           : Vor::Ptr<Ip::Nat::HwNatVrfStaticConnection>();
      if (!conn) {
         misses.push_back("VRF rule " + rule + " expected in hardware status, not there");
      } else if (conn->insideVrfId() != ids.first || conn->outsideVrfId() != ids.second) {
         misses.push_back("VRF rule " + rule + " expected with ids " + std::to_string(ids.first) + "/" +
                          std::to_string(ids.second) + ", got " + std::to_string(conn->insideVrfId()) + "/" +
                          std::to_string(conn->outsideVrfId()));
      }
   }
   if (x.vrfChipMatchesHwStatus) {
      for (auto const& m : sys.vrfChipMismatches()) misses.push_back("VRF chip and hardware status: " + m);
   }
}

VrfReport vrfReportOf(Sim::SimSystem const& sys) {
   VrfReport r;
   if (auto const& root = sys.root()->natVrfRootSm()) {
      for (auto const& [name, sm] : root->natVrfSms().members()) {
         L3::VrfName const vrf(name);
         r.vrfs.push_back(VrfReportLine{name.stdString(), sys.hwVrfRuleCount(vrf), sys.pendingVrfRuleCount(vrf),
                                        sys.unprogrammedVrfRuleCount(vrf), sm->forceTableFull(),
                                        static_cast<bool>(sm->pendingVrfConfig())});
      }
   }
   // The asynchronous helper answers VRF translations itself: no chip to show.
   if (!sys.helper()) return r;
   for (auto const& [key, entry] : sys.helper()->vrfEntries()) {
      r.chip.push_back(key.stringValue() + " <-> " + entry.newAddr.stringValue() + " in VRF id " +
                       std::to_string(entry.outsideVrfId));
   }
   for (auto const& [id, p] : sys.helper()->policers()) r.policers.push_back(policerText(id, p.rate, p.burst));
   r.occupancy = sys.helper()->vrfOccupancy();
   return r;
}

void printVrfReport(std::ostream& os, VrfReport const& r) {
   if (r.vrfs.empty() && r.chip.empty() && r.policers.empty()) return;
   os << "\nNAT VRFs:\n";
   for (auto const& v : r.vrfs) {
      os << "  " << v.vrf << ": rules in hardware status " << v.hwRules << ", waiting for an id "
         << v.pending << ", unprogrammed " << v.unprogrammed;
      if (v.forceTableFull) os << ", forceTableFull";
      if (v.policerPending) os << ", policer waiting for the VRF's id";
      os << "\n";
   }
   os << "VRF translations and policers on the chip: " << r.occupancy << " entries\n";
   for (auto const& c : r.chip) os << "  " << c << "\n";
   for (auto const& p : r.policers) os << "  policer " << p << "\n";
}

nlohmann::json vrfReportJson(VrfReport const& r) {
   nlohmann::json j;
   j["vrfs"] = nlohmann::json::array();
   for (auto const& v : r.vrfs) {
      j["vrfs"].push_back({{"vrf", v.vrf}, {"hwRules", v.hwRules}, {"pending", v.pending},
                           {"unprogrammed", v.unprogrammed}, {"forceTableFull", v.forceTableFull},
                           {"policerPending", v.policerPending}});
   }
   j["chip"] = r.chip;
   j["policers"] = r.policers;
   j["occupancy"] = r.occupancy;
   return j;
}

} // namespace UloNatSim
