#pragma once
// A scenario of ulonat-sim: the chip and capabilities to build the system
// with, and a list of timed events. Loading validates everything before
// anything runs; an error names the file, the event and the field.

#include <map>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "sim/SimSystem.h"
#include "tools/ulonat-sim/ScenarioAsync.h"
#include "tools/ulonat-sim/ScenarioDynamic.h"
#include "tools/ulonat-sim/ScenarioVrf.h"

namespace UloNatSim {

struct ScenarioError {
   std::string text;
};

struct Expectation {
   std::optional<std::size_t> hwStaticTotal;
   std::map<std::string, std::size_t> hwStatic;
   std::optional<std::size_t> chipEntries;
   std::optional<std::size_t> unprogrammedTotal;
   std::map<std::string, std::size_t> unprogrammed;
   std::map<std::string, std::size_t> logs;
   std::optional<std::size_t> engines;
   bool chipMatchesHwStatus = false;
   std::optional<std::size_t> hwTwiceTotal;
   std::map<std::string, std::size_t> hwTwice;
   std::optional<std::size_t> unprogrammedTwiceTotal;
   std::map<std::string, std::size_t> unprogrammedTwice;
   std::optional<std::size_t> chipTwiceEntries;
   std::optional<std::size_t> halfPairs;
   // The outgoing interfaces that every chip entry of a static rule carries.
   struct RuleOifs {
      std::string intf;
      Ip::Nat::StaticKey key;
      std::vector<std::string> oifs;
   };
   std::optional<RuleOifs> staticOifs;
   // The next hop that every chip half of a twice group in one direction
   // carries.
   struct TwiceNextHop {
      Vor::U16 group = 0;
      bool forward = true;
      Vor::U64 nextHopId = 0;
   };
   std::optional<TwiceNextHop> twiceNextHop;
   // Helper calls so far, by name ("adds", "deletes", "twiceAdds",
   // "twiceDeletes", "updates", "twiceUpdates").
   std::map<std::string, std::size_t> helperCalls;
   VrfExpectation vrf;
   AsyncExpectation async;
   DynamicExpectation dynamic;
};

struct Event {
   double at = 0.0;
   std::string kind;    // the "event" field
   std::string label;   // "event #3 (staticAdd)" for messages
   // Fields, validated and converted at load.
   std::string intf;
   std::string vrf;
   std::string configKey;
   std::map<std::string, Vor::U16> members;
   Vor::U32 vrfId = 0;
   std::optional<Ip::Nat::NatStaticConnection> conn;
   std::optional<Ip::Nat::StaticKey> key;
   bool value = false;
   Vor::U64 count = 0;
   Lumet::IpAddr addr;
   Vor::U64 nextHopId = 0;
   std::optional<Ip::Nat::NatTwiceConnection> twice;
   Vor::U16 group = 0;
   Sim::SimMrouteSide::Route route;
   Ulo::NatMrouteOifSet oifs;
   VrfEventFields vrfFields;
   AsyncEventFields asyncFields;
   DynamicEventFields dynamicFields;
   Expectation expect;
   // verify: the number of findings the command must report (default 0).
   std::size_t findings = 0;
};

struct Scenario {
   std::string file;
   std::string name;
   Sim::SimOptions options;
   std::vector<Event> events;
   double runUntil = 0.0;
   bool explicitStart = false;
};

// Throws ScenarioError. `overrides` are the command line's choices, which
// win over the file's and are checked with it.
Scenario loadScenario(std::string const& file, nlohmann::json const& json, LoadOverrides const& overrides = {});
// `file` names the text in messages.
Scenario parseScenarioText(std::string const& file, std::string const& text, LoadOverrides const& overrides = {});
// "-" reads standard input; "" is refused rather than taken for no file.
Scenario loadScenarioFile(std::string const& file, LoadOverrides const& overrides = {});
// The scenario that runs when no file is given.
Scenario builtInScenario();

} // namespace UloNatSim
