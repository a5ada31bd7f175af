#include "report/page.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>

#include <unistd.h>

#include "common/atomic_file.h"
#include "io/star_table.h"
#include "report/png.h"

namespace {

const uint8_t kRejected[3] = {220, 40, 40};

std::string html_escape(const std::string& s) {
  std::string o;
  for (char c : s) {
    if (c == '<') o += "&lt;";
    else if (c == '>') o += "&gt;";
    else if (c == '&') o += "&amp;";
    else if (c == '"') o += "&quot;";
    else if (c == '\'') o += "&#39;";
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
  const size_t k = (size_t)std::min<double>(v.size() - 1, std::floor(q * (v.size() - 1) + 0.5));
  std::nth_element(v.begin(), v.begin() + k, v.end());  // a picture's million pixels: no full sort
  return v[k];
}

// Grey levels of an image from its 1st to 99th percentile, so that a few
// extreme pixels do not grey out the picture; NaN is mid-grey.
void paint_grey(const std::vector<double>& v, Picture& pic) {
  std::vector<double> finite;
  for (double x : v)
    if (std::isfinite(x)) finite.push_back(x);
  const double lo = quantile(finite, 0.01), hi = quantile(finite, 0.99);
  for (size_t i = 0; i < v.size(); i++) {
    const double t = std::isfinite(v[i]) && hi > lo ? (v[i] - lo) / (hi - lo) : 0.5;
    const uint8_t g = (uint8_t)std::lround(255 * std::min(1.0, std::max(0.0, t)));
    pic.rgb[3 * i] = pic.rgb[3 * i + 1] = pic.rgb[3 * i + 2] = g;
  }
}

// Rejected cells shaded over a picture of the region (x0, y0) at 1/f scale.
// Only the part of a cell inside the picture is painted: the cost stays the
// picture's, whatever a damaged file claims.
void shade_rejected(const Micrograph& m, long x0, long y0, int f, Picture& pic) {
  for (const Cell& c : m.rejected) {
    const long ya = std::max(0L, (c.y - y0) / f), yb = std::min((long)pic.h, (c.y + c.h - y0) / f);
    const long xa = std::max(0L, (c.x - x0) / f), xb = std::min((long)pic.w, (c.x + c.w - x0) / f);
    for (long y = ya; y < yb; y++)
      for (long x = xa; x < xb; x++) pic.blend((int)x, (int)y, kRejected, 0.35);
  }
}

bool write_overview(const Micrograph& m, const std::string& path) {
  const int f = std::max(1, (std::max(m.nx, m.ny) + 1023) / 1024);
  const int w = std::max(1, m.nx / f), h = std::max(1, m.ny / f);
  std::vector<double> small((size_t)w * h, 0.0);
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
    }
  Picture pic(w, h);
  paint_grey(small, pic);
  shade_rejected(m, 0, 0, f, pic);
  return write_png(path, pic);
}

// The crop, smoothed by a box mean of a fiftieth of the particle: at low
// dose single pixels are noise, the particle's shape is not.
bool write_crop(const Micrograph& m, const Settings& s, const std::string& path) {
  const Crop c = crop_region(m, s);
  // At most 7 x 7 pixels: a crop of a huge particle stays cheap.
  const int side = (int)std::max(1L, c.side), r = std::max(0, std::min(3, (int)std::lround(s.diameter / s.apix / 50)));
  std::vector<double> v((size_t)side * side, NAN);
  for (int y = 0; y < side; y++)
    for (int x = 0; x < side; x++) {
      double sum = 0;
      int n = 0;
      for (long yy = std::max(0L, c.y0 + y - r); yy <= std::min((long)m.ny - 1, c.y0 + y + r); yy++)
        for (long xx = std::max(0L, c.x0 + x - r); xx <= std::min((long)m.nx - 1, c.x0 + x + r); xx++) {
          const float p = m.pixels[(size_t)yy * m.nx + xx];
          if (std::isfinite(p)) sum += p, n++;
        }
      if (n) v[(size_t)y * side + x] = sum / n;
    }
  Picture pic(side, side);
  paint_grey(v, pic);
  shade_rejected(m, c.x0, c.y0, 1, pic);
  return write_png(path, pic);
}

// Bins shared by the picks' and the decoys' histograms.
struct Bins {
  double lo = 0, hi = 1;
  int n = 40;
  int of(double v) const {
    const double t = (v - lo) / (hi - lo) * n;  // finite: the reader refuses scores beyond a few units
    return t >= 0 ? (int)std::min<double>(n - 1, t) : 0;
  }
};

Bins bins_of(const std::vector<double>& a, const std::vector<double>& b) {
  Bins k;
  if (a.empty() && b.empty()) return k;
  double lo = 0, hi = -INFINITY;
  for (const std::vector<double>* v : {&a, &b})
    for (double x : *v) lo = std::min(lo, x), hi = std::max(hi, x);
  k.lo = lo;
  k.hi = std::max(lo + 1e-6, hi);
  return k;
}

// A histogram of the picks' scores (bars: kept green, dropped grey) and,
// when there are decoys, of theirs (an orange outline), with the cut-off
// marked; the page's script moves the mark and recolours the bars.
std::string histogram_svg(const std::vector<double>& s, const std::vector<double>& decoys, bool with_decoys,
                          double cutoff, int width, int height) {
  const Bins k = bins_of(s, decoys);
  std::vector<int> count(k.n, 0), dcount(k.n, 0);
  for (double v : s) count[k.of(v)]++;
  for (double v : decoys) dcount[k.of(v)]++;
  int top = 1;
  for (int b = 0; b < k.n; b++) top = std::max({top, count[b], with_decoys ? dcount[b] : 0});
  std::string svg = "<svg class=\"hist\" width=\"" + std::to_string(width) + "\" height=\"" +
                    std::to_string(height + 16) + "\" data-lo=\"" + num("%.6f", k.lo) + "\" data-hi=\"" +
                    num("%.6f", k.hi) + "\" xmlns=\"http://www.w3.org/2000/svg\">";
  const double bw = (double)width / k.n;
  for (int b = 0; b < k.n; b++) {
    const double h = (double)count[b] / top * height, upper = k.lo + (b + 1.0) * (k.hi - k.lo) / k.n;
    svg += "<rect x=\"" + num("%.1f", b * bw) + "\" y=\"" + num("%.1f", height - h) + "\" width=\"" +
           num("%.1f", bw - 1) + "\" height=\"" + num("%.1f", h) + "\" data-hi=\"" + num("%.6f", upper) +
           "\" fill=\"" + (upper > cutoff ? "#3a7" : "#bbb") + "\"/>";
  }
  if (with_decoys) {
    std::string pts;
    for (int b = 0; b < k.n; b++) {
      const double y = height - (double)dcount[b] / top * height;
      pts += num("%.1f", b * bw) + "," + num("%.1f", y) + " " + num("%.1f", (b + 1) * bw) + "," + num("%.1f", y) + " ";
    }
    svg += "<polyline points=\"" + pts + "\" fill=\"none\" stroke=\"#e80\" stroke-width=\"1.5\"/>";
  }
  // No line where there is no cut-off (a run without picks).
  const double cx = std::min(1.0, std::max(0.0, (cutoff - k.lo) / (k.hi - k.lo))) * width;
  if (std::isfinite(cutoff))
    svg += "<line class=\"cutline\" x1=\"" + num("%.1f", cx) + "\" x2=\"" + num("%.1f", cx) + "\" y1=\"0\" y2=\"" +
           std::to_string(height) + "\" stroke=\"#d22\" stroke-width=\"2\"/>";
  svg += "<text x=\"0\" y=\"" + std::to_string(height + 13) + "\" font-size=\"11\">" + num("%.3f", k.lo) +
         "</text><text x=\"" + std::to_string(width) + "\" y=\"" + std::to_string(height + 13) +
         "\" font-size=\"11\" text-anchor=\"end\">" + num("%.3f", k.hi) + "</text>";
  return svg + "</svg>";
}

// Blue (low) to red (high) over t in [0, 1]; the page's script has the same.
std::string score_colour(double t) {
  t = std::min(1.0, std::max(0.0, t));
  char b[16];
  snprintf(b, sizeof b, "#%02x%02x%02x", (int)(40 + 215 * t), (int)(200 * (1 - std::fabs(2 * t - 1)) + 40),
           (int)(255 * (1 - t)));
  return b;
}

// The picks over a picture of the region (x0, y0, w, h): circles of the
// particle's diameter, coloured by score when kept, thin grey when not,
// dashed orange when the rule leaves them out as on a strong edge.
std::string marks_svg(const Micrograph& m, const Settings& s, double x0, double y0, double w, double h) {
  double top = m.cutoff;
  for (const Pick& p : m.picks) top = std::max(top, (double)p.score);
  const double r = s.diameter / 2 / s.apix;
  std::string svg = "<svg class=\"marks\" viewBox=\"" + num("%.0f", x0) + " " + num("%.0f", y0) + " " +
                    num("%.0f", w) + " " + num("%.0f", h) + "\" preserveAspectRatio=\"none\" " +
                    "xmlns=\"http://www.w3.org/2000/svg\">";
  for (size_t i = 0; i < m.picks.size(); i++) {
    const Pick& p = m.picks[i];
    if (p.x + r < x0 || p.y + r < y0 || p.x - r > x0 + w || p.y - r > y0 + h) continue;
    const bool kept = kept_in(m, i), edge = !kept && pick_kept(p, m.cutoff);
    svg += "<circle cx=\"" + num("%.0f", p.x) + "\" cy=\"" + num("%.0f", p.y) + "\" r=\"" + num("%.1f", r) +
           "\" data-s=\"" + num("%.6f", p.score) + "\"" + (edge ? " data-e=\"1\"" : "") + " class=\"" +
           (kept ? "k" : edge ? "e" : "d") + "\"";
    if (kept) svg += " stroke=\"" + score_colour(top > m.cutoff ? (p.score - m.cutoff) / (top - m.cutoff) : 1.0) + "\"";
    svg += "/>";
  }
  return svg + "</svg>";
}

std::string scores_attribute(const std::vector<Pick>& picks) {
  std::string s;
  for (const Pick& p : picks) s += (s.empty() ? "" : " ") + num("%.6f", p.score);
  return s;
}

bool write_text(const std::string& path, const std::string& text) {
  PartFile f(path.c_str(), "w");
  return f.fp() && fwrite(text.data(), 1, text.size(), f.fp()) == text.size() && f.commit();
}

const char* const kStyle =
    "body{font-family:sans-serif;margin:1.5em;color:#222}table{border-collapse:collapse}"
    "th,td{border:1px solid #ccc;padding:3px 8px;text-align:right}th{cursor:pointer;background:#eee}"
    "td.name,td.warn,td.rule{text-align:left}td.warn{color:#b00}p.note{background:#fff4d6;padding:6px 10px;"
    "border-left:4px solid #e80;max-width:60em}section.mic{border-top:1px solid #ccc;margin-top:1.5em}"
    ".pics{display:flex;flex-wrap:wrap;gap:14px;align-items:flex-start}figure{margin:0}"
    "figcaption{font-size:12px;color:#555;max-width:512px}.stack{position:relative;line-height:0}"
    ".stack img{width:100%;image-rendering:pixelated;border:1px solid #999}"
    ".stack svg{position:absolute;left:0;top:0;width:100%;height:100%}"
    "circle{fill:none;stroke-width:2px;vector-effect:non-scaling-stroke}circle.d{stroke:#999;stroke-width:1px}circle.e{stroke:#e80;stroke-dasharray:4 3}"
    ".why{max-width:60em}.control{margin:8px 0}.control input{width:420px;vertical-align:middle}"
    "code.cmd{display:block;background:#f3f3f3;padding:4px 8px;margin-top:4px;user-select:all;max-width:60em;"
    "overflow-wrap:anywhere}ul.warn{color:#b00}";

// The slider of each micrograph: its positions are the picks' distinct
// scores, lowest first, and one past the highest (none kept), so that every
// position is a cut-off gvexreport --apply keeps the same picks at.
// Scores compare as floats, as gvexreport compares them.
const char* const kScript =
    "var f32 = Math.fround || function(x) { return x; };\n"
    "function colour(t) {\n"
    "  t = Math.min(1, Math.max(0, t));\n"
    "  return 'rgb(' + Math.floor(40 + 215 * t) + ',' + Math.floor(200 * (1 - Math.abs(2 * t - 1)) + 40) + ',' +\n"
    "         Math.floor(255 * (1 - t)) + ')'; }\n"
    "function atLeast(list, cut) { var n = 0; for (var i = 0; i < list.length; i++) if (f32(list[i]) >= f32(cut)) n++;\n"
    "  return n; }\n"
    "function setUp(sec) {\n"
    "  var slider = sec.querySelector('input.cut');\n"
    "  if (!slider) return null;\n"  // a micrograph without picks has nothing to cut
    "  var marks = Array.from(sec.querySelectorAll('svg.marks circle'));\n"
    "  var texts = Array.from(sec.querySelector('svg.marks').querySelectorAll('circle'), function(c) {\n"
    "    return c.dataset.s; });\n"
    "  var edges = Array.from(sec.querySelector('svg.marks').querySelectorAll('circle[data-e]'), function(c) {\n"
    "    return parseFloat(c.dataset.s); });\n"
    "  var scores = texts.map(parseFloat), decoys = (sec.dataset.decoys || '').split(' ').filter(Boolean).map(parseFloat);\n"
    "  var steps = [], seen = {};\n"
    "  texts.slice().sort(function(a, b) { return parseFloat(a) - parseFloat(b); }).forEach(function(t) {\n"
    "    if (!seen[t]) { seen[t] = 1; steps.push(t); } });\n"
    "  var top = scores.length ? Math.max.apply(null, scores) : 0;\n"
    "  steps.push((top + 1e-6).toFixed(6));\n"
    "  slider.max = steps.length - 1;\n"
    "  function position(cut) { for (var i = 0; i < steps.length - 1; i++) if (f32(parseFloat(steps[i])) >= f32(cut))\n"
    "    return i; return steps.length - 1; }\n"
    "  function show() {\n"
    "    var text = steps[slider.value], cut = parseFloat(text), k = sec.dataset.k;\n"
    // At the automatic cut-off the picks its rule leaves out as on edges stay out;
    // a cut-off given to --apply keeps them.
    "    var atAuto = +slider.value === position(parseFloat(sec.dataset.cut));\n"
    "    marks.forEach(function(c) {\n"
    "      var s = parseFloat(c.dataset.s), edge = atAuto && c.dataset.e, kept = !edge && f32(s) >= f32(cut);\n"
    "      c.setAttribute('class', kept ? 'k' : edge ? 'e' : 'd');\n"
    "      if (kept) c.setAttribute('stroke', colour(top > cut ? (s - cut) / (top - cut) : 1));\n"
    "      else c.removeAttribute('stroke'); });\n"
    "    var hist = sec.querySelector('svg.hist'), lo = parseFloat(hist.dataset.lo), hi = parseFloat(hist.dataset.hi);\n"
    "    var x = Math.min(1, Math.max(0, (cut - lo) / (hi - lo))) * parseFloat(hist.getAttribute('width'));\n"
    "    var line = hist.querySelector('.cutline'); line.setAttribute('x1', x.toFixed(1)); line.setAttribute('x2', x.toFixed(1));\n"
    "    hist.querySelectorAll('rect').forEach(function(r) {\n"
    "      r.setAttribute('fill', parseFloat(r.dataset.hi) > cut ? '#3a7' : '#bbb'); });\n"
    "    document.getElementById('value-' + k).textContent = text;\n"
    "    document.getElementById('kept-' + k).textContent = atLeast(scores, cut) - (atAuto ? atLeast(edges, cut) : 0);\n"
    "    var d = document.getElementById('decoys-' + k);\n"
    "    if (d) d.textContent = atAuto ? sec.dataset.decoysAuto : atLeast(decoys, cut);\n"
    "    document.getElementById('cmd-' + k).textContent = 'gvexreport --apply --cutoff ' + text +\n"
    "      (sec.dataset.words ? ' ' + sec.dataset.words : '') + ' ' + sec.dataset.mic;\n"
    "  }\n"
    "  slider.addEventListener('input', show);\n"
    "  slider.value = position(parseFloat(sec.dataset.cut));\n"
    "  sec.querySelector('button.auto').addEventListener('click', function() {\n"
    "    slider.value = position(parseFloat(sec.dataset.cut)); show(); });\n"
    "  show();\n"
    "  return function(cut) { slider.value = position(cut); slider.dispatchEvent(new Event('input')); };\n"
    "}\n"
    "var sliders = Object.create(null);\n"
    "document.querySelectorAll('section.mic').forEach(function(sec) { sliders[sec.dataset.k] = setUp(sec); });\n"
    // "#cut=K:X;K:X": sliders set as the page opens (a link to a view, and the
    // browser test's handle); a part that is not one is passed over.
    "var wanted = /^#cut=(.*)$/.exec(location.hash);\n"
    "if (wanted) wanted[1].split(';').forEach(function(kv) {\n"
    "  try { kv = decodeURIComponent(kv); } catch (e) { return; }\n"
    "  var p = kv.split(':'); if (sliders[p[0]] && isFinite(parseFloat(p[1]))) sliders[p[0]](parseFloat(p[1])); });\n"
    "document.querySelectorAll('#mics th').forEach(function(th, col) {\n"
    "  th.addEventListener('click', function() {\n"
    "    var body = document.querySelector('#mics tbody'), rows = Array.from(body.rows);\n"
    "    var up = th.dataset.up !== '1'; th.dataset.up = up ? '1' : '0';\n"
    "    rows.sort(function(a, b) {\n"
    "      var x = a.cells[col].textContent, y = b.cells[col].textContent, nx = parseFloat(x), ny = parseFloat(y);\n"
    "      var d = isNaN(nx) || isNaN(ny) ? x.localeCompare(y) : nx - ny; return up ? d : -d; });\n"
    "    rows.forEach(function(r) { body.appendChild(r); }); }); });\n"
    // A count of pictures that did not load, which the browser test (and a
    // person) can read off the body.
    "window.addEventListener('load', function() {\n"
    "  var imgs = Array.from(document.images), broken = imgs.filter(function(i) { return !i.naturalWidth; });\n"
    "  document.body.dataset.images = imgs.length; document.body.dataset.broken = broken.length;\n"
    "  broken.forEach(function(i) { console.error('picture did not load: ' + i.src); }); });\n";

std::string section(const Micrograph& m, size_t k, const Settings& s, const std::string& picture,
                    const std::string& apply_words) {
  const std::string id = std::to_string(k + 1);
  const Crop c = crop_region(m, s);
  const long shown = std::min<long>(512, std::max(m.nx, m.ny));
  const double view_w = m.nx >= m.ny ? shown : (double)shown * m.nx / m.ny;
  std::string h = "<section class=\"mic\" id=\"m" + id + "\" data-k=\"" + id + "\" data-cut=\"" +
                  html_escape(cut_text(m.cutoff)) + "\" data-mic=\"" + html_escape(shell_word(m.name)) +
                  "\" data-words=\"" + html_escape(apply_words) + "\"";
  const bool left_out = decoys_left_out(m);
  // At the automatic cut-off the script shows gvexreport's own count (taken
  // at the cut-off, not at the lowest kept score, and less the decoys on
  // edges left out); elsewhere it counts the decoys at the slider's score.
  if (m.decoys_found)
    h += " data-decoys=\"" + scores_attribute(m.decoys) + "\" data-decoys-auto=\"" +
         std::to_string(m.choice.decoys_above) + "\"";
  h += ">\n<h3>" + html_escape(m.name) + "</h3>\n<p class=\"why\"><b>Cut-off " + num("%.4f", m.cutoff) + "</b>" +
       (m.choice.why.empty() ? std::string(".") : ": " + html_escape(m.choice.why) + ".");
  if (m.decoys_found)
    h += " Decoys above it: " + std::to_string(m.choice.decoys_above) +
         (left_out ? " off the edges whose picks are left out" : "") +
         (m.choice.rule == "crowded" ? ", more than the false picks among the kept ones on a crowded micrograph."
                                     : ", an estimate of the false picks among the kept ones.");
  if (std::isfinite(m.cut_before) && m.choice.rule != "already-cut")
    h += " These picks were already cut at " + num("%.4f", m.cut_before) + (m.cut_recorded ? " (recorded)." : ".");
  h += "</p>\n";
  if (!m.picks.empty()) {
    h += "<div class=\"control\"><label>Cut-off <input type=\"range\" class=\"cut\" min=\"0\" max=\"0\" step=\"1\"></label> "
         "<b id=\"value-" + id + "\">" + html_escape(cut_text(m.cutoff)) + "</b> keeps <b id=\"kept-" + id + "\">" +
         std::to_string(count_kept(m)) + "</b> of " + std::to_string(m.picks.size()) + " picks";
    if (m.decoys_found)
      h += "; <span id=\"decoys-" + id + "\">" + std::to_string(m.choice.decoys_above) + "</span> of " +
           std::to_string(m.decoys.size()) + " decoys score as high" +
           (left_out ? " (at the automatic cut-off, less those on the edges left out)" : "");
    h += " <button class=\"auto\" type=\"button\">back to the automatic cut-off</button>"
         "<code class=\"cmd\" id=\"cmd-" + id + "\">gvexreport --apply --cutoff " + html_escape(cut_text(m.cutoff)) +
         (apply_words.empty() ? "" : " " + html_escape(apply_words)) + " " + html_escape(shell_word(m.name)) +
         "</code></div>\n";
  }
  h += "<div class=\"pics\">\n<figure><div class=\"stack\" style=\"width:" + num("%.0f", view_w) + "px\"><a href=\"" +
       html_escape(picture) + "\"><img src=\"" + html_escape(picture) + "\" alt=\"" + html_escape(m.name) + "\"></a>" +
       marks_svg(m, s, 0, 0, m.nx, m.ny) + "</div><figcaption>The whole micrograph; red shade: rejected areas" +
       (m.choice.edge_dropped > 0 ? "; dashed orange: picks left out as on strong edges" : "") + ".</figcaption>"
       "</figure>\n";
  h += "<figure><div class=\"stack\" style=\"width:" + std::to_string(c.side * c.zoom) + "px\"><img src=\"" +
       html_escape(crop_name(picture)) + "\" alt=\"crop of " + html_escape(m.name) + "\">" +
       marks_svg(m, s, (double)c.x0, (double)c.y0, (double)c.side, (double)c.side) + "</div><figcaption>" +
       std::to_string(c.side) + " x " + std::to_string(c.side) + " micrograph pixels from (" + std::to_string(c.x0) +
       ", " + std::to_string(c.y0) + "), where the best picks lie densest" +
       (c.zoom > 1 ? ", enlarged " + std::to_string(c.zoom) + " times" : ", at native resolution") +
       ".</figcaption></figure>\n";
  h += "<figure>" + histogram_svg(scores_of(m.picks), scores_of(m.decoys), m.decoys_found, m.cutoff, 320, 120) +
       "<figcaption>Scores of the picks (green: kept, grey: dropped)" +
       (m.decoys_found ? std::string("; orange: the decoys'") : std::string()) + "; red: the cut-off.</figcaption>"
       "</figure>\n</div>\n";
  if (!m.warnings.empty()) {
    h += "<ul class=\"warn\">";
    for (const std::string& w : m.warnings) h += "<li>" + html_escape(w) + "</li>";
    h += "</ul>\n";
  }
  return h + "</section>\n";
}

}  // namespace

