#pragma once
// Vor::String: an immutable, shared string.
//
// Copies share one buffer (reference-counted); no operation changes a buffer
// after it was built, so a String may be handed to any number of holders and
// compared or hashed without copying. `+=` builds a new buffer and re-points
// this String at it. The empty String holds no buffer.

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <ostream>
#include <string>
#include <string_view>

#include "framework/VorHash.h"

namespace Vor {

class String {
 public:
   static constexpr std::size_t npos = std::string::npos;

   String() = default;
   String(char const* s) : String(std::string_view(s ? s : "")) {}
   String(std::string_view s);
   String(std::string const& s) : String(std::string_view(s)) {}
   String(String const& o) : rep_(o.rep_) { if (rep_) rep_->refs.fetch_add(1, std::memory_order_relaxed); }
   String(String&& o) noexcept : rep_(o.rep_) { o.rep_ = nullptr; }
   ~String() { release(); }
   String& operator=(String const& o);
   String& operator=(String&& o) noexcept;

   char const* charPtr() const { return rep_ ? rep_->data : ""; }
   std::string stdString() const { return std::string(view()); }
   std::string_view view() const { return rep_ ? std::string_view(rep_->data, rep_->size) : std::string_view(); }
   std::size_t size() const { return rep_ ? rep_->size : 0; }
   bool empty() const { return size() == 0; }

   // Position of `needle` at or after `from`, or npos.
   std::size_t pos(std::string_view needle, std::size_t from = 0) const { return view().find(needle, from); }
   String substr(std::size_t start, std::size_t length = npos) const;

   String operator+(String const& o) const;
   String operator+(char const* o) const { return *this + String(o); }
   String& operator+=(String const& o) { return *this = *this + o; }
   String& operator+=(char const* o) { return *this = *this + String(o); }

   friend bool operator==(String const& a, String const& b) {
      return a.rep_ == b.rep_ || a.view() == b.view();
   }
   friend bool operator==(String const& a, char const* b) { return a.view() == std::string_view(b); }
   friend bool operator<(String const& a, String const& b) { return a.view() < b.view(); }
   friend auto operator<=>(String const& a, String const& b) { return a.view() <=> b.view(); }

   U32 hash(U32 seed = 0) const { return hashString(seed, view()); }
   std::string stringValue() const { return stdString(); }

 private:
   struct Rep {
      std::atomic<std::uint32_t> refs;
      std::size_t size;
      char data[1];
   };
   void release();
   Rep* rep_ = nullptr;
};

inline String operator+(char const* a, String const& b) { return String(a) + b; }
inline std::ostream& operator<<(std::ostream& os, String const& s) { return os << s.view(); }

// printf-style constructor of a String.
String format(char const* fmt, ...) __attribute__((format(printf, 1, 2)));
String vformat(char const* fmt, std::va_list args);

} // namespace Vor
