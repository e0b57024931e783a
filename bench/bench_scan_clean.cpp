// Speed of the step between fetch and first display: scanning a feed body into items and
// cleaning every field, per corpus feed and over the whole corpus, in MB/s of feed text;
// and the cleaner alone on a typical description. Counts heap allocations too, since the
// pipeline must not allocate per byte.
//
// The label steps (the UTC stamp and the login line) are measured on their own as well: a
// description that carries both labels as forum feeds send them, and a hostile text whose
// "(UTC" stands a quarter megabyte before its "):".
//
//   build/bench/bench_scan_clean [--benchmark_filter=All]
//   build/bench/bench_scan_clean --benchmark_filter=Label
//
// With --scan-file=PATH [--max-items=N] it instead scans that one file once (default 50 items,
// as the settings give) and prints the item count, so that the peak memory of a scan can be
// read with /usr/bin/time -v. A feed of many tiny items costs the most per byte:
//   yes '<item><title>x</title></item>' | head -c 32505856 > tiny.xml   # 31 MiB
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "cleaner.h"
#include "cleaner_steps.h"
#include "config.h"
#include "scanner.h"

namespace fs = std::filesystem;

namespace {

std::atomic<size_t> FAllocations{0};

struct TFeed {
  std::string Name;
  std::string Body;
};

std::vector<TFeed> LoadCorpus() {
  std::vector<TFeed> Feeds;
  std::error_code Ec;
  for (const auto& Entry : fs::directory_iterator(TAMBLIN_CORPUS_DIR, Ec)) {
    const std::string Name = Entry.path().filename().string();
    if (!Entry.is_regular_file() || Name == "SOURCES.md" || Name == "README.md") continue;
    std::ifstream In(Entry.path(), std::ios::binary);
    Feeds.push_back(
        {Name, std::string(std::istreambuf_iterator<char>(In), std::istreambuf_iterator<char>())});
  }
  std::sort(Feeds.begin(), Feeds.end(), [](const TFeed& A, const TFeed& B) { return A.Name < B.Name; });
  return Feeds;
}

void ReportAllocations(benchmark::State& AState, size_t AAllocations, double ABytesPerIteration) {
  const double PerIteration = static_cast<double>(AAllocations) / static_cast<double>(AState.iterations());
  AState.counters["allocs"] = PerIteration;
  AState.counters["allocs/KiB"] = ABytesPerIteration > 0 ? PerIteration / (ABytesPerIteration / 1024.0) : 0.0;
}

void ScanOneFeed(benchmark::State& AState, const std::string* ABody, int32_t AMaxItems) {
  MaxItems = AMaxItems;
  const size_t Before = FAllocations.load();
  for (auto _ : AState) {
    // The scan takes the body over; the copy that stands in for the fetch is not timed.
    AState.PauseTiming();
    RSSText = *ABody;
    AState.ResumeTiming();
    ScanFeedItems();
    benchmark::DoNotOptimize(Items.Ends.data());
  }
  ReportAllocations(AState, FAllocations.load() - Before, static_cast<double>(ABody->size()));
  AState.SetBytesProcessed(static_cast<int64_t>(AState.iterations()) * static_cast<int64_t>(ABody->size()));
  AState.counters["items"] = ItemCount;
}

void ScanAllFeeds(benchmark::State& AState, std::vector<TFeed>* AFeeds, int32_t AMaxItems) {
  MaxItems = AMaxItems;
  size_t Bytes = 0;
  for (const auto& One : *AFeeds) Bytes += One.Body.size();
  const size_t Before = FAllocations.load();
  for (auto _ : AState) {
    for (const auto& One : *AFeeds) {
      AState.PauseTiming();  // the scan takes the body over; its copy stands in for the fetch
      RSSText = One.Body;
      AState.ResumeTiming();
      ScanFeedItems();
      benchmark::DoNotOptimize(Items.Ends.data());
    }
  }
  ReportAllocations(AState, FAllocations.load() - Before, static_cast<double>(Bytes));
  AState.SetBytesProcessed(static_cast<int64_t>(AState.iterations()) * static_cast<int64_t>(Bytes));
}

// A description as blogs and news sites send it: HTML escaped into the element, entities,
// accented names, a quoted phrase, a link, and the usual footer.
const std::string TYPICAL_DESCRIPTION =
    "&lt;p&gt;The city council of Saint-&Eacute;tienne met on Tuesday to discuss the new "
    "&lt;a href=&quot;https://example.org/plan&quot;&gt;transport plan&lt;/a&gt;, which "
    "Ren\xC3\xA9"
    "e Dupont called &ldquo;a step forward for everyone&rdquo;.Critics, "
    "however, said the plan &#8211; first announced in 2023 &#8211; leaves out the outer "
    "districts.&lt;/p&gt;\n&lt;p&gt;&lt;img src=&quot;https://example.org/img/bus.jpg&quot; "
    "alt=&quot;A bus&quot; width=&quot;640&quot; height=&quot;480&quot; /&gt;&lt;/p&gt;\n"
    "&lt;p&gt;Under the proposal, bus lines 4, 7 and 12 would run every 10 minutes during "
    "rush hour, and a new tram line would connect the caf\xC3\xA9s of the old town with "
    "the university campus by 2027. The cost is estimated at &euro;120 million, of which "
    "the region would pay about half.&lt;/p&gt;\n&lt;ul&gt;&lt;li&gt;More buses&lt;/li&gt;"
    "&lt;li&gt;A new tram line&lt;/li&gt;&lt;li&gt;Cheaper tickets for students&lt;/li&gt;"
    "&lt;/ul&gt;\n&lt;p&gt;The council will vote on the plan next month. Residents can send "
    "their comments until the end of the month.&lt;/p&gt;\n&lt;p&gt;The post "
    "&lt;a href=&quot;https://example.org/news/1&quot;&gt;Council debates transport "
    "plan&lt;/a&gt; appeared first on &lt;a href=&quot;https://example.org&quot;&gt;"
    "Example News&lt;/a&gt;.&lt;/p&gt;";

void CleanTypicalDescription(benchmark::State& AState) {
  const size_t Before = FAllocations.load();
  for (auto _ : AState) benchmark::DoNotOptimize(CleanTextForBBS(TYPICAL_DESCRIPTION));
  ReportAllocations(AState, FAllocations.load() - Before, static_cast<double>(TYPICAL_DESCRIPTION.size()));
  AState.SetBytesProcessed(static_cast<int64_t>(AState.iterations()) *
                           static_cast<int64_t>(TYPICAL_DESCRIPTION.size()));
}

void CleanPlainTitle(benchmark::State& AState) {
  const std::string Title = "Council debates new transport plan for the city";
  for (auto _ : AState) benchmark::DoNotOptimize(CleanTextForBBS(Title));
  AState.SetBytesProcessed(static_cast<int64_t>(AState.iterations()) * static_cast<int64_t>(Title.size()));
}

// A forum post as bulletin-board feeds send it: both labels, each with its value and LF.
const std::string LABELLED_POST =
    "Current Date and Time (UTC - YYYY-MM-DD HH:MM:SS formatted): 2026-11-10 08:00:00\n"
    "Current User's Login: sysop\n\n" +
    std::string(TYPICAL_DESCRIPTION, 0, 600);

// "(UTC" far from its "):", with stray ")" on the way: the lazy walk's longest case in a feed.
const std::string FAR_CLOSE_LABEL =
    "Current Date and Time (UTC" + std::string(256 * 1024, ')') + "): 08:00\n" + "Current User's Login: x";

void CleanLabel(benchmark::State& AState, const std::string* AText, TCleanPattern APattern) {
  for (auto _ : AState) benchmark::DoNotOptimize(ApplyCleanerPattern(APattern, *AText));
  AState.SetBytesProcessed(static_cast<int64_t>(AState.iterations()) * static_cast<int64_t>(AText->size()));
}

}  // namespace

