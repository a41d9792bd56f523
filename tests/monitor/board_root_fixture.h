// Pieces shared by the monitor framework tests: a temporary board root that
// is reset after each test, and stderr capture.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "app/log.h"
#include "monitor/board_path.h"
#include "support/temp_tree.h"

namespace kestro::zqp::test_support {

class BoardRootTest : public ::testing::Test {
 protected:
  void SetUp() override { SetBoardRootForTesting(tree.Path()); }
  void TearDown() override {
    SetBoardRootForTesting("");
    SetLogLevel(1);
  }

  TempTree tree;
};

// What body wrote to standard error.
inline std::string StderrOf(const std::function<void()>& body) {
  ::testing::internal::CaptureStderr();
  body();
  return ::testing::internal::GetCapturedStderr();
}

}  // namespace kestro::zqp::test_support
