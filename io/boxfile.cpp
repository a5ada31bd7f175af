#include "io/boxfile.h"

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "common/atomic_file.h"
#include "common/errors.h"
#include "common/owned.h"
#include "common/regular_file.h"
#include "io/io_messages.h"
#include "io/star_keywords.h"

namespace {

const char* const gvex_module = "boxfile";

// Separators of the coordinate readers and of the STAR header reader.
const char* const WORD_SEPS = " \t\n\r\v\f";
const char* const HEAD_SEPS = " \t\n\r";

// Splits line in place into at most max words; later words are ignored.
int split_words(char* line, char** words, int max, const char* seps) {
  int n = 0;
  char* p = line;
  while (n < max) {
    p += strspn(p, seps);
    if (*p == '\0') break;
    words[n++] = p;
    p += strcspn(p, seps);
    if (*p == '\0') break;
    *p++ = '\0';
  }
  return n;
}

// Integer parse as atoi reads it (leading blanks, sign, digits, anything
// after ignored), saturated to the int range instead of overflowing.
int parse_int(const char* s) {
  const long v = strtol(s, nullptr, 10);
  if (v > INT_MAX) return INT_MAX;
  if (v < INT_MIN) return INT_MIN;
  return (int)v;
}

// Decimal parse as atof reads it; magnitudes beyond float become infinities.
float parse_float(const char* s) {
  const double v = strtod(s, nullptr);
  if (v > FLT_MAX) return INFINITY;
  if (v < -FLT_MAX) return -INFINITY;
  return (float)v;
}

// One whole line of any length; false at end of file.
struct LineReader {
  char* buf = nullptr;
  size_t cap = 0;
  ~LineReader() { free(buf); }
  bool next(FILE* fp) { return getline(&buf, &cap, fp) >= 0; }
};

bool starts_with(const char* s, const char* prefix) { return strncmp(s, prefix, strlen(prefix)) == 0; }

// How a line counts while the STAR header is read.
enum class StarLine { Skip, Label, End };

StarLine classify_star_line(char* line, char** words, int& nw) {
  nw = split_words(line, words, 2, HEAD_SEPS);
  if (nw == 0 || starts_with(words[0], "data_") || starts_with(words[0], "loop_")) return StarLine::Skip;
  if (nw == 2 && words[1][0] == '#' && is_star_head_keyword(words[0])) return StarLine::Label;
  return StarLine::End;
}

// Header lines read at most.
constexpr int STAR_HEAD_LINES = 512;

int read_box_records(FILE* fp, PTCL_BOX* boxes, int max) {
  LineReader line;
  char* w[7];
  int n = 0;
  while (n < max && line.next(fp)) {
    const int nw = split_words(line.buf, w, 7, WORD_SEPS);
    if (nw == 0) continue;
    if (nw < 4) gvex_fatal("read_all_ptcl_boxes", gvex_module, __LINE__, "unrecognized box format");
    PTCL_BOX& b = boxes[n++];
    b = one_new_ptcl_box();
    b.x = parse_int(w[0]);
    b.y = parse_int(w[1]);
    b.bx = parse_int(w[2]);
    b.by = parse_int(w[3]);
    if (nw >= 5) b.cc = parse_float(w[4]);
    if (nw >= 6) b.cls = parse_int(w[5]);
    if (nw >= 7) b.psi = parse_float(w[6]);
  }
  return n;
}

// A used column must lie among the labels: rows are split into as many
// words as there are labels.
void check_star_column(int col, const char* label, int nlabels, bool required, const char* name) {
  if (col <= 0) {
    if (required)
      io_fatalf("read_all_ptcl_boxes", gvex_module, __LINE__, "STAR file %s has no %s column", name, label);
    return;
  }
  if (col > nlabels)
    io_fatalf("read_all_ptcl_boxes", gvex_module, __LINE__, "STAR file %s gives %s column %d but has only %d labels", name,
              label, col, nlabels);
}

int read_star_records(FILE* fp, PTCL_BOX* boxes, int max, const char* name) {
  Owned<StarHead> head(star_head_new());
  Owned<ParticleInfoIndex> idx(particle_info_index_new());
  star_read_head(fp, head.get());
  set_info_index_from_star_head(head.get(), idx.get());
  const int nl = head->n;
  check_star_column(idx->CoordinateX, "_rlnCoordinateX", nl, true, name);
  check_star_column(idx->CoordinateY, "_rlnCoordinateY", nl, true, name);
  check_star_column(idx->AutopickFigureOfMerit, "_rlnAutopickFigureOfMerit", nl, false, name);
  check_star_column(idx->ClassNumber, "_rlnClassNumber", nl, false, name);
  check_star_column(idx->AnglePsi, "_rlnAnglePsi", nl, false, name);
  const ParticleInfoIndex ix = *idx;

  star_set_pointer(fp, 0);
  Owned<char*> words((char**)malloc(sizeof(char*) * (size_t)nl));
  char** w = words.get();
  if (!w) io_fatalf("read_all_ptcl_boxes", gvex_module, __LINE__, "cannot allocate the columns of %s", name);
  LineReader line;
  int n = 0;
  while (n < max && line.next(fp)) {
    const int nw = split_words(line.buf, w, nl, WORD_SEPS);
    if (nw == 0 || nw < nl) continue;
    // A label or comment line after the header is not a particle.
    if (w[0][0] == '_' || w[0][0] == '#') continue;
    PTCL_BOX& b = boxes[n++];
    b = one_new_ptcl_box();
    b.x = parse_int(w[ix.CoordinateX - 1]);
    b.y = parse_int(w[ix.CoordinateY - 1]);
    if (ix.AutopickFigureOfMerit > 0) b.cc = parse_float(w[ix.AutopickFigureOfMerit - 1]);
    if (ix.ClassNumber > 0) b.cls = parse_int(w[ix.ClassNumber - 1]);
    // Whole degrees from a STAR file, unlike the .box path.
    if (ix.AnglePsi > 0) b.psi = (float)parse_int(w[ix.AnglePsi - 1]);
  }
  return n;
}

// Position of a peak index in an nx-wide image, and whether a box of half
// size h around it lies strictly inside nx x ny.
bool peak_inside(unsigned int p, int nx, int ny, int h, long& x, long& y) {
  x = (long)(p % (unsigned int)nx);
  y = (long)(p / (unsigned int)nx);
  return h < x && x < (long)nx - h && h < y && y < (long)ny - h;
}

}  // namespace

