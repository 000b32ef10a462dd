// The engines' JSON: one flat object per line, fields in the order given,
// strings as plain ASCII. (The escaping of strings byte by byte is covered
// with the results lines, its first user.)
#include "app/json_writer.h"

#include <gtest/gtest.h>

namespace tarnlift {
namespace {

using namespace app;

TEST(JsonObjectWriter, EveryKindOfFieldInTheOrderGiven) {
  EXPECT_EQ(JsonObjectWriter()
                .text("name", "a\"b")
                .number("big", 18446744073709551615ull)
                .fixed("seconds", 2.5, 3)
                .boolean("yes", true)
                .boolean("no", false)
                .texts("list", {"x", "caf\xC3\xA9"})
                .texts("empty", {})
                .str(),
            "{\"name\":\"a\\\"b\",\"big\":18446744073709551615,\"seconds\":2.500,\"yes\":true,\"no\":false,"
            "\"list\":[\"x\",\"caf\\u00e9\"],\"empty\":[]}");
}

TEST(JsonObjectWriter, AnEmptyObjectAndFixedDecimals) {
  EXPECT_EQ(JsonObjectWriter().str(), "{}");
  EXPECT_EQ(JsonObjectWriter().fixed("s", 0.0004, 3).str(), "{\"s\":0.000}");
  EXPECT_EQ(JsonObjectWriter().fixed("s", 1.0005, 1).str(), "{\"s\":1.0}");
  EXPECT_EQ(JsonObjectWriter().text("k\n", "").str(), "{\"k\\n\":\"\"}");
}

}  // namespace
}  // namespace tarnlift
