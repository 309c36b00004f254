#include "core/write_path.hpp"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <vector>

#include <nlohmann/json.hpp>

#include "core/attribute_fields.hpp"
#include "core/button_field.hpp"
#include "core/context.hpp"
#include "core/io/io.hpp"
#include "core/log.hpp"
#include "core/root.hpp"
#include "core/x2x.hpp"

namespace {

std::atomic<WritePath::PermissionCheck> permission_check{nullptr};

// A text from outside as it may appear in a log line: control characters and
// quotes escaped (no forged lines), cut short.
std::string shown(std::string_view text) {
  auto quoted = x2x::to_json(x2x::trim(text).substr(0, 120));
  return quoted.substr(1, quoted.size() - 2);
}

// "bob" for a call inside the program, "http 127.0.0.1:40112" from outside.
std::string caller_text(const Caller& caller) {
  if (caller.source == WriteSource::Local) return shown(caller.who);
  std::string text(write_source_name(caller.source));
  if (!caller.who.empty()) {
    text.push_back(' ');
    text.append(shown(caller.who));
  }
  return text;
}

WriteAnswer refused(WriteStatus status, std::string reason) { return {status, std::move(reason)}; }

// The refusal's one log line; `path` as the caller named it.
void log_refusal(const Caller& caller, std::string_view path, const WriteAnswer& answer) {
  auto who = caller_text(caller);
  switch (answer.status) {
    case WriteStatus::NotFound:
      ZEL_ERROR("User no valid Field found {} {}: {}", who, shown(path), answer.reason);
      break;
    case WriteStatus::ReadOnly:
      ZEL_ERROR("User can't set Field, readonly {} {}: {}", who, shown(path), answer.reason);
      break;
    default:
      ZEL_ERROR("User can't set Field {} {}: {}", who, shown(path), answer.reason);
      break;
  }
}

bool is_attribute(const FieldBase& field) {
  return dynamic_cast<const AttributeField<std::string>*>(&field) || dynamic_cast<const AttributeField<bool>*>(&field);
}

bool starts_object(std::string_view text) {
  text = x2x::trim(text);
  return !text.empty() && text.front() == '{';
}

// One field's share of a write, checked and waiting to be applied.
struct PlannedWrite {
  FieldBase* field;
  std::string text;
};

// Checks every member of `object` against the children of `node`, depth
// first; stops at the first refusal, which it logs.
bool plan(Vertex& node, const nlohmann::json& object, const Caller& caller, std::vector<PlannedWrite>& out,
          WriteAnswer& answer) {
  for (auto& [key, value] : object.items()) {
    Vertex* child = node.child(key);
    std::string member = node.path().empty() ? key : node.path() + "/" + key;
    if (!child) {
      answer = refused(WriteStatus::NotFound, "the member '" + member + "' does not exist");
      log_refusal(caller, member, answer);
      return false;
    }
    if (value.is_object() && !child->is_field()) {
      if (!plan(*child, value, caller, out, answer)) return false;
      continue;
    }
    FieldBase* field = WritePath::field_for(child);
    if (!field) {
      answer = refused(WriteStatus::BadValue, "the member '" + member + "' is a node: it takes an object");
      log_refusal(caller, member, answer);
      return false;
    }
    std::string text = value.dump();
    answer = WritePath::check(*field, caller, text);
    if (!answer.ok()) {
      answer.reason = "the member '" + field->path() + "' " + answer.reason;
      log_refusal(caller, field->path(), answer);
      return false;
    }
    out.push_back({field, std::move(text)});
  }
  return true;
}

void apply(FieldBase& field, const Caller& caller, std::string_view text) {
  if (caller.source == WriteSource::Store) {
    field.read_json(text);
    field.notify_written();
    return;
  }
  if (dynamic_cast<ButtonField*>(&field)) {
    ZEL_INFO("User {} pressed '{}'", caller_text(caller), field.path());
    field.read_json(text);
    field.notify_written();
    return;
  }
  std::string old_value = field.json();
  field.read_json(text);
  field.notify_written();
  ZEL_INFO("User {} set '{}' from {} to {}", caller_text(caller), field.path(), old_value, field.json());
}

bool from_outside(WriteSource source) {
  return source == WriteSource::File || source == WriteSource::Http || source == WriteSource::WebSocket;
}

// A tree whose nodes are still starting takes no write from outside: the
// servers listen before the nodes after them are started, on the main thread.
// Such a write waits for the start; a tree without a root counts as started.
bool tree_started(const Vertex& target) {
  const Vertex* top = &target;
  while (top->parent()) top = top->parent();
  auto* root = dynamic_cast<const Root*>(top);
  return !root || root->wait_started(std::chrono::duration_cast<std::chrono::milliseconds>(WritePath::kHandOffWait));
}

// The context a write of `field` must be handed to: the one whose thread runs
// the listeners of the field's node. Null when the write is applied on the
// caller's thread: outside a tree, already on that thread, or before the
// context runs (the store loader at start-up).
Context* handing_context(const FieldBase& field) {
  for (const Vertex* v = field.parent(); v; v = v->parent()) {
    auto* node = dynamic_cast<const Node*>(v);
    if (!node) continue;
    Context* context = node->context();
    return context && context->running() && !context->in_context() ? context : nullptr;
  }
  return nullptr;
}

// Writes handed to a context's thread. The job owns copies of everything it
// touches, so a caller that gave up waiting leaves nothing dangling; whoever
// moves `state` out of Queued first decides whether the writes happen.
struct HandOff {
  enum class State : uint8_t { Queued, Running, Finished, Abandoned };
  std::mutex mutex;
  std::condition_variable finished;
  State state = State::Queued;
  std::exception_ptr failure;
  std::string who;
  Caller caller;
  std::vector<PlannedWrite> writes;

