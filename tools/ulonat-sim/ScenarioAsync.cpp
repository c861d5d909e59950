#include "tools/ulonat-sim/ScenarioAsync.h"

#include <stdlib.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <limits>
#include <set>
#include <system_error>

#include "sim/SimAsyncViews.h"
#include "sim/SimSystem.h"
#include "tools/ulonat-sim/Scenario.h"
#include "tools/ulonat-sim/ScenarioFields.h"

namespace UloNatSim {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kMaxCount = std::numeric_limits<std::size_t>::max();

// Written into a shadow root that ulonat-sim made or took over, so that a
// later run may empty it again; any other non-empty directory is refused.
constexpr char const* kMarker = ".ulonat-sim";

// The table of the shadow under its root (see natHwShadowFactory).
constexpr char const* kShadowName = "natHwShadow";

// The configuration may change while the agent is down; nothing that needs
// the agent (its views, its faults, its verify command) may run then.
bool allowedWhileAgentDown(std::string const& kind) {
   static std::set<std::string> const kinds{
      "intf", "intfVrf", "intfDel", "vrf", "vrfDel", "staticAdd", "staticDel", "aclSharing", "counterStatus",
      "nextHop", "twiceAdd", "twiceDel", "mcastMode", "capacity", "run", "agentUp", "mark",
      "programmerDelay", "programmerRefuseNext", "programmerFailKey"};
   return kinds.count(kind) != 0;
}

// Events that only the direct helper (the chip behind SimNatHelper) has.
bool directOnlyEvent(std::string const& kind) { return kind == "failNextCommit" || kind == "refuseNext"; }

bool pipelineOnlyEvent(std::string const& kind) {
   static std::set<std::string> const kinds{"restart",          "agentDown",        "agentUp",
                                            "programmerRestart", "programmerStop",   "programmerStart",
                                            "programmerDelay",  "programmerRefuseNext", "programmerFailKey",
                                            "forceAdd",         "mark"};
   return kinds.count(kind) != 0;
}

Ip::Nat::NatStaticConnection ruleKeyOf(Fields const& f) {
   Lumet::IpAndPort const local = f.ipAndPort("local");
   Lumet::IpAndPort const global = f.ipAndPort("global");
   std::string const target = f.string("target", "source");
   if (target != "source" && target != "destination") f.fail("target", "must be \"source\" or \"destination\"");
   // The hardware key does not depend on the VLAN, the protocol or the table.
   return Ip::Nat::NatStaticConnection(Ip::Nat::StaticKey(local), global,
                                       target == "destination" ? Ip::Nat::destination : Ip::Nat::source_, 0, 1,
                                       true);
}

Ulo::NatHwKey keyOf(Event const& e) {
   auto const [src, dst] = Sim::staticHwKeys(*e.asyncFields.conn);
   return e.asyncFields.sourceHalf ? src : dst;
}

std::map<std::string, std::size_t> namedCounts(Fields const& f, char const* field,
                                                std::set<std::string> const& names) {
   json const& v = f.raw(field);
   if (!v.is_object()) f.fail(field, "must be an object of names to counts");
   std::map<std::string, std::size_t> out;
   for (auto const& [name, n] : v.items()) {
      if (!names.count(name)) {
         std::string known;
         for (auto const& k : names) known += (known.empty() ? "" : ", ") + k;
         f.fail(field, "'" + name + "' is not one of " + known);
      }
      if (!n.is_number_unsigned() && !(n.is_number_integer() && n.get<long long>() >= 0)) {
         f.fail(field, "count of '" + name + "' must be a non-negative integer");
      }
      out[name] = n.get<std::size_t>();
   }
   return out;
}

} // namespace

