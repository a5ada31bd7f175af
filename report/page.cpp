#include "report/page.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>

#include "common/atomic_file.h"
#include "io/star_table.h"
#include "report/png.h"

namespace {

const uint8_t kRejected[3] = {220, 40, 40}, kDropped[3] = {150, 150, 150};

// Blue (low) to red (high) over t in [0, 1].
void score_colour(double t, uint8_t c[3]) {
  t = std::min(1.0, std::max(0.0, t));
  c[0] = (uint8_t)(40 + 215 * t);
  c[1] = (uint8_t)(200 * (1 - std::fabs(2 * t - 1)) + 40);
  c[2] = (uint8_t)(255 * (1 - t));
}

std::string html_escape(const std::string& s) {
  std::string o;
  for (char c : s) {
    if (c == '<') o += "&lt;";
    else if (c == '>') o += "&gt;";
    else if (c == '&') o += "&amp;";
    else if (c == '"') o += "&quot;";
    else o += c;
  }
  return o;
}

std::string num(const char* f, double v) {
  char b[64];
  snprintf(b, sizeof b, f, v);
  return b;
}

double quantile(std::vector<double> v, double q) {
  if (v.empty()) return NAN;
  std::sort(v.begin(), v.end());
  return v[(size_t)std::min<double>(v.size() - 1, std::floor(q * (v.size() - 1) + 0.5))];
}

std::vector<double> scores_of(const Micrograph& m) {
  std::vector<double> s;
  for (const Pick& p : m.picks) s.push_back(p.score);
  return s;
}

// A histogram of scores with the cut-off marked, as inline SVG.
std::string histogram_svg(const std::vector<double>& s, double cutoff, int width, int height) {
  const int bins = 40;
  double lo = 0, hi = 1;
  if (!s.empty()) {
    lo = std::min(0.0, *std::min_element(s.begin(), s.end()));
    hi = std::max(lo + 1e-6, *std::max_element(s.begin(), s.end()));
  }
  std::vector<int> count(bins, 0);
  for (double v : s) {
    const double t = (v - lo) / (hi - lo) * bins;  // finite: the reader refuses scores beyond a few units
    count[t >= 0 ? (int)std::min<double>(bins - 1, t) : 0]++;
  }
  const int top = std::max(1, *std::max_element(count.begin(), count.end()));
  std::string svg = "<svg class=\"hist\" width=\"" + std::to_string(width) + "\" height=\"" + std::to_string(height + 16) +
                    "\" xmlns=\"http://www.w3.org/2000/svg\">";
  const double bw = (double)width / bins;
  for (int b = 0; b < bins; b++) {
    const double h = (double)count[b] / top * height;
    const bool kept = lo + (b + 1.0) * (hi - lo) / bins > cutoff;  // the bin holds kept scores
    svg += "<rect x=\"" + num("%.1f", b * bw) + "\" y=\"" + num("%.1f", height - h) + "\" width=\"" +
           num("%.1f", bw - 1) + "\" height=\"" + num("%.1f", h) + "\" fill=\"" + (kept ? "#3a7" : "#bbb") + "\"/>";
  }
  const double cx = (cutoff - lo) / (hi - lo) * width;
  svg += "<line x1=\"" + num("%.1f", cx) + "\" x2=\"" + num("%.1f", cx) + "\" y1=\"0\" y2=\"" +
         std::to_string(height) + "\" stroke=\"#d22\" stroke-width=\"2\"/>";
  svg += "<text x=\"0\" y=\"" + std::to_string(height + 13) + "\" font-size=\"11\">" + num("%.3f", lo) +
         "</text><text x=\"" + std::to_string(width) + "\" y=\"" + std::to_string(height + 13) +
         "\" font-size=\"11\" text-anchor=\"end\">" + num("%.3f", hi) + "</text>";
  return svg + "</svg>";
}

bool write_text(const std::string& path, const std::string& text) {
  PartFile f(path.c_str(), "w");
  return f.fp() && fwrite(text.data(), 1, text.size(), f.fp()) == text.size() && f.commit();
}

}  // namespace