PTCL_BOX one_new_ptcl_box() {
  PTCL_BOX b;
  memset(&b, 0, sizeof b);
  return b;
}

void empty_all_ptcl_boxes(PTCL_BOX* boxes, long n) {
  if (n > GVEX_MAX_PTCLS) {
    gvex_warning("empty_all_ptcl_boxes", gvex_module, __LINE__, "Too many particle numbers");
    n = GVEX_MAX_PTCLS;
  }
  if (n > 0) memset(boxes, 0, sizeof(PTCL_BOX) * (size_t)n);
}

int get_boxf_suffixf(const char* name) {
  const size_t len = strlen(name);
  if (len >= 5 && strcmp(name + len - 5, ".star") == 0) return 1;
  if (len >= 4 && strcmp(name + len - 4, ".box") == 0) return 2;
  return 0;
}

int read_all_ptcl_boxes(PTCL_BOX* boxes, int max, const char* name) {
  const char* what = "";
  OwnedFile file(gvex_open_regular(name, &what));
  FILE* fp = file.get();
  if (!fp && *what) gvex_not_a_file("coordinate file", name, what, "read_all_ptcl_boxes", gvex_module, __LINE__);
  if (!fp) gvex_open_read_failed(name, "read_all_ptcl_boxes", gvex_module, __LINE__);
  if (max > 0) empty_all_ptcl_boxes(boxes, max);
  const int kind = get_boxf_suffixf(name);
  int n = 0;
  if (kind == 0) {
    gvex_warning("read_all_ptcl_boxes", gvex_module, __LINE__,
                 "unrecognized box file format, only EMAN .box and Relion .star file are supported now.");
  } else if (max > 0) {
    const int cap = max > GVEX_MAX_PTCLS ? (int)GVEX_MAX_PTCLS : max;
    n = kind == 2 ? read_box_records(fp, boxes, cap) : read_star_records(fp, boxes, cap, name);
  }
  return n;
}

