#pragma once

#include <string_view>

namespace synckit {

// The library's own version.
namespace SyncKit {
inline constexpr std::string_view version = "0.1.0";
}  // namespace SyncKit

}  // namespace synckit
