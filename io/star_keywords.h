// Known STAR column labels. A coordinate-file reader uses them to tell a
// header line ("_rlnCoordinateX #1") from a data line.
#pragma once

// Number of labels; the table holds one more, empty, entry that ends it.
constexpr int STAR_HEAD_KEYWORD_COUNT = 228;

extern const char STAR_HEAD_KEYWORDS[STAR_HEAD_KEYWORD_COUNT + 1][256];

// True when word equals one of the labels exactly (case and length matter;
// the empty terminator never matches).
bool is_star_head_keyword(const char* word);
