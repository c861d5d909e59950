#pragma once
// Invariants of the program.
//
// uloAssert(expression) checks an invariant that must hold whatever the input;
// when it fails it prints the expression text, the source path, the line and
// the function to standard error and ends the process with abort(). It is
// never compiled out: a NAT engine that carries on with broken state loses
// rules silently, which is worse than a restart that replays them.
//
// Thread safety: may be called from any thread.

namespace Ulo {

[[noreturn]] void assertFailed(char const* expression, char const* file, int line,
                               char const* function) noexcept;

} // namespace Ulo

#define uloAssert(expression)                                                          \
   (static_cast<bool>(expression)                                                      \
       ? static_cast<void>(0)                                                          \
       : ::Ulo::assertFailed(#expression, __FILE__, __LINE__, __PRETTY_FUNCTION__))
