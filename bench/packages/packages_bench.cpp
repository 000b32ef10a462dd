// Package folder benchmarks: scanning 1000 realistic packages (warm), the
// bytes read per file (the reader must read only the parts, never whole
// files: checked on large sparse files), and ticking a package at the top
// of a deep dependency chain.
//
//   build/linux/bench/packages_bench
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <ostream>
#include <streambuf>
#include <string>

#include "app/log.h"
#include "packages/package_catalogue.h"
#include "packages/package_file.h"
#include "packages/package_folder.h"
#include "tools/mkpkg/package_writer.h"

namespace {

namespace fs = std::filesystem;
using tarnlift::mkpkg::DependencyEntry;
using tarnlift::mkpkg::PackageWriter;
using namespace tarnlift::packages;

// Log lines are not what is measured.
class NullBuffer : public std::streambuf {
 protected:
  int overflow(int c) override { return c; }
  std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};
NullBuffer nullBuffer;
std::ostream nullStream(&nullBuffer);

fs::path scratch(const std::string& name) {
  fs::path path =
      fs::temp_directory_path() /
      ("tarnlift-bench-" + name + "-" + std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()));
  fs::create_directories(path);
  return path;
}

uint32_t ver(uint32_t major, uint32_t minor) { return major << 24 | minor << 16 | 0x66 << 8; }

// 1000 packages as a release folder has them: one system package, the rest
// depending on it and some on each other, a few groups, several versions of
// some packages, exclusions; each with a data part of realistic size left as
// a hole on disk (the data part comes before the dependency list, as the
// reader must skip it to get there).
fs::path makeReleaseFolder(size_t count) {
  const fs::path folder = scratch("release");
  PackageWriter system;
  system.package("system", ver(6, 41)).architecture("mipsel").description("Main package").data(12u << 20);
  system.writeFile((folder / "system-6.41-mipsbe.npk").string());
  for (size_t i = 1; i < count; ++i) {
    const std::string name = "pkg" + std::to_string(i % 700);
    const uint32_t minor = 30 + static_cast<uint32_t>(i / 700);
    std::vector<DependencyEntry> deps = {{"system", ver(6, 41), ver(6, 41)}};
    if (i % 3 == 0) deps.push_back({"pkg" + std::to_string((i / 3) % 700), ver(6, 0), 0});
    if (i % 7 == 0) deps.push_back({"pkg" + std::to_string((i * 5) % 700), 0, 0});
    PackageWriter writer;
    if (i % 100 == 0) {
      writer.group("bundle" + std::to_string(i), ver(6, minor));
      for (int m = 0; m < 5; ++m) writer.package("pkg" + std::to_string((i + m * 11) % 700), ver(6, minor));
    } else {
      writer.package(name, ver(6, minor));
    }
    writer.architecture("mipsel").description("Package " + name + " of the release, version 6." +
                                              std::to_string(minor));
    writer.data((1u << 20) + (i * 7919u) % (8u << 20));
    if (i % 11 == 0) writer.exclusions({{"pkg" + std::to_string((i + 1) % 700), 0, 0}});
    writer.dependencies(deps);
    char fileName[64];
    std::snprintf(fileName, sizeof fileName, "%s-6.%u-mipsbe.npk", name.c_str(), minor);
    writer.writeFile((folder / fileName).string());
  }
  return folder;
}

// Bytes the reader asks the system for, file by file, through the same path
// addPackage takes.
double bytesReadPerFile(const fs::path& folder, uint64_t* largestFile = nullptr) {
  uint64_t total = 0;
  size_t files = 0;
  for (const auto& entry : fs::directory_iterator(folder)) {
    auto source = openPackageFile(entry.path().string());
    if (!source) continue;
    PackageFileContents contents;
    readPackageContents(*source, entry.path().filename().string(), 0, contents);
    total += source->bytesRead();
    ++files;
    if (largestFile) *largestFile = std::max<uint64_t>(*largestFile, static_cast<uint64_t>(source->length()));
  }
  return files ? static_cast<double>(total) / static_cast<double>(files) : 0;
}

// Bytes read by this process according to the kernel (read-like calls).
uint64_t processReadBytes() {
  std::ifstream io("/proc/self/io");
  std::string key;
  uint64_t value = 0;
  while (io >> key >> value) {
    if (key == "rchar:") return value;
  }
  return 0;
}

