#pragma once
// Format: a representation the tree is read from and written to, with one
// operation per value type. Reading returns false when the text does not
// convert; writing appends the representation's text.
#include <string>
#include <string_view>
#include <vector>

#define ZEL_FORMAT_VALUE_TYPES(X) \
  X(bool)                         \
  X(int)                          \
  X(unsigned char)                \
  X(unsigned short)               \
  X(unsigned int)                 \
  X(unsigned long long)           \
  X(float)                        \
  X(double)                       \
  X(std::string)                  \
  X(std::vector<bool>)            \
  X(std::vector<double>)          \
  X(std::vector<std::string>)

class Format {
 public:
  virtual ~Format() = default;
#define ZEL_FORMAT_OPERATIONS(T)                                   \
  virtual bool read(std::string_view text, T& out) const = 0;     \
  virtual void write(const T& value, std::string& out) const = 0;
  ZEL_FORMAT_VALUE_TYPES(ZEL_FORMAT_OPERATIONS)
#undef ZEL_FORMAT_OPERATIONS
};
