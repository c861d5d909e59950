#pragma once
// Dynamic NAT in ulonat-sim: connection tracking's events, trap rules, the
// generator of connection flows, their expectations and their part of the
// report. The generic loader and runner hand every event kind they do not
// know to loadDynamicEvent() / runDynamicEvent() before calling it unknown.
//
// Events (fields; see docs/scenario-format.md):
//   dynamicAdd       intf, src, dst, global, protocol (6), target ("source"
//                    or "destination", default source), fullCone, addrOnly,
//                    twiceNat (false), connMark (0)
//   dynamicDel       intf, src, dst, protocol (6)
//   dynamicFlow      intf, rate (connections per virtual second), lifetime
//                    (seconds), duration (seconds), srcBase, srcAddrs,
//                    srcPortBase, srcPorts, dst, global, protocol (6),
//                    fullCone (false). Tuple i of the flow comes from address
//                    srcBase + (i / srcPorts) % srcAddrs, port srcPortBase +
//                    i % srcPorts, to dst; so a space smaller than the live
//                    connections makes a flow re-add tuples that are still
//                    live. The flow runs in steps of 0.1 virtual seconds
//                    (adds, then removals of what expired, then the
//                    scheduler), and ends after `duration` with what is still
//                    live left in the table: the event moves virtual time
//                    on by `duration`.
//   dynamicDelAll    intf (optional: every interface)
//   trapRule         intf, acl, group (0), vlan, ruleId (0), poolId (0),
//                    trapAll, denyAll, addrOnly, fullCone (false), target,
//                    initialized (true), filters: a list of {seq, src, dst,
//                    proto (0), srcPorts, dstPorts (port specs as
//                    "range 1024 65535", "eq 80 443", "gt 1023", ...),
//                    srcPort, dstPort (service ports, 0), deny (false)}
//   trapRuleInit     intf, acl, group (0): marks the rule initialized
//   trapRuleDel      intf, acl, group (0)
//   failNextTrapCommit, failNextSliceCommit   count
//   natGroup         connMark, group: the twice group of a connection mark
//   helperFlag       name, value: a boolean capability of the helper
//                    (globalHwDynamicEntries, fullConeHwUdpEntries, ...)
//   dynamicExpect    as "expect" with the dynamic fields below, but checked
//                    at once, without running the scheduler first: what the
//                    backlog holds right after events of the same time.
// Expectation fields (in "expect" and "dynamicExpect"):
//   dynamicHw              connections in hardware status: a total, or by
//                          interface
//   chipDynamicEntries     dynamic translations on the chip
//   backlog                events pending in the dynamic backlogs: a total,
//                          or by interface
//   collapsed              requests that met a pending event of their tuple,
//                          over all engines
//   unprogrammedDynamic    unprogrammed dynamic tuples, over all interfaces
//   trapEntries            trap ACL entries on the chip
//   trapAcls               ACLs (and slices) on the chip
//   unprogrammedTrapAcls   unprogrammed trap rules, over all interfaces
//   trapAcl                {vlan, acl, entries, slice (false)}: the entries of
//                          one ACL on the chip (0: no such ACL)

#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "framework/IpNatDynamicConnectionStatus.h"
#include "framework/IpNatStatus.h"

namespace Sim {
class SimSystem;
}

namespace UloNatSim {

class Fields;
struct Event;

struct DynamicFlow {
   double rate = 0.0;
   double lifetime = 0.0;
   double duration = 0.0;
   Lumet::IpAddr srcBase;
   Vor::U32 srcAddrs = 1;
   Vor::U16 srcPortBase = 1024;
   Vor::U32 srcPorts = 1;
   Lumet::IpAndPort dst;
   Lumet::IpAddr global;
   Vor::U8 protocol = 6;
   bool fullCone = false;
};

struct TrapRuleFields {
   Ip::Nat::DynamicKey key;
   Vor::U16 vlanId = 0;
   Vor::U32 ruleId = 0;
   Vor::U32 poolId = 0;
   bool trapAll = false;
   bool denyAll = false;
   bool addrOnly = false;
   bool fullCone = false;
   Ip::Nat::NatTarget target = Ip::Nat::NatTarget::source_;
   bool initialized = true;
   std::vector<Ip::Nat::NatTrapFilter> filters;
};

struct DynamicEventFields {
   std::optional<Ip::Nat::DynamicConnection> conn;
   std::optional<Lumet::ConnTuple> tuple;
   std::optional<DynamicFlow> flow;
   std::optional<TrapRuleFields> trapRule;
   bool allIntfs = false;
};

struct DynamicExpectation {
   std::optional<std::size_t> dynamicHwTotal;
   std::map<std::string, std::size_t> dynamicHw;
   std::optional<std::size_t> chipDynamicEntries;
   std::optional<std::size_t> backlogTotal;
   std::map<std::string, std::size_t> backlog;
   std::optional<std::size_t> collapsed;
   std::optional<std::size_t> unprogrammedDynamic;
   std::optional<std::size_t> trapEntries;
   std::optional<std::size_t> trapAcls;
   std::optional<std::size_t> unprogrammedTrapAcls;
   struct AclEntries {
      Vor::U32 vlan = 0;
      std::string acl;
      bool slice = false;
      std::size_t entries = 0;
   };
   std::vector<AclEntries> trapAcl;
};

// Reads the fields of a dynamic or trap event into `e`. False when e.kind is
// none of them (nothing read). Throws ScenarioError on a bad field.
bool loadDynamicEvent(Fields const& f, Event& e);
// Reads the dynamic fields of an expectation, those present.
void loadDynamicExpectation(Fields const& f, DynamicExpectation& x);

// Applies a dynamic or trap event. False when e.kind is none of them. A
// dynamicExpect adds its result to `passed` or `failures`.
bool runDynamicEvent(Sim::SimSystem& sys, Event const& e, std::string const& at, std::vector<std::string>& passed,
                     std::vector<std::string>& failures);
// One line to `misses` per dynamic expectation that does not hold.
void checkDynamic(Sim::SimSystem const& sys, DynamicExpectation const& x, std::vector<std::string>& misses);

struct DynamicReport {
   std::size_t hwConnections = 0;
   std::size_t chipEntries = 0;
   std::size_t backlog = 0;
   std::size_t requests = 0;
   std::size_t collapsed = 0;
   std::size_t unprogrammed = 0;
   std::size_t trapEntries = 0;
   std::size_t unprogrammedTrapAcls = 0;
   std::vector<std::string> trapAcls;   // one line per chip entry, under its ACL
};

DynamicReport dynamicReportOf(Sim::SimSystem const& sys);
void printDynamicReport(std::ostream& os, DynamicReport const& r);
nlohmann::json dynamicReportJson(DynamicReport const& r);

} // namespace UloNatSim
