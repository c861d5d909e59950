// The installed simulated chip as a test double: a platform's own test
// builds the engine on Sim::SimNatHelper, a chip with a table of fixed size
// that refuses when full, and checks what the engine programmed on it.

#include <cstdio>

#include "UloNat/UloNatSm.h"
#include "framework/DovTask.h"
#include "framework/IpNatDynamicConnectionStatus.h"
#include "framework/IpNatHwCapabilities.h"
#include "framework/IpNatHwStatus.h"
#include "framework/IpNatStatus.h"
#include "framework/MrouteLibStaticNatInfo.h"
#include "framework/RoutingHwRouteStatus.h"
#include "framework/UloL3IntfTable.h"
#include "framework/UloNextHopMap.h"
#include "sim/SimNatHelper.h"

int main() {
   auto scheduler = Dov::TaskSchedulerRoot::findOrCreateScheduler();
   scheduler->virtualTimeIs(true, 0.0);
   Vor::Ptr<Ip::Nat::Status> status(new Ip::Nat::Status());
   Vor::Ptr<Ip::Nat::HwStatus> hwStatus(new Ip::Nat::HwStatus());
   Vor::Ptr<Routing::Hardware::RouteStatus> routeStatus(new Routing::Hardware::RouteStatus());
   // Two entries of room, immediate commit.
   auto chip = Sim::simNatHelperFactory("simChip", 2, true);
   auto root = Ulo::natSmFactory(
      Vor::Ptr<Ulo::UloCommonSmData>(new Ulo::UloCommonSmData()), status, hwStatus,
      Vor::Ptr<Ip::Nat::DynamicConnectionStatus>(new Ip::Nat::DynamicConnectionStatus()),
      Vor::Ptr<Ip::Nat::DynamicConnectionHwStatus>(new Ip::Nat::DynamicConnectionHwStatus()),
      Vor::Ptr<Ip::Nat::HwCapabilities>(new Ip::Nat::HwCapabilities()),
      Vor::Ptr<Ulo::NextHopMapConfig>(new Ulo::NextHopMapConfig()),
      Vor::Ptr<Ulo::NextHopMapStatus>(new Ulo::NextHopMapStatus()), routeStatus, chip,
      Vor::Ptr<MrouteLib::StaticNatInfo>(new MrouteLib::StaticNatInfo()), Vor::Ptr<UloL3Intf::Table const>());
   root->initializedIs(true);

   Lumet::IntfId const intf("Ethernet1");
   routeStatus->vrfStatusIs(L3::VrfName("default"));
   auto intfStatus = status->intfStatusIs(intf);
   intfStatus->validIntfIs(intf, 10);
   intfStatus->vrfNameIs(L3::VrfName("default"));
   for (char const* local : {"10.0.0.1:0", "10.0.0.2:0"}) {
      intfStatus->staticConnectionIs(Ip::Nat::NatStaticConnection(
         Ip::Nat::StaticKey(*Lumet::IpAndPort::parse(local)), *Lumet::IpAndPort::parse("192.0.2.1:0"),
         Ip::Nat::source_, 0, 10, true));
   }
   scheduler->runUntilIdle();

   // One rule (a source and a destination entry) fits; the other was
   // refused and waits for room.
   bool const ok = chip->entries().size() == 2 && hwStatus->intfStatus(intf)->staticConnectionHw().size() == 1 &&
                   chip->counts().refused > 0;
   std::printf("simulated chip: %zu entries, %llu refused: %s\n", chip->entries().size(),
               static_cast<unsigned long long>(chip->counts().refused), ok ? "as expected" : "FAILED");
   root = nullptr;
   Dov::TaskSchedulerRoot::schedulerIs(nullptr);
   return ok ? 0 : 1;
}
