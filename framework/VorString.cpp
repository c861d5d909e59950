#include "framework/VorString.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace Vor {

String::String(std::string_view s) {
   if (s.empty()) return;
   void* mem = std::malloc(sizeof(Rep) + s.size());
   if (!mem) throw std::bad_alloc();
   rep_ = new (mem) Rep{{1}, s.size(), {0}};
   std::memcpy(rep_->data, s.data(), s.size());
   rep_->data[s.size()] = '\0';
}

String& String::operator=(String const& o) {
   if (o.rep_) o.rep_->refs.fetch_add(1, std::memory_order_relaxed);
   release();
   rep_ = o.rep_;
   return *this;
}

String& String::operator=(String&& o) noexcept {
   if (this != &o) {
      release();
      rep_ = o.rep_;
      o.rep_ = nullptr;
   }
   return *this;
}

void String::release() {
   if (rep_ && rep_->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
      rep_->~Rep();
      std::free(rep_);
   }
   rep_ = nullptr;
}

String String::substr(std::size_t start, std::size_t length) const {
   auto v = view();
   if (start >= v.size()) return String();
   return String(v.substr(start, length));
}

String String::operator+(String const& o) const {
   if (o.empty()) return *this;
   if (empty()) return o;
   std::string joined;
   joined.reserve(size() + o.size());
   joined.append(view());
   joined.append(o.view());
   return String(joined);
}

String vformat(char const* fmt, std::va_list args) {
   std::va_list copy;
   va_copy(copy, args);
   int n = std::vsnprintf(nullptr, 0, fmt, copy);
   va_end(copy);
   if (n <= 0) return String();
   std::string buf(static_cast<std::size_t>(n) + 1, '\0');
   std::vsnprintf(buf.data(), buf.size(), fmt, args);
   buf.resize(static_cast<std::size_t>(n));
   return String(buf);
}

String format(char const* fmt, ...) {
   std::va_list args;
   va_start(args, fmt);
   String s = vformat(fmt, args);
   va_end(args);
   return s;
}

} // namespace Vor
