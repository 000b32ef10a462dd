#include <gtest/gtest.h>

#include "packages/version.h"

namespace tarnlift::packages {
namespace {

TEST(ParseVersion, RejectsTextWithoutMinor) {
  EXPECT_EQ(parseVersion("7"), 0u);
  EXPECT_EQ(parseVersion("7."), 0u);
  EXPECT_EQ(parseVersion("7.x"), 0u);
  EXPECT_EQ(parseVersion(""), 0u);
  EXPECT_EQ(parseVersion(".41"), 0u);
}

TEST(ParseVersion, PacksTheDocumentedExamples) {
  EXPECT_EQ(parseVersion("6.41"), 0x06296600u);
  EXPECT_EQ(parseVersion("6.41rc2"), 0x06296302u);
  EXPECT_EQ(parseVersion("6.40.1"), 0x06286601u);
  EXPECT_EQ(parseVersion("6.41beta"), 0x06296200u);
  EXPECT_EQ(parseVersion("6.41test"), 0x06296680u);
  EXPECT_EQ(parseVersion("6.41alpha3"), 0x06296103u);
  EXPECT_EQ(parseVersion("6.41final"), 0x06296600u);
  EXPECT_EQ(parseVersion("6.41_ab5"), 0x06290005u);
}

TEST(ParseVersion, TrailingSpaceIsNotAStageWord) { EXPECT_EQ(parseVersion("6.41 "), 0u); }

TEST(ParseVersion, PatchOrTestEndsTheText) {
  EXPECT_EQ(parseVersion("6.40.1rc"), 0x06286301u);
  EXPECT_EQ(parseVersion("6.40.1rc2"), 0u);
  EXPECT_EQ(parseVersion("6.41test3"), 0u);
  EXPECT_EQ(parseVersion("6.40."), 0u);
}

TEST(ParseVersion, StageNumberMustRunToTheEnd) {
  EXPECT_EQ(parseVersion("6.41rc2x"), 0u);
  EXPECT_EQ(parseVersion("6.41rcx"), 0u);
  EXPECT_EQ(parseVersion("6.41_ab300"), 0x0629012Cu);
  EXPECT_EQ(parseVersion("6.41gamma"), 0u);
}

TEST(ParseVersion, FieldsAreNotRangeChecked) {
  // A minor of 256 spills into the major byte: 6 | 1 = 7.
  EXPECT_EQ(parseVersion("6.256"), 0x07006600u);
  // A build of 300 spills into the stage byte.
  EXPECT_EQ(parseVersion("6.41rc300"), 0x0629632Cu);
}

TEST(ParseVersion, HugeNumbersSaturate) { EXPECT_EQ(parseVersion("99999999999.0"), 0xFFFFFFFFu << 24 | 0x6600u); }

TEST(FormatVersion, PrintsTheDocumentedExamples) {
  EXPECT_EQ(formatVersion(0x06296302), "6.41rc2");
  EXPECT_EQ(formatVersion(0x06296600), "6.41");
  EXPECT_EQ(formatVersion(0x06296601), "6.41.1");
  EXPECT_EQ(formatVersion(0x06290005), "6.41_ab5");
  EXPECT_EQ(formatVersion(0x06296200), "6.41beta");
  EXPECT_EQ(formatVersion(0x06296103), "6.41alpha3");
  EXPECT_EQ(formatVersion(0), "0.0");
}

TEST(FormatVersion, OtherLetterStagesPrintTheBuildWithoutAWord) {
  EXPECT_EQ(formatVersion(0x06296400), "6.41");
  EXPECT_EQ(formatVersion(0x06296407), "6.417");
}

TEST(FormatVersion, TestBuildsDoNotRoundTrip) {
  const PackageVersion test = parseVersion("6.41test");
  EXPECT_EQ(formatVersion(test), "6.41.128");
  EXPECT_EQ(parseVersion(formatVersion(test)), 0x06296680u);
}

TEST(FormatVersion, BufferVariantGivesTheSameText) {
  for (PackageVersion version : {0u, 0x06296302u, 0x06296600u, 0x06296601u, 0x06290005u, 0xFFFFFFFFu}) {
    EXPECT_EQ(std::string(formatVersionBuffer(version)), formatVersion(version));
  }
  EXPECT_EQ(formatVersion(0xFFFFFFFF), "255.255255");
}

TEST(FormatVersion, RoundTripsOrdinaryVersions) {
  for (const char* text : {"6.41", "6.41rc2", "6.40.1", "6.41beta", "6.41alpha1", "7.0beta5", "6.41_ab5", "0.1"}) {
    EXPECT_EQ(formatVersion(parseVersion(text)), text);
  }
}

TEST(Versions, CompareAsIntegers) {
  EXPECT_LT(parseVersion("6.41_ab5"), parseVersion("6.41alpha1"));
  EXPECT_LT(parseVersion("6.41alpha1"), parseVersion("6.41beta1"));
  EXPECT_LT(parseVersion("6.41beta1"), parseVersion("6.41rc1"));
  EXPECT_LT(parseVersion("6.41rc1"), parseVersion("6.41"));
  EXPECT_LT(parseVersion("6.41"), parseVersion("6.41.1"));
  EXPECT_LT(parseVersion("6.41.1"), parseVersion("6.42beta1"));
}

}  // namespace
}  // namespace tarnlift::packages
