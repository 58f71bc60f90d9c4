#include "support/boardfixture.h"

#include "platform/board.h"
#include "support/testsupport.h"

namespace testsupport {

void UseBoard(const std::string& dir, const platform::BoardOptions& options) {
  std::string error;
  ASSERT_EQ(platform::MakeBoardRoot(dir, options, &error), 0) << error;
  RunShimsUnderEmulator(dir);
  platform::SetRootForTest(dir);
}

void BoardFixture::SetUp() {
  UseBoard(root(), Options());
}

void BoardFixture::TearDown() {
  platform::SetRootForTest("");
}

}  // namespace testsupport
