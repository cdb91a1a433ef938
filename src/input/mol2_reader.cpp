// Tripos Mol2 reader: molecules opened by "@<TRIPOS>MOLECULE", atoms from
// the ATOM section, bonds from the BOND section, in two passes.
//
// As in the SD reader, the dictionary pass counts a
// malformed molecule and move on to the next marker line; only the graph
// pass refuses it, at the point where it reads the fault, so that defined
// messages of that molecule and of earlier ones keep their turn.
#include "input/bond_labels.h"
#include "input/input_internal.h"

#include <algorithm>

namespace {

bool begins_with(std::string_view line, std::string_view prefix) { return line.substr(0, prefix.size()) == prefix; }
bool is_marker(std::string_view line) { return begins_with(line, "@<TRIPOS>MOLECULE"); }
bool is_section(std::string_view line) { return begins_with(line, "@<TRIPOS>"); }
bool is_bond_marker(std::string_view line) { return begins_with(line, "@<TRIPOS>BOND"); }
bool ends_bond_section(std::string_view line) { return is_section(line) || line == "\n"; }

// How far the head of a molecule could be read.
enum class HeadEnd {
  none,            // the file held no further molecule
  complete,        // up to and including the "@<TRIPOS>ATOM" line
  no_counts,       // the file ended right after the name line
  cut_short,       // the file ended before the "@<TRIPOS>ATOM" line
  no_atom_marker,  // the line in its place is something else (it stays current)
};

struct Mol2Head {
  HeadEnd end = HeadEnd::none;
  std::string name_line;
  bool has_digit = false;  // the counts line holds an atom count
  int na = 0;
  int nb = -1;             // -1 when the counts line gives no bond count
};

// One pass's position in the file: the current line, or the end.
struct Mol2Cursor {
  explicit Mol2Cursor(std::FILE* stream) : in(stream) {}
  InputLines in;
  bool at_end = false;
  void advance() { at_end = !next_line(in); }
};

void parse_counts_line(std::string_view line, Mol2Head& h) {
  line = without_line_feed(line);
  std::size_t start = line.find_first_of("0123456789");
  h.has_digit = start != std::string_view::npos;
  h.na = 0;
  h.nb = -1;
  if (!h.has_digit) return;
  std::size_t end = line.find(' ', start);
  h.na = leading_number(line.substr(start));
  // One separating space is passed over; wider spacing leaves the bond field empty.
  if (end == std::string_view::npos || end + 1 >= line.size()) return;
  std::string_view field = line.substr(end + 1);
  field = field.substr(0, field.find(' '));
  if (!field.empty()) h.nb = leading_number(field);
}

Mol2Head read_mol2_head(Mol2Cursor& c) {
  Mol2Head h;
  if (c.at_end) return h;
  if (!is_marker(c.in.line))
    for (int i = 0; i < 7; ++i) c.advance();  // the preamble; only the file's first lines can be one
  c.advance();
  if (c.at_end) return h;
  h.name_line.assign(c.in.line);
  c.advance();
  if (c.at_end) {
    h.end = HeadEnd::no_counts;
    return h;
  }
  parse_counts_line(c.in.line, h);
  for (int i = 0; i < 5; ++i) {
    c.advance();
    if (c.at_end) {
      h.end = HeadEnd::cut_short;
      return h;
    }
  }
  h.end = begins_with(c.in.line, "@<TRIPOS>ATOM") ? HeadEnd::complete : HeadEnd::no_atom_marker;
  return h;
}

std::string mol2_name(const Mol2Head& h, int index) {
  std::string_view name = without_line_feed(h.name_line);
  return name.empty() || name[0] == '*' ? std::to_string(index + 1) : std::string(name);
}

// From the current line to the next marker line or the end of the file.
void reach_next_molecule(Mol2Cursor& c) {
  while (!c.at_end && !is_marker(c.in.line)) c.advance();
}

// Moves to the next atom line of the atom section. False when the section is
// over: at the "@<TRIPOS>BOND" line (bond_marker set), or at a marker line or
// the end of the file (the molecule has no bond section). Lines of other
// sections between the atoms and the bonds, such as charge attributes, are
// passed over.
bool next_atom_line(Mol2Cursor& c, bool& bond_marker) {
  bool in_other_section = false;
  for (;;) {
    c.advance();
    bond_marker = !c.at_end && is_bond_marker(c.in.line);
    if (c.at_end || bond_marker || is_marker(c.in.line)) return false;
    if (is_section(c.in.line)) in_other_section = true;
    else if (!in_other_section) return true;
  }
}

// The atom label of a tokenised atom line, or false when it has fewer than
// six fields or its type (or basic type) is too long.
bool form_atom_label(const TokenArray& tokens, bool basic_types, std::string_view& label) {
  if (tokens.count < 6 || tokens.slot[5].size() > MAX_TOKEN_LENGTH) return false;
  label = tokens.slot[5];
  if (basic_types) label = label.substr(0, label.find('.'));
  return label.size() <= MAX_BASIC_TYPE_LENGTH || !basic_types;
}

}  // namespace

