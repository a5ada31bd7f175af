#include "relion/job.h"

#include <fcntl.h>
#include <ftw.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#if defined(_OPENMP)
#include <omp.h>
#endif

#include <atomic>
#include <chrono>
#include <cerrno>
#include <csignal>
#include <cmath>
#include <condition_variable>
#include <cstdarg>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <thread>

#include "common/atomic_file.h"
#include "common/errors.h"
#include "common/owned.h"
#include "common/regular_file.h"
#include "common/stop_point.h"
#include "common/strutil.h"
#include "gpu/device.h"
#include "io/mrcfile.h"
#include "io/star_table.h"
#include "picker/session.h"
#include "picker/timer.h"
#include "relion/cutoff_rule.h"
#include "relion/job_report.h"
#include "relion/mic_input.h"
#include "relion/record.h"
#include "relion/relion_files.h"
#include "report/run.h"

namespace {

constexpr double kPoll = 0.5;          // seconds between looks at a followed input
constexpr double kNodesEvery = 5;      // node files and summary at most this often while running
constexpr double kPageEvery = 30;      // the page likewise

volatile sig_atomic_t g_signal = 0;  // the signal that asked the job to stop
// The exit file a second signal leaves, named once the job's folder is ours
// (a run refused on a busy folder must leave the running job's alone).
char g_aborted_file[4096];
volatile sig_atomic_t g_aborted_named = 0;

void on_signal(int sig) {
  if (g_signal != 0) {
    // A second signal ends the job at once, but with the exit file RELION
    // waits for (open and close are safe in a handler).
    if (g_aborted_named) {
      std::atomic_signal_fence(std::memory_order_acquire);
      const int fd = open(g_aborted_file, O_WRONLY | O_CREAT | O_TRUNC, 0666);
      if (fd >= 0) close(fd);
    }
    _exit(kAborted);
  }
  g_signal = sig;
}

bool exists(const std::string& p) {
  struct stat st;
  return stat(p.c_str(), &st) == 0;
}

int remove_entry(const char* path, const struct stat*, int, struct FTW*) { return remove(path); }
void remove_tree(const std::string& dir) { nftw(dir.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS); }

// A failure's printed text as one line: highlighting dropped, lines joined.
std::string one_line(const std::string& text) {
  std::string out = gvex_failure_line(text);
  // The library's fatal lines name their source place, which tells a
  // RELION user nothing: only the reason is kept.
  const std::string head = "Error in function ", tail = "! Exit now!";
  const size_t colon = out.find(": ");
  if (starts_with(out, head) && colon != std::string::npos) out.erase(0, colon + 2);
  if (ends_with(out, tail)) out.resize(out.size() - tail.size());
  return out;
}

std::string replace_all(std::string s, const std::string& from, const std::string& to) {
  for (size_t at = s.find(from); !from.empty() && at != std::string::npos; at = s.find(from, at + to.size()))
    s.replace(at, from.size(), to);
  return s;
}

std::string absolute(const std::string& p) {
  if (!p.empty() && p[0] == '/') return p;
  char cwd[4096];
  return getcwd(cwd, sizeof cwd) ? std::string(cwd) + "/" + p : p;
}

// A killed run leaves its unfinished "<name>.part" files; only ours can be
// in the job folder while we hold its lock.
int remove_partial(const char* path, const struct stat*, int type, struct FTW*) {
  const size_t n = strlen(path);
  if (type == FTW_F && n > 5 && strcmp(path + n - 5, ".part") == 0) remove(path);
  return 0;
}
void remove_partial_files(const std::string& dir) { nftw(dir.c_str(), remove_partial, 16, FTW_PHYS); }

std::string base_name(const std::string& p) { return p.substr(p.rfind('/') + 1); }

std::string fmt(const char* f, double v) {
  char b[64];
  snprintf(b, sizeof b, f, v);
  return b;
}

// A file's size and modification time, to tell when it holds still.
struct Stamp {
  long size = -1;
  long long mtime_ns = 0;
  bool operator==(const Stamp& o) const { return size == o.size && mtime_ns == o.mtime_ns; }
};

bool stamp_of(const std::string& path, Stamp& s) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return false;
  s.size = (long)st.st_size;
  s.mtime_ns = (long long)st.st_mtim.tv_sec * 1000000000LL + st.st_mtim.tv_nsec;
  return true;
}

double wall_now() {
  struct timespec t;
  clock_gettime(CLOCK_REALTIME, &t);
  return t.tv_sec + 1e-9 * t.tv_nsec;
}

