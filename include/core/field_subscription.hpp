#pragma once
// Interest in a field's changes for as long as the subscription lives; safe to
// make and drop from any thread while the tree runs. The callback runs on the
// thread that changed the field.
#include <functional>

#include "core/field.hpp"

class FieldSubscription {
 public:
  FieldSubscription() = default;
  FieldSubscription(FieldBase& field, std::function<void()> on_change)
      : field_(&field), id_(field.on(VertexEvent::Changed, std::move(on_change))) {}
  FieldSubscription(FieldSubscription&& other) noexcept { *this = std::move(other); }
  FieldSubscription& operator=(FieldSubscription&& other) noexcept {
    if (this != &other) {
      reset();
      field_ = other.field_;
      id_ = other.id_;
      other.field_ = nullptr;
    }
    return *this;
  }
  ~FieldSubscription() { reset(); }

  void reset() {
    if (field_) field_->off(id_);
    field_ = nullptr;
  }
  FieldBase* field() const { return field_; }

 private:
  FieldBase* field_ = nullptr;
  FieldBase::ListenerId id_ = 0;
};
