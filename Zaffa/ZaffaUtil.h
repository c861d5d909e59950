#pragma once
// Small helpers of the table: the names of its files, the corruption marker,
// and text forms of keys and values for messages.

#include "Zaffa/platform/Mem.h"
#include "Zaffa/SlotTable.h"

#include <fmt/format.h>

#include <string>

namespace Zaffa {

// The files of one table in its root directory.
struct FileNames {
   static constexpr char const* slots = "zaffa.slots";
   static constexpr char const* buckets = "zaffa.buckets";
   static constexpr char const* trevine = "zaffa.trevine";
   static constexpr char const* owner = "zaffa.owner";
   static constexpr char const* fenix = "zaffa.fenix";
   static constexpr char const* writerLock = "zaffa.writer";
   static constexpr char const* jolt = "zaffa.jolt";
   // Present after a corruption was detected at run time; holds the message.
   static constexpr char const* corruptionMarker = "corruption-detected";
};

// The default root of table files.
inline constexpr char const* defaultRootPath = "/var/shmem";

namespace Util {

// False on a simulated platform (SIMULATION_VMID set).
bool runningOnPhysicalDut();

// Raises Jorro::CorruptionDetectedException when the slot file's header does
// not validate against the file (wantedFenix 0 accepts any generation).
void validateFile(SlotTableHeader const* header, std::size_t fileSize, U32 wantedFenix);

// Writes `message` into the corruption marker of `root`; false on failure.
bool writeCorruptionMarker(Mem::RootPath const& root, std::string const& message);
// Removes the marker; true when there was one.
bool removeCorruptionMarker(Mem::RootPath const& root);
// The marker's message, or empty when there is none.
std::string readCorruptionMarker(Mem::RootPath const& root);

} // namespace Util

// Text of a key or value for messages: its stringValue() if it has one, its
// fmt form if it has one, otherwise its size.
template <typename T>
std::string describe(T const& v) {
   if constexpr (requires { v.stringValue(); }) {
      return std::string(v.stringValue());
   } else if constexpr (fmt::is_formattable<T>::value) {
      return fmt::format("{}", v);
   } else {
      return fmt::format("<{} bytes>", sizeof(T));
   }
}

} // namespace Zaffa
