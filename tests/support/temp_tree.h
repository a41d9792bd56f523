// RAII temporary directory for tests that build a fake board tree.
//
// The constructor creates a fresh directory under /tmp with mkdtemp; the
// destructor removes it with everything below it. When the directory cannot be
// created, Path() is empty and the test is failed through GoogleTest (ADD_FAILURE).
#pragma once

#include <string>
#include <string_view>

namespace kestro::zqp::test_support {

class TempTree {
 public:
  TempTree();
  ~TempTree();
  TempTree(const TempTree&) = delete;
  TempTree& operator=(const TempTree&) = delete;

  // Absolute path of the directory, without a trailing '/'.
  const std::string& Path() const { return path_; }

  // Writes text to Path()/relpath (leading slashes ignored, so a board path
  // such as "/proc/1/status" may be given as is), creating missing parent directories and
  // replacing any existing file. Returns false (and fails the test) on error.
  bool WriteFile(std::string_view relpath, std::string_view text);

  // Creates Path()/relpath and its missing parents. Returns false (and fails
  // the test) on error; an existing directory is success.
  bool MakeDir(std::string_view relpath);

  // Contents of Path()/relpath; empty when it cannot be read.
  std::string ReadFile(std::string_view relpath) const;

 private:
  std::string path_;
};

}  // namespace kestro::zqp::test_support
