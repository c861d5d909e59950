#pragma once
// Declarative attributes of entities: each attribute is declared once, in one
// line of its entity's class, and gets
//   - its id (xId) and its storage;
//   - the accessors of the naming scheme: x(), xIs(v) for a scalar; x(),
//     x(key), xHas(key), xs() (the count), xIs(key, ...), xDel(key),
//     xDelAll() for a collection;
//   - notification when, and only when, a mutator changes something (a
//     scalar with its id and a null key, a collection once per member with
//     a pointer to a copy of the member's key);
//   - its entry in the entity type's description (fwkType()), readable and,
//     for a scalar of a text-convertible type, settable by name.
//
//   class Capabilities : public Vor::Entity {
//      VOR_ENTITY(Capabilities, "Ip::Nat::HwCapabilities")
//      VOR_SCALAR(bool, countersSupported, 1)
//      VOR_SCALAR(U32, maxRules, 2, 128)                 // with its initial value
//      VOR_COLLECTION(IntfId, U16, validIntf, 3)         // std::map of values
//      VOR_ENTITY_COLLECTION(IntfId, IntfStatus, intf, 4, intfStatusFactory)
//      VOR_SET(NatHwKey, failed, 5, Vor::HashSet)
//    public:
//      ...
//   };
//
// The work is done by the templates below (ScalarText, Collection); a macro
// only names the members, which C++ cannot do otherwise. Each macro leaves
// the class's access public. An optional last argument of a collection is its
// container template (std::map or std::set by default; Vor::HashMap2018 and
// Vor::HashSet serve as well).
//
// The type description is filled when the program starts (one registration
// per attribute, in declaration order); it is complete before main() runs.
//
// Thread safety: none; entities belong to the agent's one thread.

#include <charconv>
#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <type_traits>

#include "framework/VorEntity.h"
#include "framework/VorEntityCollections.h"