// Counting every allocation of the program; GCC takes the malloc/free pair inside these
// replacements for a mismatch.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(size_t ASize) {
  FAllocations.fetch_add(1, std::memory_order_relaxed);
  if (void* P = std::malloc(ASize ? ASize : 1)) return P;
  throw std::bad_alloc();
}
void operator delete(void* APointer) noexcept { std::free(APointer); }
void operator delete(void* APointer, size_t) noexcept { std::free(APointer); }

// One scan of a file, for a memory measurement: the body is read at its exact size, as a
// response of known length arrives, and nothing else is held beside it.
int ScanFile(const std::string& APath, int32_t AMaxItems) {
  std::ifstream In(APath, std::ios::binary | std::ios::ate);
  if (!In) {
    std::fprintf(stderr, "cannot read %s\n", APath.c_str());
    return 1;
  }
  RSSText.resize(static_cast<size_t>(In.tellg()));
  In.seekg(0);
  In.read(RSSText.data(), static_cast<std::streamsize>(RSSText.size()));
  MaxItems = AMaxItems;
  ScanFeedItems();
  std::printf("%d items\n", ItemCount);
  return 0;
}

int main(int AArgc, char** AArgv) {
  std::string ScanPath;
  int32_t ScanMax = 50;
  for (int I = 1; I < AArgc; ++I) {
    const std::string_view Arg = AArgv[I];
    if (Arg.starts_with("--scan-file=")) ScanPath = Arg.substr(12);
    if (Arg.starts_with("--max-items=")) ScanMax = std::atoi(AArgv[I] + 12);
  }
  if (!ScanPath.empty()) return ScanFile(ScanPath, ScanMax);

  static std::vector<TFeed> Feeds = LoadCorpus();
  benchmark::RegisterBenchmark("CleanTypicalDescription", CleanTypicalDescription);
  benchmark::RegisterBenchmark("CleanPlainTitle", CleanPlainTitle);
  benchmark::RegisterBenchmark("Label/utc/post", CleanLabel, &LABELLED_POST, cpUtcStamp);
  benchmark::RegisterBenchmark("Label/login/post", CleanLabel, &LABELLED_POST, cpLoginLine);
  benchmark::RegisterBenchmark("Label/utc/far_close", CleanLabel, &FAR_CLOSE_LABEL, cpUtcStamp)
      ->Unit(benchmark::kMicrosecond);
  if (!Feeds.empty()) {
    benchmark::RegisterBenchmark("ScanCleanAll/every_item", ScanAllFeeds, &Feeds, INT32_MAX)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("ScanCleanAll/max_items_50", ScanAllFeeds, &Feeds, 50)
        ->Unit(benchmark::kMillisecond);
    for (const auto& One : Feeds)
      benchmark::RegisterBenchmark(("ScanClean/" + One.Name).c_str(), ScanOneFeed, &One.Body, INT32_MAX)
          ->Unit(benchmark::kMicrosecond);
  }
  benchmark::Initialize(&AArgc, AArgv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
