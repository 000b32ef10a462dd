// The results lines: every string JSON-escaped as plain ASCII, and every
// line on disk as soon as it is written.
#include "install/results_log.h"

#include <gtest/gtest.h>

#include "temp_dir.h"

namespace tarnlift {
namespace {

using namespace install;

TEST(ResultsLogTest, StringsAreEscapedAsPlainAscii) {
  EXPECT_EQ(app::jsonString("a\"b\\c\td\ne"), "\"a\\\"b\\\\c\\td\\ne\"");
  EXPECT_EQ(app::jsonString(std::string("\x01\x7f", 2)), "\"\\u0001\\u007f\"");
  EXPECT_EQ(app::jsonString("caf\xC3\xA9"), "\"caf\\u00e9\"");
  EXPECT_EQ(app::jsonString("\xF0\x9F\x98\x80"), "\"\\ud83d\\ude00\"");
  // Bytes that are not UTF-8: a lone continuation, a cut sequence, an overlong form.
  EXPECT_EQ(app::jsonString("\x80x\xE2\x82"), "\"\\ufffdx\\ufffd\\ufffd\"");
  EXPECT_EQ(app::jsonString("\xC0\xAF"), "\"\\ufffd\\ufffd\"");
}

TEST(ResultsLogTest, EachLineIsOnDiskAtOnce) {
  testing::TempDir dir;
  std::string path = dir.file("results.jsonl");
  ResultsLog log;
  std::string error;
  ASSERT_TRUE(log.open(path, error)) << error;
  RouterResult r;
  r.time = "2026-01-02T03:04:05Z";
  r.mac = "02:00:00:00:00:01";
  r.label = "Desk \"A\"\t\xFF";
  r.architecture = "arm";
  r.address = "10.0.0.5/24";
  r.files = {"system-6.41.npk", "extra-6.41.npk"};
  r.versions = {"6.41", "6.41rc2"};
  r.bytes = 1234;
  r.seconds = 2.5;
  r.success = true;
  r.confirmed = true;
  r.text = "Installation finished successfully";
  log.write(r);
  EXPECT_EQ(testing::readFile(path),
            "{\"time\":\"2026-01-02T03:04:05Z\",\"mac\":\"02:00:00:00:00:01\",\"label\":\"Desk \\\"A\\\"\\t\\ufffd\","
            "\"architecture\":\"arm\",\"address\":\"10.0.0.5/24\",\"files\":[\"system-6.41.npk\",\"extra-6.41.npk\"],"
            "\"versions\":[\"6.41\",\"6.41rc2\"],"
            "\"bytes\":1234,\"seconds\":2.500,\"result\":\"installed\",\"confirmed\":true,"
            "\"text\":\"Installation finished successfully\"}\n");
  r.success = false;
  r.confirmed = false;
  log.write(r);
  EXPECT_NE(testing::readFile(path).find("\"result\":\"failed\",\"confirmed\":false,"), std::string::npos);
  EXPECT_FALSE(log.open(dir.file("no/such/folder/r.jsonl"), error));
  EXPECT_NE(error.find("cannot open"), std::string::npos);
}

}  // namespace
}  // namespace tarnlift
