// STAR tables: a tokenizer that knows quotes and comments, a block parser,
// and the writer.
#include "io/star_table.h"

#include <cctype>
#include <sstream>

#include "common/regular_file.h"
#include "common/strutil.h"

int StarTable::column(const std::string& label) const {
  for (size_t i = 0; i < labels.size(); i++)
    if (labels[i] == label) return (int)i;
  return -1;
}

namespace {

// The words of one line: quotes group (a quote ends at the same quote
// followed by a blank or the line's end), '#' outside a word starts a
// comment. quoted says which words were quoted: those are always values,
// never a keyword or a label. False on an unterminated quote.
bool split_line(const std::string& line, std::vector<std::string>& words, std::vector<bool>& quoted) {
  words.clear();
  quoted.clear();
  size_t i = 0;
  const size_t n = line.size();
  while (i < n) {
    while (i < n && isspace((unsigned char)line[i])) i++;
    if (i >= n || line[i] == '#') break;
    if (line[i] == '"' || line[i] == '\'') {
      const char q = line[i];
      size_t j = i + 1;
      while (j < n && !(line[j] == q && (j + 1 == n || isspace((unsigned char)line[j + 1])))) j++;
      if (j >= n) return false;
      words.push_back(line.substr(i + 1, j - i - 1));
      quoted.push_back(true);
      i = j + 1;
    } else {
      size_t j = i;
      while (j < n && !isspace((unsigned char)line[j])) j++;
      words.push_back(line.substr(i, j - i));
      quoted.push_back(false);
      i = j;
    }
  }
  return true;
}

std::string at_line(long n) { return "line " + std::to_string(n); }

}  // namespace

bool star_parse(const std::string& text, std::vector<StarTable>& blocks, std::string& why) {
  std::istringstream in(text);
  StarTable* t = nullptr;
  bool in_labels = false;  // inside a loop, before its first row
  std::vector<std::string> w;
  std::vector<bool> quoted;
  long line_no = 0;
  for (std::string line; std::getline(in, line);) {
    line_no++;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (!split_line(line, w, quoted)) {
      why = at_line(line_no) + ": a quote is not closed";
      return false;
    }
    if (w.empty()) continue;
    const std::string& first = w[0];
    const bool word = !quoted[0];  // a keyword or label, when it looks like one
    if (word && starts_with(first, "data_")) {
      blocks.emplace_back();
      t = &blocks.back();
      t->name = first.substr(5);
      t->loop = false;
      in_labels = false;
      continue;
    }
    if (!t) {
      why = at_line(line_no) + ": values before the first data_ block";
      return false;
    }
    if (word && first == "loop_") {
      if (!t->labels.empty()) {
        why = at_line(line_no) + ": a second loop in block data_" + t->name;
        return false;
      }
      t->loop = true;
      in_labels = true;
      continue;
    }
    if (word && !first.empty() && first[0] == '_') {
      if (t->loop && !in_labels) {
        why = at_line(line_no) + ": label " + first + " after the rows of block data_" + t->name;
        return false;
      }
      t->labels.push_back(first.substr(1));
      if (!t->loop) {  // a pair: _label value
        if (w.size() < 2) {
          why = at_line(line_no) + ": label " + first + " has no value";
          return false;
        }
        if (t->rows.empty()) t->rows.emplace_back();
        t->rows[0].push_back(w[1]);
      }
      continue;
    }
    if (!t->loop || t->labels.empty()) {
      why = at_line(line_no) + ": values outside a loop in block data_" + t->name;
      return false;
    }
    in_labels = false;
    if (w.size() < t->labels.size()) {
      why = at_line(line_no) + ": " + std::to_string(w.size()) + " values for " + std::to_string(t->labels.size()) +
            " labels";
      return false;
    }
    w.resize(t->labels.size());
    t->rows.push_back(w);
  }
  return true;
}

bool star_read_file(const std::string& path, std::vector<StarTable>& blocks, std::string& why) {
  std::string text;
  const char* kind = "";
  if (!gvex_read_regular(path, text, &kind)) {
    why = *kind ? path + " is " + kind + ", not a file" : "cannot read " + path;
    return false;
  }
  if (!star_parse(text, blocks, why)) {
    why = path + ", " + why;
    return false;
  }
  return true;
}

bool star_quote(const std::string& v, std::string& out) {
  const bool dq = v.find('"') != std::string::npos, sq = v.find('\'') != std::string::npos;
  if (v.find('\n') != std::string::npos || v.find('\r') != std::string::npos || (dq && sq)) return false;
  bool plain = !v.empty() && v[0] != '_' && v[0] != '#' && v[0] != '"' && v[0] != '\'' &&
               !starts_with(v, "data_") && v != "loop_" && v != "stop_";
  for (char c : v) plain = plain && !isspace((unsigned char)c);
  if (plain) {
    out = v;
    return true;
  }
  const char q = dq ? '\'' : '"';
  out = q + v + q;
  return true;
}

bool star_write(FILE* fp, const StarTable& t) {
  std::string text = "\ndata_" + t.name + "\n\n";
  std::string v;
  if (t.loop) {
    text += "loop_\n";
    for (size_t i = 0; i < t.labels.size(); i++) text += "_" + t.labels[i] + " #" + std::to_string(i + 1) + "\n";
    for (const auto& row : t.rows) {
      for (size_t i = 0; i < row.size(); i++) {
        if (!star_quote(row[i], v)) return false;
        text += (i ? " " : "") + v;
      }
      text += "\n";
    }
  } else {
    for (size_t i = 0; i < t.labels.size(); i++) {
      if (!star_quote(t.rows.empty() || i >= t.rows[0].size() ? "" : t.rows[0][i], v)) return false;
      text += "_" + t.labels[i] + " " + v + "\n";
    }
  }
  text += "\n";
  return fwrite(text.data(), 1, text.size(), fp) == text.size();
}
