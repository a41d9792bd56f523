#include "support/temp_tree.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>
#include <vector>

namespace kestro::zqp::test_support {
namespace {

// Board paths are absolute ("/proc/1/status"); joining one onto the root with
// operator/ would discard the root, so the leading slashes go first.
std::string_view Relative(std::string_view relpath) {
  while (!relpath.empty() && relpath.front() == '/') relpath.remove_prefix(1);
  return relpath;
}

}  // namespace

TempTree::TempTree() {
  std::string pattern = "/tmp/kzm_test_XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (mkdtemp(buffer.data()) == nullptr) {
    ADD_FAILURE() << "mkdtemp failed";
    return;
  }
  path_ = buffer.data();
}

TempTree::~TempTree() {
  if (path_.empty()) return;
  std::error_code error;
  std::filesystem::remove_all(path_, error);
}

bool TempTree::MakeDir(std::string_view relpath) {
  std::error_code error;
  std::filesystem::create_directories(std::filesystem::path(path_) / Relative(relpath), error);
  if (error) {
    ADD_FAILURE() << "cannot create directory " << relpath << ": " << error.message();
    return false;
  }
  return true;
}

bool TempTree::WriteFile(std::string_view relpath, std::string_view text) {
  const std::filesystem::path file = std::filesystem::path(path_) / Relative(relpath);
  std::error_code error;
  std::filesystem::create_directories(file.parent_path(), error);
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out.write(text.data(), static_cast<std::streamsize>(text.size()));
  out.close();
  if (!out) {
    ADD_FAILURE() << "cannot write " << relpath;
    return false;
  }
  return true;
}

std::string TempTree::ReadFile(std::string_view relpath) const {
  std::ifstream in(std::filesystem::path(path_) / Relative(relpath), std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace kestro::zqp::test_support
