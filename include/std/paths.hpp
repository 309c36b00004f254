#pragma once
// Every outside path of the system derives from these few settings, whose
// defaults are the instrument's own: data root "/root", pid file
// "/tmp/zel.pid", mount point "/io" and web port 80.
#include <cstdint>
#include <string>

class Paths {
 public:
  static const std::string& data_root();
  static const std::string& pid_file();
  // Empty when the file system is turned off.
  static const std::string& io_mount();
  static uint16_t port();

  static void set_data_root(std::string dir);
  static void set_pid_file(std::string file);
  static void set_io_mount(std::string dir);
  static void set_port(uint16_t port);

  // "<data root>/config/" + store + ".json" and friends.
  static std::string config_dir();    // "<data root>/config/"
  static std::string web_dir();       // "<data root>/web/"
  static std::string reports_dir();   // "<data root>/reports"
  static std::string bin_dir();       // "<data root>/bin/"
  static std::string data_dir();      // "<data root>/data/": what the instrument records
  static std::string alarm_journal_file();  // "<data root>/data/alarms.jsonl"
  static std::string store_file(const std::string& store);
};