// What the picker hands the writer for one micrograph.
struct Picked {
  MicEntry mic;
  PickSettings settings;
  int nx = 0, ny = 0;
  std::string link, work;  // the name the session picked, its scratch folder
  PickResult result;
  double seconds = 0;
};

class Job {
 public:
  Job(const JobOptions& o, FILE* log) : o_(o), log_(log) {}
  ~Job() { stop_writer(); }
  int run(std::string& why);
  bool busy() const { return busy_; }

 private:
  // ---- the run ----
  bool start(std::string& why);
  std::vector<MicEntry> ready(double now);
  bool open_folder(std::string& why);
  bool check_settings(std::string& why);
  bool refresh_input(bool first, std::string& why);
  bool settled(const MicEntry& e, double now);
  bool grid_fits(double apix, std::string& why);
  void pick_all(const std::vector<MicEntry>& todo);
  bool ensure_session(const MicEntry& e, const MRC_HEAD& h, const std::string& link, std::string& why);
  PickSettings settings_for(double apix) const;
  std::pair<std::string, std::string> link_for(const MicEntry& e);
  void skip(const MicEntry& e, const std::string& why);
  bool not_picked(const MicEntry& e, const std::string& why);
  bool aborted() const { return g_signal != 0 || exists(o_.out + "RELION_JOB_ABORT_NOW"); }
  void say(const char* f, ...) __attribute__((format(printf, 2, 3)));

  // ---- the writer thread: a micrograph's files while the next is picked ----
  void start_writer();
  void stop_writer();
  void push(Picked p);
  void writer_loop();
  void write_one(Picked& p);
  bool write_coords(const MicRecord& r, long taken_out, const std::string& how, std::string& why);
  bool cut_over_the_job(std::string& why, bool last = false);
  bool write_job_files(bool page, std::string& why);
  bool write_nodes(std::string& why);

  const JobOptions& o_;
  FILE* log_;
  std::mutex log_lock_;
  int lock_fd_ = -1;
  bool busy_ = false;  // another run holds the folder
  std::string label_, star_, work_dir_;
  // Input as last read, its file's stamp (a STAR file is re-read when it changes).
  MicInput input_;
  std::map<std::string, Stamp> input_stamps_;
  std::map<std::string, std::pair<Stamp, double>> seen_;  // stamp and since when
  std::map<std::string, Stamp> failed_;                   // retried once they change
  std::set<std::string> done_;                            // recorded or handed to the writer
  std::map<std::string, std::string> coords_owner_;       // coordinate file -> micrograph
  std::map<std::string, std::pair<std::string, std::string>> links_;
  std::set<double> grid_checked_;  // pixel sizes whose picking grid fits
  long work_counter_ = 0;
  int picked_ = 0, skipped_ = 0, waiting_ = 0;
  std::string first_skip_;
  std::string warned_blind_;  // the templates that can match nothing, as said
  bool input_read_ = false;  // the input was read whole at least once
  std::string unread_;       // why it could not be, while following
  double last_news_ = 0;
  // The session of the micrographs' size, mode and pixel size.
  std::unique_ptr<PickSession> session_;
  std::string session_key_;
  // Sessions refused for a size and pixel size: key -> the micrograph and why.
  std::map<std::string, std::pair<std::string, std::string>> refused_;

  // Writer state: records_ and the times belong to the writer thread until it stops.
  std::vector<MicRecord> records_;
  double nodes_at_ = 0, page_at_ = 0, page_took_ = 0;  // the last page: when, and how long it took
  size_t paged_ = 0;                                    // ... and the records it showed
  bool dirty_ = false;  // records not yet in the node files and report
  // --cutoff run: the cut and edge step each coordinate file was last
  // written with (none yet in this run: written again at the first cut).
  std::map<std::string, std::pair<double, bool>> cut_written_;
  double cut_at_ = -1e300, cut_took_ = 0;  // the last cut over the job: when, and how long it took
  std::thread writer_;
  std::mutex q_lock_;
  std::condition_variable q_cv_;
  std::deque<Picked> queue_;
  bool q_stop_ = false;
  std::string write_error_;
};

void Job::say(const char* f, ...) {
  std::lock_guard<std::mutex> g(log_lock_);
  va_list ap;
  va_start(ap, f);
  vfprintf(log_, f, ap);
  va_end(ap);
  fflush(log_);
}

