// A test fixture that fails every test ending with another number of open descriptors than it
// began.
#ifndef KIV_TESTS_SUPPORT_DESCRIPTORCHECKEDTEST_H
#define KIV_TESTS_SUPPORT_DESCRIPTORCHECKEDTEST_H

#include <gtest/gtest.h>

#include "support/TestSupport.h"

namespace kivtest {

class DescriptorCheckedTest : public ::testing::Test {
protected:
  void SetUp() override { mOpenBefore = CountOpenDescriptors(); }
  void TearDown() override {
    EXPECT_EQ(CountOpenDescriptors(), mOpenBefore) << "a descriptor was left open";
  }

private:
  int mOpenBefore = 0;
};

} // namespace kivtest

#endif // KIV_TESTS_SUPPORT_DESCRIPTORCHECKEDTEST_H