  void run() {
    {
      std::lock_guard lock(mutex);
      if (state != State::Queued) return;
      state = State::Running;
    }
    std::exception_ptr error;
    try {
      for (auto& w : writes) apply(*w.field, caller, w.text);
    } catch (...) {
      error = std::current_exception();
    }
    {
      std::lock_guard lock(mutex);
      failure = error;
      state = State::Finished;
    }
    finished.notify_all();
  }
};

// Applies `writes` on `context`'s thread and waits for them. False when the
// context did not start them within kHandOffWait: then none is applied.
// Writes already running are waited for to the end.
bool apply_on(Context& context, const Caller& caller, std::vector<PlannedWrite> writes) {
  auto job = std::make_shared<HandOff>();
  job->who = std::string(caller.who);
  job->caller = caller;
  job->caller.who = job->who;
  job->writes = std::move(writes);
  context.post([job] { job->run(); });
  std::unique_lock lock(job->mutex);
  auto done = [&] { return job->state == HandOff::State::Finished; };
  if (!job->finished.wait_for(lock, WritePath::kHandOffWait, done)) {
    if (job->state == HandOff::State::Queued) {
      job->state = HandOff::State::Abandoned;
      return false;
    }
    job->finished.wait(lock, done);
  }
  if (job->failure) std::rethrow_exception(job->failure);
  return true;
}

// Applies checked writes, each on its node's context, grouped so that one
// context takes its share in one job, in the order they were given.
WriteAnswer apply_all(std::vector<PlannedWrite> writes, const Caller& caller, std::string_view path) {
  std::vector<std::pair<Context*, std::vector<PlannedWrite>>> shares;
  for (auto& w : writes) {
    Context* context = handing_context(*w.field);
    auto share = std::find_if(shares.begin(), shares.end(), [&](auto& s) { return s.first == context; });
    if (share == shares.end()) share = shares.insert(shares.end(), {context, {}});
    share->second.push_back(std::move(w));
  }
  WriteAnswer answer;
  for (auto& [context, share] : shares) {
    if (!context) {
      for (auto& w : share) apply(*w.field, caller, w.text);
    } else if (!apply_on(*context, caller, std::move(share)) && answer.ok()) {
      answer = refused(WriteStatus::Busy, fmt::format("the thread '{}' did not take the write within {} s",
                                                      context->thread_name(), WritePath::kHandOffWait.count()));
      log_refusal(caller, path, answer);
    }
  }
  return answer;
}

}  // namespace

std::string_view write_source_name(WriteSource source) {
  switch (source) {
    case WriteSource::File: return "file";
    case WriteSource::Http: return "http";
    case WriteSource::WebSocket: return "websocket";
    case WriteSource::Store: return "store";
    case WriteSource::Local: return "local";
    case WriteSource::Epics: return "epics";
  }
  return "unknown";
}

unsigned WriteAnswer::http_status() const {
  switch (status) {
    case WriteStatus::Done: return 200;
    case WriteStatus::NotFound: return 404;
    case WriteStatus::ReadOnly: return 403;
    case WriteStatus::BadValue: return 400;
    case WriteStatus::TooLarge: return 413;
    case WriteStatus::Denied: return 403;
    case WriteStatus::Busy: return 503;
  }
  return 500;
}

