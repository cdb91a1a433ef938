// Command-line parsing. The last argument is always the input file; every
// value-taking option consumes the next argument whatever it is.
#include "settings/settings.h"

#include "common/common.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

const char* const usage_pieces[] = {
    "\nUSAGE:\n",
    "Tavrix [options] <input file>\n\n",
    "<input file> \n\t Tavrix's only required parameter is a file that stores the \n\t input compounds. Tavrix supports the sdf and mol2 file \n\t formats that are selected based on the extension of the input \n\t file. If the file has an \".sdf\" extension, then Tavrix expects \n\t the compounds to be specified in SDF format; whereas if the \n\t extension is \".mol2\", Tavrix assumes that the file is in Mol2 format. \n\n",
    "\nOptions\n\n",
    " -ds {QZ,TF,PF} \n\t Specifies the type of fragments to be generated. \n\t The possible values are:\n\t QZ Acyclic Fragments (default), \n\t TF Tree Fragments (acyclic fragments consisting of trees only) \n\t PF Path Fragments (PF) (acyclic fragments consisting of paths only)\n\n",
    " -lmin [1...] \n\t Specifies the minimum number of bonds (i.e., length) of the \n\t generated fragments. The default value is one.\n\n",
    " -lmax [1...] \n\t Specifies the maximum number of bonds of the generated fragments. \n\t Note that lmax must be greater than or equal to lmin. \n\t The default value is seven. \n\n",
    " -fmin [1...] \n\t Specifies the minimum frequency that a fragment must have before \n\t it becomes a descriptor. The frequency of a fragment is based on \n\t the number of distinct compounds that it occurs at. The default \n\t value is one (i.e., all fragments are treated as descriptors). \n\n",
    " -NoAtmLabels \n\t This option forces Tavrix to ignore the fine atom typing specified \n\t in the input file (if any). If this option is used, then only the \n\t basic atom types are used (e.g., P, N, O, etc.). This option applies \n\t only to inputs files that use the Mol2 format, as the SDF format \n\t does not support fine atom typing. By default Tavrix uses the \n\t supplied atom typing. \n\n",
    " -NoBndLabels \n\t This option forces Tavrix to ignore the bond typing specified in \n\t the input file (if any). If this option is used, then all bonds are \n\t treated as belonging to the same type. By default Tavrix uses the \n\t supplied bond typing. \n\n",
    " -ofile <outfstem> \n\t Specifies the stem of the output file. The output files will be \n\t of the forms outfstem.out, outfstem_frags.sdf, and outfstem_frag.mol2 \n\t for the descriptor space and fragment files, respectively. If \n\t output stem is not specified then the output stem is the same as \n\t input stem. \n\n",
};

[[noreturn]] void usage_exit() {
  print_usage();
  end_process(0);
}

[[noreturn]] void invalid_value(const char* what) {
  std::printf("\nError: Invalid value for %s\n", what);
  usage_exit();
}

// The run of leading decimal digits; a value too large for a signed 32-bit
// number saturates at its maximum rather than wrapping into a negative one.
int leading_number(const char* text) {
  long long n = 0;
  for (const char* p = text; *p >= '0' && *p <= '9'; ++p) {
    n = n * 10 + (*p - '0');
    if (n > INT_MAX) return INT_MAX;
  }
  return static_cast<int>(n);
}

int number_value(const char* value, const char* what) {
  if (!(value[0] >= '0' && value[0] <= '9')) invalid_value(what);
  return leading_number(value);
}

}  // namespace

int classify_option(const char* word) {
  static const char* const words[] = {"-ds", "-lmin", "-lmax", "-fmin", "-ofile",
                                      "-help", "-NoAtmLabels", "-NoBndLabels"};
  for (int i = 0; i < 8; ++i)
    if (std::strcmp(word, words[i]) == 0) return i + 1;
  return 0;
}

void print_usage() {
  for (const char* piece : usage_pieces) std::fputs(piece, stdout);
}

RunSettings parse_arguments(int argc, char** argv) {
  RunSettings s;
  if (argc < 2) usage_exit();
  const int last = argc - 1;
  bool stem_given = false;
  int i = 1;
  while (i < last) {
    int code = classify_option(argv[i]);
    const char* value = code >= 1 && code <= 5 ? argv[i + 1] : nullptr;
    switch (code) {
      case 1:
        if (std::strcmp(value, "QZ") != 0 && std::strcmp(value, "TF") != 0 && std::strcmp(value, "PF") != 0)
          invalid_value("ds");
        s.option = value;
        break;
      case 2: s.lmin = number_value(value, "lmin"); break;
      case 3: s.lmax = number_value(value, "lmax"); break;
      case 4: s.fmin = number_value(value, "fmin"); break;
      case 5:
        s.outfstem = value;
        stem_given = true;
        break;
      case 7: s.NoAtmLabels = true; break;
      case 8: s.NoBndLabels = true; break;
      default: usage_exit();  // -help, or no option word
    }
    i += value != nullptr ? 2 : 1;
  }
  if (i > last) {
    std::fputs("Error : Invalid options.\n", stdout);
    usage_exit();
  }
  s.opt = s.option == "QZ" ? 1 : s.option == "TF" ? 2 : 3;
  s.infile = argv[last];
  const std::size_t dot = s.infile.find('.');
  if (!stem_given) s.outfstem = s.infile.substr(0, dot);
  if (dot == std::string::npos) {
    std::fputs("Input filename does not have either .sdf or .mol2 as extention\n", stdout);
    std::fputs("Input file must be either SD file or Mol2. Refer to README.txt\n", stdout);
    end_process(1);
  }
  s.mol2input = dot + 1 < s.infile.size() && s.infile[dot + 1] == 'm';
  std::printf("mint = %d,maxt = %d,freqt = %d,option = %s,opt = %d,outfile = %s,filestub = %s\n", s.lmin, s.lmax,
              s.fmin, s.option.c_str(), s.opt, s.outfstem.c_str(), s.infile.c_str());
  return s;
}
