#pragma once
// IOLink: an IO that a node watches or drives, either handed over by code at
// construction or named in the configuration by its tree path. A configured
// path is read at construction (a missing setting is a construction error)
// and resolved from the root once the whole tree exists, in the node's init():
// nodes are built before the tree they will live in.
#include <string>
#include <string_view>

#include "core/field.hpp"
#include "core/io/io.hpp"

class IOLinkBase {
 public:
  bool bound() const { return io_ != nullptr; }
  IOBase* io() const { return io_; }
  // The configured path; empty for a link made by code.
  const std::string& path() const { return path_; }

  // Finds the IO at the configured path from the root of `owner`'s tree and
  // binds it. Throws ConfigError naming the owner, the setting and the path
  // when the path names nothing, or something that is not an IO of the kind
  // this link needs.
  IOBase& resolve(const Node& owner);

 protected:
  explicit IOLinkBase(IOBase* io) : io_(io) {}
  // Reads the path from `config`'s setting `key`; throws ConfigError when the
  // setting is missing or empty.
  IOLinkBase(const VTree& config, std::string key);
  ~IOLinkBase() = default;

  virtual bool fits(IOBase& io) const = 0;
  // "an IO with a double value", for messages.
  virtual std::string kind() const = 0;

 private:
  IOBase* io_ = nullptr;
  std::string key_;
  std::string path_;
};

template <class T>
class IOLink final : public IOLinkBase {
 public:
  explicit IOLink(IO<T>& io) : IOLinkBase(&io) {}
  IOLink(const VTree& config, std::string key) : IOLinkBase(config, std::move(key)) {}

  IO<T>* get() const { return static_cast<IO<T>*>(io()); }

 protected:
  bool fits(IOBase& io) const override { return dynamic_cast<IO<T>*>(&io) != nullptr; }
  std::string kind() const override {
    return "an IO with a " + std::string(detail::type_label<T>()) + " value";
  }
};
