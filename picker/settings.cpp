// Options of a picking session and the values derived from them.
#include "picker/settings.h"

#include <strings.h>

#include <climits>
#include <memory>

#include "common/strutil.h"
#include "picker/params.h"

namespace {

// (int) of a double that may not fit: NaN gives 0, out of range saturates.
int trunc_to_int(double v) {
  if (!(v == v)) return 0;
  if (v >= 2147483647.0) return INT_MAX;
  if (v <= -2147483648.0) return INT_MIN;
  return (int)v;
}

std::string file_or_none(const char* text) { return is_str_null(text) ? "" : text; }

}  // namespace

PickOptions pick_defaults() {
  std::unique_ptr<GVexMatch_Para, void (*)(GVexMatch_Para*)> p(new GVexMatch_Para(), gvexmatch_delete_parameters);
  gvexmatch_init_parameters(1, p.get());
  PickOptions o = options_from_record(*p);
  o.min_dist_given = o.boxsize_given = o.lsigma_D_given = o.lave_D_given = o.apixT_given = false;
  return o;
}

PickSettings derive(const PickOptions& in) {
  PickSettings s;
  s.opt = in;
  PickOptions& o = s.opt;
  int speed = o.speed;
  gvexmatch_speed2shrink(speed, s.shrink);
  // The values that follow the particle size unless the user set them.
  const double d = o.diameter;
  if (!o.min_dist_given) o.min_dist = (float)(0.8 * d);
  if (!o.boxsize_given) o.boxsize = 2 * (trunc_to_int(d * 1.33 / (double)o.apixM) / 2);
  if (!o.lsigma_D_given) o.lsigma_D = (float)(0.5 * d + 100);
  if (!o.lave_D_given) o.lave_D = (float)(0.3 * d + 200);
  if (!o.apixT_given) o.apixT = o.apixM;
  s.auto_template = !o.template_file;
  // The synthetic disc is the same at every angle: one orientation.
  s.scan_step = s.auto_template ? 360.0f : o.ang_step;
  const float f = (float)s.shrink;
  s.min_dist_px = o.min_dist / (f * o.apixM);
  s.template_r = o.template_r_scale * o.diameter / (f * 2 * o.apixM);
  s.lsigma_r = o.lsigma_D / (f * 2 * o.apixM);
  s.lave_r = o.lave_D / (f * 2 * o.apixM);
  const float c = o.min_dist * 1.4142135f / (2 * s.shrink * o.apixM);
  s.cell = trunc_to_int(c);
  return s;
}

PickOptions options_from_record(const GVexMatch_Para& p) {
  PickOptions o;
  o.apixM = p.apixM, o.diameter = p.diameter, o.speed = p.speed;
  o.min_dist = p.min_dist, o.boxsize = p.boxsize, o.lsigma_D = p.lsigma_D, o.lave_D = p.lave_D, o.apixT = p.apixT;
  // The record holds these values already resolved.
  o.min_dist_given = o.boxsize_given = o.lsigma_D_given = o.lave_D_given = o.apixT_given = true;
  o.template_file = strcasecmp(p.T, "NULL") != 0 && strcasecmp(p.T, "NONE") != 0;
  o.templates = p.T;
  o.ang_step = p.ang_step, o.ang_start = p.ang_start, o.ang_end = p.ang_end;
  o.T_norm_type = p.T_norm_type, o.center1_ratio = p.center1_ratio, o.dont_invertT = p.dont_invertT != 0;
  o.template_r_scale = p.template_r_scale;
  o.do_pre_filter = p.do_pre_filter != 0, o.do_bandpass = p.do_bandpass != 0, o.detect_ice = p.detect_ice != 0;
  o.pre_hp = p.pre_hp, o.lp = p.lp, o.hp = p.hp;
  o.lsigma_cutoff = p.lsigma_cutoff, o.lave_min = p.lave_min, o.lave_max = p.lave_max, o.local_edge = p.local_edge;
  o.cc_cutoff = p.cc_cutoff;
  o.exclusive_picking = p.exclusive_picking != 0, o.mask_excluded = p.mask_excluded != 0;
  o.excluded_suffix = p.excluded_suffix;
  o.global_excluded_box = file_or_none(p.global_excluded_box);
  o.write_star = p.write_star != 0, o.write_rejected_box = p.write_rejected_box != 0;
  o.write_ccmax_mic = p.write_ccmax_mic != 0, o.write_pref_mic = p.write_pref_mic != 0;
  o.write_bg_mic = p.write_bg_mic != 0, o.write_bgfree_mic = p.write_bgfree_mic != 0;
  o.write_lsigma_mic = p.write_lsigma_mic != 0, o.write_mic_mask = p.write_mic_mask != 0;
  o.extract_raw = p.extract_raw != 0, o.do_unfinished = p.do_unfinished != 0;
  return o;
}

void record_derived_values(GVexMatch_Para* p, const PickSettings& s) {
  p->min_dist = s.opt.min_dist;
  p->boxsize = s.opt.boxsize;
  p->lsigma_D = s.opt.lsigma_D;
  p->lave_D = s.opt.lave_D;
  p->min_dist_px = s.min_dist_px;
  p->template_r = s.template_r;
  p->lsigma_r = s.lsigma_r;
  p->lave_r = s.lave_r;
}