namespace Vor {

// Text forms of scalar values for the type description. `text` always
// exists; `parse` only for the types below, and it returns nothing on bad
// input, which setByName reports with the expected form.
template <typename T, typename = void>
struct ScalarText {
   static std::string text(T const& v) {
      if constexpr (requires { v.stringValue(); }) {
         return std::string(v.stringValue());
      } else if constexpr (std::is_enum_v<T>) {
         return std::to_string(static_cast<std::underlying_type_t<T>>(v));
      } else {
         return "<value>";
      }
   }
   static constexpr bool settable = false;
};
template <>
struct ScalarText<bool> {
   static std::string text(bool v) { return v ? "true" : "false"; }
   static std::optional<bool> parse(std::string const& t) {
      if (t == "true" || t == "1") return true;
      if (t == "false" || t == "0") return false;
      return std::nullopt;
   }
   static constexpr char const* expected = "true, false, 1 or 0";
   static constexpr bool settable = true;
};
template <typename T>
struct ScalarText<T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>>> {
   static std::string text(T v) { return std::to_string(v); }
   static std::optional<T> parse(std::string const& t) {
      T v{};
      auto [end, ec] = std::from_chars(t.data(), t.data() + t.size(), v);
      if (ec != std::errc() || end != t.data() + t.size()) return std::nullopt;
      return v;
   }
   static constexpr char const* expected = "an integer in range";
   static constexpr bool settable = true;
};
template <>
struct ScalarText<double> {
   static std::string text(double v) { return std::to_string(v); }
   static std::optional<double> parse(std::string const& t) {
      double v = 0.0;
      auto [end, ec] = std::from_chars(t.data(), t.data() + t.size(), v);
      if (ec != std::errc() || end != t.data() + t.size()) return std::nullopt;
      return v;
   }
   static constexpr char const* expected = "a number";
   static constexpr bool settable = true;
};

// The registered description of entity type E, filled by its attributes'
// registrations.
template <typename E>
TypeDescription& entityTypeDescription(char const* typeName) {
   static TypeDescription type(typeName);
   return type;
}

// The factory of an entity collection whose members are built from their
// key alone: VOR_ENTITY_COLLECTION(K, T, x, id, Vor::EntityMaker<T>()).
template <typename T>
struct EntityMaker {
   template <typename K>
   Ptr<T> operator()(K const& key) const {
      return Ptr<T>(new T(key));
   }
};

namespace Impl {

struct AttributeRegistration {};

template <typename E, typename T, auto Get, auto Set>
AttributeRegistration registerScalar(char const* name, AttributeId id) {
   AttributeDescription a;
   a.name = name;
   a.id = id;
   a.get = [](Entity const& e) { return ScalarText<T>::text((static_cast<E const&>(e).*Get)()); };
   if constexpr (ScalarText<T>::settable) {
      std::string const attribute = name;
      a.set = [attribute](Entity& e, std::string const& text) -> std::optional<std::string> {
         std::optional<T> v = ScalarText<T>::parse(text);
         if (!v) {
            return "invalid value '" + text + "' for " + attribute + ": expected " +
                   ScalarText<T>::expected;
         }
         (static_cast<E&>(e).*Set)(*v);
         return std::nullopt;
      };
   }
   E::typeDescription().attributeIs(std::move(a));
   return {};
}

template <typename E, auto Count>
AttributeRegistration registerCollection(char const* name, AttributeId id) {
   AttributeDescription a;
   a.name = name;
   a.id = id;
   a.get = [](Entity const& e) { return std::to_string((static_cast<E const&>(e).*Count)()); };
   E::typeDescription().attributeIs(std::move(a));
   return {};
}

} // namespace Impl

// The container half of a collection attribute: a map of values, a map of
// entity pointers or a set, over the standard or the Vor containers. Each
// mutator reports whether it changed anything; the entity notifies.
template <typename C, bool IsSet = false>
class Collection {
 public:
   using Container = C;
   C const& all() const { return c_; }
   std::size_t size() const { return c_.size(); }
   template <typename K>
   bool has(K const& key) const {
      if constexpr (requires { c_.contains(key); }) {
         return c_.contains(key);
      } else {
         return c_.count(key) != 0;
      }
   }
   // The member's value, or the value type's default (null for entities).
   template <typename K>
   auto value(K const& key) const {
      return memberValue(c_, key);
   }
   template <typename K, typename V>
   bool valueIs(K const& key, V const& v) {
      return memberValueIs(c_, key, v);
   }
   template <typename K>
   bool keyIs(K const& key) {
      auto r = c_.insert(key);
      if constexpr (std::is_same_v<decltype(r), bool>) {
         return r;
      } else {
         return r.second;
      }
   }
   template <typename K, typename Make>
   auto entityIs(K const& key, Make make, bool& made) {
      made = false;
      return memberEntityIs(c_, key, make, [&](K const&) { made = true; });
   }
   // A copy of the member's value (an entity's pointer keeps it alive while
   // its deletion is notified); nothing for a set.
   template <typename K>
   auto hold(K const& key) const {
      if constexpr (IsSet) {
         return has(key);
      } else {
         return memberValue(c_, key);
      }
   }
   // Erases `key`; the caller passes a copy of the key, which may be read
   // after the member is gone.
   template <typename K>
   bool del(K const& key) {
      return c_.erase(key) != 0;
   }
   // The key of some member. REQUIRES: size() > 0.
   auto anyKey() const {
      auto it = c_.begin();
      if constexpr (requires { it.key(); }) {
         return it.key();
      } else if constexpr (requires { it->first; }) {
         return it->first;
      } else {
         return *it;
      }
   }

 private:
   C c_;
};

} // namespace Vor

// ---- the macros: one per attribute, naming what the templates provide ----

// Opens an entity class's attribute list. `typeName` names the type in its
// description.
#define VOR_ENTITY(Self, typeName)                                                       \
 public:                                                                                 \
   using VorSelf = Self;                                                                 \
   static ::Vor::TypeDescription& typeDescription() {                                    \
      return ::Vor::entityTypeDescription<Self>(typeName);                               \
   }                                                                                     \
   ::Vor::TypeDescription const* fwkType() const override { return &typeDescription(); }