bool Job::open_folder(std::string& why) {
  if (!make_parent_dirs(o_.out)) return why = "cannot make the job folder " + o_.out, false;
  // One run per job folder: a second would pick the same micrographs.
  lock_fd_ = open((o_.out + ".gvexmatch_lock").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0666);
  if (lock_fd_ < 0) return why = "cannot write into the job folder " + o_.out, false;
  if (flock(lock_fd_, LOCK_EX | LOCK_NB) != 0)
    return busy_ = true, why = "another gvexmatch_relion is running in " + o_.out + "; wait for it or abort it", false;
  for (const char* f : {"RELION_JOB_EXIT_SUCCESS", "RELION_JOB_EXIT_FAILURE", "RELION_JOB_EXIT_ABORTED"})
    remove((o_.out + f).c_str());
  // The session's own files for each micrograph go to a scratch folder, not
  // beside the micrograph in another job's folder.
  work_dir_ = o_.out + ".work/";
  remove_tree(work_dir_);
  remove_partial_files(o_.out);
  if (!make_parent_dirs(work_dir_)) return why = "cannot make " + work_dir_, false;
  return true;
}

bool Job::check_settings(std::string& why) {
  const std::string path = o_.out + "gvexmatch_settings.star";
  StarTable now;
  now.name = "settings";
  now.labels = {"gvexSetting", "gvexValue"};
  for (const auto& s : picking_settings(o_)) now.rows.push_back({s.first, s.second});
  std::vector<StarTable> before;
  std::string ignored;
  // Settings bind a job once it has picked something.
  if (!records_.empty() && star_read_file(path, before, ignored) && !before.empty()) {
    for (const auto& row : before[0].rows)
      for (const auto& cur : now.rows)
        if (row.size() == 2 && row[0] == cur[0] && row[1] != cur[1])
          return why = o_.out + " was picked with --" + row[0] + " " + row[1] + ", this run asks for --" + cur[0] +
                       " " + cur[1] + ": start a new job (or remove " + path + " to mix the two)",
                 false;
    return true;
  }
  PartFile f(path.c_str(), "w");
  if (!f.fp() || fputs("# gvexmatch_relion: the settings this job picks with\n", f.fp()) < 0 ||
      !star_write(f.fp(), now) || !f.commit())
    return why = "cannot write " + path, false;
  return true;
}

bool Job::refresh_input(bool first, std::string& why) {
  // A STAR file is read again only when it changed: motion correction
  // rewrites it now and then, and may be in the middle of it.
  bool changed = first;
  for (const std::string& in : o_.inputs) {
    Stamp s;
    stamp_of(in, s);
    if (!(input_stamps_[in] == s)) changed = true;
    input_stamps_[in] = s;
    if (in.find_first_of("*?[") != std::string::npos) changed = true;  // a glob: look again
  }
  if (!changed) return true;
  MicInput fresh;
  if (!read_mic_input(o_.inputs, fresh, why)) {
    if (!o_.follow) return false;
    // Missing, or in the middle of a rewrite (at the start too): read again
    // next time; said once while it lasts, when nothing was read before.
    if (!input_read_ && why != unread_) say("waiting for the input: %s\n", why.c_str());
    unread_ = why;
    input_stamps_.clear();
    why.clear();
    return true;
  }
  input_read_ = true;
  for (const MicEntry& e : fresh.mics) {
    if (e.apix <= 0 && o_.apix <= 0)
      return why = "the input gives no pixel size for " + e.name + ": give --apix A", false;
    if (!grid_fits(o_.apix > 0 ? o_.apix : e.apix, why)) return false;
  }
  if (fresh.mics.size() != input_.mics.size()) last_news_ = gvex_wall_seconds();
  input_ = fresh;
  if (star_.empty()) star_ = input_.star;
  return true;
}

// The session cannot pick on a grid whose cells are below one working
// pixel: such settings are refused before any micrograph.
bool Job::grid_fits(double apix, std::string& why) {
  if (grid_checked_.count(apix)) return true;
  if (settings_for(apix).cell < 1)
    return why = "--diameter " + fmt("%g", o_.diameter) + " at " + fmt("%g", apix) + " A per pixel and --speed " +
                 std::to_string(o_.speed) + " gives a picking grid cell below one working pixel: " +
                 (o_.speed > 0 ? "lower --speed or raise --diameter" : "check --diameter and the pixel size"),
           false;
  grid_checked_.insert(apix);
  return true;
}

// A micrograph is picked once its size and modification time have held
// still for --settle seconds (one already that old at first sight counts);
// an empty one too, to be skipped as unreadable rather than awaited forever.
bool Job::settled(const MicEntry& e, double now) {
  Stamp s;
  if (!stamp_of(e.name, s)) return false;
  auto it = seen_.find(e.name);
  if (it == seen_.end() || !(it->second.first == s)) {
    if (it != seen_.end()) last_news_ = now;
    it = seen_.insert_or_assign(e.name, std::make_pair(s, now)).first;
  }
  const double age = wall_now() - s.mtime_ns * 1e-9;
  return now - it->second.second >= o_.settle || age >= o_.settle;
}

