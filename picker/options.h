// The option table of gvexmatch. Each row names one option and says how it
// is parsed, its default, how the two echoes print it, and where the help
// and the list of valid options show it. The lists deliberately differ (the
// help shows its own defaults, the valid-option list older spellings), and
// the table records each difference in its row.
#pragma once
#include <cstddef>
#include <cstdio>
#include <string>

struct GVexMatch_Para;

enum OptionKind {
  OPT_TEXT,    // copied into a 1024-byte buffer
  OPT_FLOAT,   // atof
  OPT_INT,     // atoi
  OPT_FLAG,    // an optional 0/1 value (get_bool_keyword)
  OPT_RECORD,  // a record field no option sets, echoed only
  OPT_LISTED,  // a spelling only the valid-option list shows
};

enum OptionGroup { GROUP_NONE, GROUP_BASIC, GROUP_ADDITIONAL, GROUP_CTF, GROUP_IO };

struct OptionRow {
  const char* name;        // word after the dashes, matched without regard to case
  OptionKind kind;
  size_t field;            // offset in GVexMatch_Para
  double def;              // default of numbers and flags; texts default to "NULL"
  const char* typed;       // format of the value as typed, in the first echo
  const char* record;      // format in the record echo; null: not there
  const char* label;       // echo label when not "--" + name
  OptionGroup group;       // group of the record echo and the help
  int help;                // position in the help; 0: not shown
  const char* help_value;  // default as the help shows it
  const char* help_text;
  int listed;              // position in the valid-option list; 0: not listed
  const char* list_as;     // spelling there when not the name
};

const OptionRow* gvex_options(int& n);

// The row a command-line word names, or null (words of OPT_RECORD and
// OPT_LISTED rows are unknown options).
const OptionRow* gvex_find_option(const char* word);

// Writes every row's default into the record (text buffers must exist).
void gvex_option_defaults(GVexMatch_Para* p);

// "       --name               value" lines: the options as typed (values
// re-read from argv), and the record in its four groups.
void gvex_echo_typed(FILE* fp, int argc, char** argv);
void gvex_echo_record(FILE* fp, const GVexMatch_Para* p);

// "--name\t " for every listed spelling, in list order.
std::string gvex_valid_options_list();

// The four groups of help rows, each followed by an empty line.
void gvex_put_help_rows();
