// Dynamic NAT and trap rules in ulonat-sim: loading, running, checking and
// reporting.

#include "tools/ulonat-sim/ScenarioDynamic.h"

#include <algorithm>
#include <cmath>
#include <deque>
#include <limits>

#include "sim/SimSystem.h"
#include "tools/ulonat-sim/Scenario.h"
#include "tools/ulonat-sim/ScenarioFields.h"

namespace UloNatSim {

namespace {

constexpr std::size_t maxCount = std::numeric_limits<std::size_t>::max();
// A generator step: small enough that a lifetime of a second is honoured
// closely, large enough that a million events take ten thousand steps.
constexpr double flowStep = 0.1;

Ip::Nat::NatTarget targetOf(Fields const& f) {
   std::string const target = f.string("target", "source");
   if (target != "source" && target != "destination") f.fail("target", "must be \"source\" or \"destination\"");
   return target == "destination" ? Ip::Nat::destination : Ip::Nat::source_;
}

Vor::U8 protocolOf(Fields const& f) { return static_cast<Vor::U8>(f.integer("protocol", 0, 255, 6)); }

Lumet::ConnTuple tupleOf(Fields const& f) {
   return Lumet::ConnTuple(f.ipAndPort("src"), f.ipAndPort("dst"), protocolOf(f));
}

Ip::Nat::DynamicKey aclKeyOf(Fields const& f) {
   std::string const acl = f.string("acl");
   if (acl.empty() || acl.size() > 100) f.fail("acl", "must be 1 to 100 bytes");
   return Ip::Nat::DynamicKey(Vor::String(acl), static_cast<Vor::U16>(f.integer("group", 0, 65535, 0)));
}

Lumet::IpAddrWithFullMask filterOf(Fields const& f, char const* field) {
   std::string const text = f.string(field, "0.0.0.0/0");
   auto v = Sim::parseFilter(text);
   if (!v) f.fail(field, "'" + text + "' is not an address with a mask");
   return *v;
}

Acl::PortSpec portSpecOf(Fields const& f, char const* field) {
   std::string const text = f.string(field, "any");
   auto v = Acl::PortSpec::parse(text);
   if (!v) f.fail(field, "'" + text + "' is not a port spec (\"any\", \"eq 80 443\", \"range 1024 65535\", ...)");
   return *v;
}

TrapRuleFields trapRuleOf(Fields const& f) {
   TrapRuleFields r;
   r.key = aclKeyOf(f);
   r.vlanId = static_cast<Vor::U16>(f.integer("vlan", 0, 4095));
   r.ruleId = static_cast<Vor::U32>(f.integer("ruleId", 0, 0xffffffffu, 0));
   r.poolId = static_cast<Vor::U32>(f.integer("poolId", 0, 0xffffffffu, 0));
   r.trapAll = f.boolean("trapAll", false);
   r.denyAll = f.boolean("denyAll", false);
   r.addrOnly = f.boolean("addrOnly", false);
   r.fullCone = f.boolean("fullCone", false);
   r.target = targetOf(f);
   r.initialized = f.boolean("initialized", true);
   if (f.has("filters")) {
      json const& list = f.raw("filters");
      if (!list.is_array()) f.fail("filters", "must be a list of filters");
      std::size_t index = 0;
      for (auto const& item : list) {
         ++index;
         Fields const ff(f.file(), f.where() + ", filter #" + std::to_string(index), item);
         auto const seq = static_cast<Vor::U32>(ff.integer("seq", 0, 0xffffffffu));
         auto const proto = static_cast<Vor::U8>(ff.integer("proto", 0, 255, 0));
         auto const srcPort = static_cast<Vor::U16>(ff.integer("srcPort", 0, 65535, 0));
         auto const dstPort = static_cast<Vor::U16>(ff.integer("dstPort", 0, 65535, 0));
         // The engine asserts this of its configuration; a scenario is told.
         if ((srcPort || dstPort) && !r.addrOnly) ff.fail("srcPort", "a service port needs an addrOnly rule");
         r.filters.emplace_back(seq, filterOf(ff, "src"), filterOf(ff, "dst"), ff.boolean("deny", false), false,
                                srcPort, dstPort, proto, portSpecOf(ff, "srcPorts"), portSpecOf(ff, "dstPorts"));
         ff.noOthers();
      }
   }
   return r;
}

// A total, or an object of interface names to counts.
void totalOrByIntf(Fields const& f, char const* field, std::optional<std::size_t>& total,
                   std::map<std::string, std::size_t>& byIntf) {
   if (!f.has(field)) return;
   if (!f.raw(field).is_object()) {
      total = f.integer(field, 0, maxCount);
      return;
   }
   for (auto const& [name, n] : f.raw(field).items()) {
      if (!n.is_number_unsigned() && !(n.is_number_integer() && n.get<long long>() >= 0)) {
         f.fail(field, "count of '" + name + "' must be a non-negative integer");
      }
      if (!Lumet::IntfId::parse(name)) f.fail(field, "'" + name + "' is not an interface name");
      byIntf[name] = n.get<std::size_t>();
   }
}

std::size_t dynamicHwOf(Sim::SimSystem const& sys, std::optional<Lumet::IntfId> const& intf) {
   std::size_t n = 0;
   sys.dynamicConnectionHwStatus()->dynamicConnectionHwWalk(
      Ip::Nat::DynamicConnectionKey(), [&](Ip::Nat::DynamicConnectionHw const& hw) {
         if (!intf || hw.key().intfId() == *intf) ++n;
         return true;
      });
   return n;
}

std::size_t backlogOf(Sim::SimSystem const& sys, std::optional<Lumet::IntfId> const& intf) {
   std::size_t n = 0;
   for (auto const& [id, engine] : sys.root()->natIntfStatusSms().members()) {
      if (!intf || id == *intf) n += engine->deferredDynamicNat().size();
   }
   return n;
}

std::size_t collapsedOf(Sim::SimSystem const& sys) {
   std::size_t n = 0;
   for (auto const& [id, engine] : sys.root()->natIntfStatusSms().members()) n += engine->dynamicRequestsCollapsed();
   return n;
}

std::size_t requestsOf(Sim::SimSystem const& sys) {
   std::size_t n = 0;
   for (auto const& [id, engine] : sys.root()->natIntfStatusSms().members()) n += engine->dynamicRequests();
   return n;
}

std::size_t unprogrammedDynamicOf(Sim::SimSystem const& sys) {
   std::size_t n = 0;
   for (auto it = sys.root()->natSmStatus()->unprogrammedEntries().begin(); it; ++it) {
      if (it.isLive()) n += it.value()->dynamicEntries().size();
   }
   return n;
}

// Runs a generated flow: see ScenarioDynamic.h.
void runFlow(Sim::SimSystem& sys, Lumet::IntfId const& intf, DynamicFlow const& flow) {
   auto const& table = sys.dynamicConnectionStatus();
   struct Live {
      double expires;
      Ip::Nat::DynamicConnectionKey key;
   };
   std::deque<Live> live;
   // A tuple added again while live lives on from its latest add: only the
   // removal due for that add is carried out.
   std::map<Lumet::ConnTuple, double> latest;
   double const start = sys.now();
   double const end = start + flow.duration;
   double owed = 0.0;
   Vor::U64 next = 0;
   for (double t = start; t < end - 1e-9; t += flowStep) {
      owed += flow.rate * std::min(flowStep, end - t);
      while (owed >= 1.0) {
         owed -= 1.0;
         Vor::U64 const i = next++;
         Vor::U32 const addr = flow.srcBase.value() + static_cast<Vor::U32>((i / flow.srcPorts) % flow.srcAddrs);
         auto const port = static_cast<Vor::U16>(flow.srcPortBase + i % flow.srcPorts);
         Lumet::ConnTuple const tuple(Lumet::IpAndPort(Lumet::IpAddr(addr), port), flow.dst, flow.protocol);
         // One NAT port per source address and port of the space.
         auto const natPort = static_cast<Vor::U16>(1024 + (i % (flow.srcPorts * Vor::U64(flow.srcAddrs))) % 64000);
         Ip::Nat::DynamicConnectionKey const key(intf, tuple);
         Ip::Nat::DynamicConnection conn(key, Lumet::IpAndPort(flow.global, natPort));
         conn.fullConeIs(flow.fullCone);
         table->dynamicConnectionIs(conn);
         live.push_back(Live{t + flow.lifetime, key});
         latest[tuple] = t + flow.lifetime;
      }
      while (!live.empty() && live.front().expires <= t + 1e-9) {
         auto it = latest.find(live.front().key.connTuple());
         if (it != latest.end() && it->second == live.front().expires) {
            table->dynamicConnectionDel(live.front().key);
            latest.erase(it);
         }
         live.pop_front();
      }
      sys.runUntil(std::min(t + flowStep, end));
   }
}

} // namespace

bool loadDynamicEvent(Fields const& f, Event& e) {
   DynamicEventFields& d = e.dynamicFields;
   if (e.kind == "dynamicAdd") {
      e.intf = f.intf("intf");
      Lumet::ConnTuple const tuple = tupleOf(f);
      Ip::Nat::DynamicConnection conn(Ip::Nat::DynamicConnectionKey(Lumet::IntfId(e.intf), tuple),
                                      f.ipAndPort("global"),
                                      static_cast<Vor::U16>(f.integer("connMark", 0, 65535, 0)));
      conn.targetIs(targetOf(f));
      conn.fullConeIs(f.boolean("fullCone", false));
      conn.addrOnlyIs(f.boolean("addrOnly", false));
      conn.twiceNatIs(f.boolean("twiceNat", false));
      d.conn = conn;
   } else if (e.kind == "dynamicDel") {
      e.intf = f.intf("intf");
      d.tuple = tupleOf(f);
   } else if (e.kind == "dynamicDelAll") {
      d.allIntfs = !f.has("intf");
      if (!d.allIntfs) e.intf = f.intf("intf");
   } else if (e.kind == "dynamicFlow") {
      e.intf = f.intf("intf");
      DynamicFlow flow;
      flow.rate = f.number("rate", 0.0, 10000000.0);
      flow.lifetime = f.number("lifetime", 0.0, 1e6);
      flow.duration = f.number("duration", 0.0, 1e6);
      flow.srcBase = f.ip("srcBase");
      flow.srcAddrs = static_cast<Vor::U32>(f.integer("srcAddrs", 1, 1u << 24, 1));
      flow.srcPortBase = static_cast<Vor::U16>(f.integer("srcPortBase", 1, 65535, 1024));
      flow.srcPorts = static_cast<Vor::U32>(f.integer("srcPorts", 1, 65536u - flow.srcPortBase, 1));
      flow.dst = f.ipAndPort("dst");
      flow.global = f.ip("global");
      flow.protocol = protocolOf(f);
      flow.fullCone = f.boolean("fullCone", false);
      if (flow.rate * flow.duration > 20000000.0) f.fail("rate", "more than 20,000,000 connections in one flow");
      d.flow = flow;
   } else if (e.kind == "trapRule") {
      e.intf = f.intf("intf");
      d.trapRule = trapRuleOf(f);
   } else if (e.kind == "trapRuleInit" || e.kind == "trapRuleDel") {
      e.intf = f.intf("intf");
      TrapRuleFields r;
      r.key = aclKeyOf(f);
      d.trapRule = r;
   } else if (e.kind == "failNextTrapCommit" || e.kind == "failNextSliceCommit") {
      e.count = f.integer("count", 0, 0xffffffffu);
   } else if (e.kind == "natGroup") {
      e.count = f.integer("connMark", 0, 65535);
      e.group = static_cast<Vor::U16>(f.integer("group", 0, 65535));
   } else if (e.kind == "helperFlag") {
      // Checked against the helper's own description when it runs.
      e.configKey = f.string("name");
      e.value = f.boolean("value");
   } else if (e.kind == "dynamicExpect") {
      loadDynamicExpectation(f, e.expect.dynamic);
   } else {
      return false;
   }
   return true;
}

void loadDynamicExpectation(Fields const& f, DynamicExpectation& x) {
   totalOrByIntf(f, "dynamicHw", x.dynamicHwTotal, x.dynamicHw);
   totalOrByIntf(f, "backlog", x.backlogTotal, x.backlog);
   auto count = [&](char const* field, std::optional<std::size_t>& out) {
      if (f.has(field)) out = f.integer(field, 0, maxCount);
   };
   count("chipDynamicEntries", x.chipDynamicEntries);
   count("collapsed", x.collapsed);
   count("unprogrammedDynamic", x.unprogrammedDynamic);
   count("trapEntries", x.trapEntries);
   count("trapAcls", x.trapAcls);
   count("unprogrammedTrapAcls", x.unprogrammedTrapAcls);
   if (f.has("trapAcl")) {
      Fields const a(f.file(), f.where() + ", trapAcl", f.raw("trapAcl"));
      DynamicExpectation::AclEntries acl;
      acl.vlan = static_cast<Vor::U32>(a.integer("vlan", 0, 4095));
      acl.acl = a.string("acl");
      acl.slice = a.boolean("slice", false);
      acl.entries = a.integer("entries", 0, maxCount);
      a.noOthers();
      x.trapAcl.push_back(acl);
   }
}

bool runDynamicEvent(Sim::SimSystem& sys, Event const& e, std::string const& at, std::vector<std::string>& passed,
                     std::vector<std::string>& failures) {
   DynamicEventFields const& d = e.dynamicFields;
   // Events without an interface leave it empty, which names none.
   Lumet::IntfId const intf = e.intf.empty() ? Lumet::IntfId() : Lumet::IntfId(e.intf);
   auto requireIntf = [&] {
      if (sys.status()->intfStatus(intf)) return true;
      failures.push_back(at + e.label + ": interface " + e.intf + " is not configured; event ignored");
      return false;
   };
   if (e.kind == "dynamicAdd") {
      sys.dynamicConnectionStatus()->dynamicConnectionIs(*d.conn);
   } else if (e.kind == "dynamicDel") {
      sys.dynamicConnectionStatus()->dynamicConnectionDel(Ip::Nat::DynamicConnectionKey(intf, *d.tuple));
   } else if (e.kind == "dynamicDelAll") {
      std::vector<Ip::Nat::DynamicConnectionKey> keys;
      sys.dynamicConnectionStatus()->dynamicConnectionWalk(
         Ip::Nat::DynamicConnectionKey(), [&](Ip::Nat::DynamicConnection const& conn) {
            if (d.allIntfs || conn.key().intfId() == intf) keys.push_back(conn.key());
            return true;
         });
      for (auto const& key : keys) sys.dynamicConnectionStatus()->dynamicConnectionDel(key);
   } else if (e.kind == "dynamicFlow") {
      runFlow(sys, intf, *d.flow);
   } else if (e.kind == "trapRule") {
      if (!requireIntf()) return true;
      TrapRuleFields const& r = *d.trapRule;
      Sim::SimSystem::TrapRuleSpec spec;
      spec.vlanId = r.vlanId;
      spec.ruleId = r.ruleId;
      spec.poolId = r.poolId;
      spec.trapAll = r.trapAll;
      spec.denyAll = r.denyAll;
      spec.addrOnly = r.addrOnly;
      spec.fullCone = r.fullCone;
      spec.target = r.target;
      spec.filters = r.filters;
      sys.trapRuleIs(intf, r.key, spec, r.initialized);
   } else if (e.kind == "trapRuleInit") {
      if (!sys.trapRuleInitializedIs(intf, d.trapRule->key)) {
         failures.push_back(at + e.label + ": no such trap rule on " + e.intf + "; event ignored");
      }
   } else if (e.kind == "trapRuleDel") {
      sys.trapRuleDel(intf, d.trapRule->key);
   } else if (e.kind == "failNextTrapCommit" || e.kind == "failNextSliceCommit") {
      if (!sys.helper()) {
         failures.push_back(at + e.label + ": needs the direct chip; event ignored");
      } else if (e.kind == "failNextTrapCommit") {
         sys.helper()->failNextTrapCommitIs(static_cast<Vor::U32>(e.count));
      } else {
         sys.helper()->failNextSliceCommitIs(static_cast<Vor::U32>(e.count));
      }
   } else if (e.kind == "natGroup") {
      Ip::Nat::NatGroupInfo info;
      info.group = e.group;
      sys.status()->natGroupInfoIs(static_cast<Vor::U16>(e.count), info);
   } else if (e.kind == "helperFlag") {
      Vor::Ptr<UloHelper::UloHelperNat> helper = sys.helper();
      if (!helper) helper = sys.asyncHelper();
      if (auto error = helper->setByName(e.configKey, e.value ? "true" : "false")) {
         failures.push_back(at + e.label + ": " + *error + "; event ignored");
      }
   } else if (e.kind == "dynamicExpect") {
      std::vector<std::string> misses;
      checkDynamic(sys, e.expect.dynamic, misses);
      if (misses.empty()) passed.push_back(at + e.label + ": ok");
      for (auto const& m : misses) failures.push_back(at + e.label + ": " + m);
   } else {
      return false;
   }
   return true;
}

void checkDynamic(Sim::SimSystem const& sys, DynamicExpectation const& x, std::vector<std::string>& misses) {
   auto expectEq = [&](std::string const& what, std::size_t want, std::size_t got) {
      if (want != got) {
         misses.push_back(what + " expected " + std::to_string(want) + ", got " + std::to_string(got));
      }
   };
   if (x.dynamicHwTotal) expectEq("dynamic connections in hardware status", *x.dynamicHwTotal, dynamicHwOf(sys, {}));
   for (auto const& [name, n] : x.dynamicHw) {
      expectEq("dynamic connections in hardware status of " + name, n, dynamicHwOf(sys, Lumet::IntfId(name)));
   }
   bool const chipExpected = x.chipDynamicEntries || x.trapEntries || x.trapAcls || !x.trapAcl.empty();
   if (chipExpected && !sys.helper()) {
      misses.push_back("the chip's dynamic and trap entries are only known with the direct chip");
      return;
   }
   if (x.chipDynamicEntries) {
      expectEq("dynamic translations on the chip", *x.chipDynamicEntries, sys.helper()->dynamicEntries().size());
   }
   if (x.backlogTotal) expectEq("dynamic backlog", *x.backlogTotal, backlogOf(sys, {}));
   for (auto const& [name, n] : x.backlog) {
      expectEq("dynamic backlog of " + name, n, backlogOf(sys, Lumet::IntfId(name)));
   }
   if (x.collapsed) expectEq("collapsed dynamic requests", *x.collapsed, collapsedOf(sys));
   if (x.unprogrammedDynamic) {
      expectEq("unprogrammed dynamic tuples", *x.unprogrammedDynamic, unprogrammedDynamicOf(sys));
   }
   if (x.trapEntries) expectEq("trap ACL entries on the chip", *x.trapEntries, sys.helper()->trapEntryCount());
   if (x.trapAcls) expectEq("trap ACLs on the chip", *x.trapAcls, sys.helper()->trapAcls().size());
   if (x.unprogrammedTrapAcls) {
      expectEq("unprogrammed trap rules", *x.unprogrammedTrapAcls, sys.unprogrammedTrapAclCount());
   }
   for (auto const& acl : x.trapAcl) {
      auto const* entries = sys.helper()->trapAcl(acl.vlan, acl.acl, acl.slice);
      expectEq("entries of " + Sim::TrapAclKey{acl.vlan, acl.acl, acl.slice}.stringValue(), acl.entries,
               entries ? entries->size() : 0);
   }
}

DynamicReport dynamicReportOf(Sim::SimSystem const& sys) {
   DynamicReport r;
   if (!sys.helper()) return r;
   r.hwConnections = dynamicHwOf(sys, {});
   r.chipEntries = sys.helper()->dynamicEntries().size();
   r.backlog = backlogOf(sys, {});
   r.requests = requestsOf(sys);
   r.collapsed = collapsedOf(sys);
   r.unprogrammed = unprogrammedDynamicOf(sys);
   r.trapEntries = sys.helper()->trapEntryCount();
   r.unprogrammedTrapAcls = sys.unprogrammedTrapAclCount();
   for (auto const& [key, entries] : sys.helper()->trapAcls()) {
      for (auto const& entry : entries) r.trapAcls.push_back(key.stringValue() + ": " + entry.stringValue());
   }
   return r;
}

void printDynamicReport(std::ostream& os, DynamicReport const& r) {
   if (r.requests == 0 && r.hwConnections == 0 && r.trapEntries == 0 && r.unprogrammedTrapAcls == 0) return;
   os << "\nDynamic NAT:\n";
   os << "  connections in hardware status " << r.hwConnections << ", translations on the chip " << r.chipEntries
      << ", backlog " << r.backlog << ", unprogrammed " << r.unprogrammed << "\n";
   os << "  requests " << r.requests << ", collapsed " << r.collapsed << "\n";
   os << "Trap ACL entries on the chip: " << r.trapEntries << " (unprogrammed rules: " << r.unprogrammedTrapAcls
      << ")\n";
   for (auto const& line : r.trapAcls) os << "  " << line << "\n";
}

nlohmann::json dynamicReportJson(DynamicReport const& r) {
   nlohmann::json j;
   j["hwConnections"] = r.hwConnections;
   j["chipEntries"] = r.chipEntries;
   j["backlog"] = r.backlog;
   j["requests"] = r.requests;
   j["collapsed"] = r.collapsed;
   j["unprogrammed"] = r.unprogrammed;
   j["trapEntries"] = r.trapEntries;
   j["unprogrammedTrapAcls"] = r.unprogrammedTrapAcls;
   j["trapAcls"] = r.trapAcls;
   return j;
}

} // namespace UloNatSim
