#include "framework/VorSystem.h"

#include <chrono>

namespace Vor::System {

namespace {
std::function<double()>& source() {
   static std::function<double()> s;
   return s;
}
} // namespace

double wallTime() {
   using namespace std::chrono;
   return duration<double>(system_clock::now().time_since_epoch()).count();
}

double currentTime() {
   auto const& s = source();
   return s ? s() : wallTime();
}

void timeSourceIs(std::function<double()> s) { source() = std::move(s); }

} // namespace Vor::System
