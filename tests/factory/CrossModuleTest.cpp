// One factory table for the whole process: a module loaded with dlopen
// registers into the table that this program reads, and sees what this
// program registered. Both link the shared library, as applications do.
#include <dlfcn.h>

#include <tesselzostream/tesselzostream.h>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

using OBJCREAT_Details::FactoryRepositoryBase;
using OBJCREAT_Details::ProductFactoryBase;

namespace {

class HostRepository : public FactoryRepositoryBase {
 public:
  static void Register(const char* key) {
    smNameToProductFactoryMap[key] = boost::make_shared<ProductFactoryBase>();
  }
  using FactoryRepositoryBase::GetFactory;
};

}  // namespace

TEST(FactoryAcrossModules, LoadedModuleSharesTheTable) {
  EXPECT_THROW(FactoryRepositoryBase::GetRealName("plugin-widget"), Exception);
  HostRepository::Register("HostFactory");

  void* module = dlopen(TZ_FACTORY_PLUGIN, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(module, nullptr) << dlerror();
  // Its static initialiser has registered its factory in our table.
  ProductFactoryBase* factory = HostRepository::GetFactory("PluginFactory");
  ASSERT_NE(factory, nullptr);
  EXPECT_EQ(factory->GetRealNameOf("plugin-widget"), "PluginWidget");
  EXPECT_EQ(FactoryRepositoryBase::GetRealName("plugin-widget"), "PluginWidget");

  // And the module finds what this program registered.
  auto sees = reinterpret_cast<bool (*)(const char*)>(dlsym(module, "PluginSeesFactory"));
  ASSERT_NE(sees, nullptr) << dlerror();
  EXPECT_TRUE(sees("HostFactory"));
  EXPECT_FALSE(sees("hostfactory"));
  // The module stays loaded: the table owns its factory until the library
  // itself goes at exit.
}