PickSettings Job::settings_for(double apix) const {
  PickOptions p = pick_defaults();
  p.apixM = (float)apix;
  p.diameter = (float)o_.diameter;
  p.speed = o_.speed;
  p.ang_step = (float)o_.angle_step;
  if (!o_.templates.empty()) {
    p.template_file = true;
    p.templates = o_.templates;
  }
  if (o_.apix_templates > 0) {
    p.apixT = (float)o_.apix_templates;
    p.apixT_given = true;
  }
  // Every grid maximum is kept, and the decoys of the same scan: the
  // cut-off is the job's, per micrograph.
  p.cc_cutoff = 0;
  p.decoys = cut_automatic(o_.cut);
  p.keep_pixels = true;
  p.write_star = false;
  p.write_rejected_box = true;
  p.read_float16 = true;
  return derive(p);
}

std::pair<std::string, std::string> Job::link_for(const MicEntry& e) {
  auto it = links_.find(e.name);
  if (it != links_.end()) return it->second;
  const std::string dir = work_dir_ + std::to_string(++work_counter_) + "/";
  const std::string link = dir + base_name(e.name);
  // The session picks the micrograph under this name, so that what it
  // writes beside it lands in the scratch folder. Empty: no link could be made.
  if (mkdir(dir.c_str(), 0777) != 0 || symlink(absolute(e.name).c_str(), link.c_str()) != 0) return {"", dir};
  return links_[e.name] = {link, dir};
}

void Job::skip(const MicEntry& e, const std::string& reason) {
  // The reader names the file it opened: the scratch link or the full path.
  std::string why = replace_all(reason, absolute(e.name), e.name);
  auto l = links_.find(e.name);
  if (l != links_.end()) why = replace_all(why, l->second.first, e.name);
  Stamp s;
  stamp_of(e.name, s);
  failed_[e.name] = s;
  skipped_++;
  if (first_skip_.empty()) first_skip_ = e.name + ": " + why;
  say("skipped %s: %s\n", e.name.c_str(), why.c_str());
  fprintf(stderr, "gvexmatch_relion: WARNING: skipped %s: %s\n", e.name.c_str(), why.c_str());
  if (l != links_.end()) {
    remove_tree(l->second.second);
    links_.erase(l);
  }
}

bool Job::ensure_session(const MicEntry& e, const MRC_HEAD& h, const std::string& link, std::string& why) {
  const double apix = o_.apix > 0 ? o_.apix : e.apix;
  const std::string key = std::to_string(h.nx) + " " + std::to_string(h.ny) + " " + std::to_string(h.mode) + " " +
                          fmt("%.9g", apix);
  if (session_ && key == session_key_) return true;
  auto refused = refused_.find(key);
  if (refused != refused_.end()) return why = replace_all(refused->second.second, refused->second.first, e.name), false;
  session_.reset();  // its memory back first
  std::string blind;
  try {
    const PickSettings settings = settings_for(apix);
    session_.reset(new PickSession(settings));
    session_->prepare(h, link, 1, link);
    bool none = false;
    blind = blind_templates_line(*session_, settings, &none);
    if (none) gvex_throw(blind);
  } catch (const GvexFailure& f) {
    session_.reset();
    why = "these settings cannot pick it: " + replace_all(one_line(f.text), link, e.name);
    refused_[key] = {e.name, why};
    return false;
  }
  if (!blind.empty() && blind != warned_blind_) {  // once, not at each change of session
    warned_blind_ = blind;
    say("warning: %s\n", blind.c_str());
    fprintf(stderr, "gvexmatch_relion: WARNING: %s\n", blind.c_str());
  }
  session_key_ = key;
  return true;
}

// A micrograph the session could not pick is skipped. A file of the job's
// own scratch that cannot be written (a full disk) fails the job instead, as
// its other files do: it says nothing of the micrograph. True: stop.
bool Job::not_picked(const MicEntry& e, const std::string& why) {
  std::string lower = why;
  for (char& c : lower) c = (char)tolower((unsigned char)c);
  if (why.find(work_dir_) == std::string::npos || lower.find("writ") == std::string::npos) {
    skip(e, why);
    return false;
  }
  std::lock_guard<std::mutex> g(q_lock_);
  if (write_error_.empty()) write_error_ = why;
  return true;
}

