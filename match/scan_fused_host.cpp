// Host scan with the 2-D transforms as two 1-D stages (see the header).
#include "match/scan_fused_host.h"

#include <fftw3.h>

#include <cstring>
#include <vector>
#if defined(_OPENMP)
#include <omp.h>
#endif

#include "common/errors.h"
#include "gpu/cuda_fft.h"
#include "match/scan_host.h"

namespace {
const char* const gvex_module = "vexmatch56";

// Columns per block of the column stage and rows per block of the row stage.
// Any count of at least two gives the 2-D plan's algorithms; these keep a
// block in the second-level cache.
constexpr int COLS = 16;
constexpr int ROWS = 8;

int thread_id() {
#if defined(_OPENMP)
  return omp_get_thread_num();
#else
  return 0;
#endif
}

int max_threads() {
#if defined(_OPENMP)
  return omp_get_max_threads();
#else
  return 1;
#endif
}

// FFTW arrays, freed with their owner.
template <class T>
struct FftwArray {
  T* p = nullptr;
  explicit FftwArray(size_t n) {
    p = static_cast<T*>(fftwf_malloc(n * sizeof(T)));
    if (!p) GVEX_FAIL("Host memory allocation failed");
  }
  ~FftwArray() { fftwf_free(p); }
  FftwArray(const FftwArray&) = delete;
  FftwArray& operator=(const FftwArray&) = delete;
};

// A plan made under the run's planning (estimated, from wisdom, measured).
template <class F>
fftwf_plan planned(F make, unsigned extra) {
  return (fftwf_plan)gvex_fftw_make_plan([](unsigned f, void* a) -> void* { return (*(F*)a)(f); }, &make, extra);
}

struct Plan {
  fftwf_plan p = nullptr;
  ~Plan() {
    if (p) fftwf_destroy_plan(p);
  }
};

}  // namespace

struct FusedScanHost::Impl {
  int nx, ny, nxh;
  Plan col_fwd, col_inv, col_inv_inplace, row_r2c, row_c2r;
  FftwArray<fftwf_complex> half;  // the half spectrum between the two stages
  std::unique_ptr<FftwArray<fftwf_complex>> band;  // a pasted template's rows, transformed
  int band_rows = 0, band_y = 0, band_capacity = 0;  // rows held, first row, rows allocated
  // Per thread: one block of columns, one block of rows in both forms.
  std::vector<std::unique_ptr<FftwArray<fftwf_complex>>> col, rowc;
  std::vector<std::unique_ptr<FftwArray<float>>> rowr;

  Impl(int nx_, int ny_)
      : nx(nx_), ny(ny_), nxh(nx_ / 2 + 1), half((size_t)(nx_ / 2 + 1) * ny_) {
    grow();
    gvex_fftw_plan_serial();
    fftwf_complex* c = col[0]->p;
    fftwf_complex* h = rowc[0]->p;
    float* r = rowr[0]->p;
    int n = ny;
    col_fwd.p = planned([&](unsigned f) {
      return fftwf_plan_many_dft(1, &n, COLS, c, nullptr, COLS, 1, c, nullptr, COLS, 1, FFTW_FORWARD, f);
    }, 0);
    col_inv.p = planned([&](unsigned f) {
      return fftwf_plan_many_dft(1, &n, COLS, c, nullptr, COLS, 1, c, nullptr, COLS, 1, FFTW_BACKWARD, f);
    }, 0);
    // The same inverse on COLS neighbouring columns of the half spectrum in
    // place, as the 2-D plan runs its column stage.
    fftwf_complex* hp = half.p;
    const int half_w = nxh, width = nx;
    col_inv_inplace.p = planned([&](unsigned f) {
      return fftwf_plan_many_dft(1, &n, COLS, hp, nullptr, half_w, 1, hp, nullptr, half_w, 1, FFTW_BACKWARD, f);
    }, 0);
    int m = nx;
    row_r2c.p = planned([&](unsigned f) {
      return fftwf_plan_many_dft_r2c(1, &m, ROWS, r, nullptr, 1, width, h, nullptr, 1, half_w, f);
    }, 0);
    row_c2r.p = planned([&](unsigned f) {
      return fftwf_plan_many_dft_c2r(1, &m, ROWS, h, nullptr, 1, half_w, r, nullptr, 1, width, f);
    }, FFTW_DESTROY_INPUT);
    if (!col_fwd.p || !col_inv.p || !col_inv_inplace.p || !row_r2c.p || !row_c2r.p) GVEX_FAIL("FFT plan creation failed");
  }

