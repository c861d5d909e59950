// zaffa-tool on a live table, on a damaged one, and on things that are not
// tables.

#include "tests/Zaffa/ZaffaTestTypes.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <random>
#include <sys/wait.h>
#include <unistd.h>

using namespace ZaffaTest;

namespace {

ToolRun tool(std::string const& args) { return zaffaTool(args); }

} // namespace

TEST(ZaffaTool, InspectsALiveTable) {
   TempDir dir;
   Writer w(config(dir.path(), 16, 64));
   w.attach();
   for (U64 i = 0; i < 30; ++i) w.write(TestValue::of(i, i), true);
   TestValue old;
   w.remove(TestKey::of(3), old);

   ToolRun info = tool("info " + dir.path());
   EXPECT_EQ(info.status, 0) << info.output;
   EXPECT_NE(info.output.find("members: 29\n"), std::string::npos) << info.output;
   EXPECT_NE(info.output.find(fmt::format("generation: {}", w.fenixId().generation())), std::string::npos);
   EXPECT_NE(info.output.find("interrupted: no"), std::string::npos);
   EXPECT_NE(info.output.find(fmt::format("writer: running, pid {}\n", ::getpid())), std::string::npos) << info.output;
   EXPECT_NE(info.output.find("valueType:\"ZaffaTest::TestValue\""), std::string::npos);

   ToolRun valid = tool("validate " + dir.path());
   EXPECT_EQ(valid.status, 0) << valid.output;
   EXPECT_NE(valid.output.find("valid: 29 occupied"), std::string::npos) << valid.output;

   ToolRun text = tool("dump " + dir.path());
   EXPECT_EQ(text.status, 0) << text.output;
   EXPECT_NE(text.output.find("entries: 29"), std::string::npos) << text.output;

   ToolRun json = tool("dump --json " + dir.path());
   ASSERT_EQ(json.status, 0) << json.output;
   auto doc = nlohmann::json::parse(json.output);
   EXPECT_EQ(doc["members"], 29);
   EXPECT_EQ(doc["entries"].size(), 29u);
   EXPECT_TRUE(doc["entries"][0]["stable"].get<bool>());
   EXPECT_TRUE(doc["snapshot"].get<bool>()) << "the writer stood still";
   // The tool changed nothing.
   EXPECT_EQ(w.members(), 29u);
   EXPECT_TRUE(w.validate());
}

TEST(ZaffaTool, ReportsABrokenTableWithoutRepairingIt) {
   TempDir dir;
   {
      Writer w(config(dir.path(), 16, 64));
      w.attach();
      for (U64 i = 0; i < 10; ++i) w.write(TestValue::of(i, i), true);
      // An overwrite stopped between its halves.
      auto* h = w.slotTable().header();
      h->runtimeFlags |= 1;
      Zaffa::RawSlot s = w.slotTable().slot(0);
      s.seqIs(s.seq() + 2);
   }
   Zaffa::Util::writeCorruptionMarker(Mem::RootPath(dir.path()), "found a cycle");
   ToolRun valid = tool("validate " + dir.path());
   EXPECT_EQ(valid.status, 1) << valid.output;
   EXPECT_NE(valid.output.find("invalid: stuck LOOKASIDE bit"), std::string::npos) << valid.output;
   ToolRun info = tool("info " + dir.path());
   EXPECT_EQ(info.status, 0);
   EXPECT_NE(info.output.find("interrupted: yes"), std::string::npos) << info.output;
   EXPECT_NE(info.output.find("writer: not running"), std::string::npos) << info.output;
   EXPECT_NE(info.output.find("corruption-detected: found a cycle"), std::string::npos) << info.output;
   // Still broken afterwards: the tool never repairs.
   EXPECT_EQ(tool("validate " + dir.path()).status, 1);
}

