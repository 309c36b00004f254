#include "test/on_request.hpp"

#include <filesystem>

#include "core/log.hpp"
#include "core/root.hpp"

ZEL_REGISTER_NODE("crash_on_request", CrashOnRequest);
ZEL_REGISTER_NODE("press_on_request", PressOnRequest);

OnRequest::OnRequest(const VTree& config)
    : Component(config), request_file_(add_setting<ValueField<std::string>>(config, "request_file")) {
  enable_poll(config, 20);
  set_default("hidden", true);
}

void OnRequest::poll() {
  std::string file = request_file_.get();
  std::error_code ec;
  if (file.empty() || !std::filesystem::remove(file, ec)) return;
  on_request();
}

CrashOnRequest::CrashOnRequest(const VTree& config)
    : OnRequest(config), fault_(add_setting<ValueField<std::string>>(config, "fault")) {
  describe("Crash on request", "Crashes the process when its request file appears.", "warning");
}

namespace {
// Kept out of the compiler's sight, so the write is really made.
int* volatile nowhere = nullptr;
volatile bool deeper = true;

// Each level keeps a page on the stack and uses it after the call below, so
// the compiler can neither drop the frames nor turn the recursion into a loop.
__attribute__((noinline, no_sanitize("undefined", "address"))) int overflow_stack(int depth) {
  volatile char page[4096];
  page[0] = static_cast<char>(depth);
  int below = deeper ? overflow_stack(depth + 1) : 0;
  return below + page[0];
}
}  // namespace

// The fault is the point: the sanitized builds must let it reach the
// program's own fault handler instead of reporting it themselves.
__attribute__((no_sanitize("undefined", "address"))) void CrashOnRequest::on_request() {
  ZEL_WARN("Crashing on request");
  if (fault_.get() == "stack") overflow_stack(0);
  else *nowhere = 1;
}

PressOnRequest::PressOnRequest(const VTree& config)
    : OnRequest(config), button_(add_setting<ValueField<std::string>>(config, "button")) {
  describe("Press on request", "Presses a button when its request file appears.", "cog");
}

void PressOnRequest::on_request() { root()->set_field_as_user("self_test", button_.get(), "true"); }
