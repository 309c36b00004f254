#pragma once
// SlowWrite: a self-test node whose "value" takes "hold_seconds" (default 2)
// to apply: its write listener holds the node's context that long, so that a
// writer waiting for a busy node can be seen from outside.
//
//   <slow type="slow_write" hold_seconds="2"/>
#include "core/component.hpp"

class SlowWrite : public Component {
 public:
  explicit SlowWrite(const VTree& config);

 private:
  ValueField<double>& hold_seconds_;
  ValueField<double>& value_;
};