// ---------------------------------------------------------------------------
// STAR tables

StarHead* star_head_new() {
  StarHead* h = (StarHead*)calloc(1, sizeof(StarHead));
  if (!h) GVEX_FAIL("cannot allocate a STAR header");
  return h;
}

ParticleInfoIndex* particle_info_index_new() {
  ParticleInfoIndex* p = (ParticleInfoIndex*)calloc(1, sizeof(ParticleInfoIndex));
  if (!p) GVEX_FAIL("cannot allocate a STAR column index");
  return p;
}

int star_read_head(FILE* fp, StarHead* head) {
  memset(head, 0, sizeof(StarHead));
  rewind(fp);
  LineReader line;
  char* w[2];
  for (int i = 0; i < STAR_HEAD_LINES && line.next(fp); i++) {
    int nw = 0;
    const StarLine kind = classify_star_line(line.buf, w, nw);
    if (kind == StarLine::Skip) continue;
    if (kind == StarLine::End) break;
    if (head->n < STAR_MAX_LABELS) {
      head->col[head->n] = parse_int(w[1] + 1);
      // Known labels are shorter than an entry, so the copy is whole.
      strncpy(head->label[head->n], w[0], STAR_LABEL_LEN - 1);
      head->n++;
    }
  }
  return head->n;
}

void set_info_index_from_star_head(const StarHead* head, ParticleInfoIndex* index) {
  struct Entry {
    const char* label;
    int ParticleInfoIndex::*field;
  };
  static const Entry entries[] = {
      {"_rlnBfactor", &ParticleInfoIndex::Bfactor},
      {"_rlnMicrographName", &ParticleInfoIndex::MicrographName},
      {"_rlnImageName", &ParticleInfoIndex::ImageName},
      {"_rlnCoordinateX", &ParticleInfoIndex::CoordinateX},
      {"_rlnCoordinateY", &ParticleInfoIndex::CoordinateY},
      {"_rlnVoltage", &ParticleInfoIndex::Voltage},
      {"_rlnPhaseShift", &ParticleInfoIndex::PhaseShift},
      {"_rlnDefocusU", &ParticleInfoIndex::DefocusU},
      {"_rlnDefocusV", &ParticleInfoIndex::DefocusV},
      {"_rlnDefocusAngle", &ParticleInfoIndex::DefocusAngle},
      {"_rlnSphericalAberration", &ParticleInfoIndex::SphericalAberration},
      {"_rlnDetectorPixelSize", &ParticleInfoIndex::DetectorPixelSize},
      {"_rlnMagnification", &ParticleInfoIndex::Magnification},
      {"_rlnAmplitudeContrast", &ParticleInfoIndex::AmplitudeContrast},
      {"_rlnCtfFigureOfMerit", &ParticleInfoIndex::CtfFigureOfMerit},
      {"_rlnCtfMaxResolution", &ParticleInfoIndex::CtfMaxResolution},
      {"_rlnClassNumber", &ParticleInfoIndex::ClassNumber},
      {"_rlnGroupNumber", &ParticleInfoIndex::GroupNumber},
      {"_rlnRandomSubset", &ParticleInfoIndex::RandomSubset},
      {"_rlnNormCorrection", &ParticleInfoIndex::NormCorrection},
      {"_rlnOriginX", &ParticleInfoIndex::OriginX},
      {"_rlnOriginY", &ParticleInfoIndex::OriginY},
      {"_rlnAngleRot", &ParticleInfoIndex::AngleRot},
      {"_rlnAngleTilt", &ParticleInfoIndex::AngleTilt},
      {"_rlnAnglePsi", &ParticleInfoIndex::AnglePsi},
      {"_rlnLogLikeliContribution", &ParticleInfoIndex::LogLikeliContribution},
      {"_rlnNrOfSignificantSamples", &ParticleInfoIndex::NrOfSignificantSamples},
      {"_rlnMaxValueProbDistribution", &ParticleInfoIndex::MaxValueProbDistribution},
      {"_rlnAutopickFigureOfMerit", &ParticleInfoIndex::AutopickFigureOfMerit},
  };
  memset(index, 0, sizeof(ParticleInfoIndex));
  for (int i = 0; i < head->n; i++)
    for (const Entry& e : entries)
      if (strcmp(head->label[i], e.label) == 0) index->*e.field = head->col[i];
}

