#pragma once
// The binding of a shared-memory table to an attribute of an entity.
//
// VorZaffa::VorZaffaMap<Owner, Wrapper> is a collection attribute of an
// entity (the Owner) whose members live in a Zaffa::ZaffaMap. The entity
// keeps its usual accessors (x(k), xIs(v), xDel(k)); they go through the
// map, and after each change the entity notifies its reactors with the key,
// as for any other collection.
//
// Life of one binding:
//   1. entity(name, owner, ...) names the collection "<owner>/<attribute>",
//      binds the owner's callbacks, and, with no descriptor yet, gives the map
//      a private process-local table, so that the attribute works at once.
//   2. The CollectionControl initialises it from outside (initIs), which
//      replaces the private table by a shared writer or reader, and tells it
//      of its parent (parentIs).
//   3. handleParent(): with a parent the collection takes its full name
//      "<parent>/<attribute>"; without one (the parent went) it becomes an
//      orphan: a dummy for good, a strict one with assertOnOrphanAccess.
//
// Thread safety: the activity thread of the process only.
//
// Invariants:
//   1. The control's target is this binding for exactly as long as both live.
//   2. A binding adopts at most one parent; a second, different one is
//      refused ("Entity {} already initialized").
//
// Errors: as Zaffa::ZaffaMap; handleParent raises
// Jorro::InvalidInitializeException on a second parent and leaves the binding
// as it was.

#include "Zaffa/ZaffaMap.h"
#include "framework/VorEntity.h"
#include "framework/VorPtr.h"

#include <optional>
#include <string>

namespace VorZaffa {

// Names the value type of a binding, its key type, and how to get the key
// out of a value.
template <typename V, typename K, K const& (V::*KeyOf)() const>
struct VorZaffaMapValueWrapper {
   using Value = V;
   using Key = K;
   static K const& key(V const& v) { return (v.*KeyOf)(); }
};

// A counter with a name, as shown by the agent's counter dump.
class NamedCounter {
 public:
   explicit NamedCounter(std::string name) : name_(std::move(name)) {}
   std::string const& name() const { return name_; }
   Vor::U64 value() const { return value_; }
   void inc() { ++value_; }

 private:
   std::string name_;
   Vor::U64 value_ = 0;
};

// The framework's handle on one bound collection: by it the mount code
// initialises the collection, gives it its parent, and follows its mount
// status. It may outlive the entity's own reference to it: an entity that
// loses its last outside reference hands itself to the control
// (entityRefIs), which keeps it for as long as the mount code holds the
// control.
class CollectionControl : public Vor::PtrInterface {
 public:
   // What a control drives; implemented by VorZaffaMap.
   class Target {
    public:
      virtual ~Target();
      virtual void controlInit(Zaffa::MapDescriptor const& descriptor) = 0;
      virtual void controlParent() = 0;
      virtual void controlDetach() = 0;
   };

   explicit CollectionControl(Target* target) : target_(target) {}
   ~CollectionControl() override;

   // Initialises the collection now (see ZaffaMap::init for failures). A
   // control whose collection is gone raises Jorro::AssertException
   // ("not attached").
   void initIs(Zaffa::MapDescriptor const& descriptor);
   std::optional<Zaffa::MapDescriptor> const& descriptor() const { return descriptor_; }
   // Sets (or, with null, clears) the parent and lets the collection follow.
   void parentIs(Vor::Ptr<Vor::Entity const> parent);
   Vor::Ptr<Vor::Entity const> const& parent() const { return parent_; }
   void detach();

   Zaffa::MountStatus mountStatus() const { return mountStatus_; }
   void mountStatusIs(Zaffa::MountStatus status) { mountStatus_ = status; }
   bool quiesced() const { return quiesced_; }
   void quiescedIs(bool quiesced) { quiesced_ = quiesced; }

   // Keeps `entity` alive while the control lives; null lets it go.
   void entityRefIs(Vor::Ptr<Vor::PtrInterface const> entity);
   Vor::Ptr<Vor::PtrInterface const> const& entityRef() const { return entityRef_; }

   // Called by the target when it goes.
   void targetIs(Target* target) { target_ = target; }
   bool hasTarget() const { return target_ != nullptr; }

