#pragma once
// The asynchronous pipeline in ulonat-sim: the helper's mode, the events that
// restart either side of the pipeline or fault the programmer, the
// expectations on chip operations, failed keys and the shadow, and the
// pipeline's part of the report. The generic loader and runner hand every
// event kind they do not know to loadAsyncEvent() / runAsyncEvent() before
// calling it unknown.
//
// Mode: "helper": { "mode": "async", "shadowRoot": DIR, "programmerDelay": S }
// in the file, or --helper async / --shadow-root DIR on the command line
// (which win). The shadow lives on a shared-memory table under DIR, or under a
// directory made for the run and removed after it.
//
// Events (fields; see docs/scenario-format.md):
//   restart             the agent goes away and is built again: it replays
//                       the configuration and reconciles it with the shadow
//   agentDown, agentUp  the two halves of restart; between them only the
//                       configuration changes (and time passes)
//   programmerRestart   the programmer stops and starts again at once
//   programmerStop, programmerStart
//   programmerDelay     value: virtual seconds before each answer
//   programmerRefuseNext count: the next adds or updates refused
//   programmerFailKey   a static rule's key fields (local, global, target,
//                       acl, table), half ("source" or "destination"),
//                       value (default true): refuse that key while set
//   forceAdd            the same key fields: the programmer asks for the key
//                       to be programmed again
//   mark                remembers the chip's operation counts, for
//                       "chipOpsSinceMark"

#include <map>
#include <optional>
#include <set>
#include <ostream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "framework/IpNatStatus.h"
#include "sim/SimNatProgrammer.h"

namespace Sim {
class SimSystem;
}

namespace UloNatSim {

class Fields;
struct Event;
struct Scenario;

// Command-line choices that override the file's.
struct LoadOverrides {
   std::optional<bool> async;
   std::optional<std::string> shadowRoot;
};

struct AsyncEventFields {
   // programmerFailKey, forceAdd: the rule whose key is meant, and which half.
   std::optional<Ip::Nat::NatStaticConnection> conn;
   bool sourceHalf = true;
   double seconds = 0.0;
};

struct AsyncExpectation {
   std::optional<std::size_t> failedKeys;
   std::optional<std::size_t> shadowEntries;
   // Keys by the dirty state of their entry 0: "clean", "setting", "clearing".
   std::map<std::string, std::size_t> shadowDirty;
   // Chip operations since the last "mark" (or the start): "writes",
   // "rewrites", "removals", "refusals", "total".
   std::map<std::string, std::size_t> chipOpsSinceMark;
   // Every command idle and confirmed, no request waiting.
   std::optional<bool> settled;
};

// What the loader tracks across the events of one file.
struct AsyncLoadState {
   bool agentDown = false;
};

// Reads the helper block's pipeline fields ("mode", "shadowRoot",
// "programmerDelay") into the scenario, then applies the overrides.
void loadHelperMode(Fields const& helper, Scenario& s, LoadOverrides const& overrides);
// Refuses, for an event of any kind, what cannot run in the scenario's mode
// or while the agent is down. Call before the event's own fields are read.
void checkEventForMode(Fields const& f, Event const& e, Scenario const& s, AsyncLoadState& state);
// Reads the fields of a pipeline event into `e`. False when e.kind is not one
// (nothing read). Throws ScenarioError on a bad field.
bool loadAsyncEvent(Fields const& f, Event& e, Scenario const& s, AsyncLoadState& state);
// Reads the pipeline fields of an expectation, those present; refuses them,
// and the expectations only the direct helper can answer, in the wrong mode.
void loadAsyncExpectation(Fields const& f, AsyncExpectation& x, Scenario const& s);
// At the end of the file: the agent must be up again.
void checkAsyncEnd(Fields const& top, AsyncLoadState const& state);

// What the runner keeps between pipeline events.
struct AsyncRunState {
   Sim::SimNatChip::Counts mark;
   std::size_t restarts = 0;
   // Carried to the programmer of the agent's next life.
   std::optional<double> delay;
   std::set<Ulo::NatHwKey, Ulo::NatHwKeyFullLess> failKeys;
};

// Applies a pipeline event. False when e.kind is not one.
bool runAsyncEvent(Sim::SimSystem& sys, Event const& e, AsyncRunState& state);
// One line to `misses` per pipeline expectation that does not hold.
void checkAsync(Sim::SimSystem const& sys, AsyncExpectation const& x, AsyncRunState const& state,
                std::vector<std::string>& misses);

// The shadow's directory for a run: the scenario's, made if missing and
// emptied of an earlier run's table (the simulated chip starts empty, so a
// shadow that describes another chip must not be adopted), or, when the
// scenario names none, a fresh directory removed again at the end. Throws
// ScenarioError for a directory that cannot be made, or that holds anything
// ulonat-sim did not put there.
class ShadowRootDir {
 public:
   explicit ShadowRootDir(std::string const& named);
   ~ShadowRootDir();
   ShadowRootDir(ShadowRootDir const&) = delete;
   ShadowRootDir& operator=(ShadowRootDir const&) = delete;
   std::string const& path() const { return path_; }

 private:
   std::string path_;
   bool owned_ = false;
};

struct AsyncReport {
   bool async = false;
   std::string shadowRoot;
   Sim::SimNatChip::Counts chipOps;
   std::size_t shadowEntries = 0;
   std::size_t clean = 0;
   std::size_t setting = 0;
   std::size_t clearing = 0;
   std::size_t commands = 0;
   std::size_t restarts = 0;
   bool settled = true;
   std::vector<std::string> failedKeys;
};

AsyncReport asyncReportOf(Sim::SimSystem const& sys, std::string const& shadowRoot, AsyncRunState const& state);
void printAsyncReport(std::ostream& os, AsyncReport const& r);
nlohmann::json asyncReportJson(AsyncReport const& r);

} // namespace UloNatSim
