#pragma once
// StoreExerciser: a self-test node that keeps its stored values changing, to
// load the store manager and to check that store files survive a crash.
//
// At every poll (default 1000 Hz) it counts "generation" up by one and sets
// its other values from the new generation g: "text" is "g;" repeated up to
// "size" characters, "values" holds 16 copies of g, "flag" is g odd. So each
// value is consistent in itself, and a torn value shows. Its fields join the
// store that its own "store" attribute names (default "config"); since the
// count restarts from the stored generation, a store that went back in time
// shows as a generation lower than one seen before.
#include <string>
#include <vector>

#include "core/component.hpp"

class StoreExerciser : public Component {
 public:
  explicit StoreExerciser(const VTree& config);

  void poll() override;

  // The text for generation `g`, `size` characters long.
  static std::string text_for(unsigned long long g, size_t size);

  ValueField<unsigned long long>& generation() const { return generation_; }

 private:
  void set_generation(unsigned long long g);

  ValueField<unsigned long long>& size_;
  ValueField<unsigned long long>& generation_;
  ValueField<std::string>& text_;
  ValueField<std::vector<double>>& values_;
  ValueField<bool>& flag_;
};
