// Boards made in this process by the board maker and used by the platform library
// (platform::SetRootForTest) for a test's duration.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "platform/boardmaker.h"
#include "support/testsupport.h"

namespace testsupport {

// Makes a board in dir and points the platform library at it.
// Fails the test when the board cannot be made.
void UseBoard(const std::string& dir, const platform::BoardOptions& options = {});

// A test on its own board, made in SetUp and let go in TearDown. A fixture shapes the board by
// overriding Options().
class BoardFixture : public ::testing::Test {
 protected:
  virtual platform::BoardOptions Options() const { return {}; }
  void SetUp() override;
  void TearDown() override;

  const std::string& root() const { return dir_.path(); }
  std::string Board(const std::string& path) const { return dir_.path() + path; }

 private:
  TempDir dir_;
};

}  // namespace testsupport
