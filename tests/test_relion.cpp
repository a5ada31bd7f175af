// gvexmatch_relion as RELION runs it: the command line of an External job,
// the micrograph STAR files of RELION 3.0 to 5, the files RELION 3.1, 4 and
// 5 read back (field by field), continuing and killed runs, unreadable
// micrographs, the abort file, float16 micrographs and a followed input
// that grows. tests/relion_pipeline_check.sh drives RELION itself.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <csignal>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "relion/cutoff_rule.h"
#include "relion/job_options.h"
#include "relion/mic_input.h"
#include "relion/record.h"
#include "relion/relion_files.h"
#include "support/e2e.h"

using namespace e2e;

namespace {

// A shell function for scripts that wait on a job: until the file exists, at most a minute.
const char kWaitFor[] = "wait_for() { n=0; while [ ! -f \"$1\" ] && [ $n -lt 1200 ]; do sleep 0.05; n=$((n+1)); done; }\n";

RunResult relion_in(const std::string& dir, std::vector<std::string> args, double timeout = 180) {
  args.insert(args.begin(), gvex_relion_bin());
  return run_argv(args, RunOptions{dir, timeout});
}

// The usual job: micrographs named by list, pixel size given, picked at once.
std::vector<std::string> job_args(const std::string& job, const std::string& input) {
  return {"--o", job, "--in_mics", input, "--apix", "1.34", "--diameter", "120", "--settle", "0"};
}

// A STAR block read word by word, without the program's own reader.
struct Table {
  std::vector<std::string> labels;
  std::vector<std::vector<std::string>> rows;
};

Table star_block(const std::string& path, const std::string& name) {
  Table t;
  bool inside = false;
  std::istringstream in(read_text_file(path));
  for (std::string line; std::getline(in, line);) {
    std::istringstream ws(line);
    std::vector<std::string> w;
    for (std::string s; ws >> s;) w.push_back(s);
    if (w.empty() || w[0][0] == '#') continue;
    if (w[0].compare(0, 5, "data_") == 0) {
      if (inside) break;
      inside = w[0] == "data_" + name;
    } else if (inside && w[0][0] == '_') {
      t.labels.push_back(w[0].substr(1));
    } else if (inside && w[0] != "loop_") {
      t.rows.push_back(w);
    }
  }
  return t;
}

std::string column(const Table& t, size_t row, const std::string& label) {
  for (size_t i = 0; i < t.labels.size(); i++)
    if (t.labels[i] == label && row < t.rows.size() && i < t.rows[row].size()) return t.rows[row][i];
  return "?";
}

void make_dirs(const std::string& path) {
  for (size_t s = path.find('/', 1); s != std::string::npos; s = path.find('/', s + 1))
    mkdir(path.substr(0, s).c_str(), 0777);
}

// The coordinate rows (x, y) of a coordinate file.
std::vector<std::pair<double, double>> coords_of(const std::string& path) {
  std::vector<std::pair<double, double>> xy;
  const Table t = star_block(path, "");
  for (size_t i = 0; i < t.rows.size(); i++)
    xy.push_back({std::stod(column(t, i, "rlnCoordinateX")), std::stod(column(t, i, "rlnCoordinateY"))});
  return xy;
}

// Most planted particles are found among the kept picks, and few picks are strays.
void expect_planted_found(const std::string& coords, const std::string& truth_path) {
  std::vector<BoxPick> as_boxes;
  for (const auto& p : coords_of(coords)) as_boxes.push_back({(int)p.first, (int)p.second, 0, 0, 1, 1, 0});
  expect_finds(as_boxes, truth_path);
}

}  // namespace

// RELION passes "--o DIR --in_mics FILE [--LABEL VALUE]... --j N"; an empty
// value arrives as the label alone. A wrong word is refused with its name,
// the known ones listed, status 2 and RELION's failure file.
TEST(RelionJob, CommandLineOfAnExternalJob) {
  JobOptions o;
  std::string why;
  ASSERT_TRUE(parse_job_options({"--o", "External/job003", "--in_mics", "Import/job001/micrographs.star", "--diameter",
                                 "190", "--follow", "--cutoff", "-0.25", "--gpu", "1:2", "--j", "2"},
                                o, why))
      << why;
  EXPECT_EQ(o.out, "External/job003/");
  EXPECT_TRUE(o.follow && o.cut == JobCut::kGiven);
  EXPECT_EQ(o.cutoff, -0.25);
  EXPECT_EQ(o.gpu, 1);
  EXPECT_EQ(o.threads, 2);
  JobOptions empty_gpu;
  ASSERT_TRUE(parse_job_options({"--o", "J", "--in_mics", "m.star", "--diameter", "100", "--gpu", "--j", "1"},
                                empty_gpu, why))
      << why;
  EXPECT_EQ(empty_gpu.gpu, -1);
  JobOptions named;
  ASSERT_TRUE(parse_job_options({"--o", "J", "--diameter", "100", "--follow", "a.mrc", "b.mrc"}, named, why));
  EXPECT_EQ(named.inputs, std::vector<std::string>({"a.mrc", "b.mrc"}));

  TempDir dir;
  mkdir(dir.file("J").c_str(), 0777);
  RunResult r = relion_in(dir.path(), {"--o", "J/", "--in_mics", "m.star", "--diameter", "120", "--bogus", "1"});
  EXPECT_EQ(r.status, 2);
  EXPECT_TRUE(contains(r.err, "unknown parameter --bogus")) << r.err;
  for (const char* known : {"--diameter", "--templates", "--cutoff", "--follow_idle", "--extract_box"})
    EXPECT_TRUE(contains(r.err, known)) << known;
  EXPECT_TRUE(file_exists(dir.file("J/RELION_JOB_EXIT_FAILURE")));
  EXPECT_FALSE(file_exists(dir.file("J/RELION_JOB_EXIT_SUCCESS")));

  const struct {
    std::vector<std::string> args;
    const char* names;
  } refused[] = {{{"--in_mics", "m.star", "--diameter", "120"}, "--o"},
                 {{"--o", "J/", "--in_mics", "m.star"}, "--diameter"},
                 {{"--o", "J/", "--in_mics", "m.star", "--diameter", "120", "--speed", "9"}, "--speed"},
                 {{"--o", "J/", "--in_mics", "m.star", "--diameter", "120", "--templates", "--j", "2"}, "--templates"}};
  for (const auto& c : refused) {
    r = relion_in(dir.path(), c.args);
    EXPECT_EQ(r.status, 2) << c.names;
    EXPECT_TRUE(contains(r.err, c.names)) << r.err;
  }
  // A particle too small for the working pixels of --speed: refused before any micrograph.
  r = relion_in(dir.path(), {"--o", "S/", "--in_mics", "m.mrc", "--apix", "4", "--diameter", "50", "--speed", "4"});
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(contains(r.err, "--diameter 50 at 4 A per pixel and --speed 4 gives a picking grid cell below one "
                              "working pixel: lower --speed or raise --diameter"))
      << r.err;
  EXPECT_TRUE(file_exists(dir.file("S/RELION_JOB_EXIT_FAILURE")));

  r = relion_in(dir.path(), {"--help"});
  EXPECT_EQ(r.status, 0);
  EXPECT_TRUE(contains(r.out, "--in_mics") && contains(r.out, "RELION_JOB_EXIT_ABORTED")) << r.out;
}

