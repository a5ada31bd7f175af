// The RELION job's inputs: its command line (one word a line), the
// micrographs STAR file a pipeline hands it, and a micrograph's record under
// the job folder as an older build, an edit or a damaged disk may leave it,
// through the reader, the kept picks, the cut over the whole job and the cut
// of a micrograph with those picked before it.
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "relion/cutoff_rule.h"
#include "relion/job_options.h"
#include "relion/mic_input.h"
#include "relion/record.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text((const char*)data, size);
  std::vector<std::string> words(1);
  for (char c : text)
    if (c == '\n')
      words.emplace_back();
    else
      words.back().push_back(c);
  JobOptions o;
  std::string why;
  if (parse_job_options(words, o, why)) picking_settings(o);
  std::vector<MicEntry> mics;
  mics_from_star(text, mics, why);
  std::vector<MicRecord> records(1);
  if (!record_read(fuzz::write_scratch(data, size, ".star"), records[0], why)) return 0;
  kept_picks(records[0]);
  records.push_back(records[0]);
  records[1].sequence++;
  for (Pick& p : records[1].picks) p.score *= 0.5f;
  run_cutoffs(records, 120.0);
  MicRecord next = records[0];
  recent_cutoff(records, next, 63, 120.0);
  kept_picks(next);
  for (const MicRecord& r : records) kept_picks(r);
  return 0;
}
