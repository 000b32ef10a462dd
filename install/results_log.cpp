#include "install/results_log.h"

#include <cerrno>
#include <cstring>

#include "app/json_writer.h"
#include "app/utc_time.h"

namespace tarnlift::install {

std::string resultJsonLine(const RouterResult& r, app::JsonObjectWriter start) {
  return start.text("time", r.time)
      .text("mac", r.mac)
      .text("label", r.label)
      .text("architecture", r.architecture)
      .text("address", r.address)
      .texts("files", r.files)
      .texts("versions", r.versions)
      .number("bytes", r.bytes)
      .fixed("seconds", r.seconds, 3)
      .text("result", r.success ? "installed" : "failed")
      .boolean("confirmed", r.confirmed)
      .text("text", r.text)
      .str();
}

std::string utcTimestamp() { return app::utcTextNow(app::UtcLayout::Iso); }

ResultsLog::~ResultsLog() {
  if (file_ != nullptr) std::fclose(file_);
}

bool ResultsLog::open(const std::string& path, std::string& error) {
  if (file_ != nullptr) std::fclose(file_);
  file_ = std::fopen(path.c_str(), "ab");
  if (file_ == nullptr) {
    error = "cannot open " + path + " for the results: " + std::strerror(errno);
    return false;
  }
  return true;
}

void ResultsLog::write(const RouterResult& result) {
  if (file_ == nullptr) return;
  std::string line = resultJsonLine(result) + "\n";
  std::fwrite(line.data(), 1, line.size(), file_);
  std::fflush(file_);
}

}  // namespace tarnlift::install
