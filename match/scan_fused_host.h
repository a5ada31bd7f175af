// The scan's per-angle work on the host back end, with the 2-D transforms
// taken apart into their two 1-D stages so that each angle passes over
// memory about once:
//   inverse: the conjugate product is formed inside the column stage, and
//            the running maximum takes each block of rows as the row stage
//            gives it, so neither the product nor the correlation map is
//            ever stored whole;
//   forward: a pasted template fills only a band of rows, so the row stage
//            transforms that band and the rest is known to be zero.
// The 1-D plans are made with the layout the 2-D plan uses inside (rows at
// the half spectrum's own stride, columns in blocks of equal width, rows in
// blocks of equal height, partial blocks padded), which makes FFTW choose the
// same algorithms: for the sizes the tests cover the results are the 2-D
// plan's bits.
#pragma once
#include <memory>

#include "common/hd.h"

class FusedScanHost {
 public:
  FusedScanHost(int nx, int ny);  // even sizes; main thread only (makes plans)
  ~FusedScanHost();
  FusedScanHost(const FusedScanHost&) = delete;
  FusedScanHost& operator=(const FusedScanHost&) = delete;

  // Takes the tnx x tny image t as the template to transform: the nx x ny
  // image that is zero except for t with its first pixel at (px, py).
  void paste(const float* t, int tnx, int tny, int px, int py);

  // cc = inverse transform of M * conj(F) / s (the 2-D plan's bits), folded
  // into the running maximum: where cc > ccmax, ccmax = cc and, when psi is
  // given, psi = ang; when decoy is given, -cc into its running maximum.
  // Without F, F is the pasted template's spectrum, computed on the way and
  // also written to F_out when that is given.
  void fold(const float2* M, const float2* F, float2* F_out, float s, float* ccmax, float* psi, float ang,
            float* decoy = nullptr);

 private:
  struct Impl;
  std::unique_ptr<Impl> d_;
};
