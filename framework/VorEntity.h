#pragma once
// Entities: named, reference-counted objects with typed attributes.
//
// State lives in entities; behaviour in state machines that react to them.
// An entity's accessors follow one naming scheme: x() reads attribute x,
// xIs(v) sets it, xDel(k) removes a member, xDelAll() empties a collection,
// xInc(n) adds to a counter, xIs(k, ...) instantiates a member. Every mutator
// that changes something notifies the attached reactors with the attribute's
// id (and, for a collection, a pointer to the member's key); a mutator that
// changes nothing notifies nobody.
//
// Each entity type may register a TypeDescription: its attribute names, ids
// and generic get/set by name as text. Tools and platforms use it to inspect
// entities and to set attributes (helper capabilities, for example) by name.
//
// Thread safety: none. Entities belong to the agent's one thread.

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "framework/VorPtr.h"
#include "framework/VorReactor.h"
#include "framework/VorString.h"

namespace Vor {

class Entity;

// Description of one attribute of an entity type.
struct AttributeDescription {
   std::string name;
   AttributeId id;
   // Text form of the attribute's present value (for a collection, its size
   // or members, as the type chooses).
   std::function<std::string(Entity const&)> get;
   // Sets the attribute from text. Returns an error message, or nothing on
   // success. Absent for attributes that cannot be set from outside.
   std::function<std::optional<std::string>(Entity&, std::string const&)> set;
};

class TypeDescription {
 public:
   explicit TypeDescription(std::string name) : name_(std::move(name)) {}
   std::string const& name() const { return name_; }
   std::vector<AttributeDescription> const& attributes() const { return attributes_; }
   AttributeDescription const* attribute(std::string_view name) const;
   TypeDescription& attributeIs(AttributeDescription a);

 private:
   std::string name_;
   std::vector<AttributeDescription> attributes_;
};

class Entity : public PtrInterface {
 public:
   explicit Entity(String name = String()) : name_(std::move(name)) {}
   String const& name() const { return name_; }

   // The registered description of this entity's type, or null.
   virtual TypeDescription const* fwkType() const { return nullptr; }

   // Generic access by attribute name, through fwkType(). getByName returns
   // nothing when the attribute is unknown; setByName returns an error text
   // naming what is wrong, or nothing on success.
   std::optional<std::string> getByName(std::string_view attribute) const;
   std::optional<std::string> setByName(std::string_view attribute, std::string const& text);

 protected:
   // Sets a scalar field and notifies when the value changed. Returns whether
   // it changed.
   template <typename T, typename U>
   bool scalarIs(T& field, U&& value, AttributeId id) {
      if (field == value) return false;
      field = std::forward<U>(value);
      notify(id);
      return true;
   }
   // Notifies a change of member `key` of collection attribute `id`.
   template <typename K>
   void memberChanged(AttributeId id, K const& key) const {
      notify(id, &key);
   }
   void attributeChanged(AttributeId id) const { notify(id); }

 private:
   String name_;
};

} // namespace Vor