void Job::pick_all(const std::vector<MicEntry>& todo) {
  for (size_t i = 0; i < todo.size(); i++) {
    if (aborted()) return;
    {
      std::lock_guard<std::mutex> g(q_lock_);
      if (!write_error_.empty()) return;
    }
    const MicEntry& e = todo[i];
    std::string bad;
    const std::string coords = job_file_for(o_.out, e.name, "_autopick.star", bad);
    if (coords.empty()) {
      skip(e, bad);
      continue;
    }
    auto owner = coords_owner_.find(coords);
    if (owner != coords_owner_.end() && owner->second != e.name) {
      skip(e, "its coordinate file " + coords + " is that of " + owner->second + " (RELION names both alike)");
      continue;
    }
    MRC_HEAD h;
    try {
      const char* kind = "";
      OwnedFile fp(gvex_open_regular(e.name.c_str(), &kind));
      if (!fp) {
        skip(e, *kind ? std::string("it is ") + kind + ", not a file" : "cannot open it");
        continue;
      }
      mrc_read_head(fp.get(), &h);
    } catch (const GvexFailure& f) {
      skip(e, one_line(f.text));
      continue;
    }
    if (!mrc_mode_is_readable(h.mode, true)) {
      skip(e, "its pixels are of MRC mode " + std::to_string(h.mode) + "; modes 0, 1, 2, 6 and 12 can be read");
      continue;
    }
    const auto [link, work] = link_for(e);
    if (link.empty()) {
      skip(e, "cannot link it into " + work + ": " + strerror(errno));
      remove_tree(work);
      continue;
    }
    // Settings that do not suit this micrograph's size may suit the others'.
    std::string refused;
    if (!ensure_session(e, h, link, refused)) {
      skip(e, refused);
      continue;
    }
    std::string next;
    if (i + 1 < todo.size()) next = link_for(todo[i + 1]).first;
    const double t0 = gvex_wall_seconds();
    PickResult r = session_->pick(link, next);
    if (r.outcome != PickResult::Outcome::finished) {
      if (not_picked(e, one_line(r.failure.text))) return;
      continue;
    }
    Picked p;
    p.mic = e;
    p.settings = settings_for(o_.apix > 0 ? o_.apix : e.apix);
    p.nx = h.nx, p.ny = h.ny;
    p.link = link, p.work = work;
    p.result = std::move(r);
    p.seconds = gvex_wall_seconds() - t0;
    links_.erase(e.name);
    done_.insert(e.name);
    coords_owner_[coords] = e.name;
    picked_++;
    last_news_ = gvex_wall_seconds();
    push(std::move(p));
  }
}

// ---- writer ----

void Job::start_writer() { writer_ = std::thread(&Job::writer_loop, this); }

void Job::stop_writer() {
  if (!writer_.joinable()) return;
  {
    std::lock_guard<std::mutex> g(q_lock_);
    q_stop_ = true;
  }
  q_cv_.notify_all();
  writer_.join();
}

void Job::push(Picked p) {
  std::unique_lock<std::mutex> g(q_lock_);
  // One micrograph waiting is enough to keep the writer busy.
  q_cv_.wait(g, [&] { return queue_.size() < 1 || !write_error_.empty(); });
  queue_.push_back(std::move(p));
  q_cv_.notify_all();
}

void Job::writer_loop() {
  for (;;) {
    Picked p;
    {
      std::unique_lock<std::mutex> g(q_lock_);
      const bool work = q_cv_.wait_for(g, std::chrono::seconds(1), [&] { return !queue_.empty() || q_stop_; });
      if (!work) {
        // A quiet second: what a burst of micrographs left unlisted is
        // listed now, not when the next micrograph comes.
        g.unlock();
        if (!dirty_) continue;
        std::string why;
        if (!write_job_files(true, why)) {
          std::lock_guard<std::mutex> e(q_lock_);
          if (write_error_.empty()) write_error_ = why;
        }
        continue;
      }
      if (queue_.empty()) return;
      p = std::move(queue_.front());
      queue_.pop_front();
    }
    q_cv_.notify_all();
    try {
      write_one(p);
    } catch (const std::exception& ex) {
      std::lock_guard<std::mutex> g(q_lock_);
      if (write_error_.empty()) write_error_ = one_line(ex.what());
    }
  }
}

