// Versioned heads: the bytes of both forms, the operators over a chain of
// overrides, mismatches and short heads, and ZoStreamError.
#include <tesselzostream/ZStreamBase.h>
#include <tesselzostream/ZoStreamError.h>

#include <typeinfo>

#include <gtest/gtest.h>

#include "tests/streamformats/StreamKinds.h"

using namespace tztest;

namespace {

const std::string kBaseHead = Bytes({3, 0, 0, 0, 'Z', 'S', 'B', 1, 0});

// An application's class whose start operations pass through the base's
// twice, as overrides in a chain do: the head must still go once per run.
class Point : public ZStreamBase {
 public:
  char x = 0;

 protected:
  bool ZStreamableStartWrite(std::ostream& out) override {
    return ZStreamBase::ZStreamableStartWrite(out) && ZStreamBase::ZStreamableStartWrite(out) &&
           out.put(x);
  }
  bool ZStreamableStartRead(std::istream& in) override {
    return ZStreamBase::ZStreamableStartRead(in) && ZStreamBase::ZStreamableStartRead(in) &&
           in.get(x);
  }
};

}  // namespace

TEST(ZStreamBase, HeadGoesOncePerOperatorThroughOverrides) {
  std::stringstream s;
  s << ZStreamBase();
  EXPECT_EQ(s.str(), kBaseHead);
  Point out;
  out.x = 'X';
  s << out << out;
  EXPECT_EQ(s.str(), kBaseHead + kBaseHead + "X" + kBaseHead + "X");

  ZStreamBase base;
  Point in;
  s >> base >> in;
  EXPECT_EQ(base.GetZStreamVersionNumber(), 1);
  EXPECT_EQ(in.x, 'X');
  s >> in;
  EXPECT_TRUE(s.good());
  EXPECT_EQ(s.peek(), std::char_traits<char>::eof());
}

TEST(ZStreamBase, OtherVersionsPassOtherMagicsAndShortHeadsFail) {
  std::stringstream s;
  ASSERT_TRUE(ZStreamableData(2, "ZSB").Write(s));
  ASSERT_TRUE(ZStreamableData(1, "ZSX").Write(s));
  ZStreamBase read;
  s >> read;  // callers compare the numbers themselves
  EXPECT_TRUE(s.good());
  EXPECT_EQ(read.GetZStreamVersionNumber(), 2);
  EXPECT_EQ(read.GetMyZStreamVersionNumber(), 1);
  s >> read;
  EXPECT_TRUE(s.bad());
  EXPECT_EQ(read.GetZStreamVersionNumber(), 2);  // kept from the last match

  for (std::size_t cut = 0; cut < kBaseHead.size(); ++cut) {
    auto in = StringStream(kBaseHead.substr(0, cut));
    *in >> read;
    EXPECT_TRUE(in->bad()) << "cut at " << cut;
  }
  std::ostringstream failed;
  failed.setstate(std::ios::failbit);
  failed << ZStreamBase();
  EXPECT_TRUE(failed.bad());
}

TEST(ZStreamLight, WorkedHeadOnABlockStreamAndMagicsOfOtherLengths) {
  AnyStream any(StreamKind::Block);
  ASSERT_TRUE(ZStreamLight::WriteMagicStringAndVersionNumber(any.stream(), 7, "abc"));
  EXPECT_EQ(Contents(any.stream()), Bytes({3, 0, 'a', 'b', 'c', 7, 0}));

  struct Case {
    const char* stored;
    const char* expected;
    std::streamoff readTo;  // where the stream stands after the check
  };
  const Case cases[] = {
      {"abc", "abc", 7}, {"", "", 4}, {"", nullptr, 4},  // null is the empty text
      {"ab", "abc", 4},  {"abcd", "abc", 5},             // the 'd' stays unread
      {"abx", "abc", 5},
  };
  for (const Case& c : cases) {
    auto s = StringStream("");
    ASSERT_TRUE(ZStreamLight::WriteMagicStringAndVersionNumber(*s, 9, c.stored));
    std::uint16_t version = 0;
    const bool match = c.expected == nullptr || std::string(c.stored) == c.expected;
    EXPECT_EQ(ZStreamLight::CheckMagicStringAndVersionNumber(*s, version, c.expected), match) << c.stored;
    EXPECT_EQ(version, match ? 9 : 0) << c.stored;
    EXPECT_EQ(s->tellg(), c.readTo) << c.stored;
  }
  const std::string head = Bytes({3, 0, 'a', 'b', 'c', 7, 0});
  for (std::size_t cut = 0; cut < head.size(); ++cut) {
    std::uint16_t version = 0;
    EXPECT_FALSE(ZStreamLight::CheckMagicStringAndVersionNumber(*StringStream(head.substr(0, cut)), version, "abc"));
  }
  std::ostringstream failed;
  failed.setstate(std::ios::badbit);
  EXPECT_FALSE(ZStreamLight::WriteMagicStringAndVersionNumber(failed, 1, "abc"));
}

TEST(ZoStreamError, CloneKeepsClassAndText) {
  std::unique_ptr<Exception> copy(ZoStreamError("stream went wrong").Clone());
  ASSERT_NE(copy, nullptr);
  EXPECT_STREQ(copy->what(), "stream went wrong");
  const Exception& clone = *copy;
  EXPECT_EQ(typeid(clone), typeid(ZoStreamError));
}
