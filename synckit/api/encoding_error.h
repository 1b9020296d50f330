#pragma once

#include "synckit/base/error.h"

namespace synckit {

// A value could not be written as JSON, for example text that is not valid
// UTF-8.
class EncodingError : public Error {
 public:
  using Error::Error;
};

}  // namespace synckit
