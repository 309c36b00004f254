#pragma once
// HangOnDestroy: a self-test node whose destruction takes "hang_seconds"
// (default one hour), so that a shutdown's time limit can be seen at work.
// With "hang_at" = "stop0" it hangs in the first stop stage instead, before
// any store has had its last save.
#include "core/component.hpp"

class HangOnDestroy : public Component {
 public:
  explicit HangOnDestroy(const VTree& config);
  ~HangOnDestroy() override;
  void stop(StopStage stage) override;

 private:
  void hang();

  ValueField<double>& hang_seconds_;
  ValueField<std::string>& hang_at_;
};
