#include "io/mrcfile.h"

#include <strings.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "common/atomic_file.h"
#include "common/owned.h"
#include "common/regular_file.h"
#include "common/errors.h"
#include "common/records.h"
#include "common/hm_math.h"
#include "io/io_messages.h"

namespace {

const char* const gvex_module = "mrcfile";
constexpr long HEAD_BYTES = 1024;
constexpr size_t NAME_BUF = 4096;

// The stamp "MAP " and the little-endian machine stamp "DA\0\0".
const char STAMP[8] = {'M', 'A', 'P', ' ', 'D', 'A', 0, 0};

bool stamped(const MRC_HEAD* head) {
  return head->map[0] == 'M' && head->map[1] == 'A' && head->map[2] == 'P';
}

// Element size used to bound the data a header claims: unknown modes count
// one byte per element, which no real file of such a mode undercuts.
long bound_element_size(int mode) {
  const int s = mrc_mode_element_size(mode);
  return s > 0 ? s : 1;
}

const char* element_words(int mode) {
  switch (mode) {
    case 0: return "bytes";
    case 1: return "shorts";
    case 2: return "floats";
    case 6: return "unsigned shorts";
    case 12: return "half floats";
    default: return "elements";
  }
}

// nx * ny * nz * esize in bytes; false on overflow or a size below 1.
bool data_bytes(const MRC_HEAD* head, long esize, long& bytes) {
  if (head->nx <= 0 || head->ny <= 0 || head->nz <= 0) return false;
  long v = 0;
  if (__builtin_mul_overflow((long)head->nx, (long)head->ny, &v)) return false;
  if (__builtin_mul_overflow(v, (long)head->nz, &v)) return false;
  if (__builtin_mul_overflow(v, esize, &v)) return false;
  if (v > LONG_MAX - HEAD_BYTES) return false;
  bytes = v;
  return true;
}

// A header must describe the file it comes from: little-endian, positive
// sizes, and no more data than the file holds. Anything else ends the run
// here rather than in a huge allocation or a read of garbage.
void check_head_describes_file(const MRC_HEAD* head, FILE* fp, const char* name, const char* func, int line) {
  if (head->machst[0] == 0x11)
    io_fatalf(func, gvex_module, line,
              "file %s is stored in big-endian byte order (machine stamp 0x11), only little-endian MRC files "
              "can be read",
              name);
  if (head->nx <= 0 || head->ny <= 0 || head->nz <= 0)
    io_fatalf(func, gvex_module, line, "file %s has the invalid image size %d x %d x %d in its header", name, head->nx,
              head->ny, head->nz);
  long bytes = 0;
  if (!data_bytes(head, bound_element_size(head->mode), bytes))
    io_fatalf(func, gvex_module, line, "file %s has the impossible image size %d x %d x %d (mode %d) in its header", name,
              head->nx, head->ny, head->nz, head->mode);
  const long fsize = get_file_size(fp);
  if (fsize >= 0 && fsize - HEAD_BYTES < bytes) {
    if (mrc_mode_element_size(head->mode) > 0)
      io_fatalf(func, gvex_module, line,
                "file %s is too short for its header: %d x %d x %d %s need %ld data bytes, the file holds %ld", name,
                head->nx, head->ny, head->nz, element_words(head->mode), bytes,
                fsize > HEAD_BYTES ? fsize - HEAD_BYTES : 0L);
    io_fatalf(func, gvex_module, line, "file %s is too short for its header: %d x %d x %d elements of unknown mode %d",
              name, head->nx, head->ny, head->nz, head->mode);
  }
}

void read_head_named(FILE* fp, MRC_HEAD* head, const char* name, const char* func, int line) {
  if (ftell(fp) != 0) rewind(fp);
  if (fread(head, HEAD_BYTES, 1, fp) != 1)
    io_fatalf(func, gvex_module, line, "file %s is too short for an MRC header of 1024 bytes", name);
  // Old files without the stamp are accepted and stamped in memory.
  if (!stamped(head)) mrc_set_head_stmp(head);
  check_head_describes_file(head, fp, name, func, line);
}

// ---- element conversion ----
// IEEE 754 binary16 to float: every half value is exact in a float.
float half_to_float(uint16_t h) {
  const uint32_t sign = (uint32_t)(h & 0x8000u) << 16, exp = (h >> 10) & 0x1fu, frac = h & 0x3ffu;
  uint32_t bits;
  if (exp == 0x1fu) {
    bits = sign | 0x7f800000u | (frac << 13);  // infinity, NaN
  } else if (exp != 0) {
    bits = sign | ((exp + 112u) << 23) | (frac << 13);
  } else if (frac == 0) {
    bits = sign;  // signed zero
  } else {
    // Subnormal: frac x 2^-24, exact in a float.
    const float v = (float)frac * 5.9604644775390625e-8f;
    memcpy(&bits, &v, 4);
    bits |= sign;
  }
  float f;
  memcpy(&f, &bits, 4);
  return f;
}

// Bytes of one stored element as the readers take it: mode 12 only for a
// caller that reads float16.
long stored_size(int mode, bool float16) { return float16 && mode == 12 ? 2 : mrc_mode_element_size(mode); }

template <class T>
T from_float(float v) {
  if constexpr (std::is_same<T, unsigned char>::value) {
    if (!(v > 0.0f)) return 0;  // NaN too
    if (v >= 255.0f) return 255;
    return (unsigned char)v;
  } else {
    return (T)v;
  }
}

template <class T>
T from_int(int v) {
  return static_cast<T>(v);  // unsigned char keeps the low byte
}

// Converts count stored elements of a readable mode. Mode 6 is taken as
// unsigned by the slice readers and as signed by the whole-file readers.
template <class T>
void convert(const unsigned char* raw, int mode, bool mode6_unsigned, size_t count, T* out) {
  switch (mode) {
    case 0:
      for (size_t i = 0; i < count; i++) out[i] = from_int<T>(raw[i]);
      break;
    case 1:
      for (size_t i = 0; i < count; i++) {
        int16_t v;
        memcpy(&v, raw + 2 * i, 2);
        out[i] = from_int<T>(v);
      }
      break;
    case 6:
      for (size_t i = 0; i < count; i++) {
        if (mode6_unsigned) {
          uint16_t v;
          memcpy(&v, raw + 2 * i, 2);
          out[i] = from_int<T>(v);
        } else {
          int16_t v;
          memcpy(&v, raw + 2 * i, 2);
          out[i] = from_int<T>(v);
        }
      }
      break;
    case 2:
      for (size_t i = 0; i < count; i++) {
        float v;
        memcpy(&v, raw + 4 * i, 4);
        out[i] = from_float<T>(v);
      }
      break;
    case 12:  // reached only through a float16 reader (stored_size)
      for (size_t i = 0; i < count; i++) {
        uint16_t v;
        memcpy(&v, raw + 2 * i, 2);
        out[i] = from_float<T>(half_to_float(v));
      }
      break;
    default:
      break;
  }
}

// Reads count elements at the current position into out; false on a short read.
template <class T>
bool read_elements(FILE* fp, int mode, bool mode6_unsigned, size_t count, T* out) {
  if (count == 0) return true;
  if constexpr (std::is_same<T, float>::value) {
    if (mode == 2) return fread(out, sizeof(float), count, fp) == count;
  }
  const size_t es = (size_t)stored_size(mode, true);
  std::vector<unsigned char> raw(es * count);
  if (fread(raw.data(), es, count, fp) != count) return false;
  convert(raw.data(), mode, mode6_unsigned, count, out);
  return true;
}

[[noreturn]] void read_failed(const char* name, const char* func, int line) {
  io_fatalf(func, gvex_module, line, "reading file %s failed", name);
}

template <class T>
int read_slice_named(FILE* fp, const MRC_HEAD* head, int n, char axis, T* out, bool float16, const char* name,
                     const char* func, int line) {
  if (!mrc_mode_is_readable(head->mode, float16)) return 0;  // output left as it is
  const char a = (char)(axis | 0x20);               // lower case
  if (a != 'x' && a != 'y' && a != 'z') return 0;
  long bytes = 0;
  if (!data_bytes(head, 1, bytes))
    io_fatalf(func, gvex_module, line, "file %s has the invalid image size %d x %d x %d in its header", name, head->nx,
              head->ny, head->nz);
  const long nx = head->nx, ny = head->ny, nz = head->nz;
  const long es = stored_size(head->mode, float16);
  const long fsize = get_file_size(fp);
  const long planes = a == 'z' ? nz : (a == 'y' ? ny : nx);
  if (n < 0 || n >= planes)
    io_fatalf(func, gvex_module, line, "file %s has no plane %d along %c (it holds %ld)", name, n, a, planes);
  // Last byte the plane needs; the products fit because nx*ny*nz does.
  long end = 0;
  if (a == 'z')
    end = HEAD_BYTES + ((long)n + 1) * nx * ny * es;
  else if (a == 'y')
    end = HEAD_BYTES + (nx * ny * (nz - 1) + nx * n + nx) * es;
  else
    end = HEAD_BYTES + ((ny * nz - 1) * nx + n + 1) * es;
  if (fsize >= 0 && fsize < end) {
    if (a == 'z')
      io_fatalf(func, gvex_module, line, "file %s is too short for image %d of %ld x %ld %s", name, n, nx, ny,
                element_words(head->mode));
    io_fatalf(func, gvex_module, line, "file %s is too short for plane %d along %c of %s", name, n, a,
              element_words(head->mode));
  }
  bool ok = true;
  if (a == 'z') {
    ok = fseek(fp, HEAD_BYTES + (long)n * nx * ny * es, SEEK_SET) == 0 &&
         read_elements(fp, head->mode, true, (size_t)(nx * ny), out);
  } else if (a == 'y') {
    for (long z = 0; z < nz && ok; z++)
      ok = fseek(fp, HEAD_BYTES + (nx * ny * z + nx * n) * es, SEEK_SET) == 0 &&
           read_elements(fp, head->mode, true, (size_t)nx, out + nx * z);
  } else {
    ok = fseek(fp, HEAD_BYTES + (long)n * es, SEEK_SET) == 0;
    for (long i = 0; i < ny * nz && ok; i++) {
      ok = read_elements(fp, head->mode, true, 1, out + i);
      if (ok && i + 1 < ny * nz) ok = fseek(fp, (nx - 1) * es, SEEK_CUR) == 0;
    }
  }
  if (!ok) read_failed(name, func, line);
  return 0;
}

// Whole-file read; check selects the exact file-size test.
int read_all_named(FILE* fp, const MRC_HEAD* head, float* out, bool check, const char* name, const char* func,
                   int line) {
  if (check && mrc_check_fsize(fp, head) != 0) gvex_fatal(func, gvex_module, line, "File size error");
  if (!mrc_mode_is_readable(head->mode)) {
    gvex_warning(func, gvex_module, line, "File type unknown");
    return 0;  // output untouched, deliberately not an error
  }
  long bytes = 0;
  const long es = mrc_mode_element_size(head->mode);
  if (!data_bytes(head, es, bytes))
    io_fatalf(func, gvex_module, line, "file %s has the invalid image size %d x %d x %d in its header", name, head->nx,
              head->ny, head->nz);
  const long fsize = get_file_size(fp);
  if (fsize >= 0 && fsize - HEAD_BYTES < bytes)
    io_fatalf(func, gvex_module, line, "file %s is too short for %d x %d x %d %s", name, head->nx, head->ny, head->nz,
              element_words(head->mode));
  if (fseek(fp, HEAD_BYTES, SEEK_SET) != 0) read_failed(name, func, line);
  const size_t plane = (size_t)head->nx * (size_t)head->ny;
  if (head->mode == 2) {
    if (fread(out, plane * sizeof(float), (size_t)head->nz, fp) != (size_t)head->nz) {
      gvex_warning(func, gvex_module, line, "Reading file failed");
      return -1;
    }
    return 0;
  }
  // Mode 6 is read as signed here, unlike the slice readers.
  if (!read_elements(fp, head->mode, false, plane * (size_t)head->nz, out)) {
    gvex_warning(func, gvex_module, line, "Reading file failed");
    return -1;
  }
  return 0;
}

FILE* open_read(const char* name, const char* func, int line) {
  const char* kind = "";
  FILE* fp = gvex_open_regular(name, &kind);
  if (!fp && *kind) gvex_not_a_file("MRC file", name, kind, func, gvex_module, line);
  if (!fp) gvex_open_read_failed(name, func, gvex_module, line);
  return fp;
}

// Images are written beside their final name and renamed when complete.
float* new_floats(size_t count, const char* name, const char* func, int line) {
  float* p = (float*)calloc(count > 0 ? count : 1, sizeof(float));
  if (!p) io_fatalf(func, gvex_module, line, "cannot allocate %zu floats for file %s", count, name);
  return p;
}

// Written files also carry what readers of the current MRC standard need to
// take the statistics as determined: the format version at byte 108 and the
// RMS deviation at byte 216, where that standard keeps it (this header's
// nlabl slot). Our own rms word at 220 stays 0, which such readers take as
// the label count.
void set_written_stats(MRC_HEAD* head, const float* data, unsigned long n) {
  mrc_set_head_mmm_from_data(head, data, n);
  const float rms = n > 0 ? (float)hm_stdv(data, n) : 0.0f;
  memcpy(&head->nlabl, &rms, 4);
  head->rms = 0.0f;
  const int32_t version = 20140;
  memcpy(head->extra + 10, &version, 4);
}

unsigned long written_count(const MRC_HEAD* head, const char* name, const char* func, int line) {
  unsigned long n = 0;
  if (head->nx < 0 || head->ny < 0 || head->nz < 0 ||
      __builtin_mul_overflow((unsigned long)head->nx, (unsigned long)head->ny, &n) ||
      __builtin_mul_overflow(n, (unsigned long)head->nz, &n) || n > (unsigned long)LONG_MAX / sizeof(float))
    io_fatalf(func, gvex_module, line, "cannot write an image of %d x %d x %d to file %s", head->nx, head->ny, head->nz,
              name);
  return n;
}

int write_head_named(FILE* fp, const MRC_HEAD* head, const char* name, const char* func, int line) {
  if (ftell(fp) != 0) rewind(fp);
  if (!stamped(head)) gvex_warning(func, gvex_module, line, "MRC format problem! Check file format");
  if (fwrite(head, HEAD_BYTES, 1, fp) != 1) io_write_failed(name, func, gvex_module, line);
  return 0;
}

int write_head_data_named(FILE* fp, MRC_HEAD* head, const float* data, const char* name, const char* func,
                          int line) {
  if (head->mode != 2)
    gvex_fatal(func, gvex_module, line, "mrc_write_head_alldata() does not support writing float data to other MRC format.");
  const unsigned long n = written_count(head, name, func, line);
  set_written_stats(head, data, n);
  write_head_named(fp, head, name, func, line);
  const size_t plane = (size_t)head->nx * (size_t)head->ny * sizeof(float);
  if (plane > 0 && head->nz > 0 && fwrite(data, plane, (size_t)head->nz, fp) != (size_t)head->nz)
    io_write_failed(name, func, gvex_module, line);
  return 0;
}

}  // namespace