// RELION names the files it derives from a micrograph after what follows
// the first "jobNNN" folder, drops from the last '.', and a job's files must
// stay in its folder.
// The job cuts each micrograph as gvexreport --pick does: on a sparse one
// the picks beside a strong edge are left out, on a crowded one, or
// without the pixels, not.
TEST(RelionJob, AutomaticCutLeavesPicksOnStrongEdgesOutOfSparseMicrographs) {
  const int n = 1024;
  std::vector<float> pixels((size_t)n * n);
  for (int y = 0; y < n; y++)
    for (int x = 0; x < n; x++) pixels[(size_t)y * n + x] = (float)((x * 7 + y * 13) % 11) / 11 + (x >= 512 ? 4 : 0);
  PickResult r;
  r.usable_pixels = (double)n * n;
  for (int i = 0; i < 200; i++) {  // noise maxima, and decoys like them
    Pick p;
    p.x = 40 + (i % 20) * 22, p.y = 40 + (i / 20) * 90, p.score = (float)(0.2 * i / 199);
    r.picks.push_back(p);
    r.decoys.push_back(p);
  }
  for (int i = 0; i < 12; i++) {  // particles; the last four beside the step
    Pick p;
    p.x = i < 8 ? 100 + 40 * i : 512 - 30, p.y = i < 8 ? 980 : 100 + 200 * (i - 8), p.score = (float)(0.5 + 0.01 * i);
    r.picks.push_back(p);
  }
  // Particles of 40 px at 1 A: radius 20, the annulus 30-60 px out.
  std::vector<Pick> picks = r.picks;
  long dropped = -1;
  const double cut = auto_cutoff(r, 40, 1, pixels, n, n, picks, dropped);
  EXPECT_GT(cut, 0.2);
  EXPECT_LE(cut, 0.5);
  EXPECT_EQ(dropped, 4);
  EXPECT_EQ(picks.size(), r.picks.size() - 4);
  for (const Pick& p : picks) EXPECT_NE(p.x, 512 - 30) << "a pick beside the step was kept";
  picks = r.picks;
  EXPECT_EQ(auto_cutoff(r, 40, 1, {}, 0, 0, picks, dropped), cut);
  EXPECT_EQ(dropped, 0);
  EXPECT_EQ(picks.size(), r.picks.size());
}

TEST(RelionJob, FileNamesAsRelionDerivesThem) {
  std::string why;
  const struct {
    const char* mic;
    const char* coords;
  } cases[] = {{"MotionCorr/job002/Movies/a.mrc", "J/Movies/a_autopick.star"},
               {"Micrographs/a.mrc", "J/Micrographs/a_autopick.star"},
               {"job012/b.mrc", "J/b_autopick.star"},
               {"x/CtfFind/job004/y/job005/c.mrcs", "J/y/job005/c_autopick.star"},
               {"/data/d.mrc", "J/data/d_autopick.star"},
               {"Movies.v2/e", "J/Movies_autopick.star"},
               {"./Micrographs/./a.mrc", "J/Micrographs/a_autopick.star"}};
  for (const auto& c : cases) EXPECT_EQ(job_file_for("J/", c.mic, "_autopick.star", why), c.coords) << c.mic;
  EXPECT_EQ(job_file_for("J/", "../elsewhere/f.mrc", "_autopick.star", why), "");
  EXPECT_TRUE(contains(why, "outside the job folder")) << why;
}

