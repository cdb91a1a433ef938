// MDL SD reader: fixed-column V2000 records ended by "$$$$", read in the
// dictionary and graph passes.
//
// The dictionary pass never refuses a record for its shape: it counts a
// malformed record as a compound and goes on, and the graph pass
// refuses it when it gets there. That way a record's defined messages (too
// large, invalid bond, missing atom, duplicated bond) and those of every
// earlier record come first, and all passes agree on every record before the
// first one refused.
#include "input/bond_labels.h"
#include "input/input_internal.h"

namespace {

// Atom lines must reach the first symbol column; V2000 puts the symbol in 32-34.
constexpr std::size_t SYMBOL_FIRST_COLUMN = 32;

struct SdHeader {
  std::string name_line;  // line 1, line feed included
  int na = 0;
  int nb = 0;
};

// The bytes of 1-based columns first..last that lie on the line.
std::string_view columns(std::string_view line, std::size_t first, std::size_t last) {
  if (line.size() < first) return {};
  return line.substr(first - 1, last - first + 1);
}

// A numeric field is the digits of its columns read as one number.
std::string field_digits(std::string_view line, std::size_t first) {
  std::string digits;
  for (char c : columns(line, first, first + 2))
    if (c >= '0' && c <= '9') digits += c;
  return digits;
}

// The value of field_digits, without making the string: three digits at most.
int field_value(std::string_view line, std::size_t first) {
  int value = 0;
  for (char c : columns(line, first, first + 2))
    if (c >= '0' && c <= '9') value = value * 10 + (c - '0');
  return value;
}

std::string atom_symbol(std::string_view line) {
  std::string symbol;
  for (char c : columns(line, SYMBOL_FIRST_COLUMN, SYMBOL_FIRST_COLUMN + 2))
    if (c != ' ' && (c < '\t' || c > '\r')) symbol += c;
  return symbol;
}

bool has_symbol_columns(std::string_view line) { return without_line_feed(line).size() >= SYMBOL_FIRST_COLUMN; }

// Lines 1 to 4; false when the file ends first, which is then no record.
bool read_sd_header(InputLines& in, SdHeader& h) {
  if (!next_line(in)) return false;
  h.name_line.assign(in.line);
  if (!next_line(in) || !next_line(in) || !next_line(in)) return false;
  h.na = field_value(in.line, 1);
  h.nb = field_value(in.line, 4);
  return true;
}

std::string sd_name(const SdHeader& h, int index) {
  std::string_view name = without_line_feed(h.name_line);
  return name.empty() ? std::to_string(index + 1) : std::string(name);
}

// Passes over the lines up to and including the first whose first token is
// "$$$$", or to the end of the file. Every line passed over is still held to
// the tokeniser's limit.
void skip_to_record_end(InputLines& in, TokenArray& tokens) {
  while (next_line(in)) {
    check_token_limit(in.line, tokens);
    if (first_token_is_record_end(in.line)) return;
  }
}

struct SdBond {
  int x, y, label;
};

}  // namespace

DictionaryScan scan_sd_labels(const RunSettings&, InputFile& input, std::FILE* dict) {
  FilePtr file = open_pass(input);
  warn_if_compressed(file.get(), input.name);
  InputLines in(file.get());
  TokenArray tokens;
  LabelCollector labels;
  labels.dict = dict;
  int count = 0, v3000 = 0;
  Failure later_refusal;
  SdHeader h;
  while (read_sd_header(in, h)) {
    // The counts line of a V3000 record holds zeros; its atoms and bonds
    // stand in a block this reader does not know.
    if (columns(in.line, 35, 39) == "V3000") ++v3000;
    RecordRef record{count + 1, sd_name(h, count)};
    bool file_ended = false, record_ended = false;
    for (int k = 0; k < h.na && !record_ended; ++k) {
      if (!next_line(in)) {
        file_ended = true;
        break;
      }
      // A record cut short by "$$$$" ends here, where its lines to the
      // tokeniser's limit end too; the graph pass refuses it.
      record_ended = first_token_is_record_end(in.line);
      // A line too short for a symbol is left for the graph pass to refuse
      // rather than turned into an empty label the loader would stop at.
      if (!record_ended && has_symbol_columns(in.line)) collect_atom_label(labels, atom_symbol(in.line), count);
      // Atom lines were first held to the tokeniser's limit by a pass of
      // their own after this one; a line over it is refused as it was then,
      // after every message of this pass.
      check_token_limit_later(in.line, tokens, later_refusal);
    }
    if (!file_ended && !record_ended) skip_to_record_end(in, tokens);
    ++count;
    if (file_ended) break;
  }
  DictionaryScan scan = finish_scan(labels, count);
  scan.v3000_records = v3000;
  scan.later_refusal = std::move(later_refusal);
  return scan;
}

