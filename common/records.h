// Plain records shared by the modules.
#pragma once
#include <cstdint>

// One particle coordinate: corner for .box input, centre for .star input.
struct PTCL_BOX {
  int32_t x, y;    // position, pixels
  int32_t bx, by;  // box width and height (0 from .star)
  float cc;        // figure of merit
  int32_t cls;     // class number; the picker stores the template index
  float psi;       // in-plane angle, degrees
  int32_t spare;   // cleared, never used
};
static_assert(sizeof(PTCL_BOX) == 32, "PTCL_BOX is eight 32-bit words");

// Longest file name the system handles, including the terminating zero.
constexpr int GVEX_NAME_LEN = 1024;
