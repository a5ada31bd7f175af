#include "mpi/mic_message.h"

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
  template <class T>
  void list(std::vector<T>& v) {
    unsigned long long n = 0;
    value(n);
    if (!ok || n > (in.size() - at) / sizeof(T)) {
      ok = false;
      return;
    }
    v.resize(n);
    memcpy(v.data(), in.data() + at, n * sizeof(T));
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
  return r.ok && r.at == bytes.size();
}
