// SD input: the column and record rules on small hand-written files and
// every malformed record with its message. The public record files are read
// whole by the golden runs; line ends are the line source's (line_source_test).
#include "input/input_support.h"

namespace {

using namespace inputtest;

const char* const SD_DICT_HEAD = "# number of vertices, # of edges is 4\nE -\nE =\nE #\nE ~\n";

std::string atom_line(const std::string& symbol) {
  return format_text("%10.4f%10.4f%10.4f %-3s 0  0  0  0  0  0  0  0  0  0  0  0\n", 0.0, 0.0, 0.0, symbol.c_str());
}

// A record with the given atoms and a chain of nb bonds over them.
std::string chain_record(const std::string& name, const std::vector<std::string>& atoms, int nb) {
  std::string s = name + "\n\n\n" + format_text("%3zu%3d  0  0  0  0  0  0  0  0999 V2000\n", atoms.size(), nb);
  for (const std::string& a : atoms) s += atom_line(a);
  for (int b = 1; b <= nb; ++b) s += format_text("%3d%3d%3d  0\n", b, b + 1, 1);
  return s + "M  END\n$$$$\n";
}

TEST(sd_reader, reads_columns_names_record_ends_and_bond_labels_as_laid_down) {
  Scratch scratch;
  const std::string path = scratch.put("mixed.sdf", data("mixed_records.sdf"));
  Loaded r = load(path);
  EXPECT_EQ(r.out, "total compounds = 3\n");  // the empty line after the last "$$$$" adds none
  EXPECT_EQ(testsupport::read_file(path + ".dict"), std::string(SD_DICT_HEAD) + "V O\nV C\nV N\nV Cl\nV H\n");
  const CompoundInput& in = r.input;
  EXPECT_EQ(in.dictionary.vertex_labels.items, (std::vector<std::string>{"C", "Cl", "H", "N", "O"}));
  EXPECT_EQ(in.compound_names, (std::vector<std::string>{"first", "2", "3"}));

  // Counts line "  3  2" and nothing else; bond 3-1 becomes 0-2.
  const Graph& first = in.compounds[0];
  EXPECT_EQ(first.vs, 3);
  EXPECT_EQ(first.es, 4);
  EXPECT_EQ(first.vl, (std::vector<int>{4, 0, 3}));
  EXPECT_EQ(bonds_of(in, first), (std::vector<std::string>{"0-1:-", "0-2:="}));
  EXPECT_EQ(first.el, (std::vector<int>{1, 2, 1, 2}));

  // No bonds; data items and an indented "$$$$" close the record.
  const Graph& second = in.compounds[1];
  EXPECT_EQ(second.es, 0);
  EXPECT_EQ(second.v, (std::vector<int>{0, 0, 0}));
  EXPECT_EQ(second.vl, (std::vector<int>{0, 1}));

  const Graph& third = in.compounds[2];
  EXPECT_EQ(third.vl, (std::vector<int>{0, 0, 2, 3}));
  EXPECT_EQ(bonds_of(in, third), (std::vector<std::string>{"0-1:#", "0-2:-", "1-3:~"}));

  // Under -NoBndLabels every bond has the single label; the bond type field
  // is not even looked at.
  Loaded single = load(path, Flags{.no_bond_labels = true});
  EXPECT_EQ(single.input.dictionary.edge_labels.items, (std::vector<std::string>{"#", "-", "=", "~"}));
  for (const Graph& g : single.input.compounds)
    for (int label : g.el) EXPECT_EQ(label, 1);
  Loaded odd = load(scratch.put("eight.sdf", data("invalid_bond_type.sdf")), Flags{.no_bond_labels = true});
  EXPECT_EQ(bonds_of(odd.input, odd.input.compounds[0]), (std::vector<std::string>{"0-1:-"}));
}

// Records that read although they look cut short or overlong. A last record
// without its end marker ends with the file. A counts line without digits
// reads 0 atoms and 0 bonds, so the atom and bond lines are passed over with
// the rest of the record and never reach the dictionary. 499999 bytes fill
// the line buffer; the "$$$$" behind them starts a line of its own and ends
// the record.
TEST(sd_reader, reads_records_cut_short_overlong_or_of_the_largest_size) {
  Scratch scratch;
  std::string long_line = chain_record("one", {"C"}, 0);
  long_line.replace(long_line.find("$$$$"), 4, std::string(499998, ' ') + "a$$$$");
  struct Case {
    std::string text;
    std::vector<std::string> names, sizes, labels;  // sizes: atoms/adjacency entries
  };
  const Case cases[] = {
      {data("last_record_without_end_marker.sdf"), {"a", "b"}, {"2/2", "1/0"}, {"C", "N", "O"}},
      {data("counts_line_without_digits.sdf"), {"no digits", "next"}, {"0/0", "1/0"}, {"N"}},
      {long_line + chain_record("two", {"O"}, 0), {"one", "two"}, {"1/0", "1/0"}, {"C", "O"}},
      {chain_record("largest", std::vector<std::string>(999, "C"), 499), {"largest"}, {"999/998"}, {"C"}},
  };
  for (const Case& c : cases) {
    const Loaded r = load(scratch.put("in.sdf", c.text));
    EXPECT_EQ(r.out, format_text("total compounds = %zu\n", c.names.size()));
    EXPECT_EQ(r.input.compound_names, c.names);
    std::vector<std::string> sizes;
    for (const Graph& g : r.input.compounds) sizes.push_back(format_text("%d/%d", g.vs, g.es));
    EXPECT_EQ(sizes, c.sizes) << c.names[0];
    EXPECT_EQ(r.input.dictionary.vertex_labels.items, c.labels) << c.names[0];
  }
}

TEST(sd_reader, refuses_broken_records_with_their_messages) {
  Scratch scratch;
  struct Case {
    const char* file;
    const char* output;
  };
  const Case cases[] = {
      {"invalid_bond_type.sdf", "total compounds = 1\nread sdf file : edge label not valid 8\n"},
      {"bond_to_missing_atom.sdf", "total compounds = 2\ngraph lookup vid : can't find a vid in a graph 3\n"},
      {"duplicated_bond.sdf", "total compounds = 1\nduplicated edges 0 0, 1 1\n"},
      {"blank_atom_symbol.sdf", "total compounds = 1\nwrong formatted line at"},
      // A defined message of an earlier record, or of the same record, comes
      // before the reaction to a record cut short.
      {"invalid_bond_before_cut_record.sdf", "total compounds = 2\nread sdf file : edge label not valid 5\n"},
      {"too_large_and_cut_short.sdf",
       "total compounds = 1\nGraph big is too large : Max vertices or edges allowed in a compound is 999\n"},
      // Records the format leaves undefined are refused, naming them.
      {"record_cut_in_atom_block.sdf", "total compounds = 2\ncompound 2 (cut): the file ends after 1 of its 3 atom lines\n"},
      {"record_cut_in_bond_block.sdf", "total compounds = 2\ncompound 2 (cut): the file ends after 1 of its 2 bond lines\n"},
      {"many_atoms_announced_file_ends.sdf",
       "total compounds = 1\ncompound 1 (big): the file ends after 2 of its 999 atom lines\n"},
      {"end_marker_in_atom_block.sdf",
       "total compounds = 2\ncompound 1 (short): the record ends after 2 of its 4 atom lines\n"},
      {"bond_to_atom_zero.sdf", "total compounds = 1\ncompound 1 (zero): bond line 2 names atom 0\n"},
      {"short_atom_line.sdf",
       "total compounds = 1\ncompound 1 (short): atom line 1 is shorter than 32 characters and holds no atom symbol\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    EXPECT_INPUT_REFUSED(scratch.put(c.file, data(c.file)), Flags{}, c.output);
  }
  // An end marker among the bond lines: with bond labels read, its columns
  // are refused as a bond type first; without them the short record is.
  std::string cut = chain_record("short", {"C", "O", "N"}, 2);
  cut.replace(cut.find("  3  2"), 6, "  3  3");
  cut.erase(cut.find("M  END\n"), 7);
  EXPECT_INPUT_REFUSED(scratch.put("bonds.sdf", cut), Flags{.no_bond_labels = true},
                       "total compounds = 1\ncompound 1 (short): the record ends after 2 of its 3 bond lines\n");
  EXPECT_INPUT_REFUSED(scratch.put("larger.sdf", chain_record("first", {"C"}, 0) +
                                                     chain_record("larger", std::vector<std::string>(999, "C"), 500)),
                       Flags{}, "total compounds = 2\nGraph larger is too large : Max vertices or edges allowed in a compound is 999\n");
}

TEST(sd_reader, refuses_more_than_a_thousand_atom_labels_at_the_record_that_brings_them) {
  Scratch scratch;
  std::vector<std::string> many;
  for (int i = 0; i < 999; ++i) many.push_back(format_text("%c%c", 'A' + i / 26 % 26, 'a' + i % 26) + (i >= 676 ? "x" : ""));
  const std::string text = chain_record("many", many, 0) + chain_record("two", {"Zz1", "Zz2"}, 0);
  EXPECT_INPUT_REFUSED(scratch.put("labels.sdf", text), Flags{},
                       "total compounds = 2\ncompound 2 (two): the file holds more than 1000 distinct atom labels\n");
  // 1000 distinct labels are fine.
  Loaded r = load(scratch.put("fits.sdf", chain_record("many", many, 0) + chain_record("one", {"Zz1"}, 0)));
  EXPECT_EQ(r.input.dictionary.vertex_labels.count, 1000u);
}

TEST(sd_reader, tokeniser_limits_on_lines_passed_over) {
  Scratch scratch;
  auto with_data_line = [](const std::string& line) {
    std::string text = chain_record("data", {"C"}, 0);
    return text.insert(text.find("$$$$"), line + "\n");
  };
  std::string tokens999, tokens1000;
  for (int i = 0; i < 999; ++i) tokens999 += format_text("t%d ", i);
  tokens1000 = tokens999 + "t999";
  EXPECT_EQ(load(scratch.put("fits.sdf", with_data_line(tokens999))).out, "total compounds = 1\n");
  EXPECT_INPUT_REFUSED(scratch.put("many.sdf", with_data_line(tokens1000)), Flags{},
                       "total items in this transaction = 1000,id = t999,str = t0\nmemory for array not sufficient\n");
  // The split copy shows the line's leading spaces before its first token.
  EXPECT_INPUT_REFUSED(scratch.put("indented.sdf", with_data_line("   " + tokens1000)), Flags{},
                       "total items in this transaction = 1000,id = t999,str =    t0\nmemory for array not sufficient\n");
  // An atom line is held to the limit once the dictionary pass is done, so
  // after its count; a line that pass splits itself, in a later record, is
  // refused first.
  std::string atoms = chain_record("atoms", {"C", "O"}, 1);
  atoms.insert(atoms.find('\n', atoms.find("V2000") + 6), " " + tokens1000);
  EXPECT_INPUT_REFUSED(scratch.put("atoms.sdf", atoms + with_data_line("")), Flags{},
                       "total compounds = 2\ntotal items in this transaction = 1000,id = t983,str =     0.0000\n"
                       "memory for array not sufficient\n");
  EXPECT_INPUT_REFUSED(scratch.put("both.sdf", atoms + with_data_line(tokens1000)), Flags{},
                       "total items in this transaction = 1000,id = t999,str = t0\nmemory for array not sufficient\n");
  // A long data value (a fingerprint, an InChI) is passed over like any other.
  EXPECT_EQ(load(scratch.put("long.sdf", with_data_line(std::string(5000, 'x')))).out, "total compounds = 1\n");
}

TEST(readers, handle_empty_and_unreadable_inputs) {
  Scratch scratch;
  for (bool mol2 : {false, true}) {
    const std::string empty = scratch.put(mol2 ? "empty.mol2" : "empty.sdf", "");
    Loaded r = load(empty, Flags{.mol2 = mol2});
    EXPECT_EQ(r.out, "total compounds = 0\n");
    EXPECT_TRUE(r.input.compounds.empty() && r.input.compound_names.empty());
    EXPECT_EQ(testsupport::read_file(empty + ".dict"), std::string(SD_DICT_HEAD) + (mol2 ? "E *\n" : ""));
  }
  EXPECT_INPUT_REFUSED(scratch.dir, Flags{}, "can't open a file '" + scratch.dir + "'\n");
  EXPECT_INPUT_REFUSED(scratch.dir + "/missing.sdf", Flags{}, "can't open a file '" + scratch.dir + "/missing.sdf'\n");
}

// Files Tavrix does not read still give their usual output, byte for byte,
// but standard error says why compounds are empty or missing.
TEST(readers, warn_of_v3000_records_and_gzip_input_on_standard_error) {
  Scratch scratch;
  scratch.put("v.sdf", data("v3000_record_among_v2000.sdf"));
  testsupport::RunResult r = testsupport::run_tavrix({"-lmax", "1", "v.sdf"}, scratch.dir);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(testsupport::read_file(scratch.dir + "/v.out"), "\"ethanol v3000\",0\n\"ethanol v2000\",2,1,1,2,1\n");
  EXPECT_EQ(r.err, "warning: 1 of the 2 records of 'v.sdf' are V3000 molfiles, which are read as compounds without "
                   "atoms or bonds; convert them to V2000 for descriptors\n");

  for (const char* name : {"z.sdf", "z.mol2"}) {
    scratch.put(name, std::string("\x1f\x8b\x08\x00\n", 5));
    r = testsupport::run_tavrix({"-lmax", "1", name}, scratch.dir);
    EXPECT_NE(r.out.find("total compounds = 0\n"), std::string::npos) << r.out;
    EXPECT_NE(r.err.find(std::string("warning: '") + name + "' is compressed with gzip"), std::string::npos) << r.err;
  }
}

}  // namespace
