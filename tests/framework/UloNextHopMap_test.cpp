#include "framework/UloNextHopMap.h"

#include <gtest/gtest.h>

#include <ostream>
#include <vector>

#include "framework/VorException.h"
#include "framework/VorReactor.h"

namespace {

using Ulo::NextHopMapConfig;
using Ulo::NextHopMapStatus;
using Ulo::VrfAndIpAddr;

// Records every delivery with whether the key was present at that moment.
struct Watcher {
   struct Event {
      VrfAndIpAddr key;
      bool present;
      bool operator==(Event const&) const = default;
      friend std::ostream& operator<<(std::ostream& os, Event const& e) {
         return os << e.key.stringValue() << (e.present ? " present" : " absent");
      }
   };
   using Events = std::vector<Event>;
   Events events;
   NextHopMapConfig const* config = nullptr;
   NextHopMapStatus const* status = nullptr;
   void onRequest(VrfAndIpAddr const& key) { events.push_back({key, config->routeResolverRequestHas(key)}); }
   void onResolved(VrfAndIpAddr const& key) { events.push_back({key, status->resolvedAddrHas(key)}); }
};

struct ConfigReactor : Vor::Reactor<NextHopMapConfig, Watcher> {
   static Bindings const& table() {
      static Bindings const b{
         onKey<&Watcher::onRequest>(NextHopMapConfig::routeResolverRequestId)};
      return b;
   }
   explicit ConfigReactor(Watcher* w) : Reactor(w, table()) {}
};

struct StatusReactor : Vor::Reactor<NextHopMapStatus, Watcher> {
   static Bindings const& table() {
      static Bindings const b{onKey<&Watcher::onResolved>(NextHopMapStatus::resolvedAddrId)};
      return b;
   }
   explicit StatusReactor(Watcher* w) : Reactor(w, table()) {}
};

TEST(UloNextHopMap, RequestsNotifyPerMemberOnAddAndRemoveOnly) {
   Vor::Ptr<NextHopMapConfig> config(new NextHopMapConfig());
   Watcher w;
   w.config = config.ptr();
   ConfigReactor reactor(&w);
   reactor.notifierIs(config);

   VrfAndIpAddr const a(0, Lumet::IpAddr(10, 0, 0, 1));
   VrfAndIpAddr const b(5, Lumet::IpAddr(10, 0, 0, 1));
   config->routeResolverRequestIs(a, true);
   config->routeResolverRequestIs(a, true);   // no change, no delivery
   config->routeResolverRequestIs(b, true);
   config->routeResolverRequestDel(a);
   config->routeResolverRequestDel(a);        // absent, no delivery

   EXPECT_EQ(w.events, (Watcher::Events{{a, true}, {b, true}, {a, false}}));
   EXPECT_TRUE(config->routeResolverRequest(b));
   EXPECT_FALSE(config->routeResolverRequest(a));
   EXPECT_EQ(config->routeResolverRequests(), 1u);
}

TEST(UloNextHopMap, ResolvedAddrNotifiesOnNewAnswerAndKeepsRemovedAnswerAliveForTheReactor) {
   Vor::Ptr<NextHopMapStatus> status(new NextHopMapStatus());
   Watcher w;
   w.status = status.ptr();
   StatusReactor reactor(&w);
   reactor.notifierIs(status);

   VrfAndIpAddr const key(3, Lumet::IpAddr(192, 168, 1, 1));
   auto first = Ulo::natNextHopIdFactory(key);
   auto second = Ulo::natNextHopIdFactory(key);
   status->resolvedAddrIs(key, first);
   status->resolvedAddrIs(key, first);    // the same answer: nothing
   status->resolvedAddrIs(key, second);   // a new answer: delivered
   EXPECT_EQ(status->resolvedAddr(key).ptr(), second.ptr());
   status->resolvedAddrDel(key);
   EXPECT_FALSE(status->resolvedAddr(key));
   EXPECT_EQ(w.events, (Watcher::Events{{key, true}, {key, true}, {key, false}}));

   EXPECT_THROW(status->resolvedAddrIs(key, Vor::Ptr<Ulo::NatNextHopInfo>()), Vor::NullPointerException);
   EXPECT_EQ(w.events.size(), 3u);
}

} // namespace