// A micrographs STAR file of each RELION version as input; the files RELION
// 3.1 (coords_suffix), 4 and 5 (autopick.star, node labels) read, field by
// field; the pixel size from each micrograph's optics group.
TEST(RelionJob, StarFilesOfRelion30To5InAndTheFilesOf31To5Out) {
  TempDir dir;
  make_dirs(dir.file("MotionCorr/job002/Movies/"));
  ASSERT_TRUE(make_mic(dir.path(), "MotionCorr/job002/Movies/a.mrc", 1024, 1024, 3));
  ASSERT_TRUE(make_mic(dir.path(), "MotionCorr/job002/Movies/b.mrc", 1024, 1024, 4));
  write_text_file(dir.file("mics31.star"),
                  "# version 30001\n\ndata_optics\n\nloop_\n_rlnOpticsGroupName #1\n_rlnOpticsGroup #2\n"
                  "_rlnMicrographPixelSize #3\n_rlnVoltage #4\nopticsGroup1 1 1.340000 300\nopticsGroup2 2 1.400000 "
                  "300\n\n\n# version 30001\n\ndata_micrographs\n\nloop_\n_rlnMicrographName #1\n_rlnOpticsGroup #2\n"
                  "MotionCorr/job002/Movies/a.mrc 1\nMotionCorr/job002/Movies/b.mrc 2\n");
  write_text_file(dir.file("mics30.star"),
                  "\ndata_\n\nloop_\n_rlnMicrographName #1\n_rlnDetectorPixelSize #2\n_rlnMagnification #3\n"
                  "MotionCorr/job002/Movies/a.mrc 5.0 37313.432836\n");
  // RELION 5's pipeline says version 50001; RELION 4's has type labels.
  write_text_file(dir.file("default_pipeline.star"),
                  "# version 50001\n\ndata_pipeline_general\n\n_rlnPipeLineJobCounter 3\n");
  const std::vector<std::string> base = {"--diameter", "120", "--settle", "0", "--j", "2"};
  auto run = [&](const std::string& job, const std::string& star) {
    std::vector<std::string> a = {"--o", job, "--in_mics", star};
    a.insert(a.end(), base.begin(), base.end());
    RunResult r = relion_in(dir.path(), a);
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_TRUE(file_exists(dir.file(job + "RELION_JOB_EXIT_SUCCESS")));
  };
  run("External/job005/", "mics31.star");
  const std::string job = dir.file("External/job005/");
  EXPECT_EQ(read_text_file(job + "coords_suffix_autopick.star"), "mics31.star\n");

  const Table list = star_block(job + "autopick.star", "coordinate_files");
  EXPECT_EQ(list.labels, std::vector<std::string>({"rlnMicrographName", "rlnMicrographCoordinates"}));
  ASSERT_EQ(list.rows.size(), 2u);
  EXPECT_EQ(list.rows[0], std::vector<std::string>({"MotionCorr/job002/Movies/a.mrc",
                                                    "External/job005/Movies/a_autopick.star"}));
  const Table nodes = star_block(job + "RELION_OUTPUT_NODES.star", "output_nodes");
  EXPECT_EQ(nodes.labels,
            std::vector<std::string>({"rlnPipeLineNodeName", "rlnPipeLineNodeType", "rlnPipeLineNodeTypeLabel"}));
  ASSERT_EQ(nodes.rows.size(), 2u);
  EXPECT_EQ(nodes.rows[1], std::vector<std::string>({"External/job005/autopick.star", "2",
                                                     "MicrographCoordsGroup.star.relion.autopick"}));
  EXPECT_EQ(nodes.rows[0][0], "External/job005/coords_suffix_autopick.star");

  const Table summary = star_block(job + "summary.star", "micrographs");
  ASSERT_EQ(summary.rows.size(), 2u);
  EXPECT_EQ(column(summary, 0, "rlnMicrographPixelSize"), "1.340000");
  EXPECT_EQ(column(summary, 1, "rlnMicrographPixelSize"), "1.400000");
  for (size_t i = 0; i < 2; i++) {
    const std::string name = i ? "b" : "a", coords = job + "Movies/" + name + "_autopick.star";
    const Table c = star_block(coords, "");
    EXPECT_EQ(c.labels, std::vector<std::string>({"rlnCoordinateX", "rlnCoordinateY", "rlnClassNumber",
                                                  "rlnAutopickFigureOfMerit", "rlnAnglePsi"}));
    EXPECT_EQ(std::to_string(c.rows.size()), column(summary, i, "gvexKeptCount"));
    // The cut-off in a comment RELION skips, as the summary has it.
    EXPECT_TRUE(contains(read_text_file(coords), "# gvexmatch_relion: cut-off " + column(summary, i, "gvexCutoff") +
                                                     " (automatic"));
    EXPECT_TRUE(contains(read_text_file(job + "index.html"), "MotionCorr/job002/Movies/" + name + ".mrc"));
    EXPECT_TRUE(file_exists(job + "pictures/Movies/" + name + ".png"));
  }
  expect_planted_found(job + "Movies/a_autopick.star", dir.file("MotionCorr/job002/Movies/a_truth.txt"));

  // RELION 3.0's single table: detector pixel over magnification. RELION
  // 4's pipeline: the node label of its own spelling.
  write_text_file(dir.file("default_pipeline.star"),
                  "# version 30001\n\ndata_pipeline_processes\n\nloop_\n_rlnPipeLineProcessName #1\n"
                  "_rlnPipeLineProcessTypeLabel #2\nImport/job001/ relion.import.movies\n");
  run("External/job006/", "mics30.star");
  EXPECT_EQ(star_block(dir.file("External/job006/RELION_OUTPUT_NODES.star"), "output_nodes").rows[1][2],
            "MicrographsCoords.star.relion.autopick");
  EXPECT_EQ(read_text_file(dir.file("External/job006/Movies/a_autopick.star")),
            read_text_file(job + "Movies/a_autopick.star"));

  // A fixed cut-off, and boxes for extraction that must lie inside.
  RunResult r = relion_in(dir.path(), {"--o", "External/job007/", "--in_mics", "mics30.star", "--diameter", "120",
                                       "--settle", "0", "--cutoff", "0.9", "--extract_box", "300"});
  ASSERT_EQ(r.status, 0) << r.err;
  const std::string fixed = dir.file("External/job007/Movies/a_autopick.star");
  EXPECT_TRUE(contains(read_text_file(fixed), "cut-off 0.900000 (given)"));
  const Table kept = star_block(fixed, "");
  EXPECT_GE(kept.rows.size(), 3u);
  for (size_t i = 0; i < kept.rows.size(); i++) {
    const double x = std::stod(column(kept, i, "rlnCoordinateX")), y = std::stod(column(kept, i, "rlnCoordinateY"));
    EXPECT_GE(std::stod(column(kept, i, "rlnAutopickFigureOfMerit")), 0.9);
    EXPECT_TRUE(x >= 150 && y >= 150 && x <= 1024 - 150 && y <= 1024 - 150) << x << " " << y;
  }
}

// The micrographs STAR files RELION writes, as each version lays them out:
// names as given, the pixel size of each micrograph's optics group (after
// binning in motion correction), or RELION 3.0's detector pixel over
// magnification.
TEST(RelionJob, MicrographStarFileOfEachVersion) {
  const std::string optics =
      "data_optics\n\nloop_\n_rlnOpticsGroupName #1\n_rlnOpticsGroup #2\n_rlnMicrographOriginalPixelSize #3\n"
      "_rlnVoltage #4\n_rlnMicrographPixelSize #5\nopticsGroup1 1 0.885000 300.0 1.770000\n"
      "opticsGroup2 2 0.885000 300.0 0.885000\n\n";
  const struct {
    const char* version;
    std::string text;
    std::vector<std::pair<std::string, double>> want;
  } cases[] = {
      {"3.0",
       "\ndata_\n\nloop_\n_rlnMicrographName #1\n_rlnCtfImage #2\n_rlnDetectorPixelSize #3\n_rlnMagnification #4\n"
       "Micrographs/a.mrc Micrographs/a.ctf:mrc 14.0 100000.0\nMicrographs/b.mrc Micrographs/b.ctf:mrc 14.0 100000.0\n",
       {{"Micrographs/a.mrc", 1.4}, {"Micrographs/b.mrc", 1.4}}},
      {"3.1 and 4",
       "# version 30001\n\n" + optics +
           "# version 30001\n\ndata_micrographs\n\nloop_\n_rlnCtfPowerSpectrum #1\n_rlnMicrographName #2\n"
           "_rlnMicrographMetadata #3\n_rlnOpticsGroup #4\n_rlnAccumMotionTotal #5\n"
           "MotionCorr/job002/Movies/a_PS.mrc MotionCorr/job002/Movies/a.mrc MotionCorr/job002/Movies/a.star 1 16.4\n"
           "MotionCorr/job002/Movies/b_PS.mrc MotionCorr/job002/Movies/b.mrc MotionCorr/job002/Movies/b.star 2 12.1\n",
       {{"MotionCorr/job002/Movies/a.mrc", 1.77}, {"MotionCorr/job002/Movies/b.mrc", 0.885}}},
      {"5",
       "# version 50001\n\n" + optics +
           "# version 50001\n\ndata_micrographs\n\nloop_\n_rlnMicrographName #1\n_rlnOpticsGroup #2\n"
           "_rlnCtfImage #3\n_rlnDefocusU #4\n\"CtfFind/job003/Movies/a b.mrc\" 2 CtfFind/job003/Movies/a.ctf:mrc "
           "10863.857422\n",
       {{"CtfFind/job003/Movies/a b.mrc", 0.885}}},
  };
  for (const auto& c : cases) {
    std::vector<MicEntry> got;
    std::string why;
    ASSERT_TRUE(mics_from_star(c.text, got, why)) << c.version << ": " << why;
    ASSERT_EQ(got.size(), c.want.size()) << c.version;
    for (size_t i = 0; i < got.size(); i++) {
      EXPECT_EQ(got[i].name, c.want[i].first) << c.version;
      EXPECT_NEAR(got[i].apix, c.want[i].second, 1e-9) << c.version;
    }
  }
  std::vector<MicEntry> none;
  std::string why;
  EXPECT_FALSE(mics_from_star("data_particles\nloop_\n_rlnImageName #1\n1@p.mrcs\n", none, why));
  EXPECT_TRUE(contains(why, "_rlnMicrographName")) << why;
  // A group given twice (with another pixel size) is refused, naming it.
  const std::string twice = optics.substr(0, optics.size() - 1) + "opticsGroup2 2 0.885000 300.0 1.2\n\n";
  const std::string mics = "data_micrographs\nloop_\n_rlnMicrographName #1\n_rlnOpticsGroup #2\na.mrc 2\n";
  EXPECT_FALSE(mics_from_star(twice + mics, none, why));
  EXPECT_EQ(why, "optics group 2 is given twice in data_optics");
}