int WriteAnswer::error_number() const {
  switch (status) {
    case WriteStatus::Done: return 0;
    case WriteStatus::NotFound: return ENOENT;
    case WriteStatus::ReadOnly: return EACCES;
    case WriteStatus::BadValue: return EINVAL;
    case WriteStatus::TooLarge: return EFBIG;
    case WriteStatus::Denied: return EACCES;
    case WriteStatus::Busy: return EBUSY;
  }
  return EIO;
}

void WritePath::set_permission_check(PermissionCheck check) { permission_check.store(check, std::memory_order_release); }

FieldBase* WritePath::field_for(Vertex* vertex) {
  if (!vertex) return nullptr;
  if (vertex->is_field()) return static_cast<FieldBase*>(vertex);
  if (auto* io = dynamic_cast<IOBase*>(vertex)) return io->value_field();
  return nullptr;
}

bool WritePath::writable(const FieldBase& field, WriteSource source, std::string* reason) {
  auto why = [&](const char* text) {
    if (reason) *reason = text;
    return false;
  };
  if (field.readonly()) return why("is read-only");
  if (is_attribute(field)) return why("describes its node and is not a value");
  bool button = dynamic_cast<const ButtonField*>(&field) != nullptr;
  if (button && source == WriteSource::Store) return why("is a button: a store never presses one");
  if (auto* driver = field.driven_by()) {
    if (reason) *reason = "is driven by '" + driver->path() + "': command that instead";
    return false;
  }
  auto* owner = dynamic_cast<const Node*>(field.parent());
  if (owner && owner->readonly() && !(field.operator_control() && source != WriteSource::Store))
    return why("is a value of a read-only node");
  return true;
}

WriteAnswer WritePath::check(const FieldBase& field, const Caller& caller, std::string_view text) {
  WriteAnswer answer;
  if (!writable(field, caller.source, &answer.reason)) {
    answer.status = WriteStatus::ReadOnly;
    return answer;
  }
  if (!field.check_text(text, answer.reason)) {
    answer.status = WriteStatus::BadValue;
    return answer;
  }
  if (auto permitted = permission_check.load(std::memory_order_acquire);
      permitted && !permitted(caller, field, answer.reason)) {
    answer.status = WriteStatus::Denied;
    return answer;
  }
  return answer;
}

WriteAnswer WritePath::write(Vertex& top, const WriteRequest& request) {
  Vertex* target = top.find(request.path);
  if (!target) {
    auto answer = refused(WriteStatus::NotFound, "there is nothing at that path");
    log_refusal(request.caller, request.path, answer);
    return answer;
  }
  return write_at(*target, request.caller, request.text);
}

WriteAnswer WritePath::write_at(Vertex& target, const Caller& caller, std::string_view text) {
  if (from_outside(caller.source) && !tree_started(target)) {
    auto answer = refused(WriteStatus::Busy, "the instrument is still starting");
    log_refusal(caller, target.path(), answer);
    return answer;
  }
  text = x2x::trim(text);
  if (text.size() >= kMaxTextBytes) {
    auto answer = refused(WriteStatus::TooLarge,
                          fmt::format("a text of {} bytes: the most is {}", text.size(), kMaxTextBytes - 1));
    log_refusal(caller, target.path(), answer);
    return answer;
  }
  FieldBase* field = field_for(&target);
  if (field && (target.is_field() || !starts_object(text))) {
    auto answer = check(*field, caller, text);
    if (!answer.ok()) {
      log_refusal(caller, target.path(), answer);
      return answer;
    }
    if (!handing_context(*field)) {
      apply(*field, caller, text);
      return answer;
    }
    return apply_all({{field, std::string(text)}}, caller, target.path());
  }
  nlohmann::json object;
  if (x2x::json_depth_within(text)) object = nlohmann::json::parse(text.begin(), text.end(), nullptr, false);
  if (!object.is_object()) {
    auto answer = field || object.is_discarded() ? refused(WriteStatus::BadValue, "a node takes a JSON object of its members")
                        : refused(WriteStatus::NotFound, "a node without a value: it takes a JSON object of its members");
    log_refusal(caller, target.path(), answer);
    return answer;
  }
  std::vector<PlannedWrite> writes;
  WriteAnswer answer;
  if (!plan(target, object, caller, writes, answer)) return answer;
  return apply_all(std::move(writes), caller, target.path());
}
