// tavrix-apply: finds the descriptors of an earlier run (its structure file)
// in the compounds of another file and writes their descriptor file, with the
// earlier run's descriptor numbers as columns.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "command_line.h"
#include "common/common.h"
#include "common/huge_pages.h"
#include "count/count.h"
#include "input/input.h"
#include "settings/settings.h"
#include "space/space.h"

namespace {

const char USAGE[] =
    "usage: tavrix-apply [-NoAtmLabels] [-NoBndLabels] [-ofile STEM] STRUCTURE_FILE INPUT_FILE\n"
    "\n"
    "Counts the descriptors of STRUCTURE_FILE (the STEM_frag.sdf of a Tavrix run;\n"
    "its n-th record is descriptor n) in every compound of INPUT_FILE (SD, or\n"
    "Mol2 when the character after the first '.' of its name is 'm'), and writes\n"
    "STEM.out in the format of a Tavrix descriptor file, with the same\n"
    "descriptor numbers. STEM is INPUT_FILE up to its first '.' unless -ofile\n"
    "gives it.\n"
    "\n"
    "  -NoAtmLabels  Mol2: atom types up to their first '.', as Tavrix -NoAtmLabels\n"
    "  -NoBndLabels  every bond the same label, as Tavrix -NoBndLabels\n"
    "  -ofile STEM   write STEM.out\n"
    "  -h, --help    print this text\n"
    "\n"
    "Give the label switches of the run that wrote STRUCTURE_FILE.\n"
    "Exit status: 0 after a complete run, 1 after an error (no STEM.out is\n"
    "written then), 2 for a wrong command line.\n";

// The input's failures, with the messages of Tavrix's own readers; those
// that do not name the file ("compound 3 (x): bond line 2 names atom 0")
// get its name in front, since two files are in play here.
template <class Read>
auto naming_input(const RunSettings& settings, Read read) {
  try {
    return read();
  } catch (Failure& failure) {
    if (failure.message.find("'" + settings.infile + "'") == std::string::npos)
      failure.message = settings.infile + ": " + failure.message;
    throw;
  }
}

// The descriptor file goes to a temporary name beside it and takes its name
// only once complete, so a failure leaves no partial file (and an older file
// of that name as it was).
// Each compound's line is written as soon as its descriptors are known, the
// compounds read one batch at a time.
ApplySummary write_descriptor_file(const std::string& path, const DescriptorSpace& space, const RunSettings& settings,
                                   CompoundStream& input, int threads) {
  std::string temporary = path + ".XXXXXX";
  const int fd = mkstemp(temporary.data());
  if (fd < 0) refuse_open(path);
  std::FILE* f = fdopen(fd, "w");
  if (f == nullptr) {
    close(fd);
    unlink(temporary.c_str());
    refuse_open(path);
  }
  // Megabytes of lines: fewer, larger writes; the buffer outlives the stream.
  std::vector<char> buffer(1 << 20);
  FilePtr out(f);
  std::setvbuf(f, buffer.data(), _IOFBF, buffer.size());
  std::vector<char> line;
  ApplySummary summary;
  try {
    RaiseFailures raise;
    auto next = [&](Graph& g, std::string& name) {
      return naming_input(settings, [&] { return next_compound(input, g, name); });
    };
    // The lines come back in input order whatever the threads.
    apply_space(space, input.dictionary, next, input.compounds, threads,
                [&](int, const std::string& name, const DescriptorPairs& pairs) {
      // As Tavrix writes its lines: the name as "%s" would (up to a NUL
      // byte), then the numbers, each of at most 11 characters.
      const std::size_t name_length = std::strlen(name.c_str());
      line.resize(name_length + 16 + pairs.size() * 24);
      char* at = line.data();
      *at++ = '"';
      at = std::copy_n(name.data(), name_length, at);
      *at++ = '"';
      *at++ = ',';
      at = std::to_chars(at, at + 20, pairs.size()).ptr;
      for (const auto& [descriptor, count] : pairs) {
        *at++ = ',';
        at = std::to_chars(at, at + 11, descriptor).ptr;
        *at++ = ',';
        at = std::to_chars(at, at + 11, count).ptr;
      }
      *at++ = '\n';
      std::fwrite(line.data(), 1, static_cast<std::size_t>(at - line.data()), f);
    }, summary);
    close_written(out, path);
  } catch (...) {
    unlink(temporary.c_str());
    throw;
  }
  if (std::rename(temporary.c_str(), path.c_str()) != 0) {
    unlink(temporary.c_str());
    fatal_error(format_text("can't write a file '%s': %s\n", path.c_str(), std::strerror(errno)));
  }
  return summary;
}

// Writing STEM.out over one of the files being read (arguments swapped, or
// -ofile naming the input) would lose it; refused before anything is read.
void refuse_output_over_input(const std::string& out, const std::vector<std::string>& inputs) {
  struct stat o;
  if (stat(out.c_str(), &o) != 0) return;
  for (const std::string& in : inputs) {
    struct stat i;
    if (stat(in.c_str(), &i) == 0 && i.st_dev == o.st_dev && i.st_ino == o.st_ino)
      fatal_error(format_text("%s: is a file being read; choose another -ofile STEM\n", out.c_str()));
  }
}

int apply_and_report(const RunSettings& settings, const std::string& structure_file) {
  // TAVRIX_THREADS is checked before any file is read.
  const int threads = threads_to_use();
  refuse_output_over_input(settings.outfstem + ".out", {structure_file, settings.infile});
  // The structure file is read while the input's first passes (its labels)
  // run on a thread of their own: neither needs the other until the
  // matching. A fault of the structure file is reported first, as when they
  // are read in turn. The compounds themselves are read as they are matched.
  CompoundStream input;
  Failure input_failure;
  bool input_failed = false, input_out_of_memory = false;
  std::thread reader([&] {
    try {
      RaiseFailures raise;
      naming_input(settings, [&] { open_compounds_in_memory(settings, InputSource{settings.infile, nullptr}, input); });
    } catch (const Failure& f) {
      input_failure = f;
      input_failed = true;
    } catch (const std::exception&) {
      input_out_of_memory = true;
    }
  });
  DescriptorSpace space;
  try {
    space = read_space_file(structure_file, false, threads);
  } catch (...) {
    reader.join();
    throw;
  }
  reader.join();
  if (input_failed) throw input_failure;
  if (input_out_of_memory) throw std::bad_alloc();
  const std::string out = settings.outfstem + ".out";
  const ApplySummary summary = write_descriptor_file(out, space, settings, input, threads);

  std::printf("compounds read: %lld\n", summary.compounds);
  if (space.size() == 0)
    std::printf("descriptors in the space: 0\n");
  else
    std::printf("descriptors in the space: %d (fragments of %d to %d bonds)\n", space.size(), space.shortest,
                space.longest);
  std::printf("descriptors found: %lld\n", summary.descriptors_found);
  std::printf("fragment occurrences matched: %lld\n", summary.occurrences_matched);
  const double coverage =
      summary.distinct_found == 0
          ? 100.0
          : 100.0 * static_cast<double>(summary.distinct_found - summary.distinct_outside) / summary.distinct_found;
  std::printf("distinct fragments outside the space: %lld of %lld found (coverage %.2f %%)\n",
              summary.distinct_outside, summary.distinct_found, coverage);
  std::printf("descriptor file: %s\n", out.c_str());
  if (summary.compounds > 0 && summary.descriptors_found == 0 && space.size() > 0)
    std::fprintf(stderr,
                 "warning: none of the space's descriptors occurs in '%s'; were the label switches "
                 "(-NoAtmLabels, -NoBndLabels) those of the run that wrote '%s'?\n",
                 settings.infile.c_str(), structure_file.c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  prefer_huge_pages(argv);
  RunSettings settings;
  bool stem_given = false;
  auto flag = [](bool& on) {
    return [&on](const char*) -> std::optional<std::string> {
      on = true;
      return std::nullopt;
    };
  };
  ToolCommandLine line{"tavrix-apply", USAGE, {}, true, false};
  line.options = {
      {"-NoAtmLabels", false, flag(settings.NoAtmLabels)},
      {"-NoBndLabels", false, flag(settings.NoBndLabels)},
      {"-ofile", true,
       [&](const char* value) -> std::optional<std::string> {
         settings.outfstem = value;
         stem_given = true;
         return std::nullopt;
       }},
  };
  std::vector<std::string> files;
  if (const std::optional<int> status = read_command_line(line, argc, argv, files)) return *status;
  if (files.size() != 2) return usage_error(line, "a structure file and an input file are needed");
  settings.infile = files[1];
  const std::size_t dot = settings.infile.find('.');
  if (dot == std::string::npos)
    return usage_error(line, "the input file name has no '.': name it .sdf (SD) or .mol2 (Mol2)");
  settings.mol2input = dot + 1 < settings.infile.size() && settings.infile[dot + 1] == 'm';
  if (!stem_given) settings.outfstem = settings.infile.substr(0, dot);
  try {
    RaiseFailures raise;
    return apply_and_report(settings, files[0]);
  } catch (const Failure& failure) {
    std::fflush(stdout);
    std::fputs(failure.message.c_str(), stderr);
    return 1;
  } catch (const std::bad_alloc&) {
    std::fprintf(stderr, "tavrix-apply: not enough memory\n");
    return 1;
  }
}
