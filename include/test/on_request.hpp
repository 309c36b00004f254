#pragma once
// Self-test nodes that act when asked from outside the process: each polls
// for its "request_file" (at "poll/rate", default 20 Hz), and when the file
// appears, removes it and acts. Lifecycle tests drive a running program with
// them without any network or file system of the tree.
//
//   <crash type="crash_on_request" request_file="requests/crash" fault="stack"/>
//   <stop type="press_on_request" request_file="requests/stop" button="admin/stop_button"/>
#include <string>

#include "core/component.hpp"

class OnRequest : public Component {
 public:
  explicit OnRequest(const VTree& config);

  void poll() override;

 protected:
  virtual void on_request() = 0;

 private:
  ValueField<std::string>& request_file_;
};

// Crashes the process with a genuine fault (SIGSEGV): with "fault" "memory"
// (the default) a write through a null pointer, with "stack" a recursion
// without end that overflows the thread's stack.
class CrashOnRequest : public OnRequest {
 public:
  explicit CrashOnRequest(const VTree& config);

 protected:
  void on_request() override;

 private:
  ValueField<std::string>& fault_;
};

// Presses the button at the tree path "button" as a user would.
class PressOnRequest : public OnRequest {
 public:
  explicit PressOnRequest(const VTree& config);

 protected:
  void on_request() override;

 private:
  ValueField<std::string>& button_;
};
