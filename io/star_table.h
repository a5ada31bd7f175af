// STAR files as RELION writes them: data blocks holding either one loop
// (labels, then rows of whitespace-separated values) or label-value pairs.
// One reader and one writer for every table our programs read or write
// (micrograph lists, coordinate lists, node lists, summaries); the picker's
// own pick files keep their fixed layout (io/picks.h).
#pragma once
#include <cstdio>
#include <string>
#include <vector>

struct StarTable {
  std::string name;                 // the block's name, after "data_"
  std::vector<std::string> labels;  // without the leading '_'
  std::vector<std::vector<std::string>> rows;  // a pair block: one row
  bool loop = true;                 // false: label-value pairs

  // Index of a label (given without '_'), or -1.
  int column(const std::string& label) const;
};

// Every block of the text; a malformed file (a row with fewer values than
// labels, an unterminated quote, a value outside a block) is refused by
// returning false with why set to a line naming the place.
bool star_parse(const std::string& text, std::vector<StarTable>& blocks, std::string& why);

// The same for a file; why names the file.
bool star_read_file(const std::string& path, std::vector<StarTable>& blocks, std::string& why);

// A value as STAR needs it: quoted when empty or holding blanks, or when it
// could be taken for a label, comment, block or loop. Values holding a
// line break, or both kinds of quote, cannot be written: false.
bool star_quote(const std::string& value, std::string& out);

// One block; false when a value cannot be written (star_quote) or a write
// failed.
bool star_write(FILE* fp, const StarTable& table);