  // Buffers for every thread a parallel loop may use now (the count can
  // rise after construction); called outside parallel regions.
  void grow() {
    for (int t = (int)col.size(); t < max_threads(); t++) {
      col.emplace_back(new FftwArray<fftwf_complex>((size_t)COLS * ny));
      rowc.emplace_back(new FftwArray<fftwf_complex>((size_t)ROWS * nxh));
      rowr.emplace_back(new FftwArray<float>((size_t)ROWS * nx));
    }
  }

  int col_blocks() const { return (nxh + COLS - 1) / COLS; }
  int width(int b) const { return nxh - b * COLS < COLS ? nxh - b * COLS : COLS; }

  // Column stage for block b of a new template: its spectrum from the
  // transformed band (also written to F_out when given), the conjugate
  // product with M over s, and the product's inverse column transforms into
  // half.
  void columns_from_band(int b, const float2* M, float2* F_out, float s) {
    const int x0 = b * COLS, w = width(b);
    float2* c = reinterpret_cast<float2*>(col[thread_id()]->p);
    memset((void*)c, 0, sizeof(float2) * COLS * ny);
    const float2* t = reinterpret_cast<const float2*>(band->p);
    for (int k = 0; k < band_rows; k++)
      memcpy(c + (long)(band_y + k) * COLS, t + (long)k * nxh + x0, sizeof(float2) * w);
    fftwf_execute_dft(col_fwd.p, (fftwf_complex*)c, (fftwf_complex*)c);
    for (int y = 0; y < ny; y++) {
      const long i = (long)y * nxh + x0;
      if (F_out) memcpy(F_out + i, c + (long)y * COLS, sizeof(float2) * w);
      scan_host_multconj_serial(M + i, c + (long)y * COLS, c + (long)y * COLS, w, s);
    }
    // The inverse by the very plan a stored spectrum's block meets in
    // columns_stored: plans of other strides agree to the bit only when
    // estimated, not as wisdom may have them, and a micrograph's picks would
    // then depend on whether its templates' spectra were stored yet.
    float2* q = reinterpret_cast<float2*>(half.p);
    if (w == COLS) {
      for (int y = 0; y < ny; y++) memcpy(q + (long)y * nxh + x0, c + (long)y * COLS, sizeof(float2) * w);
      fftwf_execute_dft(col_inv_inplace.p, half.p + x0, half.p + x0);
      return;
    }
    fftwf_execute_dft(col_inv.p, (fftwf_complex*)c, (fftwf_complex*)c);
    for (int y = 0; y < ny; y++) memcpy(q + (long)y * nxh + x0, c + (long)y * COLS, sizeof(float2) * w);
  }

  // Row stage for the rows from y0 (a whole block, or the last partial one
  // through padded scratch); returns the rows, nx apart.
  const float* inverse_rows(int y0) {
    const int t = thread_id(), h = ny - y0 < ROWS ? ny - y0 : ROWS;
    fftwf_complex* in = half.p + (size_t)y0 * nxh;
    if (h < ROWS) {
      memset(rowc[t]->p, 0, sizeof(fftwf_complex) * ROWS * nxh);
      memcpy(rowc[t]->p, in, sizeof(fftwf_complex) * h * nxh);
      in = rowc[t]->p;
    }
    fftwf_execute_dft_c2r(row_c2r.p, in, rowr[t]->p);
    return rowr[t]->p;
  }