 private:
   Target* target_;
   std::optional<Zaffa::MapDescriptor> descriptor_;
   Vor::Ptr<Vor::Entity const> parent_;
   Vor::Ptr<Vor::PtrInterface const> entityRef_;
   Zaffa::MountStatus mountStatus_ = Zaffa::MountStatus::unmounted;
   bool quiesced_ = true;
};

// Traces of the non-template part, for the template below.
void traceBinding(int level, std::string const& text);

template <typename Owner, typename Wrapper>
class VorZaffaMap : public CollectionControl::Target {
 public:
   using Key = typename Wrapper::Key;
   using Value = typename Wrapper::Value;
   using Map = Zaffa::ZaffaMap<Key, Value>;

   VorZaffaMap() : control_(new CollectionControl(this)), controlTarget_(control_.ptr()) {}
   ~VorZaffaMap() override {
      traceBinding(5, "VorZaffaMap::~VorZaffaMap() deleting state");
      // Once released, the control is what keeps the owner, and so this
      // binding, alive: it is still there now.
      controlTarget_->targetIs(nullptr);
   }
   VorZaffaMap(VorZaffaMap const&) = delete;
   VorZaffaMap& operator=(VorZaffaMap const&) = delete;

   // Binds the map to attribute `attribute` of `owner`: the owner's
   // notifyFn is called with each changed key that a reader learns of,
   // quiescedFn and mountFn with those changes of the table.
   void entity(std::string const& attribute, Owner* owner, void (Owner::*notifyFn)(Key const&),
               void (Owner::*quiescedFn)(bool), void (Owner::*mountFn)()) {
      owner_ = owner;
      attribute_ = attribute;
      map_.nameIs(std::string(owner->name().stdString()) + "/" + attribute);
      typename Map::Callbacks callbacks;
      callbacks.key = [owner, notifyFn](Key const& key) { (owner->*notifyFn)(key); };
      callbacks.quiesced = [owner, quiescedFn](bool q) { (owner->*quiescedFn)(q); };
      callbacks.mountStatus = [owner, mountFn] { (owner->*mountFn)(); };
      map_.callbacksIs(std::move(callbacks));
      if (!map_.descriptor()) {
         traceBinding(5, "VorZaffaMap::entity() creating local ZaffaWriter " + map_.name());
         map_.createDefaultLocalWriter(false);
      }
   }

   // Follows the parent recorded in the control; see the header.
   void handleParent() {
      Vor::Ptr<Vor::Entity const> const parent = control_ ? control_->parent() : nullptr;
      if (parent) {
         if (parentEntity_ && parentEntity_ != parent) {
            Jorro::throwInvalidInitialize("Entity {} already initialized", map_.name());
         }
         if (parentEntity_) return;
         parentEntity_ = parent;
         map_.nameIs(std::string(parent->name().stdString()) + "/" + attribute_);
         if (control_->descriptor()) map_.init(*control_->descriptor());
         return;
      }
      if (!parentEntity_) return;
      traceBinding(3, "VorZaffaMap::handleParent(): old: " + std::string(parentEntity_->name().stdString()) +
                         " new: none " + map_.name() + " is now an orphan");
      parentEntity_ = nullptr;
      map_.orphanIs();
   }

   Map& map() { return map_; }
   Map const& map() const { return map_; }
   Owner* owner() const { return owner_; }
   std::string const& attribute() const { return attribute_; }
   // The binding's control; null after the owner handed itself to it.
   Vor::Ptr<CollectionControl> const& control() const { return control_; }
   // The owner drops its reference to the control (it stays the target).
   // REQUIRES: from then on the owner lives only by the control's entityRef.
   Vor::Ptr<CollectionControl> controlRelease() { return std::move(control_); }

   // CollectionControl::Target
   void controlInit(Zaffa::MapDescriptor const& descriptor) override { map_.init(descriptor); }
   void controlParent() override { handleParent(); }
   void controlDetach() override { map_.controlDetach(); }

 private:
   Map map_;
   Owner* owner_ = nullptr;
   std::string attribute_;
   Vor::Ptr<Vor::Entity const> parentEntity_;
   Vor::Ptr<CollectionControl> control_;
   CollectionControl* const controlTarget_;
};

} // namespace VorZaffa