Crop crop_region(const Micrograph& m, const Settings& s) {
  Crop c;
  const double d = s.diameter / s.apix;
  c.side = std::min<long>({std::max(128L, std::min(512L, std::lround(8 * d))), (long)m.nx, (long)m.ny});
  c.side = std::max(1L, c.side);
  c.zoom = std::max(1, std::min(4, (int)(512 / c.side)));
  // The window holding the most of the best quarter of the picks (at most
  // 2000 of them), centred on one of them; the centre when there are none.
  std::vector<const Pick*> best;
  for (const Pick& p : m.picks) best.push_back(&p);
  std::sort(best.begin(), best.end(), [](const Pick* a, const Pick* b) { return a->score > b->score; });
  best.resize(std::min<size_t>(best.size(), std::min<size_t>(2000, std::max<size_t>(10, best.size() / 4))));
  double cx = m.nx / 2.0, cy = m.ny / 2.0;
  long most = -1;
  for (const Pick* a : best) {
    long n = 0;
    for (const Pick* b : best) n += std::fabs(b->x - a->x) * 2 < c.side && std::fabs(b->y - a->y) * 2 < c.side;
    if (n > most) most = n, cx = a->x, cy = a->y;
  }
  c.x0 = std::max(0L, std::min((long)m.nx - c.side, std::lround(cx - c.side / 2.0)));
  c.y0 = std::max(0L, std::min((long)m.ny - c.side, std::lround(cy - c.side / 2.0)));
  return c;
}