void loadHelperMode(Fields const& helper, Scenario& s, LoadOverrides const& overrides) {
   bool fileAsync = false;
   if (helper.has("mode")) {
      std::string const mode = helper.string("mode");
      if (mode != "direct" && mode != "async") helper.fail("mode", "must be \"direct\" or \"async\"");
      fileAsync = mode == "async";
   }
   s.options.async = overrides.async.value_or(fileAsync);
   if (helper.has("shadowRoot")) {
      if (!s.options.async) helper.fail("shadowRoot", "only for \"mode\": \"async\"");
      s.options.shadowRoot = helper.string("shadowRoot");
      if (s.options.shadowRoot.empty()) helper.fail("shadowRoot", "must name a directory");
   }
   if (helper.has("programmerDelay")) {
      if (!s.options.async) helper.fail("programmerDelay", "only for \"mode\": \"async\"");
      s.options.programmerDelay = helper.number("programmerDelay", 0.0, 3600.0);
   }
   if (overrides.shadowRoot) {
      if (!s.options.async) helper.fail("mode", "--shadow-root is only for the asynchronous helper");
      s.options.shadowRoot = *overrides.shadowRoot;
   }
}

void checkEventForMode(Fields const& f, Event const& e, Scenario const& s, AsyncLoadState& state) {
   if (s.options.async && directOnlyEvent(e.kind)) {
      f.fail("event", "'" + e.kind + "' needs the direct helper (the asynchronous one has " +
                         (e.kind == "refuseNext" ? "\"programmerRefuseNext\")" : "no batches)"));
   }
   if (!s.options.async && pipelineOnlyEvent(e.kind)) {
      f.fail("event", "'" + e.kind + "' needs \"helper\": { \"mode\": \"async\" }");
   }
   if (state.agentDown && !allowedWhileAgentDown(e.kind)) {
      f.fail("event", "'" + e.kind + "' cannot run while the agent is down (after \"agentDown\")");
   }
}

bool loadAsyncEvent(Fields const& f, Event& e, Scenario const&, AsyncLoadState& state) {
   if (e.kind == "restart" || e.kind == "programmerRestart" || e.kind == "programmerStop" ||
       e.kind == "programmerStart" || e.kind == "mark") {
      // No fields.
   } else if (e.kind == "agentDown") {
      if (state.agentDown) f.fail("event", "the agent is down already");
      state.agentDown = true;
   } else if (e.kind == "agentUp") {
      if (!state.agentDown) f.fail("event", "the agent is up (no earlier \"agentDown\")");
      state.agentDown = false;
   } else if (e.kind == "programmerDelay") {
      e.asyncFields.seconds = f.number("value", 0.0, 3600.0);
   } else if (e.kind == "programmerRefuseNext") {
      e.count = f.integer("count", 0, 1000000);
   } else if (e.kind == "programmerFailKey" || e.kind == "forceAdd") {
      e.asyncFields.conn = ruleKeyOf(f);
      std::string const half = f.string("half", "source");
      if (half != "source" && half != "destination") f.fail("half", "must be \"source\" or \"destination\"");
      e.asyncFields.sourceHalf = half == "source";
      if (e.kind == "programmerFailKey") e.value = f.boolean("value", true);
   } else {
      return false;
   }
   return true;
}

void loadAsyncExpectation(Fields const& f, AsyncExpectation& x, Scenario const& s) {
   static std::vector<char const*> const directOnly{"chipTwiceEntries", "halfPairs", "staticOifs", "twiceNextHop",
                                            "helperCalls", "vrfChipEntries", "policers",
                                            "vrfChipMatchesHwStatus"};
   static std::vector<char const*> const pipelineOnly{"failedKeys", "shadowEntries", "shadowDirty", "chipOpsSinceMark",
                                              "settled"};
   for (char const* field : s.options.async ? directOnly : pipelineOnly) {
      if (f.has(field)) {
         f.fail(field, s.options.async ? "only the direct helper's chip can answer this"
                                       : "needs \"helper\": { \"mode\": \"async\" }");
      }
   }
   if (!s.options.async) return;
   if (f.has("failedKeys")) x.failedKeys = f.integer("failedKeys", 0, kMaxCount);
   if (f.has("shadowEntries")) x.shadowEntries = f.integer("shadowEntries", 0, kMaxCount);
   if (f.has("shadowDirty")) x.shadowDirty = namedCounts(f, "shadowDirty", {"clean", "setting", "clearing"});
   if (f.has("chipOpsSinceMark")) {
      x.chipOpsSinceMark =
         namedCounts(f, "chipOpsSinceMark", {"writes", "rewrites", "removals", "refusals", "total"});
   }
   if (f.has("settled")) x.settled = f.boolean("settled");
}

