#pragma once
// Clients of the real program's web server, well-behaved and hostile, for the
// load tests and the load benchmarks: the program with a web server and a
// few fields, its resident memory, a client that measures its answers, and
// the floods.
#include <algorithm>
#include <atomic>
#include <fstream>
#include <mutex>
#include <thread>
#include <vector>

#include "web_client.hpp"
#include "zel_process.hpp"

namespace hostile_clients {

using namespace std::chrono_literals;

// Resident memory of a process in KiB, from /proc.
inline long resident_kib(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);)
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
  return -1;
}

// The program with a web server, a stored field "x", a field "big" whose
// value is `big_bytes` long and `nodes` more analog IOs "n0", "n1", ...;
// `limits` are extra settings of the web server.
class LoadedServer {
 public:
  explicit LoadedServer(const std::string& limits = "", size_t big_bytes = 0, int nodes = 0) {
    std::string more;
    for (int i = 0; i < nodes; ++i) more += "<n" + std::to_string(i) + R"( type="analog_io" units="V" value="0"/>)";
    dir.write("config/system.xml",
              R"(<root><admin><store_manager save_delay="0" hourmeter_period="0"/></admin>)"
              R"(<web_server type="web_server" anonymous_write="true" )" + limits + R"(/><x type="analog_io" store="config" value="1"/>)"
              R"(<big type="string_io" value=")" + std::string(big_bytes, 'b') + R"("/>)" + more + "</root>");
    zel = std::make_unique<ZelProcess>(ZEL_BINARY, ZelProcess::arguments_for(dir));
    port = zel->web_port();
  }

  TempDir dir;
  std::unique_ptr<ZelProcess> zel;
  uint16_t port = 0;
};

// A client that reads "x" every 20 ms on a fresh connection and keeps each
// answer's time; a failed request counts as ten seconds.
class GoodClient {
 public:
  explicit GoodClient(uint16_t port)
      : thread_([this, port] {
          while (!stop_) {
            auto begin = std::chrono::steady_clock::now();
            bool ok = false;
            try {
              ok = web_client::get(port, "/io/x").status == 200;
            } catch (const std::exception&) {
            }
            auto took = ok ? std::chrono::steady_clock::now() - begin : std::chrono::steady_clock::duration(10s);
            {
              std::lock_guard lock(mutex_);
              times_.push_back(took);
            }
            std::this_thread::sleep_for(20ms);
          }
        }) {}
  ~GoodClient() { finish(); }

  void finish() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
  }
  std::chrono::duration<double, std::milli> p99() {
    finish();
    if (times_.empty()) return 10s;
    std::sort(times_.begin(), times_.end());
    return times_[times_.size() * 99 / 100];
  }

 private:
  std::atomic<bool> stop_{false};
  std::mutex mutex_;
  std::vector<std::chrono::steady_clock::duration> times_;
  std::thread thread_;
};

// Sends `head`, then `filler` bytes until the server stops taking them or
// `most` bytes went; returns how many went.
inline size_t flood(uint16_t port, const std::string& head, size_t most) {
  web_client::RawConnection connection(port);
  size_t sent = 0;
  const std::string block(64 << 10, 'a');
  try {
    connection.send(head);
    while (sent < most) {
      connection.send(block);
      sent += block.size();
    }
  } catch (const std::exception&) {
  }
  return sent;
}

// Floods on `each` connections per head at once; the most bytes that any of
// them got the server to take.
inline size_t floods(uint16_t port, const std::vector<std::string>& heads, int each, size_t most) {
  std::vector<std::thread> attackers;
  std::atomic<size_t> most_taken{0};
  for (const auto& head : heads)
    for (int i = 0; i < each; ++i)
      attackers.emplace_back([&, head] {
        size_t sent = flood(port, head, most);
        size_t seen = most_taken.load();
        while (sent > seen && !most_taken.compare_exchange_weak(seen, sent)) {
        }
      });
  for (auto& attacker : attackers) attacker.join();
  return most_taken.load();
}

// Chunked requests that never end their chunk size line, or their trailers.
inline std::vector<std::string> endless_chunk_heads() {
  const std::string chunked = "POST /io/x HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n";
  return {chunked + "5;e=", chunked + "0\r\nX-Trailer: "};
}

// Connections that pipeline `requests` reads of `target` and never read.
inline std::vector<std::unique_ptr<web_client::RawConnection>> pipelines_never_read(uint16_t port, int connections,
                                                                                   int requests,
                                                                                   const std::string& target) {
  std::string pipeline;
  for (int i = 0; i < requests; ++i) pipeline += "GET " + target + " HTTP/1.1\r\nHost: a\r\n\r\n";
  std::vector<std::unique_ptr<web_client::RawConnection>> hogs;
  for (int i = 0; i < connections; ++i) {
    hogs.push_back(std::make_unique<web_client::RawConnection>(port));
    hogs.back()->send(pipeline);
  }
  return hogs;
}

// Threads that send one request after the other, each on a fresh
// connection, as fast as they can until destroyed.
class Hammer {
 public:
  Hammer(uint16_t port, int threads, const std::string& target,
         web_client::http::verb method = web_client::http::verb::get, const std::string& body = {}) {
    for (int i = 0; i < threads; ++i)
      threads_.emplace_back([=, this] {
        while (!stop_) {
          try {
            web_client::request(port, method, target, body);
          } catch (const std::exception&) {
          }
        }
      });
  }
  ~Hammer() {
    stop_ = true;
    for (auto& thread : threads_) thread.join();
  }

 private:
  std::atomic<bool> stop_{false};
  std::vector<std::thread> threads_;
};

}  // namespace hostile_clients