bool write_picture(const Micrograph& m, const Settings& s, const std::string& path) {
  const int f = std::max(1, (std::max(m.nx, m.ny) + 1023) / 1024);
  const int w = std::max(1, m.nx / f), h = std::max(1, m.ny / f);
  std::vector<double> small((size_t)w * h, 0.0), finite;
  for (int y = 0; y < h; y++)
    for (int x = 0; x < w; x++) {
      double sum = 0;
      int n = 0;
      for (int yy = y * f; yy < std::min(m.ny, y * f + f); yy++)
        for (int xx = x * f; xx < std::min(m.nx, x * f + f); xx++) {
          const float v = m.pixels[(size_t)yy * m.nx + xx];
          if (std::isfinite(v)) sum += v, n++;
        }
      small[(size_t)y * w + x] = n ? sum / n : NAN;
      if (n) finite.push_back(sum / n);
    }
  // Contrast from robust percentiles, so a few extreme pixels do not grey
  // out the picture.
  const double lo = quantile(finite, 0.01), hi = quantile(finite, 0.99);
  Picture pic(w, h);
  for (size_t i = 0; i < small.size(); i++) {
    const double v = std::isfinite(small[i]) && hi > lo ? (small[i] - lo) / (hi - lo) : 0.5;
    const uint8_t g = (uint8_t)std::lround(255 * std::min(1.0, std::max(0.0, v)));
    pic.rgb[3 * i] = pic.rgb[3 * i + 1] = pic.rgb[3 * i + 2] = g;
  }
  // Only the part of a cell inside the picture is painted: the cost stays
  // the picture's, whatever a damaged file claims.
  for (const Cell& c : m.rejected) {
    const long y0 = std::max(0L, c.y / f), y1 = std::min((long)h, (c.y + c.h) / f);
    const long x0 = std::max(0L, c.x / f), x1 = std::min((long)w, (c.x + c.w) / f);
    for (long y = y0; y < y1; y++)
      for (long x = x0; x < x1; x++) pic.blend((int)x, (int)y, kRejected, 0.35);
  }
  double top = m.cutoff;
  for (const Pick& p : m.picks) top = std::max(top, (double)p.score);
  const double r = s.diameter / 2 / s.apix / f;
  for (const Pick& p : m.picks) {
    uint8_t c[3];
    score_colour(top > m.cutoff ? (p.score - m.cutoff) / (top - m.cutoff) : 1.0, c);
    if (p.score >= m.cutoff)
      pic.ring(p.x / f, p.y / f, r, 2.0, c);
    else
      pic.ring(p.x / f, p.y / f, r, 1.0, kDropped);
  }
  return write_png(path, pic);
}