TEST(ZaffaTool, NeverCallsATableBrokenBecauseItsWriterChangedItWhileItWasRead) {
   TempDir dir;
   int ready[2];
   ASSERT_EQ(::pipe(ready), 0);
   pid_t child = ::fork();
   ASSERT_GE(child, 0);
   if (child == 0) {
      // Writes, overwrites and removes as fast as it can, across growth and
      // shrinking, until it is killed.
      Writer w(config(dir.path(), 16, 512));
      w.attach();
      for (U64 i = 0; i < 200; ++i) w.write(TestValue::of(i, i), true);
      char c = 1;
      if (::write(ready[1], &c, 1) != 1) ::_exit(3);
      std::mt19937_64 rng(7);
      TestValue old;
      for (U64 n = 0;; ++n) {
         U64 id = rng() % 400;
         if (n % 3 == 0) {
            w.remove(TestKey::of(id), old);
         } else {
            w.write(TestValue::of(id, n), true);
         }
      }
   }
   ::close(ready[1]);
   char c;
   ASSERT_EQ(::read(ready[0], &c, 1), 1) << "the writer did not start";
   ::close(ready[0]);

   ToolRun info = tool("info " + dir.path());
   EXPECT_EQ(info.status, 0) << info.output;
   EXPECT_NE(info.output.find(fmt::format("writer: running, pid {}\n", child)), std::string::npos) << info.output;
   EXPECT_EQ(info.output.find("interrupted: yes"), std::string::npos)
       << "an operation in progress is not an interrupted one:\n" << info.output;
   // Each read of a table that changes under it sees half-done operations;
   // only a table that stood still may be called invalid.
   for (int run = 0; run < 3; ++run) {
      ToolRun valid = tool("validate " + dir.path());
      EXPECT_TRUE(valid.status == 0 || valid.status == 3) << valid.status << ": " << valid.output;
      if (valid.status == 3) {
         EXPECT_NE(valid.output.find("no verdict: the table changed"), std::string::npos) << valid.output;
      }
      ToolRun text = tool("dump " + dir.path());
      EXPECT_EQ(text.status, 0) << text.output.substr(text.output.size() > 2000 ? text.output.size() - 2000 : 0);
   }
   ToolRun json = tool("dump --json " + dir.path());
   ASSERT_EQ(json.status, 0);
   nlohmann::json doc;
   ASSERT_NO_THROW(doc = nlohmann::json::parse(json.output));
   EXPECT_TRUE(doc.contains("snapshot")) << "a dump says whether the table stood still";

   ::kill(child, SIGKILL);
   ::waitpid(child, nullptr, 0);
   info = tool("info " + dir.path());
   EXPECT_NE(info.output.find("writer: not running"), std::string::npos) << info.output;
   // Now the files stand still, and the verdict is final: valid, or invalid
   // because the kill cut an operation short.
   ToolRun valid = tool("validate " + dir.path());
   EXPECT_TRUE(valid.status == 0 || valid.status == 1) << valid.output;
}

TEST(ZaffaTool, RefusesWhatIsNotATable) {
   TempDir dir;
   ToolRun missing = tool("info " + dir.path() + "/nothing-here");
   EXPECT_EQ(missing.status, 2);
   EXPECT_NE(missing.output.find("not a directory or not readable"), std::string::npos) << missing.output;

   ToolRun empty = tool("validate " + dir.path());
   EXPECT_EQ(empty.status, 2);
   EXPECT_NE(empty.output.find("not a Zaffa table"), std::string::npos) << empty.output;

   std::ofstream(dir.file(Zaffa::FileNames::slots)) << std::string(2000, 'x');
   ToolRun garbage = tool("dump " + dir.path());
   EXPECT_EQ(garbage.status, 2);
   EXPECT_NE(garbage.output.find("not a Zaffa table (bad magic"), std::string::npos) << garbage.output;

   EXPECT_NE(tool("frobnicate " + dir.path()).status, 0);

   // A root of tables, as a platform configures it, is not a table either;
   // the tool names the tables under it.
   TempDir root;
   std::filesystem::create_directories(root.path() + "/natHwShadow/entry");
   std::ofstream(root.path() + "/natHwShadow/entry/" + Zaffa::FileNames::slots) << "x";
   ToolRun atRoot = tool("info " + root.path());
   EXPECT_EQ(atRoot.status, 2);
   EXPECT_NE(atRoot.output.find("holds tables; give one of them as DIR:\n  " + root.path() +
                                "/natHwShadow/entry\n"),
             std::string::npos)
      << atRoot.output;
}

TEST(ZaffaTool, InfoReportsASlotFileCutShort) {
   TempDir dir;
   {
      Writer w(config(dir.path(), 16, 64));
      w.attach();
      for (U64 i = 0; i < 30; ++i) w.write(TestValue::of(i, i), true);
   }
   ToolRun whole = tool("info " + dir.path());
   EXPECT_EQ(whole.status, 0) << whole.output;
   EXPECT_EQ(whole.output.find("cut short"), std::string::npos) << whole.output;

   std::string const slots = dir.file(Zaffa::FileNames::slots);
   std::filesystem::resize_file(slots, std::filesystem::file_size(slots) / 2);
   ToolRun cut = tool("info " + dir.path());
   EXPECT_EQ(cut.status, 1) << cut.output;
   EXPECT_NE(cut.output.find("slot file: cut short"), std::string::npos) << cut.output;
}
