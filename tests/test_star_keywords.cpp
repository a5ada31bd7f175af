// The known-label table: its size, order and exact matching. An edit that
// drops, adds or reorders a label fails here.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "io/star_keywords.h"

namespace {

int index_of(const char* label) {
  for (int i = 0; i < STAR_HEAD_KEYWORD_COUNT; ++i)
    if (strcmp(STAR_HEAD_KEYWORDS[i], label) == 0) return i;
  return -1;
}

TEST(StarKeywords, HoldsAllLabelsThenTheEmptyEnd) {
  EXPECT_EQ(STAR_HEAD_KEYWORD_COUNT, 228);
  EXPECT_EQ(sizeof(STAR_HEAD_KEYWORDS), 229u * 256u);
  for (int i = 0; i < STAR_HEAD_KEYWORD_COUNT; ++i) {
    const char* k = STAR_HEAD_KEYWORDS[i];
    EXPECT_EQ(strncmp(k, "_rln", 4), 0) << "entry " << i << ": " << k;
    EXPECT_GT(strlen(k), 4u) << "entry " << i;
  }
  EXPECT_STREQ(STAR_HEAD_KEYWORDS[STAR_HEAD_KEYWORD_COUNT], "");
}

TEST(StarKeywords, KeepsTheRegistrationOrder) {
  EXPECT_STREQ(STAR_HEAD_KEYWORDS[0], "_rlnComment");
  EXPECT_STREQ(STAR_HEAD_KEYWORDS[1], "_rlnAreaId");
  EXPECT_STREQ(STAR_HEAD_KEYWORDS[2], "_rlnAreaName");
  EXPECT_STREQ(STAR_HEAD_KEYWORDS[3], "_rlnBfactor");

  int x = index_of("_rlnCoordinateX");
  ASSERT_EQ(x, 31);
  EXPECT_STREQ(STAR_HEAD_KEYWORDS[x + 1], "_rlnCoordinateY");
  EXPECT_STREQ(STAR_HEAD_KEYWORDS[x + 2], "_rlnCoordinateZ");

  int psi = index_of("_rlnAnglePsi");
  ASSERT_EQ(psi, 179);
  EXPECT_STREQ(STAR_HEAD_KEYWORDS[psi + 1], "_rlnAnglePsiPrior");
  EXPECT_STREQ(STAR_HEAD_KEYWORDS[psi + 2], "_rlnAutopickFigureOfMerit");
  EXPECT_STREQ(STAR_HEAD_KEYWORDS[psi + 3], "_rlnClassNumber");

  EXPECT_STREQ(STAR_HEAD_KEYWORDS[226], "_rlnResolutionInversePixel");
  EXPECT_STREQ(STAR_HEAD_KEYWORDS[227], "_rlnSpectralIndex");

  // Fingerprint of the whole list in order (FNV-1a over "label\n" lines),
  // so a swap between the anchors is caught too.
  uint64_t h = 0xcbf29ce484222325ull;
  for (int i = 0; i < STAR_HEAD_KEYWORD_COUNT; ++i) {
    std::string line = std::string(STAR_HEAD_KEYWORDS[i]) + "\n";
    for (unsigned char c : line) h = (h ^ c) * 0x100000001b3ull;
  }
  EXPECT_EQ(h, 0xbb5c80de3ae98f31ull);
}

TEST(StarKeywords, OnlyDataDimensionalityRepeats) {
  for (int i = 0; i < STAR_HEAD_KEYWORD_COUNT; ++i) {
    int copies = 0;
    for (int j = 0; j < STAR_HEAD_KEYWORD_COUNT; ++j)
      copies += strcmp(STAR_HEAD_KEYWORDS[i], STAR_HEAD_KEYWORDS[j]) == 0;
    int expected = strcmp(STAR_HEAD_KEYWORDS[i], "_rlnDataDimensionality") == 0 ? 2 : 1;
    EXPECT_EQ(copies, expected) << STAR_HEAD_KEYWORDS[i];
  }
}

TEST(StarKeywords, MatchesWholeLabelsExactly) {
  // The columns the picker writes and reads back.
  for (const char* k : {"_rlnCoordinateX", "_rlnCoordinateY", "_rlnAnglePsi", "_rlnClassNumber",
                        "_rlnAutopickFigureOfMerit", "_rlnDataDimensionality", "_rlnSpectralIndex"})
    EXPECT_TRUE(is_star_head_keyword(k)) << k;

  for (const char* k : {"", "_rlncoordinatex", "_RLNCOORDINATEX", "rlnCoordinateX", "_rlnCoordinate",
                        "_rlnCoordinateXY", "_rlnCoordinateX ", " _rlnCoordinateX", "_rlnAngle",
                        "_rln", "_rlnCtfBfactor", "_rlnImageOriginalName", "data_"})
    EXPECT_FALSE(is_star_head_keyword(k)) << '"' << k << '"';
  EXPECT_FALSE(is_star_head_keyword(nullptr));
}

}  // namespace
