// JSON for the engines, which use only the standard library: a string
// escaper and a writer of one flat object, fields in the order given. The
// text is plain ASCII: quotes, backslashes and control characters escaped,
// characters beyond ASCII as \u escapes (pairs beyond the first plane), bytes
// that are not UTF-8 as U+FFFD, so a line read in any code page or through
// any pipe says the same. The front ends build their documents with
// nlohmann-json instead.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tarnlift::app {

// `bytes` as a quoted JSON string.
std::string jsonString(const std::string& bytes);

// {"key":value,...} on one line, without spaces.
class JsonObjectWriter {
 public:
  JsonObjectWriter& text(std::string_view key, const std::string& value);
  JsonObjectWriter& texts(std::string_view key, const std::vector<std::string>& values);
  JsonObjectWriter& number(std::string_view key, uint64_t value);
  // `value` with exactly `decimals` digits after the point.
  JsonObjectWriter& fixed(std::string_view key, double value, int decimals);
  JsonObjectWriter& boolean(std::string_view key, bool value);
  // The object so far, closed; an object without fields is "{}".
  std::string str() const;

 private:
  void key(std::string_view key);
  std::string json_;
};

}  // namespace tarnlift::app
