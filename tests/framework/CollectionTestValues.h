#pragma once
// Value types shared by the tests of the Vor maps.

namespace CollectionTest {

// A value whose destruction erases another member of the same map, as
// happens when releasing one entity releases others. A moved-from value
// erases nothing: the duty moves with it.
template <template <typename, typename> class Map>
struct Cascade {
   Map<int, Cascade>* map;
   int victim;
   Cascade(Map<int, Cascade>* m, int v) : map(m), victim(v) {}
   Cascade(Cascade&& o) noexcept : map(o.map), victim(o.victim) { o.map = nullptr; }
   ~Cascade() {
      if (map != nullptr && victim >= 0) map->erase(victim);
   }
};

// Adds keys 0 to n - 1 to `m`, each of which erases the next when it goes,
// so that erasing 0 empties the map.
template <template <typename, typename> class Map>
void addCascadeChain(Map<int, Cascade<Map>>& m, int n) {
   for (int k = 0; k < n; ++k) m.emplace(k, &m, k + 1 < n ? k + 1 : -1);
}

} // namespace CollectionTest