// ---------------------------------------------------------------------------
// header handling

MRC_HEAD* mrc_new_head() {
  MRC_HEAD* head = (MRC_HEAD*)malloc(sizeof(MRC_HEAD));
  if (!head) GVEX_FAIL("cannot allocate an MRC header");
  memset(head, 0, sizeof(MRC_HEAD));  // the constructor leaves some bytes unset; they are written as zeros
  mrc_init_head(head);
  return head;
}

void mrc_init_head(MRC_HEAD* head) {
  head->nx = head->ny = head->nz = 1;
  head->mode = 2;
  head->nxstart = head->nystart = head->nzstart = 0;
  head->mx = head->my = head->mz = 1;
  head->xlen = head->ylen = head->zlen = 1.0f;
  head->alpha = head->beta = head->gamma = 90.0f;
  head->mapc = 1;
  head->mapr = 2;
  head->maps = 3;
  head->amin = 0.0f;
  head->amax = 255.0f;
  head->amean = 128.0f;
  head->ispg = 1;
  head->nsymbt = 0;
  head->next = 0;
  head->creatid = 1000;
  memset(head->extra, 0, sizeof head->extra);
  head->xorigin = head->yorigin = head->zorigin = 0.0f;
  mrc_set_head_stmp(head);
  head->rms = 0.0f;
  memset(head->labels, 0, sizeof head->labels);
}