const std::string kMics[] = {"m1.mrc", "m2.mrc", "m3.mrc"};

// Three sparse micrographs of a few particles each, too few to prove alone.
bool make_sparse_three(const TempDir& dir) {
  for (int i = 0; i < 3; i++)
    if (!make_mic(dir.path(), kMics[i], 1024, 1024, 40 + i, {"--density", "0.05"})) return false;
  return true;
}

// A project folder of dir's three micrographs (m1-m3.mrc) whose list.txt
// names the first mics.
std::string project_of(const TempDir& dir, const std::string& name, int mics) {
  const std::string p = dir.file(name);
  mkdir(p.c_str(), 0777);
  std::string list;
  for (int i = 0; i < 3; i++) {
    symlink(dir.file(kMics[i]).c_str(), (p + "/" + kMics[i]).c_str());
    if (i < mics) list += kMics[i] + "\n";
  }
  write_text_file(p + "/list.txt", list);
  return p;
}

// The cut-off written in a coordinate file's comment line.
double cut_in(const std::string& path) {
  const std::string text = read_text_file(path);
  return std::stod(text.substr(text.find("cut-off ") + 8));
}

// A rerun with the same --o picks only what is new and rewrites the node
// files for all; a run killed at any of its steps, then run again, leaves
// the files of a run that was never interrupted.
TEST(RelionJob, ContinuedAndKilledRunsEndWithTheSameFiles) {
  TempDir dir;
  for (int i = 1; i <= 3; i++) ASSERT_TRUE(make_mic(dir.path(), "m" + std::to_string(i) + ".mrc", 1024, 1024, 10 + i));
  // Each case in its own folder, with the same names for the same micrographs.
  auto project = [&](const std::string& name, int mics) { return project_of(dir, name, mics); };
  const std::string whole = project("whole", 3);
  RunResult r = relion_in(whole, job_args("J/", "list.txt"));
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  const auto want = files_of(whole + "/J/");
  EXPECT_EQ(star_block(whole + "/J/autopick.star", "coordinate_files").rows.size(), 3u);
  // For extraction when no STAR file came in, with the optics RELION 3.1 asks for.
  const Table optics = star_block(whole + "/J/micrographs.star", "optics");
  EXPECT_EQ(column(optics, 0, "rlnMicrographPixelSize"), "1.340000");
  EXPECT_EQ(column(optics, 0, "rlnVoltage") + column(optics, 0, "rlnSphericalAberration") +
                column(optics, 0, "rlnAmplitudeContrast"),
            "3002.70.1");
  EXPECT_EQ(read_text_file(whole + "/J/coords_suffix_autopick.star"), "J/micrographs.star\n");

  const std::string cont = project("continued", 2);
  ASSERT_EQ(relion_in(cont, job_args("J/", "list.txt")).status, 0);
  const std::string m1_before = read_text_file(cont + "/J/m1_autopick.star");
  project("continued", 3);
  r = relion_in(cont, job_args("J/", "list.txt"));
  EXPECT_TRUE(contains(r.out, "1 micrographs picked in this run (3 in the job)")) << r.out;
  EXPECT_EQ(read_text_file(cont + "/J/m1_autopick.star"), m1_before);
  EXPECT_EQ(files_of(cont + "/J/"), want);
  // A coordinate file deleted by hand is made again, not left listed.
  ASSERT_EQ(remove((cont + "/J/m1_autopick.star").c_str()), 0);
  r = relion_in(cont, job_args("J/", "list.txt"));
  EXPECT_TRUE(contains(r.out, "1 micrographs picked in this run (3 in the job)")) << r.out;
  EXPECT_TRUE(file_exists(cont + "/J/m1_autopick.star"));
  EXPECT_EQ(star_block(cont + "/J/autopick.star", "coordinate_files").rows.size(), 3u);
  // A copied job folder goes on in its copy, never in the original.
  auto cut_over_job = [&](const char* job) {  // rewrites every coordinate file as the job grows
    std::vector<std::string> a = job_args(job, "list.txt");
    a.insert(a.end(), {"--cutoff", "run"});
    return a;
  };
  const std::string copied = project("copied", 2);
  ASSERT_EQ(relion_in(copied, cut_over_job("A/")).status, 0);
  ASSERT_EQ(run_shell("cp -a A B && rm -r A", RunOptions{copied, 10}).status, 0);
  project("copied", 3);
  ASSERT_EQ(relion_in(copied, cut_over_job("B/")).status, 0);
  EXPECT_FALSE(file_exists(copied + "/A"));
  EXPECT_FALSE(contains(read_text_file(copied + "/B/autopick.star"), "A/"));
  // Other settings would mix two kinds of picks in one job.
  std::vector<std::string> other = job_args("J/", "list.txt");
  other[7] = "150";
  r = relion_in(cont, other);
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(contains(r.err, "was picked with --diameter 120")) << r.err;

  int k = 0;
  for (const char* at : {"merged:2", "relion_coordinates:2", "relion_record:1", "relion_nodes:2", "committed:3"}) {
    SCOPED_TRACE(at);
    const std::string p = project("killed" + std::to_string(++k), 3);
    std::string cmd = "GVEX_TEST_STOP_AT=" + std::string(at) + " exec " + gvex_relion_bin();
    for (const std::string& w : job_args("J/", "list.txt")) cmd += " '" + w + "'";
    r = run_shell(cmd, RunOptions{p, 180});
    EXPECT_EQ(r.signal, SIGKILL) << r.out;
    // What a kill in the middle of a write leaves.
    make_dirs(p + "/J/pictures/");
    write_text_file(p + "/J/m3_autopick.star.part", "_rlnCoordinateX");
    write_text_file(p + "/J/pictures/m3.png.part", "");
    r = relion_in(p, job_args("J/", "list.txt"));
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(files_of(p + "/J/"), want);
  }
}


