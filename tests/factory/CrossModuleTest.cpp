// One factory table for the whole process: a module loaded with dlopen
// registers into the table that this program reads, and finds what this
// program registered. Both link the shared library, as applications do.
#include <dlfcn.h>

#include <tesselzostream/tesselzostream.h>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

using OBJCREAT_Details::FactoryRepositoryBase;
using OBJCREAT_Details::ProductFactoryBase;

class HostRepository : public FactoryRepositoryBase {
 public:
  static void Register(const char* key) { smNameToProductFactoryMap[key] = boost::make_shared<ProductFactoryBase>(); }
  using FactoryRepositoryBase::GetFactory;
};

TEST(FactoryAcrossModules, LoadedModuleSharesTheTable) {
  EXPECT_THROW(FactoryRepositoryBase::GetRealName("plugin-widget"), Exception);
  HostRepository::Register("HostFactory");
  // The module stays loaded: the table owns its factory until exit.
  void* module = dlopen(TZ_FACTORY_PLUGIN, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(module, nullptr) << dlerror();

  ProductFactoryBase* factory = HostRepository::GetFactory("PluginFactory");
  ASSERT_NE(factory, nullptr);  // registered by its static initialiser
  EXPECT_EQ(factory->GetRealNameOf("plugin-widget"), "PluginWidget");
  EXPECT_EQ(FactoryRepositoryBase::GetRealName("plugin-widget"), "PluginWidget");

  auto sees = reinterpret_cast<bool (*)(const char*)>(dlsym(module, "PluginSeesFactory"));
  ASSERT_NE(sees, nullptr) << dlerror();
  EXPECT_TRUE(sees("HostFactory"));
}
