// A picking session: the settings of one run, the reference micrograph that
// fixes its sizes, the templates and buffers prepared from it, and the
// micrographs picked one at a time. Every program that picks goes through
// it; what it prints and writes beside each micrograph is gvexmatch's.
//
//   PickSession s(derive(options));           // settings never change after
//   s.prepare(reference_header, sharers);      // templates, buffers, store
//   PickResult r = s.pick(name, next_name);    // one micrograph, any order
//
// A micrograph's failure does not end the session: its result says
// failed, with the lines gvexmatch would print and the status it would
// exit with, and the next micrograph can be picked.
#pragma once
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "common/errors.h"
#include "io/mrcfile.h"
#include "io/picks.h"
#include "picker/settings.h"

struct StageTimes {
  double reading = 0, normalization = 0, picking = 0;  // seconds
};

struct PickResult {
  enum class Outcome { finished, skipped, failed };
  Outcome outcome = Outcome::failed;
  std::vector<Pick> picks;     // the final picks, micrograph pixels, as written
  std::vector<Pick> decoys;    // with the decoys option: the picks of the inverted templates, merged alike
  long candidates = 0;         // grid maxima of all templates (the "_nonunique.box" lines)
  long rejected_cells = 0;     // exclusion-grid cells masked (ice, carbon, exclusions)
  double masked_fraction = 0;  // share of the working image the mask leaves out
  double usable_pixels = 0;    // micrograph pixels the mask leaves in (the micrograph's own part)
  MRC_HEAD head{};             // with keep_pixels: the micrograph's header...
  std::vector<float> pixels;   // ...and its first section, nx * ny, as picked
  StageTimes times;
  GvexFailure failure;  // failed: the lines gvexmatch prints and its status
};

class PickSession {
 public:
  explicit PickSession(const PickSettings& settings);
  ~PickSession();
  PickSession(const PickSession&) = delete;
  PickSession& operator=(const PickSession&) = delete;

  // Sizes from the reference header (every micrograph must match it; the
  // first micrograph's name is only for messages), the templates, the
  // per-run buffers and the read-ahead, which starts reading first (when
  // named) while the templates are made. sharers: the processes sharing
  // this machine's memory (or GPU). A refusal ends through the failure path.
  void prepare(const MRC_HEAD& reference, const std::string& reference_name, int sharers = 1,
               const std::string& first = "");

  // Picks one micrograph: every stage from the ruler to "File %s
  // finished." (or the --do_unfinished skip line). next names the
  // micrograph to be picked after this one (empty: none), which is read
  // ahead meanwhile.
  PickResult pick(const std::string& mic, const std::string& next = "");

  // The templates (1 = the first) that, as prepared, can match nothing: a
  // pixel not finite, every pixel alike (a constant template, or one of a
  // single working pixel), or values whose squares no single-precision sum
  // holds (a sum of squares beyond 1e30 or below 1e-30). gvexmatch picks on
  // silently without them, or writes scores that are not finite.
  std::vector<int> blind_templates() const;
  int template_count() const;

  // Whether --do_unfinished will skip mic, as far as can be told now.
  bool looks_finished(const std::string& mic) const;

  // A companion's own file beside each micrograph, written in the same
  // commit as the coordinate files, so that a run killed at any moment
  // leaves both or neither and --do_unfinished never skips a micrograph
  // without it. name: its name from the micrograph's; write: writes it at
  // that name from the result (whole or not at all), false when it cannot.
  using CommitName = std::function<std::string(const std::string& mic)>;
  using CommitWrite = std::function<bool(const PickResult& r, const std::string& path)>;
  void also_commit(CommitName name, CommitWrite write);

 private:
  struct Impl;
  std::unique_ptr<Impl> d_;
};
