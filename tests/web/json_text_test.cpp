// The front ends' JSON text: UTF-8 for the browser, ASCII escapes for the
// command line, and bytes that are not UTF-8 replaced in both.
#include "web/json_text.h"

#include <gtest/gtest.h>

namespace tarnlift::web {
namespace {

const nlohmann::json kOdd = {{"label", std::string("byte \xFF, control \x01, UTF-8 \xC3\xBC")}};

TEST(JsonText, TheBrowserGetsUtf8AndAReplacementForABrokenByte) {
  EXPECT_EQ(jsonText(kOdd), "{\"label\":\"byte \xEF\xBF\xBD, control \\u0001, UTF-8 \xC3\xBC\"}");
}

TEST(JsonText, TheCommandLineGetsPlainAsciiEscapes) {
  EXPECT_EQ(jsonText(kOdd, JsonCharacters::AsciiEscapes),
            "{\"label\":\"byte \\ufffd, control \\u0001, UTF-8 \\u00fc\"}");
}

}  // namespace
}  // namespace tarnlift::web