void Job::write_one(Picked& p) {
  std::string why;
  MicRecord r;
  r.mic = p.mic.name;
  r.sequence = records_.empty() ? 1 : records_.back().sequence + 1;
  r.nx = p.nx, r.ny = p.ny;
  r.apix = p.settings.opt.apixM;
  r.picks = p.result.picks;
  r.masked = p.result.masked_fraction;
  r.edge_box = o_.extract_box;
  rejected_read(beside(p.link, "_rejected.box"), r.rejected);
  r.coords = job_file_for(o_.out, r.mic, "_autopick.star", why);
  r.picture = job_file_for("pictures/", r.mic, ".png", why);
  Micrograph m;
  m.name = r.mic;
  // The pixels the session picked (the job keeps them): no second read.
  take_micrograph(m, p.result.head, std::move(p.result.pixels));
  long edge_dropped = 0;
  std::string how = "given";
  if (o_.cut == JobCut::kRun) {
    // Cut alone for now (a run of none before it); the job's next cut over
    // all its micrographs weighs it in.
    pool_record(r, p.result, p.settings.opt.diameter, m.pixels, m.nx, m.ny);
    recent_cutoff(records_, r, 0, p.settings.opt.diameter);
    how = "automatic, this micrograph alone";
  } else if (o_.cut == JobCut::kRecent) {
    pool_record(r, p.result, p.settings.opt.diameter, m.pixels, m.nx, m.ny);
    const int before = recent_cutoff(records_, r, kRecentBefore, p.settings.opt.diameter);
    how = before ? "automatic, with the " + std::to_string(before) + " micrograph" + (before > 1 ? "s" : "") +
                       " picked before it"
                 : "automatic, the job's first micrograph alone";
  } else if (o_.cut == JobCut::kAlone) {
    how = "automatic";
    r.cutoff = auto_cutoff(p.result, p.settings.opt.diameter, p.settings.opt.apixM, m.pixels, m.nx, m.ny, r.picks,
                           edge_dropped);
  } else {
    r.cutoff = o_.cutoff;
  }
  m.picks_found = true;
  m.picks = r.picks;
  m.rejected = r.rejected;
  m.cutoff = r.cutoff;
  m.on_edge = r.on_edge;
  m.drop_edges = r.drop_edges;
  const bool apix_given = o_.apix > 0 || p.mic.apix > 0;
  // A pooled record's warnings about its kept picks come with the page,
  // from the cut it holds then.
  if (!report_micrograph(m, p.settings, apix_given, o_.out + r.picture, !r.pooled))
    throw std::runtime_error("cannot write " + o_.out + r.picture);
  r.warnings = m.warnings;
  if (!write_coords(r, edge_dropped, how, why)) throw std::runtime_error(why);
  gvex_test_stop_point("relion_coordinates");
  std::string record_path = job_file_for(o_.out + "records/", r.mic, "_record.star", why);
  if (!make_parent_dirs(record_path) || !record_write(record_path, r))
    throw std::runtime_error("cannot write " + record_path);
  gvex_test_stop_point("relion_record");
  records_.push_back(r);
  remove_tree(p.work);
  const std::string warning = r.warnings.empty() ? "" : " (warning: " + r.warnings[0] + ")";
  say("%s: %zu of %zu picks kept at cut-off %.4f%s, %.1f s%s\n", r.mic.c_str(), kept_picks(r).size(), r.picks.size(),
      r.cutoff, o_.cut == JobCut::kRun ? " (this micrograph alone)" : "", p.seconds, warning.c_str());
  dirty_ = true;
  if (gvex_wall_seconds() - nodes_at_ >= kNodesEvery && !write_job_files(false, why)) throw std::runtime_error(why);
}

// The coordinate file of r, its cut-off (chosen how) in a comment line
// above the table. taken_out: picks on strong edges taken out of r.picks
// (--cutoff auto); a record cut over the job still holds them, flagged.
bool Job::write_coords(const MicRecord& r, long taken_out, const std::string& how, std::string& why) {
  const std::vector<Pick> kept = kept_picks(r);
  long left_out = taken_out;
  for (size_t i = 0; r.drop_edges && i < r.picks.size() && i < r.on_edge.size(); i++)
    left_out += r.on_edge[i] && r.picks[i].score >= r.cutoff;
  const std::string comment =
      "gvexmatch_relion: cut-off " + fmt("%.6f", r.cutoff) + " (" + how + "), " + std::to_string(kept.size()) + " of " +
      std::to_string(r.picks.size() + taken_out) + " picks kept" +
      (left_out > 0 ? ", " + std::to_string(left_out) + " on strong edges left out" : "") +
      (o_.extract_box > 0 ? ", boxes of " + std::to_string(o_.extract_box) + " px inside" : "");
  if (!write_coordinates(r.coords, kept, comment)) return why = "cannot write " + r.coords, false;
  return true;
}

