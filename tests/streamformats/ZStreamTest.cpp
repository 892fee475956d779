// Versioned heads: the bytes of both forms, the operators over a chain of
// overrides, mismatches and short heads, and ZoStreamError.
#include <tesselzostream/ZStreamBase.h>
#include <tesselzostream/ZoStreamError.h>

#include <memory>
#include <sstream>
#include <typeinfo>

#include <gtest/gtest.h>

#include "tests/streamformats/StreamKinds.h"

namespace {

std::string Bytes(std::initializer_list<int> bytes) {
  std::string s;
  for (int b : bytes) s.push_back(static_cast<char>(b));
  return s;
}

const std::string kBaseHead = Bytes({3, 0, 0, 0, 'Z', 'S', 'B', 1, 0});

// An object with a payload of its own, whose start operations pass through
// the base as an application's classes do.
class Point : public ZStreamBase {
 public:
  char x = 0;

  // Starts the base's write outside the operators, twice; once `started`
  // is set the second call writes nothing.
  bool StartTwice(std::ostream& out) {
    ZStreamableReset();
    return ZStreamBase::ZStreamableStartWrite(out) && ZStreamBase::ZStreamableStartWrite(out);
  }

 protected:
  bool ZStreamableStartWrite(std::ostream& out) override {
    if (!ZStreamBase::ZStreamableStartWrite(out)) return false;
    return static_cast<bool>(out.put(x));
  }
  bool ZStreamableStartRead(std::istream& in) override {
    if (!ZStreamBase::ZStreamableStartRead(in)) return false;
    return static_cast<bool>(in.get(x));
  }
};

// A second level that starts the base again: the head still goes once.
class NamedPoint : public Point {
 public:
  char tag = 0;

 protected:
  bool ZStreamableStartWrite(std::ostream& out) override {
    return ZStreamBase::ZStreamableStartWrite(out) && Point::ZStreamableStartWrite(out) &&
           out.put(tag);
  }
  bool ZStreamableStartRead(std::istream& in) override {
    return ZStreamBase::ZStreamableStartRead(in) && Point::ZStreamableStartRead(in) && in.get(tag);
  }
};

}  // namespace

TEST(ZStreamBase, HeadRoundTripsThroughTheOperators) {
  std::stringstream s;
  const ZStreamBase base;
  s << base;
  EXPECT_EQ(s.str(), kBaseHead);

  ZStreamBase read;
  s >> read;
  EXPECT_TRUE(s.good());
  EXPECT_EQ(s.tellg(), 9);
  EXPECT_EQ(read.GetZStreamVersionNumber(), 1);
  EXPECT_EQ(read.GetMyZStreamVersionNumber(), 1);
}

TEST(ZStreamBase, OverridesHandleTheHeadOncePerOperator) {
  std::stringstream s;
  NamedPoint out;
  out.x = 'X';
  out.tag = 'T';
  s << out << out;  // twice: each run writes its own head
  EXPECT_EQ(s.str(), kBaseHead + "XT" + kBaseHead + "XT");

  NamedPoint in;
  s >> in;
  EXPECT_TRUE(s.good());
  EXPECT_EQ(in.x, 'X');
  EXPECT_EQ(in.tag, 'T');
  s >> in;
  EXPECT_TRUE(s.good());
  EXPECT_EQ(s.peek(), std::char_traits<char>::eof());

  std::stringstream twice;
  Point point;
  EXPECT_TRUE(point.StartTwice(twice));
  EXPECT_EQ(twice.str(), kBaseHead);
}

TEST(ZStreamBase, VersionsPassAndOtherMagicsFail) {
  std::stringstream s;
  ASSERT_TRUE(ZStreamableData(2, "ZSB").Write(s));
  ASSERT_TRUE(ZStreamableData(1, "ZSX").Write(s));
  ZStreamBase read;
  s >> read;  // a newer version passes; callers compare the numbers
  EXPECT_TRUE(s.good());
  EXPECT_EQ(read.GetZStreamVersionNumber(), 2);
  EXPECT_EQ(read.GetMyZStreamVersionNumber(), 1);
  s >> read;
  EXPECT_TRUE(s.bad());
  EXPECT_EQ(read.GetZStreamVersionNumber(), 2);  // kept from the last match
}

