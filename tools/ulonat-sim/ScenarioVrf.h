#pragma once
// VRF-to-VRF NAT in ulonat-sim: its events, its expectations and its part of
// the report. The generic loader and runner hand every event kind they do not
// know to loadVrfEvent() / runVrfEvent() before calling it unknown.
//
// Events (fields; see docs/scenario-format.md):
//   natVrf          vrf                       a NAT VRF of the configuration
//   natVrfDel       vrf
//   vrfRuleAdd      vrf, old, new, outsideVrf (default "default"),
//                   target ("source" or "destination", default source)
//   vrfRuleDel      vrf, old
//   policer         vrf, rate, burst          0 and 0 clear it
//   forceTableFull  vrf, value
// The hardware VRF ids come with the existing "vrf" event.

#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "framework/IpNatStatus.h"

namespace Sim {
class SimSystem;
}

namespace UloNatSim {

class Fields;
struct Event;

struct VrfEventFields {
   std::optional<Ip::Nat::NatVrfStaticConnection> rule;
   Lumet::IpAddr addr;
   Vor::U32 rate = 0;
   Vor::U32 burst = 0;
};

struct VrfExpectation {
   // A total, or counts by NAT VRF name.
   std::optional<std::size_t> hwVrfRulesTotal;
   std::map<std::string, std::size_t> hwVrfRules;
   std::optional<std::size_t> pendingVrfRulesTotal;
   std::map<std::string, std::size_t> pendingVrfRules;
   std::optional<std::size_t> unprogrammedVrfRulesTotal;
   std::map<std::string, std::size_t> unprogrammedVrfRules;
   std::optional<std::size_t> vrfChipEntries;
   // The chip's policers exactly: VRF id -> (rate, burst).
   std::optional<std::map<Vor::U32, std::pair<Vor::U32, Vor::U32>>> policers;
   // Ids of rules in hardware status: "vrf/address" -> (inside, outside).
   std::map<std::string, std::pair<Vor::U32, Vor::U32>> hwVrfRuleIds;
   bool vrfChipMatchesHwStatus = false;
};

// Reads the fields of a VRF event into `e`. False when e.kind is not a VRF
// event (nothing read). Throws ScenarioError on a bad field.
bool loadVrfEvent(Fields const& f, Event& e);
// Reads the VRF fields of an expectation, those present.
void loadVrfExpectation(Fields const& f, VrfExpectation& x);

// Applies a VRF event. False when e.kind is not a VRF event. An event that
// cannot apply (forceTableFull on a VRF without machine) adds a line to
// `failures`.
bool runVrfEvent(Sim::SimSystem& sys, Event const& e, std::string const& at,
                 std::vector<std::string>& failures);
// One line to `misses` per VRF expectation that does not hold.
void checkVrf(Sim::SimSystem const& sys, VrfExpectation const& x, std::vector<std::string>& misses);

struct VrfReportLine {
   std::string vrf;
   std::size_t hwRules = 0;
   std::size_t pending = 0;
   std::size_t unprogrammed = 0;
   bool forceTableFull = false;
   bool policerPending = false;
};

struct VrfReport {
   std::vector<VrfReportLine> vrfs;
   std::vector<std::string> chip;       // VRF translations on the chip
   std::vector<std::string> policers;   // policers on the chip
   std::size_t occupancy = 0;           // chip entries they take
};

VrfReport vrfReportOf(Sim::SimSystem const& sys);
void printVrfReport(std::ostream& os, VrfReport const& r);
nlohmann::json vrfReportJson(VrfReport const& r);

} // namespace UloNatSim
