// The alarm journal's costs: what queuing an alarm costs the thread that
// records it (the safety chain's), and what alarms cost until they are on
// disk, one alone or a storm taken in batches.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>
#include <memory>

#include "core/alarm_journal.hpp"
#include "core/log.hpp"

namespace {

struct JournalFolder {
  JournalFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "zel-bench-XXXXXX").string();
    if (::mkdtemp(pattern.data())) path = pattern;
    Log::set_stderr(false);  // every alarm is also a log line
  }
  ~JournalFolder() {
    Log::set_stderr(true);
    std::error_code ec;
    std::filesystem::remove_all(path, ec);
  }
  std::string file() const { return path + "/alarms.jsonl"; }
  std::string path;
};

const std::string kText = "'chamber/pressure' is 0.0002 mbar (upper_limit 0.0001, upper_warning 1e-05)";

// The recording thread's share: the entry queued, the writer woken when idle.
void BM_AlarmRecord(benchmark::State& state) {
  JournalFolder folder;
  AlarmJournal journal(folder.file(), AlarmJournal::kDefaultKeep);
  journal.start();
  uint64_t time = 1;
  for (auto _ : state) journal.record(time++, "chamber/hv_permit/vacuum", AlarmKind::Trip, kText);
  journal.stop();
}
BENCHMARK(BM_AlarmRecord);

// `range(0)` alarms recorded at once, until all are on disk: one alarm
// alone is what an acknowledgement waits for (a write and an fdatasync), a
// storm of 1,000 is taken in batches, with the rewrites the bound brings.
void BM_AlarmStorm(benchmark::State& state) {
  JournalFolder folder;
  AlarmJournal journal(folder.file(), AlarmJournal::kDefaultKeep);
  journal.start();
  uint64_t time = 1;
  for (auto _ : state) {
    for (int64_t i = 0; i < state.range(0); ++i)
      journal.record(time++, "chamber/hv_permit/vacuum", AlarmKind::Trip, kText);
    journal.flush();
  }
  journal.stop();
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_AlarmStorm)->Arg(1)->Arg(1000)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