TEST(ZStreamBase, ShortOrHostileHeadsFail) {
  for (std::size_t cut = 0; cut < kBaseHead.size(); ++cut) {
    std::istringstream s(kBaseHead.substr(0, cut));
    ZStreamBase read;
    s >> read;
    EXPECT_TRUE(s.bad()) << "cut at " << cut;
  }
  // A magic that claims 2 GiB is refused before anything is allocated for it.
  std::istringstream hostile(Bytes({0xF0, 0xFF, 0xFF, 0x7F, 'Z', 'S', 'B', 1, 0}));
  ZStreamableData data(1, "ZSB");
  EXPECT_FALSE(data.Check(hostile));

  std::ostringstream failed;
  failed.setstate(std::ios::failbit);
  EXPECT_FALSE(data.Write(failed));
  failed << ZStreamBase();
  EXPECT_TRUE(failed.bad());
}

TEST(ZStreamLight, WorkedHeadAndRoundTripOnABlockStream) {
  tztest::AnyStream any(tztest::StreamKind::Block);
  std::iostream& s = any.stream();
  ASSERT_TRUE(ZStreamLight::WriteMagicStringAndVersionNumber(s, 7, "abc"));
  EXPECT_EQ(tztest::Contents(s), Bytes({3, 0, 'a', 'b', 'c', 7, 0}));
  std::uint16_t version = 0;
  EXPECT_TRUE(ZStreamLight::CheckMagicStringAndVersionNumber(s, version, "abc"));
  EXPECT_EQ(version, 7);
}

TEST(ZStreamLight, MagicsOfOtherLengthsFailWithoutReadingOn) {
  struct Case {
    const char* stored;
    const char* expected;
    bool match;
    std::streamoff readTo;
  };
  const Case cases[] = {
      {"abc", "abc", true, 7},
      {"", "", true, 4},       // only the version is read
      {"", nullptr, true, 4},  // null is the empty text
      {"ab", "abc", false, 4},
      {"abcd", "abc", false, 5},  // the 'd' stays unread
      {"abx", "abc", false, 5},
  };
  for (const Case& c : cases) {
    std::stringstream s;
    ASSERT_TRUE(ZStreamLight::WriteMagicStringAndVersionNumber(s, 9, c.stored));
    std::uint16_t version = 0;
    EXPECT_EQ(ZStreamLight::CheckMagicStringAndVersionNumber(s, version, c.expected), c.match)
        << c.stored;
    EXPECT_EQ(version, c.match ? 9 : 0) << c.stored;
    s.clear();
    EXPECT_EQ(s.tellg(), c.readTo) << c.stored;
  }

  const std::string head = Bytes({3, 0, 'a', 'b', 'c', 7, 0});
  for (std::size_t cut = 0; cut < head.size(); ++cut) {
    std::istringstream s(head.substr(0, cut));
    std::uint16_t version = 0;
    EXPECT_FALSE(ZStreamLight::CheckMagicStringAndVersionNumber(s, version, "abc")) << cut;
  }
  std::ostringstream failed;
  failed.setstate(std::ios::badbit);
  EXPECT_FALSE(ZStreamLight::WriteMagicStringAndVersionNumber(failed, 1, "abc"));
}

TEST(ZoStreamError, CloneKeepsClassAndText) {
  const ZoStreamError error("stream went wrong");
  std::unique_ptr<ZoStreamError> copy(error.Clone());
  ASSERT_NE(copy, nullptr);
  EXPECT_STREQ(copy->what(), "stream went wrong");
  const Exception& asBase = *copy;
  EXPECT_EQ(typeid(asBase), typeid(ZoStreamError));
  try {
    throw *copy;
  } catch (const Exception& caught) {
    EXPECT_STREQ(caught.what(), "stream went wrong");
  }
}
