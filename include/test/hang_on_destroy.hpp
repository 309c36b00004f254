#pragma once
// HangOnDestroy: a self-test node whose destruction takes "hang_seconds"
// (default one hour), so that a shutdown's time limit can be seen at work.
#include "core/component.hpp"

class HangOnDestroy : public Component {
 public:
  explicit HangOnDestroy(const VTree& config);
  ~HangOnDestroy() override;

 private:
  ValueField<double>& hang_seconds_;
};