DictionaryScan scan_mol2_labels(const RunSettings& settings, InputFile& input, std::FILE* dict) {
  FilePtr file = open_pass(input);
  warn_if_compressed(file.get(), input.name);
  Mol2Cursor c(file.get());
  c.advance();
  TokenArray tokens;
  LabelCollector labels;
  labels.dict = dict;
  int count = 0;
  Failure later_refusal;
  for (Mol2Head h; (h = read_mol2_head(c)).end != HeadEnd::none; ++count) {
    RecordRef record{count + 1, mol2_name(h, count)};
    if (h.end == HeadEnd::complete) {
      bool bond_marker = false;
      while (next_atom_line(c, bond_marker)) {
        tokenize_line(c.in.line, tokens);
        std::string_view label;
        if (form_atom_label(tokens, settings.NoAtmLabels, label)) collect_atom_label(labels, label, count);
      }
      // Bond lines were first held to the tokeniser's limit by a pass of
      // their own after this one; a line over it is refused as it was then,
      // after every message of this pass.
      if (bond_marker)
        for (c.advance(); !c.at_end && !ends_bond_section(c.in.line); c.advance())
          check_token_limit_later(c.in.line, tokens, later_refusal);
    }
    reach_next_molecule(c);
  }
  DictionaryScan scan = finish_scan(labels, count);
  scan.later_refusal = std::move(later_refusal);
  return scan;
}

struct Mol2GraphPass {
  explicit Mol2GraphPass(FilePtr s) : stream(std::move(s)), c(stream.get()) { c.advance(); }
  FilePtr stream;
  Mol2Cursor c;
  TokenArray tokens;
  struct Mol2Bond {
    int x, y, label;
  };
  std::vector<Mol2Bond> bonds;
  std::vector<EdgeTriple> triples;
  int i = 0;  // molecules read
};

Mol2GraphPass* start_mol2_graph_pass(FilePtr stream) { return new Mol2GraphPass(std::move(stream)); }
void end_mol2_graph_pass(Mol2GraphPass* pass) { delete pass; }

