// The compound input entry: the three passes of the chosen reader, with the
// label dictionary loaded between the allocation and the graph pass.
#include "input/input.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include "input/input_internal.h"

namespace {

std::string changed_input_message(const void* context) {
  const InputFile& input = *static_cast<const InputFile*>(context);
  return input_has_changed(input) ? format_text("input file changed while it was being read: '%s'\n", input.name.c_str())
                                  : std::string();
}

// An advisory lock on an open file, held for the life of the record. Where
// the file system offers no locks, runs go on without one.
class FileLock {
 public:
  explicit FileLock(int fd) : fd_(fd) {
    while (flock(fd_, LOCK_EX) != 0) {
      if (errno != EINTR) {
        fd_ = -1;
        return;
      }
    }
  }
  ~FileLock() {
    if (fd_ >= 0) flock(fd_, LOCK_UN);
  }
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

 private:
  int fd_;
};

CompoundInput read_passes(const RunSettings& settings, InputFile& input, FragmentTable* table, bool dictionary_file) {
  // Opened first, so a missing input is refused before any file is written.
  FilePtr stream = open_pass(input);
  const std::string dict_name = input.name + ".dict";
  const bool mol2 = settings.mol2input;
  CompoundInput result;
  DictionaryScan scan;
  {
    // From writing the dictionary until it has been read back, no other run
    // on this input may write its own (which may differ: -NoAtmLabels).
    FileLock lock(dictionary_file ? fileno(stream.get()) : -1);
    FilePtr dict = dictionary_file ? create_dictionary_file(dict_name, mol2) : FilePtr();
    scan = mol2 ? scan_mol2_labels(settings, input, dict.get()) : scan_sd_labels(settings, input, dict.get());
    if (dictionary_file) {
      finish_dictionary_file(std::move(dict), dict_name);
      std::printf("total compounds = %d\n", scan.compounds);
    }
    const int n = scan.compounds;
    result.compounds =
        mol2 ? allocate_mol2_graphs(settings, input, n) : allocate_sd_graphs(settings, input, n);
    result.compound_names.assign(n, std::string());
    if (table != nullptr) create_occurrence_lists(*table, n);
    result.dictionary = dictionary_file ? load_label_dictionary(dict_name) : dictionary_of_labels(mol2, scan.labels);
  }
  int read = 0;
  if (mol2)
    read_mol2_graphs(settings, input, std::move(stream), result.compounds, result.compound_names, result.dictionary,
                     scan, read);
  else
    read_sd_graphs(settings, input, std::move(stream), result.compounds, result.compound_names, result.dictionary,
                   scan, read);
  return result;
}

}  // namespace

CompoundInput read_compounds(const RunSettings& settings, FragmentTable& table) {
  InputFile input;
  input.name = settings.infile;
  // Whatever a pass stumbles over in a file that changed under it, the
  // change is what gets reported.
  FailureOverrideScope report_changes(changed_input_message, &input);
  return read_passes(settings, input, &table, true);
}

CompoundInput read_compounds_in_memory(const RunSettings& settings, const InputSource& source) {
  InputFile input;
  input.name = source.name;
  input.text = source.text;
  FailureOverrideScope report_changes(changed_input_message, &input);
  return read_passes(settings, input, nullptr, false);
}

void remove_dictionary_file(const std::string& infile) {
  const int fd = open(infile.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  {
    FileLock lock(fd);
    std::remove((infile + ".dict").c_str());
  }
  if (fd >= 0) close(fd);
}