void checkAsyncEnd(Fields const& top, AsyncLoadState const& state) {
   if (state.agentDown) top.fail("events", "the agent is still down at the end (no \"agentUp\" after \"agentDown\")");
}

bool runAsyncEvent(Sim::SimSystem& sys, Event const& e, AsyncRunState& state) {
   // The simulated programmer is rebuilt with the agent: what the scenario
   // told the one before carries over to it.
   auto carryOver = [&] {
      sys.programmer()->delayIs(state.delay.value_or(sys.programmer()->delay()));
      for (auto const& key : state.failKeys) sys.programmer()->failKeyIs(key, true);
   };
   if (e.kind == "restart") {
      sys.agentDown();
      sys.agentUp();
      carryOver();
      ++state.restarts;
   } else if (e.kind == "agentDown") {
      sys.agentDown();
   } else if (e.kind == "agentUp") {
      sys.agentUp();
      carryOver();
      ++state.restarts;
   } else if (e.kind == "programmerRestart") {
      sys.programmer()->deInit();
      sys.programmer()->initializedIs(true);
   } else if (e.kind == "programmerStop") {
      sys.programmer()->deInit();
   } else if (e.kind == "programmerStart") {
      sys.programmer()->initializedIs(true);
   } else if (e.kind == "programmerDelay") {
      state.delay = e.asyncFields.seconds;
      if (sys.programmer()) sys.programmer()->delayIs(e.asyncFields.seconds);
   } else if (e.kind == "programmerRefuseNext") {
      // Refusals pending when the agent goes down go with its programmer.
      if (sys.programmer()) sys.programmer()->refuseNextIs(static_cast<Vor::U32>(e.count));
   } else if (e.kind == "programmerFailKey") {
      if (e.value) {
         state.failKeys.insert(keyOf(e));
      } else {
         state.failKeys.erase(keyOf(e));
      }
      if (sys.programmer()) sys.programmer()->failKeyIs(keyOf(e), e.value);
   } else if (e.kind == "forceAdd") {
      sys.programmer()->forceAddIs(keyOf(e));
   } else if (e.kind == "mark") {
      state.mark = sys.chip()->counts();
   } else {
      return false;
   }
   return true;
}

void checkAsync(Sim::SimSystem const& sys, AsyncExpectation const& x, AsyncRunState const& state,
                std::vector<std::string>& misses) {
   auto expectEq = [&](std::string const& what, std::size_t want, std::size_t got) {
      if (want != got) {
         misses.push_back(what + " expected " + std::to_string(want) + ", got " + std::to_string(got));
      }
   };
   if (x.failedKeys) expectEq("failed keys", *x.failedKeys, sys.asyncHelper()->failedHwKey()->entrys());
   Sim::ShadowCounts const shadow = Sim::shadowCounts(sys);
   if (x.shadowEntries) expectEq("shadow entries", *x.shadowEntries, shadow.entries);
   std::map<std::string, std::size_t> const dirty{
      {"clean", shadow.clean}, {"setting", shadow.setting}, {"clearing", shadow.clearing}};
   for (auto const& [name, n] : x.shadowDirty) expectEq("shadow keys " + name, n, dirty.at(name));
   Sim::SimNatChip::Counts const& now = sys.chip()->counts();
   std::map<std::string, std::size_t> const ops{
      {"writes", now.writes - state.mark.writes},
      {"rewrites", now.rewrites - state.mark.rewrites},
      {"removals", now.removals - state.mark.removals},
      {"refusals", now.refusals - state.mark.refusals},
      {"total", now.total() - state.mark.total()}};
   for (auto const& [name, n] : x.chipOpsSinceMark) expectEq("chip " + name + " since the mark", n, ops.at(name));
   if (x.settled && *x.settled != sys.asyncSettled()) {
      misses.push_back(std::string("pipeline expected ") + (*x.settled ? "settled" : "busy") + ", is " +
                       (*x.settled ? "busy" : "settled"));
   }
}