struct SdGraphPass {
  explicit SdGraphPass(FilePtr s) : stream(std::move(s)), in(stream.get()) {}
  FilePtr stream;
  InputLines in;
  TokenArray tokens;
  SdHeader h;
  std::vector<SdBond> bonds;
  std::vector<EdgeTriple> triples;
  int i = 0;  // records read
};

SdGraphPass* start_sd_graph_pass(FilePtr stream) { return new SdGraphPass(std::move(stream)); }
void end_sd_graph_pass(SdGraphPass* pass) { delete pass; }

bool read_sd_graph(const RunSettings& settings, const InputFile& input, SdGraphPass& pass, const LabelDictionary& dict,
                   const DictionaryScan& scan, Graph& g, std::string& name) {
  InputLines& in = pass.in;
  SdHeader& h = pass.h;
  if (!read_sd_header(in, h)) {
    if (pass.i != scan.compounds || input_has_changed(input)) refuse_changed_input(input);
    return false;
  }
  const int i = pass.i++;
  if (i >= scan.compounds) refuse_changed_input(input);
  RecordRef record{i + 1, sd_name(h, i)};
  name = record.name;
  g.vs = h.na;
  g.es = 2 * h.nb;
  g.ncell = 0;
  g.key = 0;
  g.vcell.clear();
  if (g.vs > MAX_GRAPH_SIZE || g.es > MAX_GRAPH_SIZE)
    fatal_error(format_text("Graph %s is too large : Max vertices or edges allowed in a compound is 999\n",
                            record.name.c_str()));
  if (i == scan.label_overflow_record) refuse_label_overflow(record);

  g.vid.assign(g.vs, 0);
  g.vl.assign(g.vs, 0);
  for (int k = 0; k < h.na; ++k) {
    if (!next_line(in)) refuse_record(record, format_text("the file ends after %d of its %d atom lines", k, h.na));
    if (first_token_is_record_end(in.line))
      refuse_record(record, format_text("the record ends after %d of its %d atom lines", k, h.na));
    if (!has_symbol_columns(in.line))
      refuse_record(record, format_text("atom line %d is shorter than %zu characters and holds no atom symbol", k + 1,
                                        SYMBOL_FIRST_COLUMN));
    g.vid[k] = k;
    g.vl[k] = vertex_label_index(atom_symbol(in.line), dict);
  }

  std::vector<SdBond>& bonds = pass.bonds;
  bonds.clear();
  for (int b = 0; b < h.nb; ++b) {
    if (!next_line(in)) refuse_record(record, format_text("the file ends after %d of its %d bond lines", b, h.nb));
    const char* label = "-";
    if (!settings.NoBndLabels) {
      label = sd_bond_label(field_value(in.line, 7));
      if (label == nullptr)
        fatal_error(format_text("read sdf file : edge label not valid %s\n", field_digits(in.line, 7).c_str()));
    }
    if (first_token_is_record_end(in.line))
      refuse_record(record, format_text("the record ends after %d of its %d bond lines", b, h.nb));
    bonds.push_back({field_value(in.line, 1) - 1, field_value(in.line, 4) - 1, edge_label_index(label, dict)});
  }

  std::vector<EdgeTriple>& triples = pass.triples;
  triples.resize(g.es);
  for (int b = 0; b < h.nb; ++b) {
    auto [x, y, label] = bonds[b];
    if (x < 0 || y < 0) refuse_record(record, format_text("bond line %d names atom 0", b + 1));
    if (x > y) std::swap(x, y);
    int fx = find_vertex_by_id(x, g), fy = find_vertex_by_id(y, g);
    triples[2 * b] = {fx, fy, label};
    triples[2 * b + 1] = {fy, fx, label};
  }
  build_adjacency(triples, g);
  skip_to_record_end(in, pass.tokens);
  return true;
}
