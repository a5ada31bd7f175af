// The report's files: a PNG of each micrograph with its picks, the web page,
// and the STAR table of micrographs.
#pragma once
#include <string>
#include <vector>

#include "report/micrograph.h"

// Longest side at most 1024 pixels (block means), contrast from the 1st and
// 99th percentiles, rejected cells shaded red, picks as rings of the
// particle diameter: coloured by score when kept, thin grey when not.
bool write_picture(const Micrograph& m, const Settings& s, const std::string& path);

// index.html: the table of micrographs (sortable by any column), the pooled
// score histogram with the cut-off, and each micrograph's picture and
// histogram. Self-contained: pictures are the PNGs beside it.
bool write_page(const std::vector<Micrograph>& mics, const std::vector<std::string>& pictures, double pooled,
                const std::string& path);

// One row per micrograph: name, picks, kept, mean and median score, masked
// fraction, suggested cut-off.
bool write_summary_star(const std::vector<Micrograph>& mics, const std::string& path);