// --cutoff run: every micrograph cut again with all the job's as one run;
// the coordinate files whose cut changed are written again. The last one
// says what it kept.
bool Job::cut_over_the_job(std::string& why, bool last) {
  const double t0 = gvex_wall_seconds();
  run_cutoffs(records_, o_.diameter);
  cut_at_ = gvex_wall_seconds();
  cut_took_ = cut_at_ - t0;
  for (const MicRecord& r : records_) {
    if (!r.pooled) continue;
    const std::pair<double, bool> cut{r.cutoff, r.drop_edges};
    auto it = cut_written_.find(r.mic);
    if (it != cut_written_.end() && it->second == cut) continue;
    cut_written_[r.mic] = cut;
    if (!write_coords(r, 0, "automatic, over the job", why)) return false;
  }
  if (last) {
    size_t kept = 0, mics = 0;
    for (const MicRecord& r : records_) kept += r.pooled ? kept_picks(r).size() : 0, mics += r.pooled;
    say("cut over the job's %zu micrographs: %zu picks kept\n", mics, kept);
  }
  return true;
}

// The node files (and the micrographs STAR file the job writes when given
// names) over every micrograph picked so far.
bool Job::write_nodes(std::string& why) {
  std::vector<std::pair<std::string, std::string>> coords;
  for (const MicRecord& r : records_) coords.push_back({r.mic, r.coords});
  std::string star = star_;
  if (star.empty()) {
    // Names given without a STAR file: the job writes one for extraction.
    star = o_.out + "micrographs.star";
    std::vector<std::pair<std::string, double>> mics;
    for (const MicRecord& r : records_) mics.push_back({r.mic, r.apix});
    if (!write_micrographs_star(star, mics, o_.voltage, o_.cs, o_.q0)) return why = "cannot write " + star, false;
  }
  return write_node_files(o_.out, star, coords, label_, why);
}

bool Job::write_job_files(bool page, std::string& why) {
  // A cut over thousands of micrographs takes seconds: while picking, it
  // takes at most a twentieth of the writer's time.
  if (o_.cut == JobCut::kRun && gvex_wall_seconds() - cut_at_ >= std::max(kNodesEvery, 20 * cut_took_) &&
      !cut_over_the_job(why))
    return false;
  const double now = gvex_wall_seconds();
  // A page of thousands of micrographs takes seconds too: likewise.
  page = page || now - page_at_ >= std::max(kPageEvery, 20 * page_took_);
  if (!write_nodes(why)) return false;
  gvex_test_stop_point("relion_nodes");
  nodes_at_ = now;
  if (!page) return true;
  const double page_from = gvex_wall_seconds();
  // Records only grow unless the cut is over the job: those on the last
  // page this process wrote are as they were.
  const size_t settled = o_.cut == JobCut::kRun ? 0 : paged_;
  if (!write_job_report(o_.out, records_, o_.diameter, o_.speed, settled, why)) return false;
  paged_ = records_.size();
  page_at_ = now;
  page_took_ = gvex_wall_seconds() - page_from;
  dirty_ = false;
  return true;
}

// The job folder, its records and settings, the input, the device and the
// writer thread: false, with why, when the job cannot start.
bool Job::start(std::string& why) {
  if (!open_folder(why)) return false;
  const std::string aborted = o_.out + "RELION_JOB_EXIT_ABORTED";
  if (aborted.size() < sizeof g_aborted_file) {
    memcpy(g_aborted_file, aborted.c_str(), aborted.size() + 1);
    std::atomic_signal_fence(std::memory_order_release);  // the name whole before the handler may read it
    g_aborted_named = 1;
  }
  std::vector<std::string> bad;
  records_ = records_in(o_.out + "records/", bad);
  for (const std::string& b : bad) say("warning: %s; that micrograph is picked again\n", b.c_str());
  if (!check_settings(why)) return false;
  std::vector<MicRecord> kept;
  for (MicRecord& r : records_) {
    // A job folder copied or moved keeps its files where it now is: the
    // record's path names the folder the micrograph was picked in.
    std::string unused;
    const std::string here = job_file_for(o_.out, r.mic, "_autopick.star", unused);
    if (!here.empty()) r.coords = here;
    // The node files would send Extract to a file that is not there.
    if (!exists(r.coords)) {
      say("warning: the coordinate file %s of %s is gone; that micrograph is picked again\n", r.coords.c_str(),
          r.mic.c_str());
      continue;
    }
    done_.insert(r.mic);
    coords_owner_[r.coords] = r.mic;
    kept.push_back(std::move(r));
  }
  records_ = std::move(kept);
  label_ = coords_type_label("");
  if (!refresh_input(true, why)) return false;
  if (!o_.follow && input_.mics.empty()) return why = "no micrographs in " + o_.inputs[0], false;
  if (!o_.templates.empty() && !exists(o_.templates)) return why = "cannot read the templates " + o_.templates, false;
#if defined(_OPENMP)
  if (o_.threads > 0) omp_set_num_threads(o_.threads);
#endif
  int gid = o_.gpu >= 0 ? o_.gpu : 0;
  check_and_set_gid(gid);
  say("gvexmatch_relion: job %s, %zu micrographs in the input, %zu picked before\n", o_.out.c_str(),
      input_.mics.size(), records_.size());
  say("%s", gvex_device_activate(gid));
  start_writer();
  return true;
}

