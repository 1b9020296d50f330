#include "synckit/platform/domain_registry.h"

#include <nlohmann/json.hpp>

#include "synckit/base/error.h"
#include "synckit/platform/atomic_file.h"

namespace synckit::DomainRegistry {

std::vector<RegisteredDomain> load(const std::filesystem::path& file) {
  auto content = AtomicFile::read(file);
  if (!content) return {};
  auto value = nlohmann::json::parse(content->begin(), content->end(), nullptr,
                                     /*allow_exceptions=*/false);
  auto unusable = [&] {
    return DecodingError(DecodingError::Kind::dataCorrupted,
                         "The file-provider domain list \u201c" + file.string() +
                             "\u201d does not hold a list of domains.");
  };
  if (!value.is_array()) throw unusable();
  std::vector<RegisteredDomain> domains;
  for (const auto& entry : value) {
    if (!entry.is_object()) throw unusable();
    auto identifier = entry.find("identifier");
    auto displayName = entry.find("displayName");
    if (identifier == entry.end() || !identifier->is_string() || displayName == entry.end() ||
        !displayName->is_string()) {
      throw unusable();
    }
    domains.push_back({identifier->get<std::string>(), displayName->get<std::string>()});
  }
  return domains;
}

void save(const std::filesystem::path& file, const std::vector<RegisteredDomain>& domains) {
  auto list = nlohmann::json::array();
  for (const RegisteredDomain& domain : domains) {
    list.push_back({{"identifier", domain.identifier}, {"displayName", domain.displayName}});
  }
  std::string text = list.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
  AtomicFile::createDirectories(file.parent_path(), 0700);
  AtomicFile::write(file, toBytes(text), 0600);
}

}  // namespace synckit::DomainRegistry