bool read_mol2_graph(const RunSettings& settings, const InputFile& input, Mol2GraphPass& pass,
                     const LabelDictionary& dict, const DictionaryScan& scan, Graph& g, std::string& name) {
  Mol2Cursor& c = pass.c;
  TokenArray& tokens = pass.tokens;
  auto& bonds = pass.bonds;
  std::vector<EdgeTriple>& triples = pass.triples;
  {
    const Mol2Head h = read_mol2_head(c);
    if (h.end == HeadEnd::none) {
      if (pass.i != scan.compounds || input_has_changed(input)) refuse_changed_input(input);
      return false;
    }
    const int i = pass.i++;
    if (i >= scan.compounds) refuse_changed_input(input);
    g = Graph{};
    RecordRef record{i + 1, mol2_name(h, i)};
    name = record.name;
    if (h.end == HeadEnd::no_counts) refuse_record(record, "the file ends after the name line");
    if (!h.has_digit) refuse_record(record, "the counts line holds no atom count");
    g.vs = h.na;
    if (h.nb >= 0) g.es = 2 * h.nb;
    if (g.vs > MAX_GRAPH_SIZE || (h.nb >= 0 && 2 * h.nb > MAX_GRAPH_SIZE))
      fatal_error(format_text("Graph %s is too large : Max vertices or edges allowed in a compound is 999\n",
                              record.name.c_str()));
    if (h.end == HeadEnd::cut_short) refuse_record(record, "the file ends before the @<TRIPOS>ATOM line");
    if (h.end == HeadEnd::no_atom_marker)
      refuse_record(record, "the fifth line after the counts line is not the @<TRIPOS>ATOM line");
    if (i == scan.label_overflow_record) refuse_label_overflow(record);

    g.vid.assign(g.vs, 0);
    g.vl.assign(g.vs, 0);
    int k = 0;
    bool bond_marker = false;
    while (next_atom_line(c, bond_marker)) {
      if (k == h.na)
        refuse_record(record, format_text("the atom section lists more than the %d atoms of the counts line", h.na));
      tokenize_line(c.in.line, tokens);
      std::string_view label;
      if (!form_atom_label(tokens, settings.NoAtmLabels, label)) {
        if (tokens.count < 6) refuse_record(record, format_text("atom line %d has fewer than six fields", k + 1));
        if (tokens.slot[5].size() > MAX_TOKEN_LENGTH)
          refuse_record(record, format_text("atom line %d: the atom type of %zu characters is longer than the %zu allowed",
                                            k + 1, tokens.slot[5].size(), MAX_TOKEN_LENGTH));
        refuse_record(record, format_text("atom line %d: the atom type '%s' is longer than %zu characters before its '.'",
                                          k + 1, std::string(tokens.slot[5]).c_str(), MAX_BASIC_TYPE_LENGTH));
      }
      g.vid[k] = k;
      g.vl[k] = vertex_label_index(label, dict);
      ++k;
    }
    if (!bond_marker) refuse_record(record, "the molecule has no @<TRIPOS>BOND line");
    if (k != h.na)
      refuse_record(record, format_text("the counts line gives %d atoms, the atom section lists %d", h.na, k));

    bonds.clear();
    int bond_lines = 0;
    for (c.advance(); !c.at_end && !ends_bond_section(c.in.line); c.advance()) {
      ++bond_lines;
      tokenize_line(c.in.line, tokens);
      if (tokens.count < 4) refuse_record(record, format_text("bond line %d has fewer than four fields", bond_lines));
      const char* label = mol2_bond_label(tokens.slot[3]);
      if (label == nullptr)
        refuse_record(record, format_text("bond line %d has the unknown bond type '%s'", bond_lines,
                                          std::string(tokens.slot[3]).c_str()));
      if (*label == '\0') continue;  // "nc", "du", "un": no bond in the graph
      if (settings.NoBndLabels) label = "-";
      if (bonds.size() == MAX_MOL2_BONDS)
        refuse_record(record, format_text("the bond section holds more than %d bonds", MAX_MOL2_BONDS));
      bonds.push_back({leading_number(tokens.slot[1]) - 1, leading_number(tokens.slot[2]) - 1,
                       edge_label_index(label, dict)});
    }
    if (h.nb >= 0 && bond_lines != h.nb)
      refuse_record(record, format_text("the counts line gives %d bonds, the bond section lists %d", h.nb, bond_lines));

    g.es = 2 * static_cast<int>(bonds.size());
    triples.resize(g.es);
    for (std::size_t b = 0; b < bonds.size(); ++b) {
      auto [x, y, label] = bonds[b];
      if (x > y) std::swap(x, y);
      int fx = find_vertex_by_id(x, g), fy = find_vertex_by_id(y, g);
      triples[2 * b] = {fx, fy, label};
      triples[2 * b + 1] = {fy, fx, label};
    }
    build_adjacency(triples, g);
    reach_next_molecule(c);
  }
  return true;
}
