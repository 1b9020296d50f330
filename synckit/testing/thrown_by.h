#pragma once

#include <stdexcept>

namespace synckit::testing {

// The error of type E that `call` throws, for tests that check its fields or
// text. When nothing (or something else) is thrown the test fails with an
// unexpected exception.
template <class E, class F>
E thrownBy(F&& call) {
  try {
    call();
  } catch (const E& error) {
    return error;
  }
  throw std::logic_error("the expected error was not thrown");
}

}  // namespace synckit::testing
