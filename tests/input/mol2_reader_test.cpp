// Mol2 input: the raw public conversion against the clean one, the head,
// section and bond type rules on small files, and every malformed molecule
// with its message. The clean public files are read by the golden runs.
#include "input/input_support.h"

namespace {

using namespace inputtest;

const Flags MOL2{.mol2 = true};

std::string mol2_head(const std::string& name, const std::string& counts) {
  return "@<TRIPOS>MOLECULE\n" + name + "\n" + counts + "\nSMALL\nGASTEIGER\n\n\n@<TRIPOS>ATOM\n";
}

std::string mol2_atom(int id, const std::string& type) {
  return format_text("%7d C %10.4f %10.4f %10.4f %s 1 UNL1 0.0\n", id, 0.0, 0.0, 0.0, type.c_str());
}

TEST(mol2_reader, reads_the_raw_conversion_to_the_same_graphs) {
  // Charge sections between the atoms and the bonds are passed over.
  Scratch scratch;
  Loaded clean = load(scratch.put("clean.mol2", data("cdk2.mol2.xz")), MOL2);
  Loaded raw = load(scratch.put("raw.mol2", data("cdk2_raw.mol2.xz")), MOL2);
  EXPECT_EQ(raw.input.compound_names, clean.input.compound_names);
  EXPECT_EQ(raw.input.dictionary.vertex_labels.items, clean.input.dictionary.vertex_labels.items);
  ASSERT_EQ(raw.input.compounds.size(), clean.input.compounds.size());
  for (std::size_t i = 0; i < raw.input.compounds.size(); ++i) {
    EXPECT_TRUE(same_form(raw.input.compounds[i], clean.input.compounds[i])) << i;
    EXPECT_EQ(raw.input.compounds[i].vid, clean.input.compounds[i].vid) << i;
  }
}

TEST(mol2_reader, reads_heads_sections_bond_types_and_label_switches_as_laid_down) {
  Scratch scratch;
  const std::string path = scratch.put("m.mol2", data("molecules_and_section_ends.mol2"));
  Loaded r = load(path, MOL2);
  EXPECT_EQ(r.out, "total compounds = 4\n");
  EXPECT_EQ(testsupport::read_file(path + ".dict"),
            "# number of vertices, # of edges is 4\nE -\nE =\nE #\nE ~\nE *\n"
            "V C.ar\nV C.3\nV N.pl3\nV O.2\nV Cl\nV H\nV O.3\n");
  const CompoundInput& in = r.input;
  EXPECT_EQ(in.dictionary.vertex_labels.items,
            (std::vector<std::string>{"C.3", "C.ar", "Cl", "H", "N.pl3", "O.2", "O.3"}));
  // "****" and an empty name line give the molecule's number.
  EXPECT_EQ(in.compound_names, (std::vector<std::string>{"first", "2", "3", "last"}));

  // Counts "5 4": the "nc" bond is left out and the bonds after it keep their order.
  EXPECT_EQ(in.compounds[0].vl, (std::vector<int>{1, 0, 4, 5, 1}));
  EXPECT_EQ(bonds_of(in, in.compounds[0]), (std::vector<std::string>{"0-1:~", "1-2:*", "3-4:-"}));
  // Wide counts give no bond count; an empty line ends the bond section.
  EXPECT_EQ(bonds_of(in, in.compounds[1]), (std::vector<std::string>{"0-1:-", "0-2:#", "1-2:="}));
  EXPECT_EQ(in.compounds[1].el, (std::vector<int>{2, 0, 2, 3, 0, 3}));
  // The bond marker followed by another section: no bonds.
  EXPECT_EQ(in.compounds[2].es, 0);
  EXPECT_EQ(in.compounds[2].v, (std::vector<int>{0, 0}));
  // The file ends inside the bond section of the last molecule.
  EXPECT_EQ(bonds_of(in, in.compounds[3]), (std::vector<std::string>{"0-1:-"}));

  Loaded preamble = load(scratch.put("p.mol2", data("same_with_preamble.mol2")), MOL2);
  EXPECT_EQ(preamble.input.compound_names, in.compound_names);
  for (std::size_t i = 0; i < in.compounds.size(); ++i)
    EXPECT_TRUE(same_form(preamble.input.compounds[i], in.compounds[i])) << i;

  // Each label switch alone: basic atom types, the single bond label.
  Loaded basic = load(path, Flags{.mol2 = true, .no_atom_labels = true});
  EXPECT_EQ(basic.input.dictionary.vertex_labels.items, (std::vector<std::string>{"C", "Cl", "H", "N", "O"}));
  EXPECT_EQ(basic.input.compounds[0].vl, (std::vector<int>{0, 0, 3, 4, 0}));

  Loaded single = load(path, Flags{.mol2 = true, .no_bond_labels = true});
  EXPECT_EQ(single.input.dictionary.edge_labels.items, (std::vector<std::string>{"#", "*", "-", "=", "~"}));
  EXPECT_EQ(bonds_of(single.input, single.input.compounds[0]), (std::vector<std::string>{"0-1:-", "1-2:-", "3-4:-"}));
  for (const Graph& g : single.input.compounds)
    for (int label : g.el) EXPECT_EQ(label, 2);
}

TEST(mol2_reader, refuses_malformed_molecules_naming_them) {
  Scratch scratch;
  struct Case {
    const char* file;
    Flags flags;
    const char* output;
  };
  const Flags basic{.mol2 = true, .no_atom_labels = true};
  const Case cases[] = {
      {"atom_marker_out_of_place.mol2", MOL2,
       "total compounds = 2\ncompound 2 (three head lines): the fifth line after the counts line is not the "
       "@<TRIPOS>ATOM line\n"},
      {"no_bond_section.mol2", MOL2, "total compounds = 2\ncompound 1 (nobond): the molecule has no @<TRIPOS>BOND line\n"},
      {"cut_in_atom_section.mol2", MOL2, "total compounds = 2\ncompound 2 (cut): the molecule has no @<TRIPOS>BOND line\n"},
      {"fewer_atom_lines_than_counts.mol2", MOL2,
       "total compounds = 1\ncompound 1 (fewer): the counts line gives 3 atoms, the atom section lists 2\n"},
      {"more_atom_lines_than_counts.mol2", MOL2,
       "total compounds = 1\ncompound 1 (more): the atom section lists more than the 2 atoms of the counts line\n"},
      {"bond_count_differs.mol2", MOL2,
       "total compounds = 1\ncompound 1 (differs): the counts line gives 2 bonds, the bond section lists 1\n"},
      {"unknown_bond_type.mol2", MOL2, "total compounds = 1\ncompound 1 (odd bond): bond line 1 has the unknown bond type '9'\n"},
      {"short_atom_line.mol2", MOL2, "total compounds = 1\ncompound 1 (five fields): atom line 2 has fewer than six fields\n"},
      {"short_bond_line.mol2", MOL2, "total compounds = 1\ncompound 1 (three fields): bond line 1 has fewer than four fields\n"},
      {"counts_line_without_digits.mol2", MOL2, "total compounds = 1\ncompound 1 (nodigits): the counts line holds no atom count\n"},
      {"long_basic_type.mol2", basic,
       "total compounds = 1\ncompound 1 (long): atom line 2: the atom type 'Abcdefghijklmnop.x' is longer than 15 "
       "characters before its '.'\n"},
      // Atom number 0 has a defined message in Mol2 bond lines.
      {"bond_to_atom_zero.mol2", MOL2, "total compounds = 1\ngraph lookup vid : can't find a vid in a graph -1\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    EXPECT_INPUT_REFUSED(scratch.put(c.file, data(c.file)), c.flags, c.output);
  }
  // A bond whose two atoms are both missing names the lower atom number.
  std::string both = data("bond_to_atom_zero.mol2");
  both.replace(both.find("0     2    1"), 12, "3     0    1");
  EXPECT_INPUT_REFUSED(scratch.put("both.mol2", both), MOL2,
                       "total compounds = 1\ngraph lookup vid : can't find a vid in a graph -1\n");
  // The long type itself is fine when types are kept whole.
  EXPECT_EQ(load(scratch.put("long.mol2", data("long_basic_type.mol2")), MOL2).input.dictionary.vertex_labels.count, 2u);
}

TEST(mol2_reader, refuses_molecules_beyond_the_size_limits) {
  Scratch scratch;
  std::string too_many_atoms = mol2_head("big", " 1000 0 0 0 0");
  for (int i = 1; i <= 1000; ++i) too_many_atoms += mol2_atom(i, "C.3");
  too_many_atoms += "@<TRIPOS>BOND\n";
  EXPECT_INPUT_REFUSED(scratch.put("atoms.mol2", too_many_atoms), MOL2,
                       "total compounds = 1\nGraph big is too large : Max vertices or edges allowed in a compound is 999\n");
  EXPECT_INPUT_REFUSED(scratch.put("bonds.mol2", mol2_head("given", " 2 500 0 0 0") + mol2_atom(1, "C.3")), MOL2,
                       "total compounds = 1\nGraph given is too large : Max vertices or edges allowed in a compound is 999\n");

  // Without a bond count no limit is checked, but the bond table holds 1000.
  auto bond_section = [](int count) {
    std::string s = mol2_head("many bonds", " 50  0 0 0");
    for (int i = 1; i <= 50; ++i) s += mol2_atom(i, "C.3");
    s += "@<TRIPOS>BOND\n";
    int made = 0;
    for (int a = 1; a <= 50 && made < count; ++a)
      for (int b = a + 1; b <= 50 && made < count; ++b) s += format_text("%d %d %d 1\n", ++made, a, b);
    return s;
  };
  Loaded r = load(scratch.put("fits.mol2", bond_section(1000)), MOL2);
  EXPECT_EQ(r.input.compounds[0].es, 2000);
  EXPECT_INPUT_REFUSED(scratch.put("over.mol2", bond_section(1001)), MOL2,
                       "total compounds = 1\ncompound 1 (many bonds): the bond section holds more than 1000 bonds\n");
}

// A bond line is held to the tokeniser's limit once the dictionary pass is
// done: after its count, before the graph pass refuses an earlier molecule;
// an atom line, which that pass splits itself, is refused first even in a
// later molecule.
TEST(mol2_reader, refuses_a_line_of_too_many_fields_in_its_turn) {
  Scratch scratch;
  std::string fields;
  for (int i = 0; i < 1000; ++i) fields += format_text(" f%d", i);
  const std::string bonds = mol2_head("bonds", " 2 1 0 0 0") + mol2_atom(1, "C.3") + mol2_atom(2, "C.3") +
                            "@<TRIPOS>BOND\n1 1 2 1" + fields + "\n";
  std::string atoms = mol2_head("atoms", " 1 0 0 0 0") + mol2_atom(1, "C.3");
  atoms.insert(atoms.size() - 1, fields);
  const std::string broken = mol2_head("broken", " 2 1 0 0 0") + mol2_atom(1, "C.3") + mol2_atom(2, "C.3") +
                             "@<TRIPOS>BOND\n1 1 3 1\n";
  EXPECT_INPUT_REFUSED(scratch.put("bonds.mol2", broken + bonds), MOL2,
                       "total compounds = 2\ntotal items in this transaction = 1000,id = f995,str = 1\n"
                       "memory for array not sufficient\n");
  EXPECT_INPUT_REFUSED(scratch.put("both.mol2", bonds + atoms), MOL2,
                       "total items in this transaction = 1000,id = f990,str =       1\n"
                       "memory for array not sufficient\n");
}

}  // namespace