// The micrographs of the input ready to be picked now: not picked, not
// failed as they stand, and settled; the rest still being written are
// counted, and missing ones skipped (when not following).
std::vector<MicEntry> Job::ready(double now) {
  std::vector<MicEntry> todo;
  waiting_ = 0;
  for (const MicEntry& e : input_.mics) {
    if (done_.count(e.name)) continue;
    auto f = failed_.find(e.name);
    Stamp s;
    if (f != failed_.end() && stamp_of(e.name, s) && s == f->second) continue;
    // A FIFO or a folder never settles: said once, not waited on.
    if (const char* kind = gvex_not_a_file_kind(e.name.c_str()); *kind)
      skip(e, std::string("it is ") + kind + ", not a file");
    else if (settled(e, now))
      todo.push_back(e);
    else if (!o_.follow && !stamp_of(e.name, s)) skip(e, "no such file");
    else waiting_++;
  }
  return todo;
}

int Job::run(std::string& why) {
  if (!start(why)) return kFailure;
  const double start = gvex_wall_seconds();
  last_news_ = start;
  bool fatal = false, stop = false;
  int status = kSuccess;
  while (!stop) {
    if (aborted()) {
      status = kAborted;
      break;
    }
    if (!refresh_input(false, why)) {
      fatal = true;
      break;
    }
    pick_all(ready(gvex_wall_seconds()));
    {
      std::lock_guard<std::mutex> g(q_lock_);
      if (!write_error_.empty()) break;
    }
    if (aborted()) {
      status = kAborted;
      break;
    }
    if (!o_.follow) break;
    if (exists(o_.out + "STOP")) {
      remove((o_.out + "STOP").c_str());
      say("stop file found: the job ends\n");
      break;
    }
    if (o_.follow_idle > 0 && gvex_wall_seconds() - last_news_ >= o_.follow_idle) {
      say("nothing new for %.0f s: the job ends\n", o_.follow_idle);
      break;
    }
    usleep((useconds_t)(kPoll * 1e6));
  }
  stop_writer();
  session_.reset();
  remove_tree(work_dir_);
  if (!write_error_.empty()) {
    // The coordinate files committed before the failure are the job's: the
    // node files name them, if there is room for that much.
    std::string ignored;
    write_nodes(ignored);
    return why = write_error_, kFailure;
  }
  if (fatal) return kFailure;
  if (!input_read_ && status != kAborted) return why = unread_, kFailure;
  if (o_.cut == JobCut::kRun && !cut_over_the_job(why, true)) return kFailure;
  if (!write_job_files(true, why)) return kFailure;
  say("%d micrographs picked in this run (%zu in the job), %d skipped%s; %.1f s\n", picked_, records_.size(), skipped_,
      waiting_ && !o_.follow ? (", " + std::to_string(waiting_) + " still being written, left for the next run").c_str()
                             : "",
      gvex_wall_seconds() - start);
  if (status == kSuccess && records_.empty() && skipped_ > 0)
    return why = "no micrograph could be picked; the first: " + first_skip_, kFailure;
  if (status == kAborted)
    why = std::string("aborted (") +
          (g_signal == 0 ? "RELION_JOB_ABORT_NOW" : g_signal == SIGTERM ? "SIGTERM" : "SIGINT") + ")";
  return status;
}

}  // namespace

void stop_job_on_signals() {
  struct sigaction a {};
  a.sa_handler = on_signal;
  a.sa_flags = SA_RESTART;
  sigemptyset(&a.sa_mask);
  sigaction(SIGTERM, &a, nullptr);
  struct sigaction before {};
  if (sigaction(SIGINT, nullptr, &before) == 0 && before.sa_handler != SIG_IGN) sigaction(SIGINT, &a, nullptr);
}

int run_job(const JobOptions& o, FILE* log, std::string& why, bool& busy) {
  Job job(o, log);
  const int status = job.run(why);
  busy = job.busy();
  return status;
}