int star_set_pointer(FILE* fp, int n) {
  rewind(fp);
  LineReader line;
  char* w[2];
  long start = ftell(fp);
  for (int i = 0; i < STAR_HEAD_LINES; i++) {
    start = ftell(fp);
    if (!line.next(fp)) break;
    int nw = 0;
    if (classify_star_line(line.buf, w, nw) == StarLine::End) break;
    start = ftell(fp);
  }
  if (fseek(fp, start, SEEK_SET) != 0) return -1;
  for (int i = 0; i < n; i++)
    if (!line.next(fp)) return -1;
  return 0;
}

// ---------------------------------------------------------------------------
// writers

void output_starbox_head(FILE* fp) {
  rewind(fp);
  fprintf(fp, "\ndata_\n");
  fprintf(fp, "\nloop_\n");
  fprintf(fp, "_rlnCoordinateX #1\n");
  fprintf(fp, "_rlnCoordinateY #2\n");
  fprintf(fp, "_rlnAnglePsi #3\n");
  fprintf(fp, "_rlnClassNumber #4\n");
  fprintf(fp, "_rlnAutopickFigureOfMerit #5\n");
}

void output_starbox_head_XYonly(FILE* fp) {
  rewind(fp);
  fprintf(fp, "\ndata_\n");
  fprintf(fp, "\nloop_\n");
  fprintf(fp, "_rlnCoordinateX #1\n");
  fprintf(fp, "_rlnCoordinateY #2\n");
}

int output_vexmatch_coord_one_temp(FILE* fp, const unsigned int* peaks, const float* cc, const float* psi, int temp,
                                   int n, int nx, int ny, int box) {
  if (nx <= 0) return 0;
  const int h = box / 2;
  int written = 0;
  for (int i = 0; i < n; i++) {
    long x = 0, y = 0;
    if (peaks[i] == 0 || !peak_inside(peaks[i], nx, ny, h, x, y)) continue;
    fprintf(fp, "%-8d%-8d%-8d%-8d%-8.6f\t%-8d\t%-8.3f\n", (int)(x - h), (int)(y - h), box, box, cc[i], temp, psi[i]);
    written++;
  }
  return written;
}

int output_ice_coord(const char* path, const unsigned int* grid, const float* cell_ave, const float* cell_sigma,
                     int nx, int ny, int2 origin, int c, int shrink, int format) {
  PartFile file(path, "w");
  FILE* fp = file.fp();
  if (!fp) gvex_open_write_failed(path, "output_ice_coord", "vexmatch56", 1607);
  if (c <= 0 || nx <= 0 || ny <= 0)
    io_fatalf("output_ice_coord", "vexmatch56", __LINE__, "grid of %d x %d pixels with cell size %d for %s", nx, ny,
              c, path);
  if (format == 1) output_starbox_head_XYonly(fp);
  const long cells = (long)((nx + (long)c - 1) / c) * (long)((ny + (long)c - 1) / c);
  const int h = c / 2;
  for (long i = 0; i < cells; i++) {
    long x = 0, y = 0;
    if (grid[i] == 0 || !peak_inside(grid[i], nx, ny, h, x, y)) continue;
    // Both coordinates take the x component of the origin.
    if (format == 1)
      fprintf(fp, "%-8d%-8d\n", (int)(x * shrink + origin.x), (int)(y * shrink + origin.x));
    else
      fprintf(fp, "%-8d%-8d%-8d%-8d\t%-8.6f\t%-8.6f\n", (int)((x - h) * shrink + origin.x),
              (int)((y - h) * shrink + origin.x), (int)((long)c * shrink), (int)((long)c * shrink), cell_ave[i], cell_sigma[i]);
  }
  if (!file.commit()) io_write_failed(path, "output_ice_coord", "vexmatch56", __LINE__);
  return 0;
}
