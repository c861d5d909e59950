#include "framework/VorEntity.h"

namespace Vor {

AttributeDescription const* TypeDescription::attribute(std::string_view name) const {
   for (auto const& a : attributes_) {
      if (a.name == name) return &a;
   }
   return nullptr;
}

TypeDescription& TypeDescription::attributeIs(AttributeDescription a) {
   for (auto& existing : attributes_) {
      if (existing.name == a.name) {
         existing = std::move(a);
         return *this;
      }
   }
   attributes_.push_back(std::move(a));
   return *this;
}

std::optional<std::string> Entity::getByName(std::string_view attribute) const {
   TypeDescription const* type = fwkType();
   if (!type) return std::nullopt;
   AttributeDescription const* a = type->attribute(attribute);
   if (!a || !a->get) return std::nullopt;
   return a->get(*this);
}

std::optional<std::string> Entity::setByName(std::string_view attribute, std::string const& text) {
   TypeDescription const* type = fwkType();
   if (!type) return std::string("entity '") + name().stdString() + "' has no type description";
   AttributeDescription const* a = type->attribute(attribute);
   if (!a) {
      return "unknown attribute '" + std::string(attribute) + "' of " + type->name();
   }
   if (!a->set) return "attribute '" + a->name + "' of " + type->name() + " cannot be set";
   return a->set(*this, text);
}

} // namespace Vor
