// The job's report, from its records: gvexreport's page (index.html, a
// picture per micrograph, histograms, warnings) and summary.star, one row
// per micrograph for culling micrographs downstream.
#pragma once
#include <string>
#include <vector>

#include "relion/record.h"
#include "report/micrograph.h"

// The report's view of a micrograph picked with these settings: the
// warnings (added to m) and its picture at picture_path. apix_given: the
// pixel size came from the input, so a header that disagrees is worth a word.
// kept_warnings false: only those about the file, for a micrograph whose
// cut-off will change (the job's report adds the others when it is shown).
bool report_micrograph(Micrograph& m, const PickSettings& pick, bool apix_given, const std::string& picture_path,
                       bool kept_warnings = true);

// index.html and summary.star of the job folder, the picks drawn as circles
// of diameter A, picked at speed; false with why. The records' picks and
// decoys are lent to the page while it is written (a job of thousands of
// micrographs holds millions) and are theirs again on return. settled: the
// first records, unchanged since the last report this process wrote (their
// full pages are not written again).
bool write_job_report(const std::string& job, std::vector<MicRecord>& records, double diameter, int speed,
                      size_t settled, std::string& why);
