// ulonat-programmer: the simulated hardware programmer and chip in a process
// of their own, following an agent's command table and shadow under a root
// directory, on real time. The agent side is `ulonat-sim --agent ROOT`.
//
//   ulonat-programmer --root DIR [--capacity N] [--status FILE] [--chip-dump FILE]
//
// The status file is rewritten (atomically, by rename) whenever what it says
// changes: whether the programmer runs, the chip's entries and operation
// counts, and a digest of the chip's contents that equals the digest of the
// agent's clean shadow when the chip holds exactly what the agent asked.
// SIGTERM or SIGINT ends the program (exit 0), after the chip dump if asked.
// Exit status 2 on a bad command line or a root that cannot be used.

#include <CLI/CLI.hpp>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

#include "framework/DovTask.h"
#include "framework/VorTrace.h"
#include "sim/SimProgrammerHost.h"

namespace {

std::atomic<bool> stopRequested{false};

void requestStop(int) { stopRequested = true; }

bool writeAtomically(std::string const& path, std::string const& text) {
   std::string const tmp = path + ".tmp";
   {
      std::ofstream out(tmp, std::ios::trunc);
      if (!out) return false;
      out << text;
      if (!out.flush()) return false;
   }
   return std::rename(tmp.c_str(), path.c_str()) == 0;
}

} // namespace

int main(int argc, char** argv) {
   CLI::App app{"Runs the simulated NAT hardware programmer and chip against an agent's tables."};
   std::string root;
   std::size_t capacity = 1u << 22;
   std::string statusFile;
   std::string chipDump;
   std::string trace;
   app.add_option("--root", root, "directory of the agent's tables")->required();
   app.add_option("--capacity", capacity, "entries the chip holds");
   app.add_option("--status", statusFile, "status file, rewritten on each change");
   app.add_option("--chip-dump", chipDump, "file that receives the chip's entries at exit");
   app.add_option("--trace", trace, "enable the library's traces, e.g. 'UloNat*/8'");
   try {
      app.parse(argc, argv);
   } catch (CLI::ParseError const& e) {
      int const rc = app.exit(e);
      return rc == 0 ? 0 : 2;
   }
   if (!trace.empty() && !Vor::traceEnableRules(trace)) {
      std::cerr << "ulonat-programmer: --trace '" << trace << "': expected pattern/level[,pattern/level...]\n";
      return 2;
   }
   std::error_code ec;
   if (!std::filesystem::is_directory(root, ec)) {
      std::cerr << "ulonat-programmer: --root '" << root << "': not a directory\n";
      return 2;
   }
   std::signal(SIGTERM, requestStop);
   std::signal(SIGINT, requestStop);

   Vor::Ptr<Dov::TaskScheduler> scheduler(new Dov::TaskScheduler());
   Dov::TaskSchedulerRoot::schedulerIs(scheduler);
   int rc = 0;
   try {
      Sim::SimProgrammerHost host(root, capacity, scheduler);
      using Clock = std::chrono::steady_clock;
      // The digest walks the whole chip: the file is written at most every
      // 50 ms, and only when a cheap summary of the state has moved.
      std::string written;
      auto lastWrite = Clock::now() - std::chrono::seconds(1);
      while (!stopRequested) {
         scheduler->runOnce(0.002);
         host.poll();
         if (statusFile.empty()) continue;
         Sim::SimNatChip::Counts const& c = host.chip().counts();
         std::string const summary =
            std::to_string(host.running()) + " " + std::to_string(host.starts()) + " " +
            std::to_string(host.chip().entries()) + " " + std::to_string(c.total()) + " " +
            std::to_string(c.refusals) + " " + std::to_string(host.programmer().steadyStates()) + " " +
            std::to_string(host.configDir().configs()) + " " + std::to_string(host.statusDir().statuss());
         if (summary == written || Clock::now() - lastWrite < std::chrono::milliseconds(50)) continue;
         std::ostringstream status;
         host.statusIs(status);
         if (!writeAtomically(statusFile, status.str())) {
            std::cerr << "ulonat-programmer: --status '" << statusFile << "': cannot write\n";
            rc = 2;
            break;
         }
         written = summary;
         lastWrite = Clock::now();
      }
      if (!chipDump.empty()) {
         std::ostringstream dump;
         host.chipDumpIs(dump);
         if (!writeAtomically(chipDump, dump.str())) {
            std::cerr << "ulonat-programmer: --chip-dump '" << chipDump << "': cannot write\n";
            rc = 2;
         }
      }
   } catch (std::exception const& e) {
      std::cerr << "ulonat-programmer: " << root << ": " << e.what() << "\n";
      rc = 2;
   }
   Dov::TaskSchedulerRoot::schedulerIs(nullptr);
   return rc;
}
