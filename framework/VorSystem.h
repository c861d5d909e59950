#pragma once
// Process time.
//
// Vor::System::currentTime() is the time, in seconds, of the process's active
// time source: the wall clock in production, or the virtual clock of a
// scheduler that runs on virtual time (tests, the simulator). Everything in
// the library that stamps or compares times reads it, so a virtual clock
// drives timers, review cadence and the stamps in status alike.

#include <functional>

namespace Vor::System {

double currentTime();

// Replaces the time source; an empty function restores the wall clock.
// The scheduler installs its virtual clock here when it runs on virtual time.
void timeSourceIs(std::function<double()> source);

// Seconds from the wall clock (CLOCK_REALTIME), whatever the time source.
double wallTime();

} // namespace Vor::System
