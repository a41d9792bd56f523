#include "base/board_path.h"

#include <utility>

namespace kestro::zqp::base {
namespace {

std::string& Root() {
  static std::string root;
  return root;
}

}  // namespace

std::string BoardPath(std::string_view absolute_path) {
  std::string path = Root();
  path.append(absolute_path);
  return path;
}

void SetBoardRootForTesting(std::string root) {
  Root() = std::move(root);
}

}  // namespace kestro::zqp::base
