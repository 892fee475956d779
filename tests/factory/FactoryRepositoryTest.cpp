// The factory table: exact look-ups, the order in which factories answer
// for real names, the exception text, and ownership of factories.
#include <tesselzostream/Exception.h>
#include <tesselzostream/FactoryRepository.h>

#include <boost/make_shared.hpp>
#include <boost/weak_ptr.hpp>
#include <gtest/gtest.h>

using OBJCREAT_Details::FactoryRepositoryBase;
using OBJCREAT_Details::ProductFactoryBase;

namespace {

class NameFactory : public ProductFactoryBase {
 public:
  explicit NameFactory(std::map<std::string, std::string> names) { mNameToRealNameMap = std::move(names); }
};

// What an application's repository adds: registering, and the protected
// look-up. Each test starts and ends with an empty table.
class Repository : public FactoryRepositoryBase, public ::testing::Test {
 protected:
  void SetUp() override { smNameToProductFactoryMap.clear(); }
  void TearDown() override { smNameToProductFactoryMap.clear(); }

  static boost::shared_ptr<ProductFactoryBase> Register(const std::string& key,
                                                        std::map<std::string, std::string> names) {
    return smNameToProductFactoryMap[key] = boost::make_shared<NameFactory>(std::move(names));
  }
  static std::string RealNameError(const char* name) {
    try {
      GetRealName(name);
    } catch (const Exception& e) {
      return e.what();
    }
    return "no exception";
  }
};

}  // namespace

TEST_F(Repository, NamesAreLookedUpExactly) {
  EXPECT_EQ(GetFactory("x"), nullptr);
  EXPECT_EQ(RealNameError("x"), "'x' is not a registerd type in FactoryRepositor.");
  const auto shape = Register("Shape", {{"circle", "Circle"}});
  EXPECT_EQ(GetFactory("Shape"), shape.get());
  EXPECT_EQ(GetFactory("shape"), nullptr);
  EXPECT_EQ(GetFactory(nullptr), nullptr);
  EXPECT_EQ(GetRealName("circle"), "Circle");
  EXPECT_EQ(RealNameError("Circle"), "'Circle' is not a registerd type in FactoryRepositor.");
  FactoryRepositoryBase a, b;
  a = b;  // nothing to copy, nothing changes
  EXPECT_EQ(GetFactory("Shape"), shape.get());
}

TEST_F(Repository, FirstFactoryInKeyOrderWithARealNameAnswers) {
  Register("b", {{"x", "FromB"}, {"y", "YFromB"}});
  Register("a", {{"x", "FromA"}, {"y", ""}, {"z", ""}});
  EXPECT_EQ(GetRealName("x"), "FromA");
  EXPECT_EQ(GetRealName("y"), "YFromB");  // an empty real name is no answer
  EXPECT_EQ(RealNameError("z"), "'z' is not a registerd type in FactoryRepositor.");
}

TEST_F(Repository, ReplacedEntryReleasesItsFactory) {
  boost::weak_ptr<ProductFactoryBase> first = Register("f", {});
  Register("f", {});
  EXPECT_TRUE(first.expired());
}