ShadowRootDir::ShadowRootDir(std::string const& named) {
   std::error_code ec;
   if (named.empty()) {
      // /dev/shm is a tmpfs where there is one, as the agent's root would be.
      std::string base = fs::is_directory("/dev/shm", ec) ? "/dev/shm" : fs::temp_directory_path(ec).string();
      std::string tmpl = base + "/ulonat-sim-XXXXXX";
      if (::mkdtemp(tmpl.data()) == nullptr) {
         throw ScenarioError{"cannot make a directory for the shadow under " + base + ": " +
                             std::generic_category().message(errno)};
      }
      path_ = tmpl;
      owned_ = true;
      return;
   }
   path_ = named;
   if (fs::exists(path_, ec) && !fs::is_directory(path_, ec)) {
      throw ScenarioError{"shadow root '" + path_ + "': not a directory"};
   }
   if (!fs::exists(path_, ec)) {
      fs::create_directories(path_, ec);
      if (ec) throw ScenarioError{"shadow root '" + path_ + "': cannot be made: " + ec.message()};
   } else if (!fs::exists(fs::path(path_) / kMarker, ec) && !fs::is_empty(path_, ec)) {
      throw ScenarioError{"shadow root '" + path_ +
                          "': not empty, and not made by ulonat-sim; give an empty or a new directory"};
   }
   fs::remove_all(fs::path(path_) / kShadowName, ec);
   if (ec) throw ScenarioError{"shadow root '" + path_ + "': earlier table cannot be removed: " + ec.message()};
   std::ofstream marker(fs::path(path_) / kMarker);
   marker << "A directory of ulonat-sim: each run empties it of its shadow table.\n";
   if (!marker) throw ScenarioError{"shadow root '" + path_ + "': cannot be written"};
}

ShadowRootDir::~ShadowRootDir() {
   if (!owned_) return;
   std::error_code ec;
   fs::remove_all(path_, ec);
}

AsyncReport asyncReportOf(Sim::SimSystem const& sys, std::string const& shadowRoot, AsyncRunState const& state) {
   AsyncReport r;
   if (!sys.async()) return r;
   r.async = true;
   r.shadowRoot = shadowRoot;
   r.restarts = state.restarts;
   r.chipOps = sys.chip()->counts();
   if (!sys.asyncHelper()) return r;   // the agent is down
   Sim::ShadowCounts const shadow = Sim::shadowCounts(sys);
   r.shadowEntries = shadow.entries;
   r.clean = shadow.clean;
   r.setting = shadow.setting;
   r.clearing = shadow.clearing;
   r.commands = sys.asyncHwConfigDir()->configs();
   r.settled = sys.asyncSettled();
   for (auto const& it : sys.asyncHelper()->failedHwKey()->entry()) r.failedKeys.push_back(it.key().stringValue());
   std::sort(r.failedKeys.begin(), r.failedKeys.end());
   return r;
}

void printAsyncReport(std::ostream& os, AsyncReport const& r) {
   if (!r.async) return;
   os << "\nAsynchronous pipeline (shadow under " << r.shadowRoot << "):\n";
   os << "  agent restarts: " << r.restarts << ", " << (r.settled ? "settled" : "NOT settled") << "\n";
   os << "  chip operations: " << r.chipOps.writes << " writes, " << r.chipOps.rewrites << " rewrites, "
      << r.chipOps.removals << " removals, " << r.chipOps.refusals << " refused for lack of room\n";
   os << "  shadow: " << r.shadowEntries << " entries; keys clean " << r.clean << ", setting " << r.setting
      << ", clearing " << r.clearing << "; commands " << r.commands << "\n";
   os << "  failed keys: " << r.failedKeys.size() << "\n";
   for (auto const& k : r.failedKeys) os << "    " << k << "\n";
}

nlohmann::json asyncReportJson(AsyncReport const& r) {
   if (!r.async) return nlohmann::json{{"mode", "direct"}};
   return nlohmann::json{
      {"mode", "async"},
      {"shadowRoot", r.shadowRoot},
      {"restarts", r.restarts},
      {"settled", r.settled},
      {"chipOps",
       {{"writes", r.chipOps.writes},
        {"rewrites", r.chipOps.rewrites},
        {"removals", r.chipOps.removals},
        {"refusals", r.chipOps.refusals}}},
      {"shadow",
       {{"entries", r.shadowEntries}, {"clean", r.clean}, {"setting", r.setting}, {"clearing", r.clearing}}},
      {"commands", r.commands},
      {"failedKeys", r.failedKeys}};
}

} // namespace UloNatSim
