#pragma once
// WritePath: the one way a write from outside the process reaches the tree.
// Files under the mount point, HTTP, WebSocket and the store loader turn
// their protocol into a WriteRequest and the answer back into theirs; none of
// them calls a field's setter itself.
//
// A write is decided in this order, for every field it touches, before any
// is applied:
//   1. the text is smaller than kMaxTextBytes                (TooLarge)
//   2. the path names a field, an IO (its value field) or a node whose JSON
//      object names existing members                          (NotFound)
//   3. the field is writable by that source: not an attribute, not read-only,
//      not a value of a read-only node (interlock and permit states, limits)
//      unless it is an operator control (buttons, permit commands), not an
//      output driven by a permit command; stores press no buttons (ReadOnly)
//   4. the text converts, and lies in the field's range and choices (BadValue)
//   5. the caller may write it (the permission hook)          (Denied)
// A node's object that names one member refused is refused as a whole, with
// one log line naming that member. Each refusal is logged once with its
// reason; each accepted write from outside (the store loader excepted: it
// restores, nobody changes anything) is logged with the caller, the field,
// and the old and new value. Fields with on_written listeners hear of every
// accepted write, changed or not.
//
// Checks run on the caller's thread; the accepted write is then applied on
// the execution context that owns the field's node (posted there and awaited),
// so a node's listeners, interlock evaluation included, never run on two
// threads at once. A caller already on that context, or a context not running
// yet (the store loader at start-up), applies at once. A context that does not
// take the write within kHandOffWait leaves it unapplied and answered Busy.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "core/role.hpp"

class FieldBase;
class Vertex;

enum class WriteSource : uint8_t { File, Http, WebSocket, Store, Local, Epics };
std::string_view write_source_name(WriteSource source);

// Who asks: the way in, who came through it (a client's address and user, a
// store's name) and the role it has (Permissions; callers from the web that
// nobody vouches for are anonymous).
struct Caller {
  WriteSource source = WriteSource::Local;
  std::string_view who;
  Role role = Role::Anonymous;
};

struct WriteRequest {
  Caller caller;
  std::string_view path;  // from the top of the tree: "chamber/pressure/value"
  std::string_view text;  // a value text; for a node, a JSON object of members
};

enum class WriteStatus : uint8_t { Done, NotFound, ReadOnly, BadValue, TooLarge, Denied, Busy };

struct WriteAnswer {
  WriteStatus status = WriteStatus::Done;
  std::string reason;  // empty when done

  bool ok() const { return status == WriteStatus::Done; }
  // 200, 404, 403, 400, 413, 403, 503.
  unsigned http_status() const;
  // 0, ENOENT, EACCES, EINVAL, EFBIG, EACCES, EBUSY.
  int error_number() const;
};

class WritePath {
 public:
  // A text this long or longer is refused whole: it is also the most one
  // write() under the mount point delivers, so a longer value would arrive
  // in pieces.
  static constexpr size_t kMaxTextBytes = 128 * 1024;
  // The longest a caller waits for the owning context to apply its write: a
  // context stuck in a long job must not hold a network thread for ever.
  static constexpr std::chrono::seconds kHandOffWait{3};

  // May `caller` write `field`? On refusal `reason` says why. Null (the
  // default) lets every caller write what is writable.
  using PermissionCheck = bool (*)(const Caller& caller, const FieldBase& field, std::string& reason);
  static void set_permission_check(PermissionCheck check);

  // Writes the vertex at `request.path` below `top`.
  static WriteAnswer write(Vertex& top, const WriteRequest& request);
  // Writes a vertex already found: a field takes a value text; an IO takes a
  // value text for its value field, or an object; any other node an object.
  static WriteAnswer write_at(Vertex& target, const Caller& caller, std::string_view text);

  // Steps 3 to 5 for one field, without writing or logging.
  static WriteAnswer check(const FieldBase& field, const Caller& caller, std::string_view text);
  // Step 3 alone; `reason` (if given) says why not.
  static bool writable(const FieldBase& field, WriteSource source, std::string* reason = nullptr);
  // The field a path names for a value write: a field, or an IO's value field.
  static FieldBase* field_for(Vertex* vertex);
};
