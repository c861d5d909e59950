// Strings, assertions, log messages and traces.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "framework/DovTask.h"
#include "framework/UloAssert.h"
#include "framework/VorEntity.h"
#include "framework/VorException.h"
#include "framework/VorLog.h"
#include "framework/VorString.h"
#include "framework/VorTrace.h"

VOR_TRACE_HANDLE("DiagnosticsTest")

namespace {

TEST(VorString, SharedImmutableOperations) {
   Vor::String a("Ethernet");
   Vor::String b = a;   // shares the buffer
   EXPECT_EQ(a.charPtr(), b.charPtr());
   b += "3";
   EXPECT_EQ(a, "Ethernet") << "+= re-points, never changes a shared buffer";
   EXPECT_EQ(b, "Ethernet3");
   EXPECT_EQ(b.pos("net"), 5u);
   EXPECT_EQ(b.pos("x"), Vor::String::npos);
   EXPECT_EQ(b.substr(5), "net3");
   EXPECT_EQ(b.substr(20), "");
   EXPECT_TRUE(Vor::String("Ethernet10") < Vor::String("Ethernet9"));
   EXPECT_EQ(Vor::format("%s/%d", "10.0.0.1", 24), "10.0.0.1/24");
   EXPECT_EQ(Vor::String().charPtr()[0], '\0');
   EXPECT_EQ(Vor::String("x").hash(1), Vor::String(std::string("x")).hash(1));
}

TEST(UloAssert, PrintsExpressionFileLineAndFunction) {
   int refCount = 0;
   EXPECT_DEATH(uloAssert(refCount), "uloAssert failed: refCount\n  at .*VorDiagnostics_test.cpp:[0-9]+ in .*TestBody");
   uloAssert(refCount == 0);   // holds: nothing happens
}

TEST(VorException, RangeAndMutatorExceptionsCarryTheirTexts) {
   try {
      Vor::throwRangeException("VrfName::value::bytes > VrfName::maxLength not allowed");
      FAIL();
   } catch (Vor::RangeException const& e) {
      EXPECT_STREQ(e.what(), "VrfName::value::bytes > VrfName::maxLength not allowed");
   }
   EXPECT_THROW(Vor::throwMutatorArgNullPointerException("intfStatusIs"), Vor::NullPointerException);
   EXPECT_THROW(Vor::Impl::throwMutatorReinstVal("staticConnection"), Vor::ReinstantiationException);
}

TEST(VorLog, MessagesAreFormattedCapturedAndRateLimited) {
   auto scheduler = Vor::Ptr<Dov::TaskScheduler>(new Dov::TaskScheduler);
   scheduler->virtualTimeIs(true, 50.0);
   Vor::LogHandle full("NAT_HW_RESOURCE_FULL", 3,
                       "Hardware resources are insufficient to program all NAT rules", "x", "y",
                       0.0, 1.0, 0);
   Vor::LogHandle ifMax("NAT_RULE_IF_MAX", 3, "rule '%s' VLAN %d count %d max %d", "x", "y", 0.0,
                        1.0, 0);
   Vor::LogHandle limited("LIMITED", 4, "tick", "x", Vor::NoActionRequired, 10.0, 2.0, 0);
   Vor::CapturingLogSink sink;
   Vor::log(full);
   Vor::log(ifMax, "type: Static SNAT", 10, 64u, 64u);
   ASSERT_EQ(sink.messages().size(), 2u);
   EXPECT_EQ(sink.messages()[0].text, "Hardware resources are insufficient to program all NAT rules");
   EXPECT_DOUBLE_EQ(sink.messages()[0].time, 50.0);
   EXPECT_EQ(sink.messages()[1].text, "rule 'type: Static SNAT' VLAN 10 count 64 max 64");
   // Two per 10 seconds: the third within the window is suppressed.
   for (int i = 0; i < 3; ++i) Vor::log(limited);
   EXPECT_EQ(sink.count("LIMITED"), 2u);
   EXPECT_EQ(limited.suppressed(), 1u);
   scheduler->runFor(10.0);
   Vor::log(limited);
   EXPECT_EQ(sink.count("LIMITED"), 3u);
   scheduler->virtualTimeIs(false);
}

TEST(VorTrace, EnabledLevelsReachTheSinkAndTheRing) {
   std::vector<std::string> lines;
   Vor::traceSinkIs([&](Vor::TraceHandle const& h, int level, std::string_view text) {
      lines.push_back(std::string(h.name()) + "/" + std::to_string(level) + " " + std::string(text));
   });
   VOR_TRACE(5, "off " << 1);
   EXPECT_TRUE(lines.empty());
   EXPECT_FALSE(Vor::traceEnableRules("DiagnosticsTest"));   // malformed: no level
   ASSERT_TRUE(Vor::traceEnableRules("Diagnostics*/5"));
   VOR_TRACE(5, "Creating intfStatus for " << "key" << " on VRF " << 7);
   VOR_TRACE(6, "too detailed");
   Nimlog::RingBuf::instance().clear();
   DUOLOG(3, "all entries from {} will be lost", "/tmp/x");
   ASSERT_EQ(lines.size(), 2u);
   EXPECT_EQ(lines[0], "DiagnosticsTest/5 Creating intfStatus for key on VRF 7");
   EXPECT_EQ(lines[1], "DiagnosticsTest/3 all entries from /tmp/x will be lost");
   auto ring = Nimlog::RingBuf::instance().dump();
   ASSERT_EQ(ring.size(), 1u);
   EXPECT_NE(ring[0].find("all entries from /tmp/x will be lost"), std::string::npos);
   Vor::traceDisableAll();
   Vor::traceSinkIs({});
}

// A type description lets tools set attributes by name.
class Caps : public Vor::Entity {
 public:
   static constexpr Vor::AttributeId flagId = 1;
   bool flag() const { return flag_; }
   void flagIs(bool v) { scalarIs(flag_, v, flagId); }
   Vor::TypeDescription const* fwkType() const override {
      static Vor::TypeDescription const type = [] {
         Vor::TypeDescription t("Caps");
         t.attributeIs({"flag", flagId,
                        [](Vor::Entity const& e) {
                           return std::string(static_cast<Caps const&>(e).flag() ? "true" : "false");
                        },
                        [](Vor::Entity& e, std::string const& v) -> std::optional<std::string> {
                           if (v != "true" && v != "false") return "flag: '" + v + "' is not a bool";
                           static_cast<Caps&>(e).flagIs(v == "true");
                           return std::nullopt;
                        }});
         return t;
      }();
      return &type;
   }

 private:
   bool flag_ = false;
};

TEST(TypeDescription, GenericGetAndSetByName) {
   Vor::Ptr<Caps> caps(new Caps);
   EXPECT_EQ(caps->getByName("flag"), "false");
   EXPECT_EQ(caps->setByName("flag", "true"), std::nullopt);
   EXPECT_TRUE(caps->flag());
   EXPECT_EQ(caps->setByName("flag", "maybe"), "flag: 'maybe' is not a bool");
   EXPECT_EQ(caps->setByName("nope", "1"), "unknown attribute 'nope' of Caps");
   EXPECT_EQ(caps->getByName("nope"), std::nullopt);
}

} // namespace