// --cutoff run cuts each micrograph as gvexreport --pick cuts the same
// micrographs as one run, and the files depend on which micrographs the job
// holds, not on how it came to hold them: continued, killed, or in one go.
TEST(RelionJob, CutOverTheJobIsGvexreportsHoweverTheJobRan) {
  TempDir dir;
  ASSERT_TRUE(make_sparse_three(dir));
  auto project = [&](const std::string& name, int mics) { return project_of(dir, name, mics); };
  std::vector<std::string> args = job_args("J/", "list.txt");
  args.insert(args.end(), {"--cutoff", "run"});
  const std::string whole = project("whole", 3);
  RunResult r = relion_in(whole, args);
  ASSERT_EQ(r.status, 0);
  EXPECT_TRUE(contains(r.out, "cut over the job's 3 micrographs: ")) << r.out;
  const auto want = files_of(whole + "/J/");
  const std::string report = project("report", 3);
  const std::string pick = " --out rep --pick --apply --apixM 1.34 --diameter 120 m1.mrc m2.mrc m3.mrc";
  r = run_shell(gvex_report_bin() + pick, RunOptions{report, 180});
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  for (const std::string& m : kMics) {
    const std::string stem = m.substr(0, m.size() - 4), job = read_text_file(whole + "/J/" + stem + "_autopick.star");
    ASSERT_TRUE(contains(job, "(automatic, over the job)")) << job;
    EXPECT_NEAR(cut_in(whole + "/J/" + stem + "_autopick.star"), cut_in(report + "/" + stem + "_vexmatch_auto.star"),
                1e-6)
        << m;
    const auto kept = coords_of(whole + "/J/" + stem + "_autopick.star");
    EXPECT_EQ(kept, coords_of(report + "/" + stem + "_vexmatch_auto.star")) << m;
    EXPECT_FALSE(kept.empty()) << m;  // each alone proves nothing; together they do
  }
  // Warnings about the kept picks follow the cut over the job, not the first one; the page says why.
  EXPECT_FALSE(contains(read_text_file(whole + "/J/summary.star"), "no picks"));
  EXPECT_TRUE(contains(read_text_file(whole + "/J/index.html"), "decoys of its 3 micrographs together"));
  const std::string cont = project("continued", 2);
  ASSERT_EQ(relion_in(cont, args).status, 0);
  project("continued", 3);
  ASSERT_EQ(relion_in(cont, args).status, 0);
  EXPECT_EQ(files_of(cont + "/J/"), want);
  // A record whose decoys are damaged is refused, and its micrograph picked
  // again (last now, so only the coordinate files stay the same).
  const std::string record = cont + "/J/records/m1_record.star", text = read_text_file(record);
  write_text_file(record, text.substr(0, text.rfind(" 0\n")) + " 2\n");
  r = relion_in(cont, args);
  EXPECT_TRUE(contains(r.out, "is not a complete record; that micrograph is picked again")) << r.out;
  for (const char* f : {"m1_autopick.star", "m2_autopick.star", "m3_autopick.star"})
    EXPECT_EQ(read_text_file(cont + "/J/" + f), want.at(f)) << f;
  const std::string killed = project("killed", 3);
  std::string cmd = "GVEX_TEST_STOP_AT=relion_record:2 exec " + gvex_relion_bin();
  for (const std::string& w : args) cmd += " '" + w + "'";
  EXPECT_EQ(run_shell(cmd, RunOptions{killed, 180}).signal, SIGKILL);
  ASSERT_EQ(relion_in(killed, args).status, 0);
  EXPECT_EQ(files_of(killed + "/J/"), want);
}

// --cutoff recent cuts each micrograph once, when it is picked, as
// gvexreport --pick cuts it among the micrographs picked before it. (It is
// the default: ContinuedAndKilledRunsEndWithTheSameFiles shows its files
// never change as a job grows.)
TEST(RelionJob, RecentCutIsGvexreportsOverTheMicrographsBefore) {
  TempDir dir;
  ASSERT_TRUE(make_sparse_three(dir));
  std::vector<std::string> args = job_args("J/", "list.txt");
  args.insert(args.end(), {"--cutoff", "recent"});
  const std::string whole = project_of(dir, "whole", 3);
  ASSERT_EQ(relion_in(whole, args).status, 0);
  const char* how[] = {"(automatic, the job's first micrograph alone)",
                       "(automatic, with the 1 micrograph picked before it)",
                       "(automatic, with the 2 micrographs picked before it)"};
  for (int k = 0; k < 3; k++) {
    const std::string stem = kMics[k].substr(0, 2), job = whole + "/J/" + stem + "_autopick.star";
    EXPECT_TRUE(contains(read_text_file(job), how[k])) << read_text_file(job);
    const std::string report = project_of(dir, "report" + std::to_string(k), 3);
    std::string pick = " --out rep --pick --apply --apixM 1.34 --diameter 120";
    for (int i = 0; i <= k; i++) pick += " " + kMics[i];
    const RunResult r = run_shell(gvex_report_bin() + pick, RunOptions{report, 180});
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    const std::string ours = report + "/" + stem + "_vexmatch_auto.star";
    EXPECT_NEAR(cut_in(job), cut_in(ours), 1e-6) << stem;
    EXPECT_EQ(coords_of(job), coords_of(ours)) << stem;
  }
  // The third micrograph proves the run's particles; picked alone it keeps none.
  EXPECT_FALSE(coords_of(whole + "/J/m3_autopick.star").empty());
}