void mrc_delete_head(MRC_HEAD* head) { free(head); }

void mrc_set_head_stmp(MRC_HEAD* head) { memcpy(head->map, STAMP, 8); }

void mrc_set_head_mode(MRC_HEAD* head, int mode) { head->mode = mode; }

void mrc_set_head_xyz(MRC_HEAD* head, int nx, int ny, int nz) {
  head->nx = nx;
  head->ny = ny;
  head->nz = nz;
}

void mrc_set_head_xyz_mode(MRC_HEAD* head, int nx, int ny, int nz, int mode) {
  mrc_set_head_xyz(head, nx, ny, nz);
  head->mode = mode;
}

void mrc_set_head_mmm_from_data(MRC_HEAD* head, const float* data, unsigned long n) {
  float mx = 0.0f, mn = 0.0f, mean = 0.0f;
  max_min_mean_value(data, n, mx, mn, mean);
  head->amax = mx;
  head->amin = mn;
  head->amean = mean;
}

// ---------------------------------------------------------------------------
// modes

int mrc_mode_element_size(int mode) {
  switch (mode) {
    case 0: return 1;
    case 1:
    case 6: return 2;
    case 2:
    case 3: return 4;
    case 4:
    case 20:
    case 21:
    case 22: return 8;
    default: return 0;
  }
}

