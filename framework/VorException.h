#pragma once
// Exceptions raised by mutators of the framework's entities and value types.
//
// They mark programming errors of the caller: a handler never catches them, so
// they end the agent. Tools catch them at their edge to turn bad input into a
// message and a non-zero exit.

#include <stdexcept>
#include <string>

namespace Vor {

// A value out of the range its type allows, e.g. a VRF name over 100 bytes.
class RangeException : public std::range_error {
 public:
   explicit RangeException(std::string const& text) : std::range_error(text) {}
};

// A null pointer passed where a mutator needs an object.
class NullPointerException : public std::invalid_argument {
 public:
   explicit NullPointerException(std::string const& text) : std::invalid_argument(text) {}
};

// A collection member instantiated again under the same key with different
// constructor arguments.
class ReinstantiationException : public std::logic_error {
 public:
   explicit ReinstantiationException(std::string const& text) : std::logic_error(text) {}
};

[[noreturn]] void throwRangeException(std::string const& text);
[[noreturn]] void throwMutatorArgNullPointerException(char const* mutator = "mutator");

namespace Impl {
[[noreturn]] void throwMutatorReinstVal(char const* attribute = "member");
}

} // namespace Vor