// A scalar attribute: name(), nameIs(v); an optional initial value follows the id.
#define VOR_SCALAR(Type, name, id, ...)                                                   \
 public:                                                                                  \
   static constexpr ::Vor::AttributeId name##Id = id;                                     \
   Type const& name() const { return name##_; }                                           \
   void name##Is(Type const& v) { scalarIs(name##_, v, name##Id); }                       \
                                                                                          \
 private:                                                                                 \
   Type name##_{__VA_ARGS__};                                                             \
   static inline ::Vor::Impl::AttributeRegistration const name##Registration_ =           \
      ::Vor::Impl::registerScalar<VorSelf, Type, &VorSelf::name, &VorSelf::name##Is>(#name, id); \
                                                                                          \
 public:

// The accessors shared by every kind of collection; the invoking macro has
// declared name##Container.
#define VOR_COLLECTION_COMMON_(Key, name, id, isSet)                                      \
 public:                                                                                  \
   static constexpr ::Vor::AttributeId name##Id = id;                                     \
   name##Container const& name() const { return name##_.all(); }                          \
   bool name##Has(Key const& key) const { return name##_.has(key); }                      \
   std::size_t name##s() const { return name##_.size(); }                                 \
   void name##Del(Key const& key) {                                                       \
      Key const k = key;                                                                  \
      [[maybe_unused]] auto const held = name##_.hold(k);                                 \
      if (name##_.del(k)) memberChanged(name##Id, k);                                     \
   }                                                                                      \
   void name##DelAll() {                                                                  \
      while (name##_.size()) name##Del(name##_.anyKey());                                 \
   }                                                                                      \
                                                                                          \
 private:                                                                                 \
   ::Vor::Collection<name##Container, isSet> name##_;                                     \
   static inline ::Vor::Impl::AttributeRegistration const name##Registration_ =           \
      ::Vor::Impl::registerCollection<VorSelf, &VorSelf::name##s>(#name, id);             \
                                                                                          \
 public:

// A collection of values by key: name(key) yields the default when absent;
// nameIs(key, value) adds or replaces. The optional last argument is the map
// template (std::map by default).
#define VOR_COLLECTION(Key, Value, name, id, ...)                                         \
 public:                                                                                  \
   using name##Container = VOR_TEMPLATE_OR_(std::map __VA_OPT__(, ) __VA_ARGS__)<Key, Value>; \
   VOR_COLLECTION_COMMON_(Key, name, id, false)                                           \
   Value name(Key const& key) const { return name##_.value(key); }                        \
   void name##Is(Key const& key, Value const& value) {                                    \
      if (name##_.valueIs(key, value)) memberChanged(name##Id, key);                      \
   }

// A collection of entities by key, made by `factory(key)`: name(key) is null
// when absent; nameIs(key) returns the member, made when absent. A member
// being deleted stays alive until its reactors have been told.
#define VOR_ENTITY_COLLECTION(Key, Member, name, id, factory, ...)                        \
 public:                                                                                  \
   using name##Container =                                                                \
      VOR_TEMPLATE_OR_(std::map __VA_OPT__(, ) __VA_ARGS__)<Key, ::Vor::Ptr<Member>>;     \
   VOR_COLLECTION_COMMON_(Key, name, id, false)                                           \
   ::Vor::Ptr<Member> name(Key const& key) const { return name##_.value(key); }           \
   ::Vor::Ptr<Member> name##Is(Key const& key) {                                          \
      bool made = false;                                                                  \
      ::Vor::Ptr<Member> m = name##_.entityIs(key, factory, made);                        \
      if (made) memberChanged(name##Id, key);                                             \
      return m;                                                                           \
   }

// A set of keys: nameIs(key) adds. The optional last argument is the set
// template (std::set by default).
#define VOR_SET(Key, name, id, ...)                                                       \
 public:                                                                                  \
   using name##Container = VOR_TEMPLATE_OR_(std::set __VA_OPT__(, ) __VA_ARGS__)<Key>;    \
   VOR_COLLECTION_COMMON_(Key, name, id, true)                                            \
   void name##Is(Key const& key) {                                                        \
      if (name##_.keyIs(key)) memberChanged(name##Id, key);                               \
   }

// The template given, else the default: VOR_TEMPLATE_OR_(default[, given]).
#define VOR_TEMPLATE_OR_(...) VOR_LAST_(__VA_ARGS__)
#define VOR_LAST_(...) VOR_LAST_N_(__VA_ARGS__, VOR_LAST_2_, VOR_LAST_1_)(__VA_ARGS__)
#define VOR_LAST_N_(a, b, macro, ...) macro
#define VOR_LAST_1_(a) a
#define VOR_LAST_2_(a, b) b