// A record edited by hand or left by a damaged disk: a number out of its
// field's range is refused whole, as a missing field is, and never converted
// into a width or a class it overflows.
TEST(RelionJob, RecordsWithNumbersOutOfRangeAreRefused) {
  TempDir dir;
  MicRecord r;
  r.mic = "m1.mrc", r.sequence = 1, r.nx = 960, r.ny = 800, r.apix = 1.06, r.cutoff = 0.2, r.masked = 0.1;
  Pick p;
  p.x = 100, p.y = 120, p.score = 0.5f, p.cls = 2, p.psi = 30, p.w = p.h = 64;
  r.picks = {p};
  r.pooled = true, r.usable_pixels = 7e5, r.on_edge = {0}, r.decoys = {p}, r.decoy_on_edge = {1};
  const std::string path = dir.file("r.star");
  ASSERT_TRUE(record_write(path, r));
  const std::string text = read_text_file(path);
  MicRecord back;
  std::string why;
  ASSERT_TRUE(record_read(path, back, why)) << why;
  EXPECT_EQ(back.picks.size(), 1u);
  EXPECT_EQ(back.decoys.size(), 1u);
  const std::pair<const char*, const char*> damage[] = {
      {"_gvexWidth 960", "_gvexWidth 1e300"},   {"_gvexSequence 1\n", "_gvexSequence -1\n"},
      {"_gvexMaskedFraction 0.1", "_gvexMaskedFraction nan"}, {"_gvexUsablePixels 700000", "_gvexUsablePixels inf"},
      {"120 0.5 2 30 64", "120 0.5 9e18 30 64"}, {"120 0.5 2 30 64", "120 1e30 2 30 64"},
      {"100 120 0.5 1\n", "1e300 120 0.5 1\n"}};
  for (const auto& d : damage) {
    ASSERT_NE(text.find(d.first), std::string::npos) << d.first << " in\n" << text;
    std::string bad = text;
    bad.replace(bad.find(d.first), strlen(d.first), d.second);
    write_text_file(path, bad);
    MicRecord fresh;
    EXPECT_FALSE(record_read(path, fresh, why)) << d.second;
    EXPECT_EQ(why, path + " is not a complete record") << d.second;
  }
}

// A micrograph that cannot be read is named and skipped, the rest are
// picked; with nothing picked at all the job fails.
TEST(RelionJob, UnreadableMicrographsAreSkipped) {
  TempDir dir;
  ASSERT_TRUE(make_mic(dir.path(), "good.mrc", 1024, 1024, 5));
  for (const char* small : {"small.mrc", "small2.mrc"}) ASSERT_TRUE(make_mic(dir.path(), small, 64, 64, 6));
  const std::string bytes = read_text_file(dir.file("good.mrc"));
  write_text_file(dir.file("short.mrc"), bytes.substr(0, bytes.size() / 2));
  write_text_file(dir.file("text.mrc"), std::string(2000, 'x'));
  std::string complex = bytes;
  complex[12] = 3;  // mode 3, complex shorts
  write_text_file(dir.file("complex.mrc"), complex);
  ASSERT_EQ(mkfifo(dir.file("fifo.mrc").c_str(), 0644), 0);
  write_text_file(dir.file("empty.mrc"), "");
  write_text_file(dir.file("list.txt"), "small.mrc\nshort.mrc\ngood.mrc\ntext.mrc\nmissing.mrc\ncomplex.mrc\nfifo.mrc\n"
                                        "small2.mrc\n./good.mrc\nempty.mrc\n");
  RunResult r = relion_in(dir.path(), job_args("J/", "list.txt"));
  EXPECT_EQ(r.status, 0) << r.err;
  for (const char* bad : {"short.mrc", "text.mrc", "missing.mrc", "complex.mrc", "empty.mrc"}) {
    EXPECT_TRUE(contains(r.out, std::string("skipped ") + bad)) << r.out;
    EXPECT_TRUE(contains(r.err, std::string("skipped ") + bad)) << r.err;
  }
  EXPECT_TRUE(contains(r.out, "skipped short.mrc: file short.mrc is too short")) << r.out;
  EXPECT_TRUE(contains(r.out, "skipped missing.mrc: no such file")) << r.out;
  EXPECT_TRUE(contains(r.out, "skipped complex.mrc: its pixels are of MRC mode 3")) << r.out;
  EXPECT_TRUE(contains(r.out, "skipped fifo.mrc: it is a FIFO, not a file")) << r.out;
  // Another spelling of a micrograph's path is not picked twice.
  EXPECT_TRUE(contains(r.out, "skipped ./good.mrc: its coordinate file J/good_autopick.star is that of good.mrc"))
      << r.out;
  // Too small for the templates: the micrographs after it are picked.
  for (const char* small : {"small.mrc", "small2.mrc"})
    EXPECT_TRUE(contains(r.out, std::string("skipped ") + small + ": these settings cannot pick it: templates of"))
        << r.out;
  EXPECT_TRUE(file_exists(dir.file("J/good_autopick.star")));
  EXPECT_FALSE(file_exists(dir.file("J/short_autopick.star")));
  EXPECT_EQ(star_block(dir.file("J/autopick.star"), "coordinate_files").rows.size(), 1u);
  EXPECT_TRUE(file_exists(dir.file("J/RELION_JOB_EXIT_SUCCESS")));

  write_text_file(dir.file("bad.txt"), "short.mrc\nmissing.mrc\n");
  r = relion_in(dir.path(), job_args("K/", "bad.txt"));
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(contains(r.err, "no micrograph could be picked")) << r.err;
  EXPECT_TRUE(file_exists(dir.file("K/RELION_JOB_EXIT_FAILURE")));

  // An input that is not a file is named, never waited on.
  ASSERT_EQ(mkfifo(dir.file("fifo.star").c_str(), 0644), 0);
  r = relion_in(dir.path(), job_args("L/", "fifo.star"));
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(contains(r.err, "cannot read the micrographs STAR file fifo.star: it is a FIFO")) << r.err;
}

// A write that fails (a full disk; here a file-size limit that the large
// micrograph's picture passes) fails the job, and its node files still
// name the micrographs picked before (written with the first one, then
// at most every few seconds), whose coordinate files are the job's.
TEST(RelionJob, FailedWriteLeavesNodesNamingWhatWasPicked) {
  TempDir dir;
  for (int k = 1; k <= 3; k++) ASSERT_TRUE(make_mic(dir.path(), "a" + std::to_string(k) + ".mrc", 256, 256, k));
  ASSERT_TRUE(make_mic(dir.path(), "b.mrc", 1024, 1024, 4));
  write_text_file(dir.file("list.txt"), "a1.mrc\na2.mrc\na3.mrc\nb.mrc\n");
  std::string cmd = "ulimit -f 400; exec " + gvex_relion_bin();  // 200 kB
  for (const std::string& a : job_args("J/", "list.txt")) cmd += " " + a;
  const RunResult r = run_shell(cmd, RunOptions{dir.path(), 180});
  EXPECT_EQ(r.status, 1) << r.out << r.err;
  EXPECT_TRUE(file_exists(dir.file("J/RELION_JOB_EXIT_FAILURE")));
  const Table nodes = star_block(dir.file("J/autopick.star"), "coordinate_files");
  ASSERT_EQ(nodes.rows.size(), 3u) << r.out;
  EXPECT_EQ(nodes.rows[2][0], "a3.mrc");
}

