// MRC image files: the 1024-byte header record, readers that hand out 32-bit
// floats (modes 0, 1, 2 and 6; 12 on request) and writers of mode-2 float images and stacks.
// Files are read and written in the host's little-endian byte order; pixel
// data always start at byte 1024.
//
// Headers that cannot describe the file they come from (sizes zero or
// negative, sizes that overflow or need more bytes than the file holds,
// big-endian files) end the process with a line naming the file, so that no
// caller ever allocates from or reads with such sizes.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "common/hd.h"

struct MRC_HEAD {
  int32_t nx, ny, nz;              //   0 columns, rows, sections
  int32_t mode;                    //  12 pixel type
  int32_t nxstart, nystart, nzstart;  // 16
  int32_t mx, my, mz;              //  28 sampling
  float xlen, ylen, zlen;          //  40 cell size
  float alpha, beta, gamma;        //  52 cell angles
  int32_t mapc, mapr, maps;        //  64 axes of columns, rows, sections
  float amin, amax, amean;         //  76 pixel statistics
  int16_t ispg;                    //  88 space group
  int16_t nsymbt;                  //  90 extended-header bytes (never skipped)
  int32_t next;                    //  92
  int16_t creatid;                 //  96
  char extra[30];                  //  98
  char extra2[68];                 // 128
  float xorigin, yorigin, zorigin;  // 196
  char map[4];                     // 208 "MAP "
  unsigned char machst[4];         // 212 machine stamp
  int32_t nlabl;                   // 216
  float rms;                       // 220
  char labels[10][80];             // 224
};
static_assert(sizeof(MRC_HEAD) == 1024, "MRC_HEAD is one 1024-byte block");
static_assert(offsetof(MRC_HEAD, mode) == 12, "mode at 12");
static_assert(offsetof(MRC_HEAD, xlen) == 40, "cell at 40");
static_assert(offsetof(MRC_HEAD, mapc) == 64, "axes at 64");
static_assert(offsetof(MRC_HEAD, amin) == 76, "statistics at 76");
static_assert(offsetof(MRC_HEAD, ispg) == 88, "ispg at 88");
static_assert(offsetof(MRC_HEAD, nsymbt) == 90, "nsymbt at 90");
static_assert(offsetof(MRC_HEAD, next) == 92, "next at 92");
static_assert(offsetof(MRC_HEAD, creatid) == 96, "creatid at 96");
static_assert(offsetof(MRC_HEAD, extra) == 98, "extra at 98");
static_assert(offsetof(MRC_HEAD, extra2) == 128, "extra2 at 128");
static_assert(offsetof(MRC_HEAD, xorigin) == 196, "origin at 196");
static_assert(offsetof(MRC_HEAD, map) == 208, "map at 208");
static_assert(offsetof(MRC_HEAD, machst) == 212, "machine stamp at 212");
static_assert(offsetof(MRC_HEAD, nlabl) == 216, "nlabl at 216");
static_assert(offsetof(MRC_HEAD, rms) == 220, "rms at 220");
static_assert(offsetof(MRC_HEAD, labels) == 224, "labels at 224");

// ---- header handling ----
MRC_HEAD* mrc_new_head();  // filled by mrc_init_head; release with mrc_delete_head
void mrc_init_head(MRC_HEAD* head);
void mrc_delete_head(MRC_HEAD* head);
void mrc_set_head_stmp(MRC_HEAD* head);  // "MAP " and "DA\0\0"
void mrc_set_head_mode(MRC_HEAD* head, int mode);
void mrc_set_head_xyz(MRC_HEAD* head, int nx, int ny, int nz);
void mrc_set_head_xyz_mode(MRC_HEAD* head, int nx, int ny, int nz, int mode);
void mrc_set_head_mmm_from_data(MRC_HEAD* head, const float* data, unsigned long n);

// ---- modes ----
// Bytes per stored element (0 for a mode without a known size).
int mrc_mode_element_size(int mode);
// True for the modes converted to floats: 0, 1, 2 and 6, and 12 (float16)
// for a caller that asks for it (gvexmatch itself keeps refusing it). Slice
// readers leave their output untouched for any other mode, so callers that
// need pixels ask this first.
bool mrc_mode_is_readable(int mode, bool float16 = false);
const char* mrc_mode_name(int mode);
const char* mrc_get_head_mode(const MRC_HEAD* head);

// ---- reading from an open stream ----
long get_file_size(FILE* fp);  // the stream position is kept
// Reads the 1024 bytes (rewinding first); an unstamped header is stamped in
// memory. Fatal for a header that cannot describe the file. Returns 0.
int mrc_read_head(FILE* fp, MRC_HEAD* head);
// 0 when the file is exactly 1024 + element size x nx x ny x nz bytes.
int mrc_check_fsize(FILE* fp, const MRC_HEAD* head);
// One plane along axis 'x', 'y' or 'z' (either case); n is the plane number.
// float16: mode 12 is read too.
int mrc_read_slice(FILE* fp, const MRC_HEAD* head, int n, char axis, float* out, bool float16 = false);
// Every z plane at once, converted as the slice reader converts them.
int mrc_read_stack(FILE* fp, const MRC_HEAD* head, float* out);

// ---- reading by file name (open failures are fatal) ----
MRC_HEAD* get_mrcf_head(const char* name);
float* get_mrcf_data_all(const char* name);            // caller frees
int mrcf_read_head(const char* name, MRC_HEAD* head);
long get_mrcf_dim_size(const char* name, const char* key);
// 0 when sizes and mode agree; otherwise prints both headers and exits 1.
int check_mrc_head_sizes_two(const char* name1, const char* name2, const MRC_HEAD* head1, const MRC_HEAD* head2);

// ---- writing (mode 2 only; statistics are recomputed from the data) ----
int mrc_write_head(FILE* fp, const MRC_HEAD* head);
int mrc_write_head_data(FILE* fp, MRC_HEAD* head, const float* data);
int mrcf_write_xyz_data(const char* name, const float* data, int nx, int ny, int nz);
// The same, naming func in its failure lines (for writers of other data,
// such as the device images of match/write_image.h).
int mrcf_write_xyz_data_as(const char* name, const float* data, int nx, int ny, int nz, const char* func);

// ---- file names ----
int get_micrograph_suffixn(const char* name);  // 4 ".mrc", 5 ".mrcs", else 0
// out (GVEX_NAME_LEN bytes) = in without ".mrc"/".mrcs" + suffix; a result
// that does not fit is fatal, naming the file.
void set_outname_by_suffix(char* out, const char* in, const char* suffix);

// ---- square views ----
