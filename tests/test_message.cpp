// The micrograph a picking rank of the MPI companion packs for rank 0: what
// the cut and the page read comes back whole, and bytes damaged on the way
// are refused rather than cut.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "mpi/mic_message.h"

namespace {

Micrograph sample() {
  Micrograph m;
  m.name = "a/b c.mrc";
  m.nx = 4096, m.ny = 3072, m.nz = 1, m.mode = 2;
  m.header_apix = 1.06, m.masked = 0.25, m.usable_pixels = 9.4e6, m.cut_before = 0.15, m.cut_recorded = true;
  m.picks_found = m.decoys_found = true;
  for (int i = 0; i < 3; i++) {
    Pick p;
    p.x = 100 + i, p.y = 200 - i, p.w = p.h = 64, p.cls = i + 1;
    p.score = 0.5f + 0.1f * (float)i, p.psi = 30.0f * (float)i;
    m.picks.push_back(p);
  }
  m.decoys = {m.picks[0]};
  m.on_edge = {0, 1, 0};
  m.decoy_on_edge = {1};
  m.rejected = {Cell{0, 0, 512, 512}};
  m.warnings = {"first", ""};
  return m;
}

}  // namespace

// Byte for byte the message's round trip is tested end to end (the MPI check
// against gvexreport); here, that empty lists come back too.
TEST(MicrographMessage, EmptyListsComeBack) {
  Micrograph m = sample(), back;
  m.picks.clear(), m.decoys.clear(), m.on_edge.clear(), m.decoy_on_edge.clear(), m.warnings.clear();
  std::string picture;
  ASSERT_TRUE(unpack_micrograph(pack_micrograph(m, "0001_b_c.png"), back, picture));
  EXPECT_EQ(picture, "0001_b_c.png");
  EXPECT_EQ(back.name, m.name);
  EXPECT_TRUE(back.picks.empty() && back.decoys.empty() && back.warnings.empty() && back.picks_found);
}

TEST(MicrographMessage, DamagedBytesAreRefused) {
  const std::vector<char> whole = pack_micrograph(sample(), "p.png");
  Micrograph back;
  std::string picture;
  for (size_t n = 0; n < whole.size(); n++)
    EXPECT_FALSE(unpack_micrograph(std::vector<char>(whole.begin(), whole.begin() + (long)n), back, picture))
        << "cut at byte " << n;
  std::vector<char> longer = whole;
  longer.push_back(0);
  EXPECT_FALSE(unpack_micrograph(longer, back, picture));
  // A list longer than the bytes left.
  std::vector<char> huge = whole;
  memset(huge.data(), 0x7f, 8);
  EXPECT_FALSE(unpack_micrograph(huge, back, picture));

  // Figures no rank sends, each packed whole.
  const auto refused = [](void (*damage)(Micrograph&)) {
    Micrograph m = sample(), out;
    damage(m);
    std::string pic;
    return !unpack_micrograph(pack_micrograph(m, "p.png"), out, pic);
  };
  EXPECT_TRUE(refused([](Micrograph& m) { m.picks[1].score = NAN; }));
  EXPECT_TRUE(refused([](Micrograph& m) { m.decoys[0].x = 1e300; }));
  EXPECT_TRUE(refused([](Micrograph& m) { m.on_edge.pop_back(); }));
  EXPECT_TRUE(refused([](Micrograph& m) { m.decoy_on_edge.push_back(0); }));
  EXPECT_TRUE(refused([](Micrograph& m) { m.usable_pixels = -1; }));
  EXPECT_TRUE(refused([](Micrograph& m) { m.masked = NAN; }));
  EXPECT_TRUE(refused([](Micrograph& m) { m.cut_before = INFINITY; }));
  EXPECT_TRUE(refused([](Micrograph& m) { m.nx = -1; }));
  EXPECT_TRUE(refused([](Micrograph& m) { m.rejected[0].w = -5; }));
  EXPECT_FALSE(refused([](Micrograph& m) { m.cut_before = NAN; }));  // not cut before: the usual case

  // A bool's byte that is neither 0 nor 1: flip picks_found's byte to 2.
  Micrograph m = sample();
  m.picks_found = false;
  std::vector<char> a = pack_micrograph(m, "p.png"), b = pack_micrograph(sample(), "p.png");
  size_t at = 0;
  while (at < a.size() && a[at] == b[at]) at++;
  ASSERT_LT(at, a.size());
  b[at] = 2;
  EXPECT_FALSE(unpack_micrograph(b, back, picture));
}