// RELION_JOB_ABORT_NOW: the job stops after the micrograph it is picking
// (the files of one picked before may still be in writing, one more may
// wait for the writer), the node files cover what was picked, the abort
// file goes and RELION_JOB_EXIT_ABORTED comes, status 3. SIGTERM likewise,
// and a second signal at once.
TEST(RelionJob, AbortFileStopsAfterTheCurrentMicrograph) {
  TempDir dir;
  std::string list;
  for (int i = 1; i <= 6; i++) {
    ASSERT_TRUE(make_mic(dir.path(), "m" + std::to_string(i) + ".mrc", 1024, 1024, 20 + i));
    list += "m" + std::to_string(i) + ".mrc\n";
  }
  write_text_file(dir.file("list.txt"), list);
  std::string cmd = gvex_relion_bin();
  for (const std::string& w : job_args("J/", "list.txt")) cmd += " '" + w + "'";
  RunResult r = run_shell(kWaitFor + cmd + " & wait_for J/m1_autopick.star; touch J/RELION_JOB_ABORT_NOW; wait $!; echo status $?",
                          RunOptions{dir.path(), 180});
  EXPECT_TRUE(contains(r.out, "status 3")) << r.out << r.err;
  EXPECT_TRUE(file_exists(dir.file("J/RELION_JOB_EXIT_ABORTED")));
  EXPECT_FALSE(file_exists(dir.file("J/RELION_JOB_ABORT_NOW")));
  EXPECT_FALSE(file_exists(dir.file("J/RELION_JOB_EXIT_SUCCESS")));
  const size_t listed = star_block(dir.file("J/autopick.star"), "coordinate_files").rows.size();
  EXPECT_GE(listed, 1u);
  EXPECT_LE(listed, 4u);
  for (size_t i = 1; i <= 6; i++)
    EXPECT_EQ(file_exists(dir.file("J/m" + std::to_string(i) + "_autopick.star")), i <= listed) << i;

  // SIGTERM, as a queue sends a cancelled job: the same end, no file left in writing.
  r = run_shell(kWaitFor + cmd.replace(cmd.find("'J/'"), 4, "'T/'") +
                    " & wait_for T/m1_autopick.star; kill -TERM $!; wait $!; echo status $?; find T -name '*.part'",
                RunOptions{dir.path(), 180});
  EXPECT_TRUE(contains(r.out, "status 3")) << r.out << r.err;
  EXPECT_FALSE(contains(r.out, ".part")) << r.out;
  EXPECT_TRUE(contains(r.err, "ABORTED: aborted (SIGTERM)")) << r.err;
  EXPECT_TRUE(file_exists(dir.file("T/RELION_JOB_EXIT_ABORTED")));
  EXPECT_FALSE(file_exists(dir.file("T/RELION_JOB_EXIT_SUCCESS")));
  EXPECT_GE(star_block(dir.file("T/autopick.star"), "coordinate_files").rows.size(), 1u);
  // A second signal ends the job at once, with the exit file all the same.
  r = run_shell(kWaitFor + cmd.replace(cmd.find("'T/'"), 4, "'S/'") +
                    " & wait_for S/m1_autopick.star; kill -TERM $!; sleep 0.1; kill -TERM $!; wait $!; echo status $?",
                RunOptions{dir.path(), 180});
  EXPECT_TRUE(contains(r.out, "status 3")) << r.out << r.err;
  EXPECT_TRUE(file_exists(dir.file("S/RELION_JOB_EXIT_ABORTED")));

  // Present at the start (RELION's abort of a job still waiting): nothing is picked.
  write_text_file(dir.file("J/RELION_JOB_ABORT_NOW"), "");
  r = relion_in(dir.path(), job_args("J/", "list.txt"));
  EXPECT_EQ(r.status, 3);
  EXPECT_TRUE(contains(r.out, "0 micrographs picked in this run")) << r.out;
  EXPECT_TRUE(file_exists(dir.file("J/RELION_JOB_EXIT_ABORTED")));
}

namespace {

// float to IEEE half, rounding to nearest even; and back.
uint16_t to_half(float f) {
  uint32_t x;
  memcpy(&x, &f, 4);
  const uint32_t sign = (x >> 16) & 0x8000u;
  const int exp = (int)((x >> 23) & 0xff) - 127 + 15;
  uint32_t mant = x & 0x7fffffu;
  if (exp >= 31) return (uint16_t)(sign | 0x7c00u);
  int shift = 13;
  uint32_t base = (uint32_t)exp << 10;
  if (exp <= 0) {
    if (exp < -10) return (uint16_t)sign;
    mant |= 0x800000u;
    shift = 14 - exp;
    base = 0;
  }
  uint32_t h = base | (mant >> shift);
  const uint32_t rest = mant & ((1u << shift) - 1), half = 1u << (shift - 1);
  if (rest > half || (rest == half && (h & 1))) h++;
  return (uint16_t)(sign | h);
}

float from_half(uint16_t h) {
  const int e = (h >> 10) & 31, m = h & 1023;
  const float v = e == 0 ? std::ldexp((float)m, -24) : std::ldexp((float)(m | 1024), e - 25);
  return h & 0x8000 ? -v : v;
}

}  // namespace