bool write_page(const std::vector<Micrograph>& mics, const std::vector<std::string>& pictures, double pooled,
                const std::string& path) {
  std::vector<double> all;
  for (const Micrograph& m : mics)
    for (const Pick& p : m.picks) all.push_back(p.score);
  std::string h =
      "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>gvexreport</title>\n<style>"
      "body{font-family:sans-serif;margin:1.5em;color:#222}table{border-collapse:collapse}"
      "th,td{border:1px solid #ccc;padding:3px 8px;text-align:right}th{cursor:pointer;background:#eee}"
      "td.name,td.warn{text-align:left}td.warn{color:#b00}.mic{display:inline-block;vertical-align:top;margin:8px;"
      "width:270px}.mic img{width:256px;border:1px solid #999}.mic ul{color:#b00;font-size:12px;padding-left:1.2em}"
      "</style></head>\n<body>\n<h1>Picks of " + std::to_string(mics.size()) + (mics.size() == 1 ? " micrograph" : " micrographs") +
      "</h1>\n";
  h += "<p>Suggested cut-off for the whole run: <b>--cc_cutoff " + num("%.4f", pooled) +
       "</b>. Circles: picks at or above their micrograph's cut-off, blue (low score) to red (high); grey: below it. "
       "Red shade: rejected areas.</p>\n<h2>Scores of all picks</h2>\n" + histogram_svg(all, pooled, 600, 150) + "\n";
  h += "<h2>Micrographs</h2>\n<table id=\"mics\"><thead><tr><th>Micrograph</th><th>Picks</th><th>Kept</th>"
       "<th>Median score</th><th>90th percentile</th><th>Masked</th><th>Cut-off</th><th>Warnings</th></tr></thead>"
       "<tbody>\n";
  for (size_t k = 0; k < mics.size(); k++) {
    const Micrograph& m = mics[k];
    const std::vector<double> s = scores_of(m);
    long kept = 0;
    for (double v : s) kept += v >= m.cutoff;
    std::string warn;
    for (const std::string& w : m.warnings) warn += (warn.empty() ? "" : "; ") + html_escape(w);
    h += "<tr><td class=\"name\"><a href=\"#m" + std::to_string(k + 1) + "\">" + html_escape(m.name) + "</a></td><td>" +
         std::to_string(s.size()) + "</td><td>" + std::to_string(kept) + "</td><td>" + num("%.4f", quantile(s, 0.5)) +
         "</td><td>" + num("%.4f", quantile(s, 0.9)) + "</td><td>" + num("%.3f", m.masked) + "</td><td>" +
         num("%.4f", m.cutoff) + "</td><td class=\"warn\">" + warn + "</td></tr>\n";
  }
  h += "</tbody></table>\n";
  for (size_t k = 0; k < mics.size(); k++) {
    const Micrograph& m = mics[k];
    h += "<div class=\"mic\" id=\"m" + std::to_string(k + 1) + "\"><h3>" + html_escape(m.name) + "</h3><a href=\"" +
         html_escape(pictures[k]) + "\"><img src=\"" + html_escape(pictures[k]) + "\" alt=\"picks on " +
         html_escape(m.name) + "\"></a>" + histogram_svg(scores_of(m), m.cutoff, 256, 80);
    if (!m.warnings.empty()) {
      h += "<ul>";
      for (const std::string& w : m.warnings) h += "<li>" + html_escape(w) + "</li>";
      h += "</ul>";
    }
    h += "</div>\n";
  }
  // Sorting by any column; and a count of pictures that did not load, which
  // the page's own check (and a person) can read off the body.
  h += "<script>\n"
       "document.querySelectorAll('#mics th').forEach(function(th, col) {\n"
       "  th.addEventListener('click', function() {\n"
       "    var body = document.querySelector('#mics tbody'), rows = Array.from(body.rows);\n"
       "    var up = th.dataset.up !== '1'; th.dataset.up = up ? '1' : '0';\n"
       "    rows.sort(function(a, b) {\n"
       "      var x = a.cells[col].textContent, y = b.cells[col].textContent, nx = parseFloat(x), ny = parseFloat(y);\n"
       "      var d = isNaN(nx) || isNaN(ny) ? x.localeCompare(y) : nx - ny; return up ? d : -d; });\n"
       "    rows.forEach(function(r) { body.appendChild(r); }); }); });\n"
       "window.addEventListener('load', function() {\n"
       "  var imgs = Array.from(document.images), broken = imgs.filter(function(i) { return !i.naturalWidth; });\n"
       "  document.body.dataset.images = imgs.length; document.body.dataset.broken = broken.length;\n"
       "  broken.forEach(function(i) { console.error('picture did not load: ' + i.src); }); });\n"
       "</script>\n</body></html>\n";
  return write_text(path, h);
}

bool write_summary_star(const std::vector<Micrograph>& mics, const std::string& path) {
  StarTable t;
  t.name = "micrographs";
  t.labels = {"rlnMicrographName", "gvexPickCount", "gvexKeptCount", "gvexMeanScore",
              "gvexMedianScore", "gvexMaskedFraction", "gvexSuggestedCutoff"};
  char num[64];
  auto fmt = [&](const char* f, double v) {
    snprintf(num, sizeof num, f, v);
    return std::string(num);
  };
  for (const Micrograph& m : mics) {
    const std::vector<double> v = scores_of(m);
    double mean = 0;
    long kept = 0;
    for (double x : v) mean += x / v.size(), kept += x >= m.cutoff;
    t.rows.push_back({m.name, std::to_string(v.size()), std::to_string(kept), fmt("%.6f", v.empty() ? 0.0 : mean),
                      fmt("%.6f", v.empty() ? 0.0 : quantile(v, 0.5)), fmt("%.4f", m.masked), fmt("%.6f", m.cutoff)});
  }
  PartFile f(path.c_str(), "w");
  return f.fp() && fputs("# gvexreport: one row per micrograph\n", f.fp()) >= 0 && star_write(f.fp(), t) && f.commit();
}
