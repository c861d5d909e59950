#pragma once
// Runs a loaded scenario on a Sim::SimSystem and gathers the report.

#include <ostream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tools/ulonat-sim/Scenario.h"

namespace UloNatSim {

struct EngineLine {
   std::string intf;
   std::string vrf;
   Vor::U32 vrfId = 0;
   std::size_t hwStatic = 0;
   std::size_t unprogrammed = 0;
};

struct ChipLine {
   std::string key;
   std::string translation;
};

struct MessageLine {
   double time = 0.0;
   std::string name;
   int severity = 0;
   std::string text;
};

// The state at one checkpoint (each `expect` event) of the scenario.
struct Snapshot {
   double time = 0.0;
   std::size_t hwStatic = 0;
   std::size_t unprogrammed = 0;
   std::size_t chipEntries = 0;
   std::size_t chipCapacity = 0;
   std::size_t engines = 0;
};

// One run of the verify command: its time, its event and its output lines.
struct VerifyRun {
   double time = 0.0;
   std::string label;
   std::vector<std::string> findings;
};

struct Report {
   std::string name;
   double endTime = 0.0;
   std::vector<EngineLine> engines;
   std::vector<std::string> interfacesWithoutEngine;
   std::size_t hwStatic = 0;
   std::size_t hwTwice = 0;
   std::size_t unprogrammedTwice = 0;
   std::size_t chipEntries = 0;
   std::size_t chipCapacity = 0;
   std::vector<ChipLine> chip;
   std::size_t unprogrammed = 0;
   std::vector<MessageLine> messages;
   VrfReport vrf;
   AsyncReport async;
   DynamicReport dynamic;
   std::vector<Snapshot> timeline;
   std::vector<VerifyRun> verifyRuns;
   // Each expectation that held, and each that did not, with its time.
   std::vector<std::string> passed;
   std::vector<std::string> failures;
};

Report runScenario(Scenario const& scenario);
void printReport(std::ostream& os, Report const& report);
nlohmann::json reportJson(Report const& report);

} // namespace UloNatSim
