// Console texts that are not part of processing: banner, help, tips. All go
// to standard output.
#pragma once

constexpr int GVEX_N_TIPS = 9;

// Ruler of '*', version line, author, contact, description, note, ruler.
void gvexmatch_put_info(const char* prog);

// Banner, usage, the option help in four groups, examples, --help line.
void gvexmatch_help(const char* prog);

// gvexmatch_help, then all tips.
void gvexmatch_help_full(const char* prog);

// gvexmatch_help, then the fatal line with why; exit status 1.
[[noreturn]] void gvexmatch_help_exit(const char* prog, const char* why);

// All nine entries of the tip table between rulers.
void gvexmatch_put_all_tips();

// One entry, chosen by the current second, between rulers.
void gvexmatch_put_one_random_tip();

// What gvexmatch_put_one_random_tip prints when the clock reads `seconds`.
void gvexmatch_put_tip_for_seed(long seconds);
