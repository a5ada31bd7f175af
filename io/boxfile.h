// Coordinate files: EMAN .box (with the picker's extra columns) and RELION
// .star, read into PTCL_BOX records and written in the picker's layouts.
#pragma once
#include <cstdio>

#include "common/hd.h"
#include "common/records.h"

// Most records one call clears, writes or reads.
constexpr long GVEX_MAX_PTCLS = 10000000;

PTCL_BOX one_new_ptcl_box();
// Zeroes min(n, 10,000,000) records; warns "Too many particle numbers!" above.
void empty_all_ptcl_boxes(PTCL_BOX* boxes, long n);

// 1 for ".star", 2 for ".box", else 0.
int get_boxf_suffixf(const char* name);
// Fills up to max records (max <= 0 reads nothing) and returns their number.
int read_all_ptcl_boxes(PTCL_BOX* boxes, int max, const char* name);

// ---- STAR tables ----
constexpr int STAR_MAX_LABELS = 512;
constexpr int STAR_LABEL_LEN = 256;

struct StarHead {
  int n;                                         // labels read
  int col[STAR_MAX_LABELS];                      // 1-based column after "#"
  char label[STAR_MAX_LABELS][STAR_LABEL_LEN];  // label texts
};

// 1-based column of each label (0 when the table lacks it).
struct ParticleInfoIndex {
  int Bfactor, MicrographName, ImageName, CoordinateX, CoordinateY, Voltage, PhaseShift, DefocusU, DefocusV,
      DefocusAngle, SphericalAberration, DetectorPixelSize, Magnification, AmplitudeContrast, CtfFigureOfMerit,
      CtfMaxResolution, ClassNumber, GroupNumber, RandomSubset, NormCorrection, OriginX, OriginY, AngleRot,
      AngleTilt, AnglePsi, LogLikeliContribution, NrOfSignificantSamples, MaxValueProbDistribution,
      AutopickFigureOfMerit;
};

StarHead* star_head_new();                   // zeroed; release with free()
ParticleInfoIndex* particle_info_index_new();  // zeroed; release with free()
// Returns the number of labels read.
int star_read_head(FILE* fp, StarHead* head);
void set_info_index_from_star_head(const StarHead* head, ParticleInfoIndex* index);
// Leaves fp at the start of data line n (0-based) after the header.
int star_set_pointer(FILE* fp, int n);

// ---- writers ----
void output_starbox_head(FILE* fp);
void output_starbox_head_XYonly(FILE* fp);
// Per-template pick lists: peaks are pixel indices y*nx+x of an nx-wide
// image (0 = none); only boxes strictly inside the image are written.
int output_vexmatch_coord_one_temp(FILE* fp, const unsigned int* peaks, const float* cc, const float* psi, int temp,
                                   int n, int nx, int ny, int box);
// Rejected grid cells; format 1 writes STAR, anything else box lines.
int output_ice_coord(const char* path, const unsigned int* grid, const float* cell_ave, const float* cell_sigma,
                     int nx, int ny, int2 origin, int c, int shrink, int format);
