// The record of what was done: one JSON line per router that ended,
// appended to a file and flushed at once, so a run that is killed still
// leaves every line it finished. Strings are plain ASCII JSON, as
// app/json_writer writes them.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "app/json_writer.h"

namespace tarnlift::install {

struct RouterResult {
  std::string time;  // UTC, 2026-01-02T03:04:05Z
  std::string mac;
  std::string label;
  std::string architecture;
  std::string address;  // A.B.C.D/BITS given, or ""
  std::vector<std::string> files;     // the package files sent, in install order
  std::vector<std::string> versions;  // each file's package version, as files
  uint64_t bytes = 0;
  double seconds = 0;
  bool success = false;
  // The router confirmed the end of the transfer ("WTRM"); false for a
  // router that went silent after its last file (and for every failure).
  bool confirmed = false;
  std::string text;  // the final status text (the failure's reason)
};

// One results line; `start` holds the fields that come before the result's
// own (serve's event name on its standard output).
std::string resultJsonLine(const RouterResult& result, app::JsonObjectWriter start = app::JsonObjectWriter());

class ResultsLog {
 public:
  ResultsLog() = default;
  ~ResultsLog();
  ResultsLog(const ResultsLog&) = delete;
  ResultsLog& operator=(const ResultsLog&) = delete;
  bool open(const std::string& path, std::string& error);
  void write(const RouterResult& result);

 private:
  std::FILE* file_ = nullptr;
};

// The current time as resultJsonLine's "time".
std::string utcTimestamp();

}  // namespace tarnlift::install