bool mrc_mode_is_readable(int mode, bool float16) {
  return mode == 0 || mode == 1 || mode == 2 || mode == 6 || (float16 && mode == 12);
}

const char* mrc_mode_name(int mode) {
  switch (mode) {
    case 0: return "Byte";
    case 1: return "Short";
    case 2: return "Float";
    case 3: return "Complex Short";
    case 4: return "Complex Float";
    case 6: return "Unsigned Short";
    case 16: return "RGB";
    case 20: return "Complex Float (Real, Imag)";
    case 21: return "Complex Float (Amp, Rad)";
    case 22: return "Complex Float (Amp, Deg)";
    default: return "Unknown";
  }
}

const char* mrc_get_head_mode(const MRC_HEAD* head) { return mrc_mode_name(head->mode); }

// ---------------------------------------------------------------------------
// reading from an open stream

long get_file_size(FILE* fp) {
  const long pos = ftell(fp);
  if (fseek(fp, 0, SEEK_END) != 0) return -1;
  const long size = ftell(fp);
  if (pos >= 0) fseek(fp, pos, SEEK_SET);
  return size;
}

int mrc_read_head(FILE* fp, MRC_HEAD* head) {
  char buf[NAME_BUF];
  read_head_named(fp, head, io_stream_name(fp, buf, sizeof buf), "mrc_read_head", __LINE__);
  return 0;
}