void BM_ScanFolder1000(benchmark::State& state) {
  tarnlift::app::setLogStream(nullStream);
  const fs::path folder = makeReleaseFolder(1000);
  PackageCatalogue catalogue;
  catalogue.setFolder(folder.string(), 0);  // warms the cache
  uint64_t logicalSize = 0;
  for (const PackageRecord& record : catalogue.records()) logicalSize += record.fileSize;
  const uint64_t before = processReadBytes();
  int64_t scans = 0;
  for (auto _ : state) {
    catalogue.reload();
    benchmark::DoNotOptimize(catalogue.size());
    ++scans;
  }
  const uint64_t kernelBytes = processReadBytes() - before;
  state.counters["records"] = static_cast<double>(catalogue.size());
  state.counters["bytes_read_per_file"] = bytesReadPerFile(folder);
  state.counters["kernel_rchar_per_file"] =
      static_cast<double>(kernelBytes) / static_cast<double>(scans) / static_cast<double>(catalogue.size());
  state.counters["avg_file_MB"] = static_cast<double>(logicalSize) / catalogue.size() / (1 << 20);
  fs::remove_all(folder);
  tarnlift::app::setLogStream(std::cout);
}
BENCHMARK(BM_ScanFolder1000)->Unit(benchmark::kMillisecond);

// Large sparse files: 1 GiB of data part in front of the dependency list.
void BM_ScanLargeSparseFiles(benchmark::State& state) {
  tarnlift::app::setLogStream(nullStream);
  const fs::path folder = scratch("sparse");
  for (int i = 0; i < 16; ++i) {
    PackageWriter writer;
    writer.package("big" + std::to_string(i), ver(6, 41))
        .architecture("mipsel")
        .description("A package of one gibibyte")
        .data(1ull << 30)
        .dependencies({{"system", ver(6, 0), 0}})
        .exclusions({{"old", 0, 0}});
    writer.writeFile((folder / ("big" + std::to_string(i) + ".npk")).string());
  }
  PackageCatalogue catalogue;
  for (auto _ : state) {
    catalogue.setFolder(folder.string(), 0);
    benchmark::DoNotOptimize(catalogue.size());
  }
  uint64_t largest = 0;
  state.counters["files"] = static_cast<double>(catalogue.size());
  state.counters["dependencies_found"] =
      catalogue.size() ? static_cast<double>(catalogue.record(0).dependencies.size()) : 0;
  state.counters["bytes_read_per_file"] = bytesReadPerFile(folder, &largest);
  state.counters["file_size_MiB"] = static_cast<double>(largest) / (1 << 20);
  fs::remove_all(folder);
  tarnlift::app::setLogStream(std::cout);
}
BENCHMARK(BM_ScanLargeSparseFiles)->Unit(benchmark::kMillisecond);

// Ticking the top of a chain of `depth` packages, each needing the next:
// the tick pulls in the whole chain; then the install order is worked out.
void BM_TickDeepChain(benchmark::State& state) {
  tarnlift::app::setLogStream(nullStream);
  const size_t depth = static_cast<size_t>(state.range(0));
  const fs::path folder = scratch("chain");
  for (size_t i = 0; i < depth; ++i) {
    PackageWriter writer;
    writer.package("link" + std::to_string(i), ver(6, 41));
    if (i + 1 < depth) writer.dependencies({{"link" + std::to_string(i + 1), ver(6, 0), 0}});
    char fileName[32];
    std::snprintf(fileName, sizeof fileName, "link%05zu.npk", i);
    writer.writeFile((folder / fileName).string());
  }
  PackageCatalogue catalogue;
  catalogue.setFolder(folder.string(), 0);
  std::vector<std::string> selection;
  catalogue.applySelection(selection);
  size_t orderLength = 0;
  for (auto _ : state) {
    catalogue.toggle(0, selection);  // tick: pulls in the chain
    orderLength = catalogue.installOrder(selection).size();
    state.PauseTiming();
    catalogue.applySelection({});
    selection.clear();
    state.ResumeTiming();
  }
  state.counters["selected"] = static_cast<double>(orderLength);
  fs::remove_all(folder);
  tarnlift::app::setLogStream(std::cout);
}
BENCHMARK(BM_TickDeepChain)->Arg(100)->Arg(1000)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
