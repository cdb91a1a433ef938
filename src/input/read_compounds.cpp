// The compound input entry: the two passes of the chosen reader, with the
// label dictionary loaded between them.
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

// The passes before the graph pass, and the graph pass made ready.
void open_passes(const RunSettings& settings, InputFile& input, bool dictionary_file, CompoundStream& out) {
  // Opened first, so a missing input is refused before any file is written.
  FilePtr stream = open_pass(input);
  const std::string dict_name = input.name + ".dict";
  const bool mol2 = settings.mol2input;
  // From writing the dictionary until it has been read back, no other run on
  // this input may write its own (which may differ: -NoAtmLabels).
  FileLock lock(dictionary_file ? fileno(stream.get()) : -1);
  FilePtr dict = dictionary_file ? create_dictionary_file(dict_name, mol2) : FilePtr();
  DictionaryScan scan = mol2 ? scan_mol2_labels(settings, input, dict.get()) : scan_sd_labels(settings, input, dict.get());
  if (dictionary_file) {
    finish_dictionary_file(std::move(dict), dict_name);
    std::printf("total compounds = %d\n", scan.compounds);
  }
  if (scan.v3000_records > 0) {
    // Such a record's atoms and bonds stand in a block this reader does not
    // know, so it reads as a compound without atoms: say so, once.
    std::fflush(stdout);
    std::fprintf(stderr,
                 "warning: %d of the %d records of '%s' are V3000 molfiles, which are read as compounds without "
                 "atoms or bonds; convert them to V2000 for descriptors\n",
                 scan.v3000_records, scan.compounds, input.name.c_str());
  }
  const Failure& refusal = scan.later_refusal;
  if (!refusal.message.empty()) {
    if (refusal.on_stderr) fatal_error_on_stderr(refusal.message);
    fatal_error(refusal.message);
  }
  out.dictionary = dictionary_file ? load_label_dictionary(dict_name) : dictionary_of_labels(mol2, scan.labels);
  out.compounds = scan.compounds;
  out.scan = std::make_unique<DictionaryScan>(std::move(scan));
  if (mol2) out.mol2 = start_mol2_graph_pass(std::move(stream));
  else out.sd = start_sd_graph_pass(std::move(stream));
}

}  // namespace

CompoundStream::CompoundStream() = default;
CompoundStream::~CompoundStream() {
  if (sd != nullptr) end_sd_graph_pass(sd);
  if (mol2 != nullptr) end_mol2_graph_pass(mol2);
}

void open_compounds(const RunSettings& settings, CompoundStream& stream) {
  stream.settings = settings;
  stream.input = std::make_unique<InputFile>();
  stream.input->name = settings.infile;
  // Whatever a pass stumbles over in a file that changed under it, the
  // change is what gets reported.
  FailureOverrideScope report_changes(changed_input_message, stream.input.get());
  open_passes(settings, *stream.input, true, stream);
}

void open_compounds_in_memory(const RunSettings& settings, const InputSource& source, CompoundStream& stream) {
  stream.settings = settings;
  stream.input = std::make_unique<InputFile>();
  stream.input->name = source.name;
  stream.input->text = source.text;
  FailureOverrideScope report_changes(changed_input_message, stream.input.get());
  open_passes(settings, *stream.input, false, stream);
}

bool next_compound(CompoundStream& stream, Graph& g, std::string& name) {
  FailureOverrideScope report_changes(changed_input_message, stream.input.get());
  if (stream.sd != nullptr)
    return read_sd_graph(stream.settings, *stream.input, *stream.sd, stream.dictionary, *stream.scan, g, name);
  return read_mol2_graph(stream.settings, *stream.input, *stream.mol2, stream.dictionary, *stream.scan, g, name);
}

namespace {

CompoundInput read_all(CompoundStream& stream) {
  CompoundInput result;
  result.compounds.reserve(stream.compounds);
  result.compound_names.reserve(stream.compounds);
  Graph g;
  std::string name;
  while (next_compound(stream, g, name)) {
    result.compounds.push_back(std::move(g));
    result.compound_names.push_back(std::move(name));
    g = Graph{};
  }
  result.dictionary = std::move(stream.dictionary);
  return result;
}

}  // namespace

CompoundInput read_compounds(const RunSettings& settings) {
  CompoundStream stream;
  open_compounds(settings, stream);
  return read_all(stream);
}

CompoundInput read_compounds_in_memory(const RunSettings& settings, const InputSource& source) {
  CompoundStream stream;
  open_compounds_in_memory(settings, source, stream);
  return read_all(stream);
}

void remove_dictionary_file(const std::string& infile) {
  const int fd = open(infile.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  {
    FileLock lock(fd);
    std::remove((infile + ".dict").c_str());
  }
  if (fd >= 0) close(fd);
}