int mrc_check_fsize(FILE* fp, const MRC_HEAD* head) {
  const int es = mrc_mode_element_size(head->mode);
  if (es == 0) return gvex_warning("mrc_check_fsize", gvex_module, __LINE__, "File type unknown");
  const long fsize = get_file_size(fp);
  long bytes = 0;
  // Sizes that cannot be multiplied out never match a file.
  const bool sized = data_bytes(head, es, bytes);
  const long expected = sized ? bytes : -1;
  if (!sized || fsize - HEAD_BYTES != bytes) {
    printf("File size %ld  %d xyz %ld", fsize, es, expected);
    return gvex_warning("mrc_check_fsize", gvex_module, __LINE__, "File size error");
  }
  return 0;
}

int mrc_read_slice(FILE* fp, const MRC_HEAD* head, int n, char axis, float* out, bool float16) {
  char buf[NAME_BUF];
  return read_slice_named(fp, head, n, axis, out, float16, io_stream_name(fp, buf, sizeof buf), "mrc_read_slice",
                          __LINE__);
}

int mrc_read_stack(FILE* fp, const MRC_HEAD* head, float* out) {
  char buf[NAME_BUF];
  const char* name = io_stream_name(fp, buf, sizeof buf);
  if (!mrc_mode_is_readable(head->mode)) return 0;
  long bytes = 0;
  if (!data_bytes(head, mrc_mode_element_size(head->mode), bytes))
    io_fatalf("mrc_read_stack", gvex_module, __LINE__, "file %s has the invalid image size %d x %d x %d in its header",
              name, head->nx, head->ny, head->nz);
  const long fsize = get_file_size(fp);
  if (fsize >= 0 && fsize - HEAD_BYTES < bytes)
    io_fatalf("mrc_read_stack", gvex_module, __LINE__, "file %s is too short for %d x %d x %d %s", name, head->nx,
              head->ny, head->nz, element_words(head->mode));
  const size_t count = (size_t)head->nx * (size_t)head->ny * (size_t)head->nz;
  if (fseek(fp, HEAD_BYTES, SEEK_SET) != 0 || !read_elements(fp, head->mode, true, count, out))
    read_failed(name, "mrc_read_stack", __LINE__);
  return 0;
}

