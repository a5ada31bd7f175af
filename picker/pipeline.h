// Per-micrograph picking pipeline: what the run prepares once (templates,
// buffers, workspace) and the stages each micrograph goes through.
#pragma once
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "common/records.h"
#include "gpu/device.h"
#include "match/scan.h"

struct GVexMatch_Para;

// Everything allocated once per run at the reference size.
struct GVexRun {
  GVexMatch_Para* p = nullptr;
  int nx = 0, ny = 0;       // raw micrograph size (the reference)
  int ext = 0;              // square, even working size
  int cell = 0, gx = 0, gy = 0;  // exclusion grid
  int tnx = 0, tny = 0, tnz = 0;  // template stack
  int store_sharers = 1;          // processes on this machine sharing its memory

  // Host staging, page-locked on a GPU.
  HostBuffer<float> h_raw;     // nx * ny
  HostBuffer<float> h_shrunk;  // ext * ext
  HostBuffer<float> h_ccmax;   // ext * ext * tnz, only with write_ccmax_mic
  bool shrunk_ready = false;    // h_shrunk already holds h_raw shrunk (read ahead)
  std::unique_ptr<DeviceArray<float>> d_T, d_mic, d_mask, d_ccmax, d_psi;
  std::unique_ptr<DeviceArray<unsigned int>> d_grid;
  std::vector<PTCL_BOX> excluded;  // gx * gy records
  int n_excluded = 0;
  std::vector<unsigned int> peak_index;
  std::vector<float> peak_score, peak_angle;
  std::unique_ptr<ScanWorkspace> ws;
};

// Working sizes from the reference header: ext, cell, gx, gy.
void gvexmatch_working_sizes(GVexRun& run, int nx, int ny);

// Template preparation (synthetic or read, normalised, inverted, on the
// device) and every per-run buffer.
void gvexmatch_prepare_run(GVexRun& run);

// Normalisation and picking of one micrograph whose pixels are in h_raw
// (and in h_shrunk too when shrunk_ready, which it clears): every stage from
// the shrink to "File %s finished.". nonunique is the open
// "_nonunique.box" file, closed here; excluded_name is the per-micrograph
// exclusion file or "NULL".
void gvexmatch_pick_micrograph(GVexRun& run, const char* mic, FILE* nonunique, const char* nonunique_name,
                               const char* excluded_name);

// Name of the marker that commits a micrograph's coordinate files together.
std::string gvexmatch_commit_marker(const char* mic);
