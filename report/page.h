// The report's files: pictures of each micrograph, the web page that draws
// the picks over them, and the STAR table of micrographs.
#pragma once
#include <string>
#include <vector>

#include "report/micrograph.h"

// Where a micrograph's native-resolution crop lies (micrograph pixels) and
// how much the page enlarges it: where the best picks lie densest, large
// enough for a few particles, small ones shown enlarged.
struct Crop {
  long x0 = 0, y0 = 0, side = 0;
  int zoom = 1;
};
Crop crop_region(const Micrograph& m, const Settings& s);

// The crop's file beside a picture: "NAME.png" -> "NAME_crop.png".
std::string crop_name(const std::string& picture);

// Two pictures without the picks (the page draws them): at path the whole
// micrograph, longest side at most 1024 pixels (block means), contrast from
// the 1st and 99th percentiles, rejected cells shaded red; at
// crop_name(path) the crop, native pixels lightly smoothed.
bool write_picture(const Micrograph& m, const Settings& s, const std::string& path);

// index.html: the table of micrographs (sortable by any column), the pooled
// histogram of picks and decoys with the run's cut-off, and per micrograph
// why its cut-off was chosen, both pictures with the picks drawn over them,
// its histogram, and a cut-off slider that redraws them and prints the
// matching "gvexreport --apply --cutoff X" command (apply_words: the
// options it needs besides). Self-contained: pictures are the PNGs beside
// it, no network. A fragment "#cut=K:X" sets micrograph K's slider (from 1)
// to the cut-off X as the page opens. A run of more than per_page
// micrographs keeps the table and the first per_page sections in path and
// the others per_page a file beside it (page-2.html, page-3.html, ...): a
// collection's thousands in one file come to hundreds of megabytes, more
// than a browser opens. settled: the first micrographs, as the last call
// for this path wrote them (a run that only grows); the pages they fill are
// not written again. Returns the file that could not be written, or "".
constexpr size_t kPageMicrographs = 100;
std::string write_page(const std::vector<Micrograph>& mics, const std::vector<std::string>& pictures,
                       const Settings& s, double pooled, const std::string& path, const std::string& apply_words = "",
                       size_t per_page = kPageMicrographs, size_t settled = 0);

// A word as a POSIX shell reads it back: quoted when it holds anything but
// letters, digits and "-_./=:,+@%".
std::string shell_word(const std::string& w);

// One row per micrograph: name, picks, kept, mean and median score, masked
// fraction, suggested cut-off, its rule and the decoys at or above it (-1
// without decoys).
bool write_summary_star(const std::vector<Micrograph>& mics, const std::string& path);