// ---------------------------------------------------------------------------
// reading by file name

MRC_HEAD* get_mrcf_head(const char* name) {
  OwnedFile fp(open_read(name, "get_mrcf_head", __LINE__));
  Owned<MRC_HEAD> head(mrc_new_head());
  read_head_named(fp.get(), head.get(), name, "get_mrcf_head", __LINE__);
  return head.release();
}

float* get_mrcf_data_all(const char* name) {
  OwnedFile fp(open_read(name, "get_mrcf_data_all", __LINE__));
  MRC_HEAD head;
  read_head_named(fp.get(), &head, name, "get_mrcf_data_all", __LINE__);
  Owned<float> out(
      new_floats((size_t)head.nx * (size_t)head.ny * (size_t)head.nz, name, "get_mrcf_data_all", __LINE__));
  if (read_all_named(fp.get(), &head, out.get(), true, name, "get_mrcf_data_all", __LINE__) != 0)
    read_failed(name, "get_mrcf_data_all", __LINE__);
  return out.release();
}

int mrcf_read_head(const char* name, MRC_HEAD* head) {
  OwnedFile fp(open_read(name, "mrcf_read_head", __LINE__));
  read_head_named(fp.get(), head, name, "mrcf_read_head", __LINE__);
  return 0;
}

long get_mrcf_dim_size(const char* name, const char* key) {
  MRC_HEAD head;
  mrcf_read_head(name, &head);
  const char* k = key ? key : "(null)";
  const bool known = strcasecmp(k, "x") == 0 || strcasecmp(k, "y") == 0 || strcasecmp(k, "z") == 0 ||
                     strcasecmp(k, "xy") == 0 || strcasecmp(k, "yx") == 0 || strcasecmp(k, "xz") == 0 ||
                     strcasecmp(k, "zx") == 0 || strcasecmp(k, "yz") == 0 || strcasecmp(k, "zy") == 0 ||
                     strcasecmp(k, "xyz") == 0;
  if (!known) {
    printf("Error in function %s(), file %s on line %d: unrecognized dimension keywords %s !\n", "get_mrcf_dim_size",
           gvex_module, __LINE__, k);
    printf("valid dimension keywords: x, y, z, xy, yx, xz, zx, yz, zy, xyz; not case sensitive\n");
    return 0;
  }
  const long nx = head.nx, ny = head.ny, nz = head.nz;
  if (strcasecmp(k, "x") == 0) return nx;
  if (strcasecmp(k, "y") == 0) return ny;
  if (strcasecmp(k, "z") == 0) return nz;
  if (strcasecmp(k, "xy") == 0 || strcasecmp(k, "yx") == 0) return nx * ny;
  if (strcasecmp(k, "xz") == 0 || strcasecmp(k, "zx") == 0) return nx * nz;
  if (strcasecmp(k, "yz") == 0 || strcasecmp(k, "zy") == 0) return ny * nz;
  return nx * ny * nz;
}

