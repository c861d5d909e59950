// The asynchronous pipeline across two processes: the agent (ulonat-sim
// --agent) and the programmer (ulonat-programmer) each in a program of its
// own, on command and status tables and the shadow under one root, killed
// with SIGKILL and started again. Every check compares what the chip holds
// (the programmer's status file) with what the agent's shadow says and
// with the configuration this test computes itself.

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "sim/SimRuleChurn.h"
#include "tests/Zaffa/ZaffaTestTypes.h"

#if defined(ULONAT_PROGRAMMER_PATH) && defined(ULONAT_SIM_PATH)

namespace {

using Clock = std::chrono::steady_clock;
using ZaffaTest::TempDir;
using Values = std::map<std::string, std::string>;

Values readValues(std::string const& path) {
   Values values;
   std::ifstream in(path);
   std::string name;
   std::string value;
   while (in >> name >> value) values[name] = value;
   return values;
}

unsigned long long number(Values const& values, char const* name) {
   auto it = values.find(name);
   return it == values.end() ? ~0ull : std::stoull(it->second);
}

// Processes started by a test; those still running at the end are killed.
class Processes {
 public:
   ~Processes() {
      for (pid_t p : pids_) {
         ::kill(p, SIGKILL);
         ::waitpid(p, nullptr, 0);
      }
   }
   pid_t start(std::vector<std::string> const& args, std::string const& log) {
      pid_t const pid = ::fork();
      if (pid == 0) {
         std::FILE* out = std::freopen(log.c_str(), "a", stderr);
         (void)out;
         std::vector<char*> argv;
         for (auto const& a : args) argv.push_back(const_cast<char*>(a.c_str()));
         argv.push_back(nullptr);
         ::execv(argv[0], argv.data());
         ::_exit(127);
      }
      pids_.push_back(pid);
      return pid;
   }
   // Waits for the process to end; its exit status, or -1 when killed or
   // still running after `seconds`.
   int wait(pid_t pid, double seconds) {
      auto const deadline = Clock::now() + std::chrono::duration<double>(seconds);
      int status = 0;
      while (::waitpid(pid, &status, WNOHANG) == 0) {
         if (Clock::now() >= deadline) return -1;
         std::this_thread::sleep_for(std::chrono::milliseconds(5));
      }
      std::erase(pids_, pid);
      return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
   }
   void kill(pid_t pid) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, nullptr, 0);
      std::erase(pids_, pid);
   }

 private:
   std::vector<pid_t> pids_;
};

std::string text(Values const& values) {
   std::string s;
   for (auto const& [name, value] : values) s += name + " " + value + "\n";
   return s;
}

