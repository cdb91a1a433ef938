// Installation: cmake --install into a scratch prefix gives working programs
// and manual pages; cpack builds a Debian package holding the same files.
#include <gtest/gtest.h>

#include "support/process.h"

using namespace testsupport;

namespace {

// The full path of a program on PATH, or "" when there is none.
std::string on_path(const std::string& name) {
  const RunResult r = run_program("/bin/sh", {"-c", "command -v " + name}, "/");
  return r.status == 0 ? r.out.substr(0, r.out.find('\n')) : "";
}

}  // namespace

TEST(install, scratch_prefix_gets_programs_that_run_and_manual_pages) {
  const std::string cmake = on_path("cmake");
  if (cmake.empty()) GTEST_SKIP() << "no cmake on PATH";
  const std::string prefix = make_temp_dir(), work = make_temp_dir();
  const auto install = run_program(cmake, {"--install", TAVRIX_BUILD_DIR, "--prefix", prefix}, work);
  ASSERT_EQ(install.status, 0) << install.out << install.err;
  EXPECT_TRUE(file_exists(prefix + "/share/man/man1/Tavrix.1"));
  EXPECT_TRUE(file_exists(prefix + "/share/man/man1/tavrix-matrix.1"));
  EXPECT_EQ(read_file(prefix + "/share/man/man1/Tavrix.1").rfind(".TH TAVRIX 1", 0), 0u);

  write_file(work + "/example.sdf", read_file(std::string(TAVRIX_TEST_DATA) + "/example/example.sdf"));
  const auto run = run_program(prefix + "/bin/Tavrix", {"-lmax", "4", "example.sdf"}, work);
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "");
  EXPECT_NE(run.out.find("Descriptors generated : writing id and frequency files\n"), std::string::npos) << run.out;
  EXPECT_TRUE(file_exists(work + "/example.out"));
  EXPECT_TRUE(file_exists(work + "/example_frag.sdf"));
  EXPECT_FALSE(file_exists(work + "/example.sdf.dict"));

  const auto matrix = run_program(prefix + "/bin/tavrix-matrix", {"example.out"}, work);
  EXPECT_EQ(matrix.status, 0) << matrix.err;
  EXPECT_EQ(read_file(work + "/example.rows"), "1\n2\n3\n");
  remove_tree(prefix);
  remove_tree(work);
}

TEST(install, debian_package_holds_the_programs_their_pages_and_the_python_package) {
  const std::string cpack = on_path("cpack"), dpkg_deb = on_path("dpkg-deb");
  if (cpack.empty() || dpkg_deb.empty()) GTEST_SKIP() << "needs cpack and dpkg-deb";
  const std::string out = make_temp_dir();
  const auto pack = run_program(
      cpack, {"-G", "DEB", "--config", std::string(TAVRIX_BUILD_DIR) + "/CPackConfig.cmake", "-B", out}, out);
  ASSERT_EQ(pack.status, 0) << pack.out << pack.err;
  const auto find = run_program("/bin/sh", {"-c", "ls *.deb"}, out);
  ASSERT_EQ(find.status, 0) << find.err;
  const std::string deb = find.out.substr(0, find.out.find('\n'));
  EXPECT_EQ(deb.rfind("tavrix_", 0), 0u) << deb;

  const auto contents = run_program(dpkg_deb, {"--contents", deb}, out);
  ASSERT_EQ(contents.status, 0) << contents.err;
  std::vector<std::string> paths = {"./usr/bin/Tavrix\n", "./usr/bin/tavrix-matrix\n", "./usr/bin/tavrix-apply\n",
                                    "./usr/share/man/man1/Tavrix.1\n", "./usr/share/man/man1/tavrix-matrix.1\n",
                                    "./usr/share/man/man1/tavrix-apply.1\n"};
  // A build with the Python package ships it too, with what it imports.
  const bool python = read_file(std::string(TAVRIX_BUILD_DIR) + "/CMakeCache.txt").find("TAVRIX_PYTHON:BOOL=ON") !=
                      std::string::npos;
  if (python)
    paths.insert(paths.end(), {"./usr/lib/python3/dist-packages/tavrix/__init__.py",
                               "./usr/lib/python3/dist-packages/tavrix/_core.cpython-"});
  for (const std::string& path : paths)
    EXPECT_NE(contents.out.find(path), std::string::npos) << path << "\n" << contents.out;
  const auto control = run_program(dpkg_deb, {"--field", deb, "Package", "Depends"}, out);
  for (const char* package : {"python3 (>= 3.", "python3-numpy", "python3-scipy"})
    EXPECT_TRUE(!python || control.out.find(package) != std::string::npos) << package << "\n" << control.out;
#ifndef TAVRIX_SANITIZED  // a sanitizer build rightly depends on the sanitizer runtimes too
  // The C library among the dependencies (after Python's, in a build with the
  // Python package).
  EXPECT_EQ(control.out.rfind("Package: tavrix\nDepends: ", 0), 0u) << control.out;
  EXPECT_NE(control.out.find("libc6"), std::string::npos) << control.out;
#endif
  remove_tree(out);
}
