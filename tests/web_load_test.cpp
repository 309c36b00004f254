// The web server under hostile load, as the real program on 127.0.0.1: what
// a client can make it hold stays capped, a well-behaved client stays served,
// memory goes back once the attackers leave, and a stop with thousands of
// clients connected still saves the last value and ends in time. Bounded:
// a few thousand connections and some seconds per case.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "hostile_clients.hpp"
#include "sanitizers.hpp"
#include "std/process_limits.hpp"
#include "wait_until.hpp"

using namespace std::chrono_literals;
using ::testing::HasSubstr;

namespace {

using namespace hostile_clients;

constexpr long kCeilingAboveIdleKiB = 96 << 10;
constexpr auto kGoodClientP99 = 250ms;

}  // namespace

TEST(WebLoad, EndlessChunkExtensionsAndTrailersAre431WithinBoundedMemory) {
  LoadedServer server;
  ASSERT_NE(server.port, 0);
  long idle = resident_kib(server.zel->pid());
  GoodClient good(server.port);
  constexpr size_t kAttempt = 64u << 20;
  size_t most_taken = floods(server.port, endless_chunk_heads(), 4, kAttempt);
  EXPECT_LT(most_taken, kAttempt) << "the server took everything sent";
  if (kResidentSizeTells) {
    EXPECT_LT(resident_kib(server.zel->pid()), idle + kCeilingAboveIdleKiB);
  }
  if (kTimingTells) {
    EXPECT_LT(good.p99(), kGoodClientP99);
  }
  EXPECT_TRUE(server.zel->wait_for("Web client 127.0.0.1: Request header too large"));
  EXPECT_LE(server.zel->count("Request header too large (buffer)"), 1) << "logged once per client and interval";
}

TEST(WebLoad, PipelinedReadsOfALargeValueThatAreNeverCollectedHoldOneReplyPerConnection) {
  constexpr size_t kBig = 512u << 10;
  LoadedServer server("", kBig);
  ASSERT_NE(server.port, 0);
  long idle = resident_kib(server.zel->pid());
  auto readers_that_never_read = pipelines_never_read(server.port, 60, 32, "/io/big");
  // Their first replies are served like any others; what counts is that the
  // stalled ones hold nobody up afterwards.
  std::this_thread::sleep_for(1s);
  GoodClient good(server.port);
  std::this_thread::sleep_for(2s);
  // Without the cap on queued output each would hold eight replies (240 MiB).
  if (kResidentSizeTells) {
    EXPECT_LT(resident_kib(server.zel->pid()), idle + kCeilingAboveIdleKiB);
  }
  if (kTimingTells) {
    EXPECT_LT(good.p99(), kGoodClientP99);
  }
  readers_that_never_read.clear();
  EXPECT_TRUE(!kResidentSizeTells || wait_until([&] { return resident_kib(server.zel->pid()) < idle + (24 << 10); }, 15s))
      << "resident " << resident_kib(server.zel->pid()) << " KiB, idle " << idle << " KiB";
}

TEST(WebLoad, HundredsOfClientsWatchingEveryFieldInHistoryModeFitAndLeaveNothingBehind) {
  raise_open_file_limit();
  constexpr int kFields = 300, kClients = 300;
  LoadedServer server("", 0, kFields);
  ASSERT_NE(server.port, 0);
  long idle = resident_kib(server.zel->pid());
  std::string subscribe = R"({"event":"subscribe","data":{)";
  for (int i = 0; i < kFields; ++i) subscribe += (i ? ",\"n" : "\"n") + std::to_string(i) + R"(/value":"history")";
  subscribe += "}}";
  {
    web_client::net::io_context io;
    std::vector<std::unique_ptr<web_client::WebSocketClient>> clients;
    for (int i = 0; i < kClients; ++i) {
      clients.push_back(std::make_unique<web_client::WebSocketClient>(io, server.port));
      clients.back()->send(subscribe);
    }
    // The last client's first push names the last field once all of its
    // subscriptions are made.
    EXPECT_TRUE(clients.back()->receive_containing("\"n" + std::to_string(kFields - 1) + "/value\"", 20s));
    if (kResidentSizeTells) {
      EXPECT_LT(resident_kib(server.zel->pid()), idle + kCeilingAboveIdleKiB);
    }
  }
  EXPECT_TRUE(!kResidentSizeTells || wait_until([&] { return resident_kib(server.zel->pid()) < idle + (24 << 10); }, 15s))
      << "resident " << resident_kib(server.zel->pid()) << " KiB, idle " << idle << " KiB";
}

TEST(WebLoad, DeepTreeReadsAsFastAsTheyGoLeaveAGoodClientServed) {
  LoadedServer server("", 0, 300);
  ASSERT_NE(server.port, 0);
  GoodClient good(server.port);
  {
    Hammer deep_readers(server.port, 4, "/api/tree?depth=64");
    std::this_thread::sleep_for(3s);
  }
  if (kTimingTells) {
    EXPECT_LT(good.p99(), kGoodClientP99);
  }
}

TEST(WebLoad, ConnectionsBeyondTheLimitsAre503AndLoggedOncePerClient) {
  LoadedServer server(R"(connections_max="40" connections_per_address_max="30")");
  ASSERT_NE(server.port, 0);
  std::vector<std::unique_ptr<web_client::RawConnection>> held;
  for (int i = 0; i < 30; ++i) held.push_back(std::make_unique<web_client::RawConnection>(server.port));
  EXPECT_THAT(web_client::raw_exchange(server.port, "GET /io/x HTTP/1.1\r\nHost: a\r\n\r\n"),
              HasSubstr("HTTP/1.1 503"));
  EXPECT_THAT(web_client::raw_exchange(server.port, "GET /io/x HTTP/1.1\r\nHost: a\r\n\r\n"),
              HasSubstr("HTTP/1.1 503"));
  // The line reaches the program's standard error after the answer.
  EXPECT_TRUE(server.zel->wait_for("connections from this address are open"));
  held.pop_back();
  EXPECT_TRUE(wait_until([&] { return web_client::get(server.port, "/io/x").status == 200; }, 5s))
      << "a place given back is taken again";
  EXPECT_EQ(server.zel->count("connections from this address are open"), 1) << "once per client";
}

TEST(WebLoad, StopWithThousandsOfClientsSavesTheLastValueAndEndsInTime) {
  raise_open_file_limit();
  LoadedServer server(R"(connections_per_address_max="4096")");
  ASSERT_NE(server.port, 0);
  web_client::net::io_context io;
  std::vector<std::unique_ptr<web_client::WebSocketClient>> clients;
  for (int i = 0; i < 2000; ++i) {
    clients.push_back(std::make_unique<web_client::WebSocketClient>(io, server.port));
    clients.back()->send(R"({"event":"subscribe","data":{"x/value":"history"}})");
  }
  std::vector<std::unique_ptr<web_client::RawConnection>> idle_http;
  for (int i = 0; i < 500; ++i) idle_http.push_back(std::make_unique<web_client::RawConnection>(server.port));
  ASSERT_EQ(web_client::request(server.port, web_client::http::verb::put, "/io/x", "42").status, 200u);
  auto begin = std::chrono::steady_clock::now();
  server.zel->signal(SIGTERM);
  auto status = server.zel->wait_exit(8s);
  auto took = std::chrono::steady_clock::now() - begin;
  EXPECT_EQ(ZelProcess::exit_code(status), 0);
  EXPECT_LT(took, kTimingTells ? 3s : 8s) << "8 s is the program's own limit for a stop";
  EXPECT_THAT(server.dir.read("config/config.json"), HasSubstr("\"x\": 42"));
}