template <typename Done>
bool waitUntil(Done done, double seconds) {
   auto const deadline = Clock::now() + std::chrono::duration<double>(seconds);
   while (!done()) {
      if (Clock::now() >= deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
   }
   return true;
}

class TwoProcesses : public ::testing::Test {
 protected:
   std::string path(char const* name) const { return dir_.file(name); }
   pid_t startProgrammer() {
      return processes_.start({ULONAT_PROGRAMMER_PATH, "--root", dir_.path(), "--status", path("programmer")},
                              path("programmer.log"));
   }
   pid_t startAgent(std::size_t rules, unsigned long long from, unsigned long long to) {
      std::remove(path("report").c_str());
      return processes_.start({ULONAT_SIM_PATH, "--agent", dir_.path(), "--rules", std::to_string(rules), "--from",
                               std::to_string(from), "--to", std::to_string(to), "--report", path("report"),
                               "--progress", path("progress"), "--timeout", "30"},
                              path("agent.log"));
   }
   // Runs an agent that settles on the configuration of `step` and exits.
   Values settleAgent(std::size_t rules, unsigned long long step) {
      pid_t const agent = startAgent(rules, step, step);
      EXPECT_EQ(processes_.wait(agent, 60), 0) << log("agent.log");
      return readValues(path("report"));
   }
   // The programmer's status once the chip agrees with the agent's report
   // (or after a few seconds, for the checks to show the difference).
   Values chipAfter(Values const& report) {
      Values chip;
      waitUntil(
         [&] {
            chip = readValues(path("programmer"));
            // The programmer has taken in every command, and dropped those
            // of earlier lives: its work is over.
            return chip["digest"] == report.at("digest") && chip["entries"] == report.at("shadowEntries") &&
                   chip["configs"] == report.at("commands") && chip["statuses"] == report.at("commands");
         },
         5);
      return chip;
   }
   // The last step the agent gave the engine; 0 when none.
   unsigned long long stepReached() const {
      std::ifstream in(path("progress"));
      unsigned long long reached = 0;
      in >> reached;
      return reached;
   }
   static unsigned long long chipOps(Values const& chip) {
      return number(chip, "writes") + number(chip, "rewrites") + number(chip, "removals");
   }
   std::string log(char const* name) const {
      std::ifstream in(path(name));
      return std::string(std::istreambuf_iterator<char>(in), {});
   }
   // The chip holds exactly what the configuration of `step` asks.
   void expectChipIsConfiguration(Values const& report, Values const& chip, std::size_t rules,
                                  unsigned long long step) {
      Sim::SimRuleChurn configuration(rules);
      configuration.stepIs(step);
      EXPECT_EQ(number(report, "settled"), 1u);
      EXPECT_EQ(number(report, "step"), step);
      EXPECT_EQ(number(report, "hwStatic"), configuration.presentCount());
      EXPECT_EQ(number(report, "dirty"), 0u);
      EXPECT_EQ(chip.at("digest"), report.at("digest")) << "the chip differs from the shadow";
      EXPECT_EQ(chip.at("entries"), report.at("shadowEntries"));
   }

   TempDir dir_;
   Processes processes_;
};

TEST_F(TwoProcesses, TenThousandRulesReachTheChipAndAnUnchangedRestartCostsNoChipOperation) {
   startProgrammer();
   Values const first = settleAgent(10000, 0);
   Values const chip = chipAfter(first);
   expectChipIsConfiguration(first, chip, 10000, 0);
   // 5,000 rules with two filter addresses, 5,000 with one, two halves each.
   EXPECT_EQ(number(chip, "entries"), 30000u);
   EXPECT_EQ(number(first, "commandsWritten") > 0, true);

   // The agent comes back to the same configuration: every command is the
   // one its earlier life issued, so nothing is written and the chip is not
   // touched.
   Values const again = settleAgent(10000, 0);
   EXPECT_EQ(number(again, "commandsWritten"), 0u);
   EXPECT_EQ(number(again, "commandsAdopted"), 20000u);
   Values const chipAgain = chipAfter(again);
   expectChipIsConfiguration(again, chipAgain, 10000, 0);
   EXPECT_EQ(chipOps(chipAgain), chipOps(chip));
}

TEST_F(TwoProcesses, AnAgentKilledAtRandomMomentsReconcilesWithTheChip) {
   bool const longMode = std::getenv("ULONAT_LONG") != nullptr;
   int const rounds = longMode ? 500 : 4;
   unsigned const seed = static_cast<unsigned>(std::random_device{}());
   std::mt19937 rng(seed);
   std::cout << "seed " << seed << " rounds " << rounds << std::endl;
   constexpr std::size_t kRules = 1000;

   startProgrammer();
   unsigned long long step = 0;
   Values report = settleAgent(kRules, step);
   for (int round = 0; round < rounds; ++round) {
      SCOPED_TRACE("round " + std::to_string(round) + " from step " + std::to_string(step));
      // Rules are added, changed and removed; the agent dies in the middle.
      std::remove(path("progress").c_str());
      pid_t const agent = startAgent(kRules, step, step + 1000000);
      // The agent settles on its configuration first, then goes through the
      // steps; the kill comes during the steps.
      ASSERT_TRUE(waitUntil([&] { return stepReached() > step; }, 30)) << log("agent.log");
      std::this_thread::sleep_for(std::chrono::milliseconds(std::uniform_int_distribution<int>(1, 150)(rng)));
      processes_.kill(agent);
      unsigned long long const reached = stepReached();
      ASSERT_GT(reached, step);
      step = reached;

      // Started again with the configuration of that moment.
      report = settleAgent(kRules, step);
      Values const chip = chipAfter(report);
      expectChipIsConfiguration(report, chip, kRules, step);

      // And once more, unchanged: no command written, no chip operation.
      Values const again = settleAgent(kRules, step);
      EXPECT_EQ(number(again, "commandsWritten"), 0u);
      Values const chipAgain = chipAfter(again);
      EXPECT_EQ(chipOps(chipAgain), chipOps(chip)) << text(chip) << "--\n" << text(chipAgain) << "--\n" << text(again);
      if (HasFailure()) break;
   }
}

} // namespace

#endif
