// A module of the application, loaded at run time: it registers a factory
// from its static initialiser and looks up factories that others
// registered, all in the one table of the library.
#include <tesselzostream/FactoryRepository.h>

#include <boost/make_shared.hpp>

namespace {

class PluginFactory : public OBJCREAT_Details::ProductFactoryBase {
 public:
  PluginFactory() { mNameToRealNameMap["plugin-widget"] = "PluginWidget"; }
};

class PluginRepository : public OBJCREAT_Details::FactoryRepositoryBase {
 public:
  PluginRepository() {
    smNameToProductFactoryMap["PluginFactory"] = boost::make_shared<PluginFactory>();
  }
  static bool Has(const char* name) { return GetFactory(name) != nullptr; }
};

const PluginRepository registration;

}  // namespace

extern "C" __attribute__((visibility("default"))) bool PluginSeesFactory(const char* name) {
  return PluginRepository::Has(name);
}
