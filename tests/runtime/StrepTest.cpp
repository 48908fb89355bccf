#include "runtime/Strep.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "runtime/Exception.h"
#include "tests/support/WhatOf.h"

namespace {

TEST(StrepTest, ScalarsRoundTrip) {
  for (std::string s : {std::string(""), std::string("plain"), std::string("it's a \\ \"q\""),
                        std::string("line\nfeed\ttab\rcr"), std::string("\x01\x7f ctl"), std::string("ü $(x); `y`")}) {
    Kel::String text = Kel::valueToStrep(Kel::String(s));
    EXPECT_EQ(s, Kel::strepToValueWith(text, Kel::strepToString).str()) << text;
  }
  EXPECT_EQ(Kel::String("'it\\'s'"), Kel::valueToStrep(Kel::String("it's")));
  for (std::uint32_t v : {0u, 7u, 4294967295u}) {
    EXPECT_EQ(v, Kel::strepToValueWith(Kel::valueToStrep(v), Kel::strepToUnsigned));
  }
  EXPECT_TRUE(Kel::strepToValueWith(Kel::valueToStrep(true), Kel::strepToBool));
  EXPECT_FALSE(Kel::strepToValueWith(Kel::valueToStrep(false), Kel::strepToBool));
}

TEST(StrepTest, BadInputIsARangeExceptionNamingTheProblem) {
  EXPECT_EQ("junk at column 2 deserializing 12x",
            whatOf<Kel::Exception>([] { Kel::strepToValueWith("12x", Kel::strepToUnsigned); }));
  EXPECT_EQ("unsigned number out of range",
            whatOf<Kel::Exception>([] { Kel::strepToValueWith("4294967296", Kel::strepToUnsigned); }));
  EXPECT_EQ("unterminated string", whatOf<Kel::Exception>([] { Kel::strepToValueWith("'abc", Kel::strepToString); }));
  EXPECT_EQ("expected true or false, found 'y'",
            whatOf<Kel::Exception>([] { Kel::strepToValueWith("yes", Kel::strepToBool); }));
  EXPECT_EQ("bad \\x escape in string",
            whatOf<Kel::Exception>([] { Kel::strepToValueWith("'\\x4'", Kel::strepToString); }));
}

TEST(StrepTest, NeedStringBlankMatchesAnyRunOfWhiteSpace) {
  std::string input = "Value \n\t(  'x'";
  auto it = input.cbegin();
  Kel::needString(it, input.cend(), " Value");
  Kel::needString(it, input.cend(), " (");
  Kel::needString(it, input.cend(), " ");
  EXPECT_EQ("x", Kel::strepToString(it, input.cend()).str());
  std::string other = "Valve";
  auto o = other.cbegin();
  EXPECT_EQ("expected \"Value\", found 'v'",
            whatOf<Kel::Exception>([&] { Kel::needString(o, other.cend(), "Value"); }));
}

TEST(ExceptionTest, ErrnoExceptionCarriesTheSystemDescription) {
  Kel::ErrnoException e(ENOENT, "");
  EXPECT_STREQ("No such file or directory", e.what());
  EXPECT_EQ(ENOENT, e.error());
  EXPECT_EQ(std::string("No such file or directory"), Kel::ErrnoException(ENOENT, "context").what());
  EXPECT_EQ("context", Kel::ErrnoException(ENOENT, "context").text());
  EXPECT_EQ("Unknown error 99999", std::string(Kel::ErrnoException(99999, "").what()));
}

}  // namespace
