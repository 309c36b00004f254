#include "std/i2c_dev.hpp"

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <vector>

I2CDev::I2CDev(std::string path) : path_(std::move(path)) {
  int fd = ::open(path_.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    error_ = std::strerror(errno);
    return;
  }
  unsigned long functions = 0;
  if (::ioctl(fd, I2C_FUNCS, &functions) < 0) {
    error_ = std::string("not an I2C adapter: ") + std::strerror(errno);
    ::close(fd);
    return;
  }
  if (!(functions & I2C_FUNC_I2C)) {
    error_ = "the adapter offers no plain I2C transfers";
    ::close(fd);
    return;
  }
  fd_ = fd;
}

I2CDev::~I2CDev() {
  if (fd_ >= 0) ::close(fd_);
}

bool I2CDev::transfer(std::span<I2CMessage> messages) {
  if (fd_ < 0 || messages.empty() || messages.size() > I2C_RDWR_IOCTL_MAX_MSGS) return false;
  std::vector<i2c_msg> msgs(messages.size());
  for (std::size_t i = 0; i < messages.size(); ++i) {
    msgs[i].addr = messages[i].address;
    msgs[i].flags = messages[i].read ? I2C_M_RD : 0;
    msgs[i].len = messages[i].length;
    msgs[i].buf = messages[i].data;
  }
  i2c_rdwr_ioctl_data request{msgs.data(), static_cast<__u32>(msgs.size())};
  return ::ioctl(fd_, I2C_RDWR, &request) == static_cast<int>(msgs.size());
}

namespace {

// The adapter's device-tree "clock-frequency" (a big-endian 32-bit cell).
std::optional<uint32_t> reported_clock(const std::string& path) {
  auto name = std::filesystem::path(path).filename().string();
  std::ifstream in("/sys/class/i2c-dev/" + name + "/device/of_node/clock-frequency", std::ios::binary);
  unsigned char cell[4];
  if (!in.read(reinterpret_cast<char*>(cell), 4)) return std::nullopt;
  return uint32_t(cell[0]) << 24 | uint32_t(cell[1]) << 16 | uint32_t(cell[2]) << 8 | cell[3];
}

}  // namespace

bool I2CDev::set_speed(uint32_t hz, std::optional<uint32_t>& actual) {
  actual = reported_clock(path_);
  return fd_ >= 0 && (!actual || *actual == hz);
}

// i2c-dev offers no bus reset; the adapter's driver recovers a held bus by
// itself on a time-out. What is left to ask is whether the adapter answers.
bool I2CDev::recover() {
  unsigned long functions = 0;
  return fd_ >= 0 && ::ioctl(fd_, I2C_FUNCS, &functions) == 0;
}

std::string I2CDev::device_path(std::string_view configured) {
  constexpr std::string_view prefix = "/dev/i2c";
  if (configured.size() > prefix.size() && configured.starts_with(prefix) &&
      std::isdigit(static_cast<unsigned char>(configured[prefix.size()])))
    return std::string(prefix) + "-" + std::string(configured.substr(prefix.size()));
  return std::string(configured);
}

std::string I2CDev::first_adapter() {
  int best = -1;
  std::error_code ec;
  for (auto& entry : std::filesystem::directory_iterator("/sys/class/i2c-dev", ec)) {
    auto name = entry.path().filename().string();
    if (!name.starts_with("i2c-")) continue;
    int n = std::atoi(name.c_str() + 4);
    if (best < 0 || n < best) best = n;
  }
  return "/dev/i2c-" + std::to_string(best < 0 ? 0 : best);
}
