#include "VorZaffa/VorZaffaMap.h"

VOR_TRACE_HANDLE("VorZaffaMap");

namespace VorZaffa {

CollectionControl::Target::~Target() = default;

CollectionControl::~CollectionControl() {
   // The entity may be kept by this control alone: let it go while the
   // control is whole, since its binding detaches itself from the control.
   entityRef_ = nullptr;
}

void CollectionControl::initIs(Zaffa::MapDescriptor const& descriptor) {
   if (!target_) throw Jorro::AssertException("not attached");
   target_->controlInit(descriptor);
   // Kept only once the collection took it, so that a refused descriptor
   // is not replayed at the next parent.
   descriptor_ = descriptor;
}

void CollectionControl::parentIs(Vor::Ptr<Vor::Entity const> parent) {
   if (parent == parent_) return;
   parent_ = std::move(parent);
   if (target_) target_->controlParent();
}

void CollectionControl::detach() {
   descriptor_.reset();
   if (target_) target_->controlDetach();
}

void CollectionControl::entityRefIs(Vor::Ptr<Vor::PtrInterface const> entity) {
   // Swap first: releasing the old entity may destroy this control's target.
   Vor::Ptr<Vor::PtrInterface const> old = std::move(entityRef_);
   entityRef_ = std::move(entity);
}

void traceBinding(int level, std::string const& text) { VOR_TRACE(level, text); }

} // namespace VorZaffa