// A float16 micrograph is picked as its float32 copy holding the same
// values, and about as the float32 original.
TEST(RelionJob, Float16MicrographsArePicked) {
  TempDir dir;
  ASSERT_TRUE(make_mic(dir.path(), "orig.mrc", 1024, 1024, 8));
  std::string bytes = read_text_file(dir.file("orig.mrc"));
  const size_t n = 1024 * 1024;
  std::string half = bytes.substr(0, 1024), copy = bytes.substr(0, 1024);
  for (size_t i = 0; i < n; i++) {
    float v;
    memcpy(&v, bytes.data() + 1024 + 4 * i, 4);
    const uint16_t h = to_half(v);
    const float back = from_half(h);
    half.append((const char*)&h, 2);
    copy.append((const char*)&back, 4);
  }
  const int32_t mode12 = 12;
  memcpy(&half[12], &mode12, 4);
  mkdir(dir.file("h").c_str(), 0777);
  mkdir(dir.file("c").c_str(), 0777);
  write_text_file(dir.file("h/m.mrc"), half);
  write_text_file(dir.file("c/m.mrc"), copy);
  for (const char* d : {"h", "c"}) ASSERT_EQ(relion_in(dir.file(d), job_args("J/", "m.mrc")).status, 0) << d;
  const std::string picks16 = read_text_file(dir.file("h/J/m_autopick.star"));
  EXPECT_EQ(picks16, read_text_file(dir.file("c/J/m_autopick.star")));
  ASSERT_EQ(relion_in(dir.path(), job_args("J/", "orig.mrc")).status, 0);
  const auto a = coords_of(dir.file("h/J/m_autopick.star")), b = coords_of(dir.file("J/orig_autopick.star"));
  EXPECT_NEAR((double)a.size(), (double)b.size(), 0.05 * b.size() + 1);
  int same = 0;
  for (const auto& p : a)
    for (const auto& q : b) same += std::hypot(p.first - q.first, p.second - q.second) <= 2;
  EXPECT_GE(same, 0.95 * b.size()) << same << " of " << b.size();
}

// --follow: a micrograph still being written is left alone until it holds
// still, then picked within seconds; the job ends after --follow_idle
// seconds without news, or at the stop file.
TEST(RelionJob, FollowsAGrowingInput) {
  TempDir dir;
  mkdir(dir.file("in").c_str(), 0777);
  ASSERT_TRUE(make_mic(dir.path(), "in/m1.mrc", 1024, 1024, 31));
  ASSERT_TRUE(make_mic(dir.path(), "m2.full", 1024, 1024, 32));
  const std::string prog = gvex_relion_bin();
  RunResult r = run_shell(
      kWaitFor + ("'" + prog) + "' --o J/ --in_mics 'in/*.mrc' --apix 1.34 --diameter 120 --follow --follow_idle 6 --settle 2 "
      ">out.txt 2>err.txt & job=$!\n"
      "wait_for J/in/m1_autopick.star\n"
      "for n in 1024 1000000 2000000 3000000 4000000; do head -c $n m2.full >in/m2.mrc; sleep 0.5; done\n"
      "cat m2.full >in/m2.mrc; done_at=$(date +%s.%N)\n"
      "wait_for J/in/m2_autopick.star; seen_at=$(date +%s.%N)\n"
      "n=0; until grep -q in/m2.mrc J/autopick.star || [ $n -gt 60 ]; do sleep 0.05; n=$((n+1)); done\n"
      "kill -0 $job && grep -q in/m2.mrc J/autopick.star && echo listed while following\n"
      "wait $job; echo status $?; echo \"after $(echo $done_at $seen_at | awk '{print $2 - $1}') s\"\n",
      RunOptions{dir.path(), 120});
  const std::string out = read_text_file(dir.file("out.txt"));
  EXPECT_TRUE(contains(r.out, "status 0")) << r.out << out << read_text_file(dir.file("err.txt"));
  EXPECT_FALSE(contains(out, "skipped in/")) << out;
  EXPECT_TRUE(contains(out, "nothing new for 6 s")) << out;
  EXPECT_TRUE(contains(r.out, "listed while following")) << r.out;  // downstream jobs see it at once
  const double after = std::stod(r.out.substr(r.out.find("after ") + 6));
  EXPECT_LT(after, 2 + 5.0) << "picks appeared " << after << " s after the file was complete";
  EXPECT_EQ(star_block(dir.file("J/autopick.star"), "coordinate_files").rows.size(), 2u);

  r = run_shell(kWaitFor + ("'" + prog + "' --o K/ --in_mics 'in/*.mrc' --apix 1.34 --diameter 120 --follow >out2.txt & ") +
                    "wait_for K/in/m2_autopick.star; '" + prog +
                    "' --o K/ --in_mics m2.full --diameter 120 2>second.txt; echo second $?; touch K/STOP; wait $!; "
                    "echo status $?",
                RunOptions{dir.path(), 120});
  EXPECT_TRUE(contains(r.out, "status 0")) << r.out;
  // A second run on the folder is refused and leaves the running one's exit file alone.
  EXPECT_TRUE(contains(r.out, "second 1")) << r.out;
  EXPECT_TRUE(contains(read_text_file(dir.file("second.txt")), "another gvexmatch_relion is running in K/"));
  EXPECT_FALSE(file_exists(dir.file("K/RELION_JOB_EXIT_FAILURE")));
  EXPECT_TRUE(file_exists(dir.file("K/RELION_JOB_EXIT_SUCCESS")));
  EXPECT_TRUE(contains(read_text_file(dir.file("out2.txt")), "stop file found")) << read_text_file(dir.file("out2.txt"));
  EXPECT_FALSE(file_exists(dir.file("K/STOP")));

  // An input not there yet when the job starts (or in the middle of a
  // rewrite) is waited for; one that never comes fails the job, by name.
  r = run_shell(kWaitFor + ("'" + prog) + "' --o L/ --in_mics mics.star --apix 1.34 --diameter 120 --follow --settle 0 "
                    ">out3.txt & sleep 1; printf 'data_\\nloop_\\n_rlnMicrographName\\nin/m1.mrc\\n' >mics.star; "
                    "wait_for L/in/m1_autopick.star; touch L/STOP; wait $!; echo status $?; '" + prog +
                    "' --o N/ --in_mics none.star --apix 1.34 --diameter 120 --follow --follow_idle 1 2>err3.txt; "
                    "echo never $?; '" + prog + "' --o P/ --in_mics none.star --apix 1.34 --diameter 120 --follow "
                    "--follow_idle 30 & wait_for P/.gvexmatch_lock; touch P/RELION_JOB_ABORT_NOW; wait $!; echo waiting $?",
                RunOptions{dir.path(), 120});
  EXPECT_TRUE(contains(r.out, "status 0")) << r.out << read_text_file(dir.file("out3.txt"));
  EXPECT_TRUE(contains(read_text_file(dir.file("out3.txt")), "waiting for the input")) << read_text_file(dir.file("out3.txt"));
  EXPECT_TRUE(contains(r.out, "never 1")) << r.out;
  EXPECT_TRUE(contains(r.out, "waiting 3")) << r.out;  // RELION's Abort while waiting: aborted, not failed
  EXPECT_TRUE(contains(read_text_file(dir.file("err3.txt")), "none.star")) << read_text_file(dir.file("err3.txt"));
}
