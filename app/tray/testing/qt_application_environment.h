#pragma once

#include <gtest/gtest.h>

#include <QApplication>
#include <memory>

namespace halvark::testing {

// The one QApplication of a test executable, made before the first test and
// destroyed after the last, on the main thread that runs the tests.
class QtApplicationEnvironment : public ::testing::Environment {
 public:
  void SetUp() override { application_ = std::make_unique<QApplication>(argc_, argv_); }
  void TearDown() override { application_.reset(); }

 private:
  int argc_ = 1;
  char name_[19] = "halvark_tray_tests";
  char* argv_[2] = {name_, nullptr};
  std::unique_ptr<QApplication> application_;
};

// Registered once per executable, however many test files include this.
inline ::testing::Environment* const qtApplicationEnvironment =
    ::testing::AddGlobalTestEnvironment(new QtApplicationEnvironment);

}  // namespace halvark::testing
