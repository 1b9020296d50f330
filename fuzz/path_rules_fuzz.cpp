// Brain-relative paths from the server and the local file system: a path the
// rules accept has no empty, "." or ".." component and no backslash or NUL,
// and the ignore list looks at the last component only.

#include "fuzz/fuzz_check.h"
#include "synckit/platform/ignore_list.h"
#include "synckit/platform/path_rules.h"

using namespace synckit;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view path = halvark::fuzz::text(data, size);
  if (PathRules::isNormalizedWritePath(path)) {
    FUZZ_CHECK(!path.empty());
    FUZZ_CHECK(path.find('\\') == std::string_view::npos);
    FUZZ_CHECK(path.find('\0') == std::string_view::npos);
    std::size_t start = 0;
    for (;;) {
      std::size_t slash = path.find('/', start);
      std::string_view component = path.substr(start, slash - (slash == path.npos ? 0 : start));
      FUZZ_CHECK(!component.empty() && component != "." && component != "..");
      if (slash == path.npos) break;
      start = slash + 1;
    }
  }
  std::size_t slash = path.rfind('/');
  std::string_view last = slash == path.npos ? path : path.substr(slash + 1);
  FUZZ_CHECK(IgnoreList::isIgnored(path) == IgnoreList::isIgnored(last));
  if (IgnoreList::isIgnored(path)) {
    FUZZ_CHECK(IgnoreList::isIgnored("folder/" + std::string(last)));
  }
  return 0;
}
