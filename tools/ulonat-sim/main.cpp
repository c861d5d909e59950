// ulonat-sim: runs the NAT engine on a simulated chip and a virtual clock,
// driven by a scenario of timed events, and reports what the engine did.
//
//   ulonat-sim                   the built-in scenario
//   ulonat-sim scenario.json     a scenario file (format: docs/scenario-format.md)
//   ulonat-sim --json ...        the report as JSON
//   ulonat-sim --trace 'UloNat*/8' ...   the library's traces on standard error
//   ulonat-sim --summary ...     counts without the lists of chip entries
//   ulonat-sim -                 the scenario from standard input
//   ulonat-sim --helper async [--shadow-root DIR] scenario.json
//                                through the asynchronous pipeline, whatever
//                                the file says (see ScenarioAsync.h)
//   ulonat-sim --agent ROOT --rules N [--from S --to T --report F --progress F]
//                                the agent side of a run whose programmer is
//                                `ulonat-programmer --root ROOT` (see Agent.h)
//
// Exit status: 0 when every expectation held, 1 when one failed, 2 on bad
// input (nothing is run then).

#include <CLI/CLI.hpp>

#include <iostream>

#include "UloNat/UloNatVersion.h"
#include "framework/VorTrace.h"
#include "tools/ulonat-sim/Agent.h"
#include "tools/ulonat-sim/Runner.h"

int main(int argc, char** argv) {
   CLI::App app{"Runs the NAT engine on a simulated chip, driven by a scenario of timed events."};
   std::string file;
   bool json = false;
   bool summary = false;
   std::string trace;
   CLI::Option* const scenarioOption = app.add_option(
      "scenario", file, "scenario file (JSON), '-' for standard input; the built-in scenario without one");
   app.add_flag("--json", json, "print the report as JSON");
   app.add_flag("--summary", summary,
                "leave out the lists of chip entries (counts stay): for scenarios with many rules");
   app.add_option("--trace", trace,
                  "enable the library's traces, e.g. 'UloNat*/8' (pattern/level, comma-separated)");
   app.set_version_flag("--version", std::string("ulonat-sim (libUloNat) ") + ULONAT_VERSION_STRING);
   app.footer("Exit status: 0 every expectation held; 1 an expectation failed;\n"
              "2 bad command line or scenario (nothing is run).\n"
              "Format of scenario files: docs/scenario-format.md.");
   std::string helperMode;
   std::string shadowRoot;
   app.add_option("--helper", helperMode,
                  "'direct' (the simulated chip behind the helper) or 'async' (the asynchronous pipeline: "
                  "shadow, programmer, chip); overrides the file's \"helper\": {\"mode\"}")
      ->check(CLI::IsMember({"direct", "async"}));
   app.add_option("--shadow-root", shadowRoot,
                  "async: the directory of the shadow's table files (made if missing; a directory of its own "
                  "is made and removed without it)");
   UloNatSim::AgentOptions agent;
   app.add_option("--agent", agent.root, "run the agent side against ulonat-programmer on this table root");
   app.add_option("--rules", agent.rules, "--agent: rule slots")->check(CLI::Range(1, 1 << 22));
   app.add_option("--from", agent.from, "--agent: the step whose configuration to start with");
   app.add_option("--to", agent.to, "--agent: the last step to go through");
   app.add_option("--report", agent.report, "--agent: the report file");
   app.add_option("--progress", agent.progress, "--agent: the file that holds the last step given");
   app.add_option("--timeout", agent.timeout, "--agent: real seconds each settling may take");
   try {
      app.parse(argc, argv);
   } catch (CLI::ParseError const& e) {
      int const rc = app.exit(e);
      return rc == 0 ? 0 : 2;
   }
   if (!trace.empty() && !Vor::traceEnableRules(trace)) {
      std::cerr << "ulonat-sim: --trace '" << trace << "': expected pattern/level[,pattern/level...]\n";
      return 2;
   }

   if (!agent.root.empty()) {
      if (!file.empty()) {
         std::cerr << "ulonat-sim: --agent takes no scenario file ('" << file << "')\n";
         return 2;
      }
      return UloNatSim::runAgent(agent);
   }

   UloNatSim::LoadOverrides overrides;
   if (!helperMode.empty()) overrides.async = helperMode == "async";
   if (!shadowRoot.empty()) overrides.shadowRoot = shadowRoot;
   if (scenarioOption->count() == 0 && (overrides.async.value_or(false) || overrides.shadowRoot)) {
      std::cerr << "ulonat-sim: --helper async and --shadow-root need a scenario file: the built-in scenario "
                   "shows the direct helper's refusals (try tests/scenarios/async_restart.json)\n";
      return 2;
   }

   UloNatSim::Scenario scenario;
   UloNatSim::Report report;
   try {
      // An empty name is refused, not taken for "no file": a script's unset
      // variable must not quietly play the built-in scenario.
      scenario = scenarioOption->count() == 0 ? UloNatSim::builtInScenario()
                                              : UloNatSim::loadScenarioFile(file, overrides);
      // The shadow's directory is checked before anything runs.
      report = UloNatSim::runScenario(scenario);
   } catch (UloNatSim::ScenarioError const& e) {
      std::cerr << "ulonat-sim: " << e.text << "\n";
      return 2;
   }
   if (summary) {
      report.chip.clear();
      report.vrf.chip.clear();
      report.vrf.policers.clear();
   }
   if (json) {
      std::cout << UloNatSim::reportJson(report).dump(2) << "\n";
   } else {
      UloNatSim::printReport(std::cout, report);
   }
   return report.failures.empty() ? 0 : 1;
}