  // Column stage for a stored spectrum: the product over the whole half
  // spectrum in one sequential pass, then the column transforms in place,
  // the last partial block through the block buffer.
  void columns_stored(const float2* M, const float2* F, float s) {
    float2* q = reinterpret_cast<float2*>(half.p);
    const long n = (long)nxh * ny;
    if (!scan_host_multconj(M, F, q, n, s)) {
#pragma omp parallel for schedule(static)
      for (long i = 0; i < n; i++) q[i] = cuda_multconj_norm(M[i], F[i], s);
    }
    const int whole = nxh / COLS;
#pragma omp parallel for schedule(static)
    for (int b = 0; b < whole; b++) fftwf_execute_dft(col_inv_inplace.p, half.p + b * COLS, half.p + b * COLS);
    const int x0 = whole * COLS, w = nxh - x0;
    if (w == 0) return;
    float2* c = reinterpret_cast<float2*>(col[0]->p);
    memset((void*)c, 0, sizeof(float2) * COLS * ny);
    for (int y = 0; y < ny; y++) memcpy(c + (long)y * COLS, q + (long)y * nxh + x0, sizeof(float2) * w);
    fftwf_execute_dft(col_inv.p, (fftwf_complex*)c, (fftwf_complex*)c);
    for (int y = 0; y < ny; y++) memcpy(q + (long)y * nxh + x0, c + (long)y * COLS, sizeof(float2) * w);
  }

  // Column stage of either kind, then the row stage, each block of rows
  // folded into the running maximum as it comes out.
  void fold(const float2* M, const float2* F, float2* F_out, float s, float* ccmax, float* psi, float ang,
            float* decoy) {
    grow();
    if (F) {
      columns_stored(M, F, s);
    } else {
      const int nb = col_blocks();
#pragma omp parallel for schedule(static)
      for (int b = 0; b < nb; b++) columns_from_band(b, M, F_out, s);
    }
    const int nr = (ny + ROWS - 1) / ROWS;
#pragma omp parallel for schedule(static)
    for (int r = 0; r < nr; r++) {
      const int y0 = r * ROWS, h = ny - y0 < ROWS ? ny - y0 : ROWS;
      const long i = (long)y0 * nx;
      const float* rows = inverse_rows(y0);
      scan_host_fold_serial(ccmax + i, rows, psi ? psi + i : nullptr, ang, (long)h * nx);
      if (decoy) scan_host_fold_decoy_serial(decoy + i, rows, (long)h * nx);
    }
  }
};

FusedScanHost::FusedScanHost(int nx, int ny) : d_(new Impl(nx, ny)) {}
FusedScanHost::~FusedScanHost() = default;

void FusedScanHost::paste(const float* t, int tnx, int tny, int px, int py) {
  Impl& d = *d_;
  d.grow();
  const int nx = d.nx, nxh = d.nxh;
  // Row stage over the band of rows the template covers, a block of rows at
  // a time (block-aligned in the buffer, so every block runs at the
  // alignment the plan was made for).
  const int nr = (tny + ROWS - 1) / ROWS;
  if (d.band_capacity < nr * ROWS) {
    d.band.reset(new FftwArray<fftwf_complex>((size_t)nr * ROWS * nxh));
    d.band_capacity = nr * ROWS;
  }
  d.band_rows = tny;
  d.band_y = py;
#pragma omp parallel for schedule(static)
  for (int r = 0; r < nr; r++) {
    float* rows = d.rowr[thread_id()]->p;
    memset(rows, 0, sizeof(float) * ROWS * nx);
    for (int k = 0; k < ROWS && r * ROWS + k < tny; k++)
      memcpy(rows + (long)k * nx + px, t + (long)(r * ROWS + k) * tnx, sizeof(float) * tnx);
    fftwf_execute_dft_r2c(d.row_r2c.p, rows, d.band->p + (size_t)r * ROWS * nxh);
  }
}

void FusedScanHost::fold(const float2* M, const float2* F, float2* F_out, float s, float* ccmax, float* psi,
                         float ang, float* decoy) {
  d_->fold(M, F, F_out, s, ccmax, psi, ang, decoy);
}
