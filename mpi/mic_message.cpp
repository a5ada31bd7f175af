#include "mpi/mic_message.h"

#include <cmath>
#include <cstring>
#include <type_traits>

namespace {

struct Writer {
  std::vector<char> out;
  template <class T>
  void value(const T& v) {
    static_assert(std::is_trivially_copyable<T>::value, "plain values only");
    const char* b = reinterpret_cast<const char*>(&v);
    out.insert(out.end(), b, b + sizeof v);
  }
  template <class T>
  void list(const std::vector<T>& v) {
    static_assert(std::is_trivially_copyable<T>::value, "plain values only");
    value((unsigned long long)v.size());
    const char* b = reinterpret_cast<const char*>(v.data());
    out.insert(out.end(), b, b + v.size() * sizeof(T));
  }
  void text(const std::string& s) { list(std::vector<char>(s.begin(), s.end())); }
};

struct Reader {
  const std::vector<char>& in;
  size_t at = 0;
  bool ok = true;
  template <class T>
  void value(T& v) {
    if (!ok || in.size() - at < sizeof v) {
      ok = false;
      return;
    }
    memcpy(&v, in.data() + at, sizeof v);
    at += sizeof v;
  }
  // A byte that is neither 0 nor 1 is no bool.
  void value(bool& v) {
    unsigned char b = 0;
    value(b);
    ok = ok && b <= 1;
    v = b == 1;
  }
  template <class T>
  void list(std::vector<T>& v) {
    unsigned long long n = 0;
    value(n);
    if (!ok || n > (in.size() - at) / sizeof(T)) {
      ok = false;
      return;
    }
    v.resize(n);
    if (n > 0) memcpy(v.data(), in.data() + at, n * sizeof(T));  // an empty list's data() may be null
    at += n * sizeof(T);
  }
  void text(std::string& s) {
    std::vector<char> c;
    list(c);
    s.assign(c.begin(), c.end());
  }
};

// One field list for both directions, so that they cannot drift apart.
template <class IO, class M, class S>
void fields(IO& io, M& m, S& picture) {
  io.text(m.name);
  io.text(picture);
  io.value(m.nx), io.value(m.ny), io.value(m.nz), io.value(m.mode), io.value(m.nsymbt);
  io.value(m.header_apix), io.value(m.nonfinite), io.value(m.masked), io.value(m.usable_pixels);
  io.value(m.cut_before), io.value(m.cut_recorded), io.value(m.picks_found), io.value(m.decoys_found);
  io.list(m.picks), io.list(m.decoys), io.list(m.rejected), io.list(m.on_edge), io.list(m.decoy_on_edge);
}

bool plausible(const Pick& p) {
  return std::fabs(p.x) <= PICKS_MAX_COORD && std::fabs(p.y) <= PICKS_MAX_COORD &&
         std::fabs(p.score) <= PICKS_MAX_SCORE && std::isfinite(p.psi) && p.w >= 0 && p.h >= 0;
}

// Figures a picking rank sends, as the readers of its files would take them;
// anything else was damaged on the way (or packed by another build).
bool plausible(const Micrograph& m) {
  const auto in_range = [](double v, double lo, double hi) { return v >= lo && v <= hi; };
  bool ok = in_range(m.nx, 0, PICKS_MAX_COORD) && in_range(m.ny, 0, PICKS_MAX_COORD) && m.nz >= 0 &&
            m.nsymbt >= 0 && m.nonfinite >= 0 && in_range(m.header_apix, 0, 1e6) && in_range(m.masked, 0, 1) &&
            in_range(m.usable_pixels, 0, 1e15) && !std::isinf(m.cut_before) &&
            (m.on_edge.empty() || m.on_edge.size() == m.picks.size()) &&
            (m.decoy_on_edge.empty() || m.decoy_on_edge.size() == m.decoys.size());
  for (const std::vector<Pick>* v : {&m.picks, &m.decoys})
    for (const Pick& p : *v) ok = ok && plausible(p);
  for (const Cell& c : m.rejected)
    ok = ok && in_range(c.x, 0, PICKS_MAX_COORD) && in_range(c.y, 0, PICKS_MAX_COORD) &&
         in_range(c.w, 0, PICKS_MAX_COORD) && in_range(c.h, 0, PICKS_MAX_COORD);
  return ok;
}

}  // namespace

std::vector<char> pack_micrograph(const Micrograph& m, const std::string& picture) {
  Writer w;
  fields(w, m, picture);
  w.value((unsigned long long)m.warnings.size());
  for (const std::string& s : m.warnings) w.text(s);
  return w.out;
}

bool unpack_micrograph(const std::vector<char>& bytes, Micrograph& m, std::string& picture) {
  Reader r{bytes};
  fields(r, m, picture);
  unsigned long long n = 0;
  r.value(n);
  m.warnings.clear();
  for (unsigned long long k = 0; r.ok && k < n; k++) {
    m.warnings.emplace_back();
    r.text(m.warnings.back());
  }
  return r.ok && r.at == bytes.size() && plausible(m);
}
