#include "tesselzostream/FactoryRepository.h"

#include "tesselzostream/Exception.h"

namespace OBJCREAT_Details {

// Constructed when the library is loaded, before the static initialisers of
// the modules that link to it, which may register factories.
std::map<std::string, boost::shared_ptr<ProductFactoryBase>>
    FactoryRepositoryBase::smNameToProductFactoryMap;

ProductFactoryBase::ProductFactoryBase() = default;

ProductFactoryBase::~ProductFactoryBase() = default;

std::string ProductFactoryBase::GetRealNameOf(const char* name) const {
  if (name == nullptr) return std::string();
  const auto found = mNameToRealNameMap.find(name);
  return found != mNameToRealNameMap.end() ? found->second : std::string();
}

FactoryRepositoryBase& FactoryRepositoryBase::operator=(const FactoryRepositoryBase&) {
  return *this;
}

ProductFactoryBase* FactoryRepositoryBase::GetFactory(const char* name) {
  if (name == nullptr) return nullptr;
  const auto found = smNameToProductFactoryMap.find(name);
  return found != smNameToProductFactoryMap.end() ? found->second.get() : nullptr;
}

std::string FactoryRepositoryBase::GetRealName(const char* name) {
  const char* text = name != nullptr ? name : "";
  for (const auto& entry : smNameToProductFactoryMap) {
    if (!entry.second) continue;
    std::string realName = entry.second->GetRealNameOf(text);
    if (!realName.empty()) return realName;
  }
  throw Exception("'" + std::string(text) + "' is not a registerd type in FactoryRepositor.");
}

}  // namespace OBJCREAT_Details
