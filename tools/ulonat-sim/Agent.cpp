#include "tools/ulonat-sim/Agent.h"

#include <chrono>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>

#include "sim/SimProgrammerHost.h"
#include "sim/SimRuleChurn.h"
#include "sim/SimSystem.h"

namespace UloNatSim {

namespace {

bool writeAtomically(std::string const& path, std::string const& text) {
   if (path.empty()) return true;
   std::string const tmp = path + ".tmp";
   {
      std::ofstream out(tmp, std::ios::trunc);
      if (!out) return false;
      out << text;
      if (!out.flush()) return false;
   }
   return std::rename(tmp.c_str(), path.c_str()) == 0;
}

bool settled(Sim::SimSystem& system, std::size_t rules) {
   if (!system.asyncSettled() || system.hwStaticCount() != rules) return false;
   std::size_t dirty = 0;
   Sim::shadowDigest(*system.hwShadow(), nullptr, &dirty);
   return dirty == 0;
}

// Waits for the programmer to have done everything, then reports.
bool settleAndReport(Sim::SimSystem& system, Sim::SimRuleChurn const& churn, AgentOptions const& options) {
   auto const begin = std::chrono::steady_clock::now();
   std::size_t const rules = churn.presentCount();
   bool const ok = system.runWhileWaiting([&] { return settled(system, rules); }, options.timeout);
   double const seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
   std::size_t entries = 0;
   std::size_t dirty = 0;
   Vor::U64 const digest = Sim::shadowDigest(*system.hwShadow(), &entries, &dirty);
   std::ostringstream report;
   report << "step " << churn.step() << "\n"
          << "settled " << (ok ? 1 : 0) << "\n"
          << "rules " << rules << "\n"
          << "hwStatic " << system.hwStaticCount() << "\n"
          << "shadowEntries " << entries << "\n"
          << "dirty " << dirty << "\n"
          << "digest " << digest << "\n"
          << "settleSeconds " << seconds << "\n"
          << "commands " << system.asyncHwConfigDir()->configs() << "\n"
          << "commandsWritten " << system.asyncHwConfigTable()->commandsWritten() << "\n"
          << "commandsAdopted " << system.asyncHwConfigTable()->commandsAdopted() << "\n";
   if (!writeAtomically(options.report, report.str())) {
      std::cerr << "ulonat-sim: --report '" << options.report << "': cannot write\n";
      return false;
   }
   if (!ok) {
      std::cerr << "ulonat-sim: step " << churn.step() << " not settled in " << options.timeout << " s";
      // What it waits for, by kind.
      std::size_t busy = 0;
      std::size_t unanswered = 0;
      auto const& configs = system.asyncHwConfigDir();
      auto const& statuses = system.asyncHwStatusDir();
      for (auto const& m : configs->config()) {
         if (m.value()->opType() != Ulo::NatRequestQueue::idle) ++busy;
         auto status = statuses->status(m.key());
         if (!status || status->state() != Ulo::NatAsyncHwStatus::idle) ++unanswered;
      }
      auto const queues = system.asyncHelper()->requestQueueDir();
      std::cerr << ": commands " << configs->configs() << ", not idle " << busy << ", not answered idle "
                << unanswered << ", statuses " << statuses->statuss() << ", queues "
                << (queues ? queues->requestQs() : 0) << "\n";
      int shown = 0;
      for (auto const& m : queues ? queues->requestQ() : Ulo::NatRequestQueueDir::requestQContainer()) {
         if (m.value()->pendingEmpty()) continue;
         if (++shown > 5) break;
         Ulo::NatHwKey const& key = m.key();
         auto config = configs->config(key);
         auto status = statuses->status(key);
         Ulo::NatAsyncHwStatusRecord record;
         bool const answered = system.asyncHwStatusTable()->map().lookup(key, record);
         std::cerr << "  waiting " << m.value()->pendings() << " behind " << key.stringValue() << ": command "
                   << (config ? Ulo::NatRequestQueue::opTypeName(config->opType()) : "none") << " #"
                   << system.asyncHwConfigTable()->command(key) << ", status "
                   << (status ? Ulo::NatAsyncHwStatus::stateName(status->state()) : "none") << ", answer "
                   << (answered ? record.stringValue() : "none") << "\n";
      }
   }
   return ok;
}

} // namespace

int runAgent(AgentOptions const& options) {
   Sim::SimOptions simOptions;
   simOptions.async = true;
   simOptions.remoteProgrammer = true;
   simOptions.shadowRoot = options.root;
   simOptions.capacity = 4 * options.rules + 16;
   std::unique_ptr<Sim::SimSystem> system;
   try {
      system = std::make_unique<Sim::SimSystem>(simOptions);
   } catch (std::exception const& e) {
      std::cerr << "ulonat-sim: --agent '" << options.root << "': " << e.what() << "\n";
      return 2;
   }
   Sim::SimRuleChurn churn(options.rules);
   churn.stepIs(options.from);
   churn.configure(*system);
   system->start();
   if (!settleAndReport(*system, churn, options)) return 1;
   if (options.to <= options.from) return 0;
   while (churn.step() < options.to) {
      churn.advance(*system);
      if (!writeAtomically(options.progress, std::to_string(churn.step()) + "\n")) {
         std::cerr << "ulonat-sim: --progress '" << options.progress << "': cannot write\n";
         return 2;
      }
      // A little of the pipeline's work between steps, so that commands of
      // several steps are in flight at any moment.
      system->runWhileWaiting([] { return false; }, 0.001);
   }
   return settleAndReport(*system, churn, options) ? 0 : 1;
}

} // namespace UloNatSim