std::string crop_name(const std::string& picture) {
  const std::string png = ".png";
  const bool ends = picture.size() >= png.size() && picture.compare(picture.size() - png.size(), png.size(), png) == 0;
  return (ends ? picture.substr(0, picture.size() - png.size()) : picture) + "_crop.png";
}

bool write_picture(const Micrograph& m, const Settings& s, const std::string& path) {
  return write_overview(m, path) && write_crop(m, s, crop_name(path));
}

std::string shell_word(const std::string& w) {
  const bool plain = !w.empty() && std::all_of(w.begin(), w.end(), [](char c) {
    return isalnum((unsigned char)c) || strchr("-_./=:,+@%", c);
  });
  if (plain) return w;
  std::string q = "'";
  for (char c : w) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

// A micrograph's row of the run's table; link: its section.
static std::string table_row(const Micrograph& m, const std::string& link) {
  const std::vector<double> sc = scores_of(m.picks);
  std::string warn;
  for (const std::string& w : m.warnings) warn += (warn.empty() ? "" : "; ") + html_escape(w);
  return "<tr><td class=\"name\"><a href=\"" + link + "\">" + html_escape(m.name) + "</a></td><td>" +
         std::to_string(sc.size()) + "</td><td>" + std::to_string(count_kept(m)) + "</td><td>" +
         (m.decoys_found ? std::to_string(m.choice.decoys_above) : std::string("-")) + "</td><td>" +
         (sc.empty() ? "-" : num("%.4f", quantile(sc, 0.5))) + "</td><td>" +
         (sc.empty() ? "-" : num("%.4f", quantile(sc, 0.9))) + "</td><td>" + num("%.3f", m.masked) + "</td><td>" +
         num("%.4f", m.cutoff) + "</td><td class=\"rule\">" + html_escape(m.choice.rule) + "</td><td class=\"warn\">" +
         warn + "</td></tr>\n";
}

std::string write_page(const std::vector<Micrograph>& mics, const std::vector<std::string>& pictures,
                       const Settings& s, double pooled, const std::string& path, const std::string& apply_words,
                       size_t per_page, size_t settled) {
  per_page = std::max<size_t>(1, per_page);
  const size_t pages = std::max<size_t>(1, (mics.size() + per_page - 1) / per_page);
  const size_t slash = path.rfind('/');
  const std::string dir = slash == std::string::npos ? "" : path.substr(0, slash + 1);
  auto file_of = [&](size_t p) { return p ? "page-" + std::to_string(p + 1) + ".html" : path.substr(dir.size()); };
  auto head = [&](const std::string& title) {
    return "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>gvexreport</title>\n<style>" +
           std::string(kStyle) + "</style></head>\n<body>\n<h1>" + title + "</h1>\n";
  };
  const std::string run_title =
      "Picks of " + std::to_string(mics.size()) + (mics.size() == 1 ? " micrograph" : " micrographs");
  auto first = [&](size_t p) { return std::to_string(p * per_page + 1); };
  auto last = [&](size_t p) { return std::to_string(std::min(mics.size(), (p + 1) * per_page)); };
  std::string nav;
  for (size_t p = 0; pages > 1 && p < pages; p++)
    nav += std::string(p ? "" : "<p class=\"pages\">Micrographs by page:") + " <a href=\"" + file_of(p) + "\">" +
           first(p) + "-" + last(p) + "</a>" + (p + 1 == pages ? "</p>\n" : "");
  // The other pages link only to the first and their neighbours: a page
  // stays as it is while the run grows past it.
  auto nav_of = [&](size_t p) {
    return "<p class=\"pages\"><a href=\"" + file_of(0) + "\">all micrographs</a>" +
           (p > 1 ? " <a href=\"" + file_of(p - 1) + "\">previous</a>" : std::string()) +
           (p + 1 < pages ? " <a href=\"" + file_of(p + 1) + "\">next</a>" : std::string()) + "</p>\n";
  };
  auto sections = [&](size_t p) {
    std::string h;
    for (size_t k = p * per_page; k < std::min(mics.size(), (p + 1) * per_page); k++)
      h += section(mics[k], k, s, pictures[k], apply_words);
    return h + "<script>\n" + std::string(kScript) + "</script>\n</body></html>\n";
  };
  std::vector<double> all, all_decoys;
  bool decoys = !mics.empty();
  for (const Micrograph& m : mics) {
    for (const Pick& p : m.picks) all.push_back(p.score);
    for (const Pick& p : m.decoys) all_decoys.push_back(p.score);
    decoys = decoys && decoys_for_all(m);
  }
  std::string h = head(run_title) + nav;
  if (!decoys)
    h += "<p class=\"note\">Some micrographs have no decoys: their cut-offs come from the scores alone and are less "
         "reliable. <code>gvexreport --pick</code> picks with decoys (the same templates with their contrast inverted, "
         "from the same scan), which show how noise scores on each micrograph, and chooses from them.</p>\n";
  h += std::string(std::isfinite(pooled) ? "<p>Suggested cut-off for the whole run: <b>--cc_cutoff " +
                                               num("%.4f", pooled) + "</b>."
                                         : "<p>No micrograph has picks: no cut-off to suggest.") +
       " Circles: picks at or above their micrograph's cut-off, blue (low score) to red (high); grey: below it. "
       "Each micrograph's slider tries other cut-offs and prints the command that keeps those picks.</p>\n"
       "<h2>Scores of all picks</h2>\n" +
       histogram_svg(all, all_decoys, decoys, pooled, 600, 150) + "\n";
  h += "<h2>Micrographs</h2>\n<table id=\"mics\"><thead><tr><th>Micrograph</th><th>Picks</th><th>Kept</th>"
       "<th>Decoys above</th><th>Median score</th><th>90th percentile</th><th>Masked</th><th>Cut-off</th>"
       "<th>Rule</th><th>Warnings</th></tr></thead><tbody>\n";
  for (size_t k = 0; k < mics.size(); k++)
    h += table_row(mics[k], (k < per_page ? std::string() : file_of(k / per_page)) + "#m" + std::to_string(k + 1));
  h += "</tbody></table>\n";
  if (!write_text(path, h + sections(0))) return path;
  for (size_t p = 1; p < pages; p++) {
    // Full of settled micrographs, and the next page was there to link to.
    const std::string file = dir + file_of(p);
    if (settled > (p + 1) * per_page && access(file.c_str(), F_OK) == 0) continue;
    if (!write_text(file, head("Micrographs " + first(p) + " to " + last(p)) + nav_of(p) + sections(p))) return file;
  }
  // A shorter run written here leaves no page of a longer one behind.
  size_t stale = pages;
  while (std::remove((dir + file_of(stale)).c_str()) == 0) stale++;
  return "";
}

bool write_summary_star(const std::vector<Micrograph>& mics, const std::string& path) {
  StarTable t;
  t.name = "micrographs";
  t.labels = {"rlnMicrographName", "gvexPickCount", "gvexKeptCount", "gvexMeanScore", "gvexMedianScore",
              "gvexMaskedFraction", "gvexSuggestedCutoff", "gvexCutoffRule", "gvexDecoysAboveCutoff"};
  char num[64];
  auto fmt = [&](const char* f, double v) {
    snprintf(num, sizeof num, f, v);
    return std::string(num);
  };
  for (const Micrograph& m : mics) {
    const std::vector<double> v = scores_of(m.picks);
    double mean = 0;
    for (double x : v) mean += x / v.size();
    t.rows.push_back({m.name, std::to_string(v.size()), std::to_string(count_kept(m)),
                      fmt("%.6f", v.empty() ? 0.0 : mean), fmt("%.6f", v.empty() ? 0.0 : quantile(v, 0.5)),
                      fmt("%.4f", m.masked), fmt("%.6f", m.cutoff), m.choice.rule, std::to_string(m.choice.decoys_above)});
  }
  PartFile f(path.c_str(), "w");
  return f.fp() && fputs("# gvexreport: one row per micrograph\n", f.fp()) >= 0 && star_write(f.fp(), t) && f.commit();
}
