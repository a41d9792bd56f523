// The one seam through which every fixed board path is reached.
//
// BoardPath("/sys/kernel/debug/ion/heaps/all_heap_info") returns the path as
// the program opens it. In the shipped binary the root is empty and the path is
// returned unchanged; nothing in the program (no option, environment variable
// or file) changes it. Unit tests call SetBoardRootForTesting to point the code
// at a temporary tree: the root is then put in front of every absolute path.
// Shared-memory object names are not paths and do not go through here.
#pragma once

#include <string>
#include <string_view>

namespace kestro::zqp::base {

std::string BoardPath(std::string_view absolute_path);

// Not thread-safe: call before any monitor exists. An empty root restores the
// real paths.
void SetBoardRootForTesting(std::string root);

}  // namespace kestro::zqp::base
