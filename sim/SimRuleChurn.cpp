#include "sim/SimRuleChurn.h"

namespace Sim {

namespace {

Vor::U64 mix(Vor::U64 x) {
   // splitmix64's finaliser: a well-spread hash of the step and the touch.
   x += 0x9e3779b97f4a7c15ull;
   x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
   x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
   return x ^ (x >> 31);
}

constexpr std::size_t kInterfaces = 4;

} // namespace

SimRuleChurn::SimRuleChurn(std::size_t rules) : present_(rules, true), version_(rules, 0) {}

SimRuleChurn::Touch SimRuleChurn::touch(std::size_t rules, Vor::U64 step, std::size_t which) {
   Vor::U64 const h = mix(step * touchesPerStep + which);
   return Touch{static_cast<std::size_t>(h % rules), (h >> 40) % 3 != 0};
}

void SimRuleChurn::stepIs(Vor::U64 step) {
   for (Vor::U64 t = step_ + 1; t <= step; ++t) {
      for (std::size_t j = 0; j < touchesPerStep; ++j) {
         Touch const change = touch(rules(), t, j);
         present_[change.slot] = change.present;
         version_[change.slot] = t;
      }
   }
   if (step > step_) step_ = step;
}

std::size_t SimRuleChurn::presentCount() const {
   std::size_t n = 0;
   for (bool p : present_) n += p ? 1 : 0;
   return n;
}

std::set<std::size_t> SimRuleChurn::touched(std::size_t rules, Vor::U64 first, Vor::U64 last) {
   std::set<std::size_t> slots;
   for (Vor::U64 t = first; t <= last; ++t) {
      for (std::size_t j = 0; j < touchesPerStep; ++j) slots.insert(touch(rules, t, j).slot);
   }
   return slots;
}

Lumet::IntfId SimRuleChurn::intf(std::size_t slot) {
   return Lumet::IntfId::make(Lumet::IntfId::ethernet, static_cast<Vor::U32>(slot % kInterfaces + 1));
}

Ip::Nat::NatStaticConnection SimRuleChurn::connection(std::size_t slot) const {
   auto const n = static_cast<Vor::U32>(slot);
   Lumet::IpAndPort const local(Lumet::IpAddr(10u << 24 | n), 0);
   // The version picks the global address, so that a changed rule is a
   // changed translation.
   auto const version = static_cast<Vor::U32>(version_[slot] & 0x3f);
   Lumet::IpAndPort const global(Lumet::IpAddr((64u + version) << 24 | n), 0);
   Ip::Nat::NatStaticConnection conn(Ip::Nat::StaticKey(local), global, Ip::Nat::source_, 0,
                                     static_cast<Vor::U16>(slot % kInterfaces + 1), true);
   conn.filterAddressIs(Lumet::IpAddrWithFullMask(Lumet::IpAddr(198, 51, 100, 0), 0xffffff00u), true);
   if (slot % 2 == 0) {
      conn.filterAddressIs(Lumet::IpAddrWithFullMask(Lumet::IpAddr(203, 0, 113, 0), 0xffffff00u), true);
   }
   return conn;
}

void SimRuleChurn::configure(SimSystem& system) const {
   system.vrfIs("default", 0);
   for (std::size_t i = 0; i < kInterfaces; ++i) {
      Lumet::IntfId const id = intf(i);
      system.intfIs(id, "default", id.stringValue(), {{id, static_cast<Vor::U16>(i + 1)}});
   }
   for (std::size_t slot = 0; slot < rules(); ++slot) {
      if (present_[slot]) system.staticIs(intf(slot), connection(slot));
   }
}

void SimRuleChurn::apply(SimSystem& system, std::size_t slot, bool wasPresent) const {
   // A changed rule goes and comes back rather than being replaced in
   // place: the engine and the chip then see a delete and an add.
   if (wasPresent) system.staticDel(intf(slot), connection(slot).key());
   if (present_[slot]) system.staticIs(intf(slot), connection(slot));
}

void SimRuleChurn::advance(SimSystem& system) {
   Vor::U64 const t = step_ + 1;
   for (std::size_t j = 0; j < touchesPerStep; ++j) {
      Touch const change = touch(rules(), t, j);
      bool const wasPresent = present_[change.slot];
      present_[change.slot] = change.present;
      version_[change.slot] = t;
      apply(system, change.slot, wasPresent);
   }
   step_ = t;
}

} // namespace Sim
