#include "std/paths.hpp"

#include <mutex>

namespace {

struct Settings {
  std::string data_root = "/root";
  std::string pid_file = "/tmp/zel.pid";
  std::string io_mount = "/io";
  uint16_t port = 80;
};

// Set once at start-up, before any thread reads them.
Settings& settings() {
  static Settings s;
  return s;
}

std::string without_trailing_slash(std::string dir) {
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  return dir;
}

}  // namespace

const std::string& Paths::data_root() { return settings().data_root; }
const std::string& Paths::pid_file() { return settings().pid_file; }
const std::string& Paths::io_mount() { return settings().io_mount; }
uint16_t Paths::port() { return settings().port; }

void Paths::set_data_root(std::string dir) { settings().data_root = without_trailing_slash(std::move(dir)); }
void Paths::set_pid_file(std::string file) { settings().pid_file = std::move(file); }
void Paths::set_io_mount(std::string dir) { settings().io_mount = dir == "none" ? "" : without_trailing_slash(dir); }
void Paths::set_port(uint16_t port) { settings().port = port; }

std::string Paths::config_dir() { return data_root() + "/config/"; }
std::string Paths::web_dir() { return data_root() + "/web/"; }
std::string Paths::reports_dir() { return data_root() + "/reports"; }
std::string Paths::bin_dir() { return data_root() + "/bin/"; }
std::string Paths::data_dir() { return data_root() + "/data/"; }
std::string Paths::alarm_journal_file() { return data_dir() + "alarms.jsonl"; }
std::string Paths::store_file(const std::string& store) { return config_dir() + store + ".json"; }
