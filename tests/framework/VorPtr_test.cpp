// Reference counting: lifetime through Ptr, destruction through the virtual
// path, and atomic counts under the process-wide switch.

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "framework/VorPtr.h"

namespace {

using Vor::Ptr;

class Tracked : public Vor::PtrInterface {
 public:
   explicit Tracked(int* destroyed) : destroyed_(destroyed) {}
   ~Tracked() override { ++*destroyed_; }

 private:
   int* destroyed_;
};

// An object that is recycled instead of deleted when its count reaches zero.
class Pooled : public Vor::PtrInterface {
 public:
   mutable int zeroRefs = 0;

 protected:
   void handleZeroRef() const override { ++zeroRefs; }
};

TEST(VorPtr, LastReferenceDestroysAndConstPointersShareTheCount) {
   int destroyed = 0;
   {
      Ptr<Tracked> a(new Tracked(&destroyed));
      Ptr<Tracked const> b = a;
      EXPECT_EQ(a->references(), 2u);
      a = nullptr;
      EXPECT_EQ(destroyed, 0) << "b still holds it";
      EXPECT_EQ(b->references(), 1u);
   }
   EXPECT_EQ(destroyed, 1);
   Ptr<Tracked> empty;
   EXPECT_FALSE(empty);
   EXPECT_TRUE(empty == nullptr);
}

TEST(VorPtr, ZeroReferencesGoThroughTheVirtualPath) {
   Pooled pooled;   // not heap allocated: its handleZeroRef must not delete
   {
      Ptr<Pooled> p(&pooled);
      Ptr<Pooled> q(p);
   }
   EXPECT_EQ(pooled.zeroRefs, 1);
}

TEST(VorPtr, ThreadSafeSwitchMakesCountsAtomic) {
   int destroyed = 0;
   Vor::PtrInterface::threadSafePointers_ = true;
   {
      Ptr<Tracked> shared(new Tracked(&destroyed));
      std::vector<std::thread> threads;
      for (int t = 0; t < 4; ++t) {
         threads.emplace_back([&shared] {
            for (int i = 0; i < 200000; ++i) {
               Ptr<Tracked> copy(shared);
            }
         });
      }
      for (auto& t : threads) t.join();
      EXPECT_EQ(shared->references(), 1u);
   }
   Vor::PtrInterface::threadSafePointers_ = false;
   EXPECT_EQ(destroyed, 1);
}

} // namespace
