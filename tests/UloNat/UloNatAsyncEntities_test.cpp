#include "UloNat/UloNatAsyncEntities.h"

#include <gtest/gtest.h>

#include <vector>

#include "framework/VorReactor.h"

namespace {

using namespace Ulo;
using Lumet::IpAddr;
using Lumet::IpAndPort;

NatHwKey key(U32 filterAddrId = 0) {
   return NatHwKey(NatHwKey::staticSnat, IpAndPort(IpAddr(10, 0, 0, 1), 0), IpAndPort(IpAddr(1, 1, 1, 1), 0), {},
                   {}, NatAclId(), false, 0, 0, filterAddrId);
}

NatHwData data(U8 protocol) { return NatHwData(protocol, Lumet::IpAddrWithFullMask(), 1, 0, false, 0, false); }

TEST(NatRequestQueue, FirstInFirstOutAndTheDefaultRequestWhenEmpty) {
   auto queue = natRequestQueueFactory(key());
   EXPECT_EQ(queue->pendingDeq(), NatRequestQueue::Request());
   EXPECT_EQ(queue->pendingDeq().type(), NatRequestQueue::unknown);
   queue->pendingEnq(NatRequestQueue::Request(NatRequestQueue::add, data(6)));
   queue->pendingEnq(NatRequestQueue::Request(NatRequestQueue::update, data(17)));
   queue->pendingEnq(NatRequestQueue::Request(NatRequestQueue::del, data(0)));
   EXPECT_EQ(queue->pendings(), 3u);
   EXPECT_EQ(queue->pendingDeq(), NatRequestQueue::Request(NatRequestQueue::add, data(6)));
   EXPECT_EQ(queue->pendingDeq().type(), NatRequestQueue::update);
   // The cursor only grows: a request queued now goes behind the last one.
   queue->pendingEnq(NatRequestQueue::Request(NatRequestQueue::add, data(1)));
   EXPECT_EQ(queue->pendingMetadata(), (NatRequestQueue::PendingMetadata{2, 4}));
   EXPECT_EQ(queue->pendingDeq().type(), NatRequestQueue::del);
   EXPECT_EQ(queue->pendingDeq().data().protocol(), 1);
   EXPECT_EQ(queue->pendingDeq(), NatRequestQueue::Request());
   EXPECT_EQ(queue->dequeued(), 4u);
   EXPECT_EQ(NatRequestQueue::Request().stringValue().rfind("Value('Ulo::NatRequestQueue::Request', ** {'type': unknown, 'data': ", 0), 0u);
}

struct ShadowWatcher {
   NatHwShadow const* shadow = nullptr;
   std::vector<std::pair<U32, bool>> events;   // filterAddrId, present
   void onEntry(NatHwKey const& k) { events.emplace_back(k.filterAddrId(), shadow->entryHas(k)); }
};

struct ShadowReactor : Vor::Reactor<NatHwShadow, ShadowWatcher> {
   static Bindings const& table() {
      static Bindings const b{onKey<&ShadowWatcher::onEntry>(NatHwShadow::entryId)};
      return b;
   }
   explicit ShadowReactor(ShadowWatcher* w) : Reactor(w, table()) {}
};

TEST(NatHwShadow, EntriesPerKeyWithNotificationOnChangeOnly) {
   auto shadow = natHwShadowFactory("shadow");
   ShadowWatcher w;
   w.shadow = shadow.ptr();
   ShadowReactor reactor(&w);
   reactor.notifierIs(shadow);

   EXPECT_FALSE(shadow->entryHas(key()));
   EXPECT_EQ(shadow->entry(key()), NatHwShadowEntry());
   NatHwShadowEntry const first(key(0), data(6), NatHwShadowEntry::setting);
   shadow->entryIs(first);
   shadow->entryIs(first);
   // Keys that differ only in the filter position are different entries.
   shadow->entryIs(NatHwShadowEntry(key(1), data(6)));
   EXPECT_EQ(shadow->entrys(), 2u);
   shadow->entryIs(NatHwShadowEntry(key(0), data(6), NatHwShadowEntry::clean));
   EXPECT_EQ(shadow->entry(key(0)).dirty(), NatHwShadowEntry::clean);
   shadow->entryDel(key(1));
   shadow->entryDel(key(1));

   std::vector<std::pair<U32, bool>> const expected{{0, true}, {1, true}, {0, true}, {1, false}};
   EXPECT_EQ(w.events, expected);

   EXPECT_EQ(shadow->entry(key(0)).data().protocol(), 6);
   EXPECT_EQ(shadow->counter("entryIs"), 4u);
   EXPECT_EQ(shadow->counter("entryDel"), 2u);
   EXPECT_EQ(shadow->counter("entryNotify"), expected.size());
}

TEST(NatHwShadowDeathTest, TheDefaultKeyIsNeverStored) {
   auto shadow = natHwShadowFactory("shadow");
   EXPECT_DEATH(shadow->entryIs(NatHwShadowEntry()), "!!shadowEntry\\.key\\(\\)");
}

// Notification on change is the attribute generator's (VorAttribute_test).
TEST(NatAsyncDirectories, PerKeyRecordsAreMadeOnceFromTheirKey) {
   auto configs = natAsyncHwConfigDirFactory();
   auto config = configs->configIs(key());
   EXPECT_EQ(configs->configIs(key()).ptr(), config.ptr());
   EXPECT_FALSE(configs->config(key(1)));
   config->opTypeIs(NatRequestQueue::add);
   EXPECT_EQ(configs->config(key())->opType(), NatRequestQueue::add);
   configs->configIs(key(1));
   configs->configDelAll();
   EXPECT_EQ(configs->configs(), 0u);

   auto statuses = natAsyncHwStatusDirFactory();
   auto status = statuses->statusIs(key());
   EXPECT_EQ(status->state(), NatAsyncHwStatus::unknown);
   EXPECT_EQ(status->key(), key());
   statuses->statusDel(key());
   EXPECT_FALSE(statuses->status(key()));

   auto queues = natRequestQueueDirFactory();
   EXPECT_EQ(queues->requestQIs(key()).ptr(), queues->requestQIs(key()).ptr());
   queues->requestQDel(key());
   EXPECT_FALSE(queues->requestQ(key()));

   auto failed = natFailedHwKeyStatusFactory("failed");
   failed->entryIs(key(0));
   failed->entryIs(key(1));
   failed->entryIs(key(1));
   EXPECT_EQ(failed->entrys(), 2u);
   EXPECT_TRUE(failed->entryHas(key(1)));
   failed->entryDelAll();
   EXPECT_FALSE(failed->entryHas(key(0)));
   EXPECT_EQ(failed->name(), Vor::String("failed"));
}

} // namespace
