// Stage timer: a stack of wall-clock start times. A push marks the start of
// a stage; a pop prints ">>>>>>TIME<<<<<<%32s: %fs\n" with the stage name
// and the seconds since the matching push.
#pragma once

constexpr int GVEX_TIMER_DEPTH = 1000;

// Wall-clock time in seconds (gettimeofday, microsecond resolution).
double gvex_wall_seconds();

// Pushes the current time. The stack never grows beyond GVEX_TIMER_DEPTH:
// when it is full (a run that leaves one entry per skipped micrograph), the
// newest start replaces the top entry and a warning says so once per run.
void gvex_timer_push();

// Pops the top entry and prints the stage time line; returns the seconds.
// With nothing to pop it prints a warning instead and returns -1.
double gvex_timer_pop(const char* stage);

// Entries on the stack, and dropping those above depth without a line (a
// failed micrograph's open stages; an emptied stack starts afresh).
int gvex_timer_depth();
void gvex_timer_truncate(int depth);
