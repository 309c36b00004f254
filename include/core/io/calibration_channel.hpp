#pragma once
// CalibrationChannel: the hardware channel a calibration works on, named by
// tree paths: the input, an AnalogIO whose present raw reading is calibrated
// and collected into measurement points, and optionally the output, an
// AnalogIO that is commanded with a point's expected value (for outputs
// calibrated through a read-back input; the two may be the same IO when its
// driver reports the read-back into it). Paths are looked up once the tree is
// complete.
#include <string>

class AnalogIO;
class Node;

class CalibrationChannel {
 public:
  explicit CalibrationChannel(const Node& owner) : owner_(owner) {}

  // Looks both paths up from the owner's root, once; logs a path that names no
  // AnalogIO. An empty path attaches nothing.
  void resolve(const std::string& input_path, const std::string& output_path);
  bool resolved() const { return resolved_; }

  AnalogIO* input() const { return input_; }
  AnalogIO* output() const { return output_; }

  // The input's present reading; logs and returns false when there is none.
  bool read(double& raw) const;
  // Sets the output; logs and returns false when no output is attached.
  bool command(double value) const;

 private:
  AnalogIO* lookup(const std::string& path, const char* role) const;

  const Node& owner_;
  AnalogIO* input_ = nullptr;
  AnalogIO* output_ = nullptr;
  bool resolved_ = false;
};