int check_mrc_head_sizes_two(const char* name1, const char* name2, const MRC_HEAD* head1, const MRC_HEAD* head2) {
  if (head1->nx == head2->nx && head1->ny == head2->ny && head1->nz == head2->nz && head1->mode == head2->mode)
    return 0;
  std::string text = "Micrograph \033[1m" + std::string(name1) + "\033[m has a different size or format from  \033[1m" +
                     name2 + "\033[m.\nCheck if all the micrographs are the same sizes and format? \n ";
  text += "      Nx      Ny      Nz      Mode             File:\n";
  char row[GVEX_NAME_LEN + 128];
  for (const auto& f : {std::make_pair(head1, name1), std::make_pair(head2, name2)}) {
    snprintf(row, sizeof row, "      %-8d%-8d%-8d%-18s  %s\n", f.first->nx, f.first->ny, f.first->nz,
             mrc_get_head_mode(f.first), f.second);
    text += row;
  }
  gvex_throw(text);
}

// ---------------------------------------------------------------------------
// writing

int mrc_write_head(FILE* fp, const MRC_HEAD* head) {
  char buf[NAME_BUF];
  return write_head_named(fp, head, io_stream_name(fp, buf, sizeof buf), "mrc_write_head", __LINE__);
}

int mrc_write_head_data(FILE* fp, MRC_HEAD* head, const float* data) {
  char buf[NAME_BUF];
  return write_head_data_named(fp, head, data, io_stream_name(fp, buf, sizeof buf), "mrc_write_head_data",
                               __LINE__);
}

// One mode-2 image file under a .part name, renamed when complete; func
// names the writer in its failure lines.
int mrcf_write_xyz_data_as(const char* name, const float* data, int nx, int ny, int nz, const char* func) {
  PartFile file(name, "w+");
  if (!file.fp()) gvex_open_write_failed(name, func, gvex_module, __LINE__);
  std::unique_ptr<MRC_HEAD, void (*)(MRC_HEAD*)> head(mrc_new_head(), mrc_delete_head);
  mrc_set_head_xyz_mode(head.get(), nx, ny, nz, 2);
  write_head_data_named(file.fp(), head.get(), data, name, func, __LINE__);
  if (!file.commit()) io_write_failed(name, func, gvex_module, __LINE__);
  return 0;
}

int mrcf_write_xyz_data(const char* name, const float* data, int nx, int ny, int nz) {
  return mrcf_write_xyz_data_as(name, data, nx, ny, nz, "mrcf_write_xyz_data");
}

// ---------------------------------------------------------------------------
// file names

int get_micrograph_suffixn(const char* name) {
  const size_t len = strlen(name);
  if (len >= 4 && strcmp(name + len - 4, ".mrc") == 0) return 4;
  if (len >= 5 && strcmp(name + len - 5, ".mrcs") == 0) return 5;
  return 0;
}

void set_outname_by_suffix(char* out, const char* in, const char* suffix) {
  memset(out, 0, GVEX_NAME_LEN);
  const size_t keep = strlen(in) - (size_t)get_micrograph_suffixn(in);
  const size_t add = strlen(suffix);
  if (keep + add >= (size_t)GVEX_NAME_LEN)
    io_fatalf("set_outname_by_suffix", gvex_module, __LINE__,
              "the output name for file %s with suffix %s would be longer than %d characters", in, suffix,
              GVEX_NAME_LEN - 1);
  memcpy(out, in, keep);
  memcpy(out + keep, suffix, add);
}

// ---------------------------------------------------------------------------
// square views
