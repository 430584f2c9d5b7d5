#include "src/edr/PathGlob.h"

#include <Poco/Exception.h>
#include <Poco/Glob.h>
#include <gtest/gtest.h>

#include <array>
#include <random>
#include <string>
#include <vector>

namespace zagent::edr {
namespace {

bool Matches(const std::string& pattern, const std::string& text) {
  return PathGlob(pattern).Matches(text);
}

bool PocoMatches(const std::string& pattern, const std::string& text, int options = Poco::Glob::GLOB_DEFAULT) {
  try {
    return Poco::Glob(pattern, options).match(text);
  } catch (const Poco::Exception&) {
    return false;  // a pattern that only fails when it is matched counts as no match
  }
}

// Texts of up to `length` pieces, drawn with a fixed seed so that a failure comes back.
class Dice {
 public:
  template <std::size_t N>
  std::string Roll(const std::array<const char*, N>& pieces, std::size_t length) {
    std::string text;
    const std::size_t count = engine_() % (length + 1);
    for (std::size_t i = 0; i < count; ++i) text += pieces[engine_() % N];
    return text;
  }

 private:
  std::mt19937 engine_{20240501};
};

TEST(PathGlobTest, StarsAndQuestionMarksCrossSlashesAndMatchLeadingDots) {
  EXPECT_TRUE(Matches("/etc/*", "/etc/ssh/sshd_config"));
  EXPECT_TRUE(Matches("/etc*passwd", "/etc/.hidden/passwd"));
  EXPECT_TRUE(Matches("/a?b", "/a/b"));
  EXPECT_TRUE(Matches("?hidden", ".hidden"));
  EXPECT_FALSE(Matches("/etc/*.conf", "/etc/hosts"));
  EXPECT_FALSE(Matches("/a?b", "/ab"));
}

TEST(PathGlobTest, TheWholeTextMustMatch) {
  EXPECT_FALSE(Matches("passwd", "/etc/passwd"));
  EXPECT_FALSE(Matches("/etc", "/etc/passwd"));
  EXPECT_TRUE(Matches("", ""));
  EXPECT_TRUE(Matches("***", ""));
  EXPECT_FALSE(Matches("", "a"));
}

TEST(PathGlobTest, ClassesKnowRangesInversionAndEscapes) {
  EXPECT_TRUE(Matches("/log.[0-9]", "/log.7"));
  EXPECT_FALSE(Matches("/log.[!0-9]", "/log.7"));
  EXPECT_TRUE(Matches("/log.[!0-9]", "/log.x"));
  EXPECT_TRUE(Matches("[\\]]", "]"));
  EXPECT_TRUE(Matches("a\\*b", "a*b"));
  EXPECT_FALSE(Matches("a\\*b", "axb"));
}

TEST(PathGlobTest, AMalformedPatternDoesNotMatch) {
  EXPECT_FALSE(Matches("/etc/[ab", "/etc/a"));
  EXPECT_FALSE(Matches("/etc/\\", "/etc/x"));
  EXPECT_FALSE(Matches("/etc/[", "/etc/["));
  EXPECT_FALSE(Matches("*[a", "xa"));
}

TEST(PathGlobTest, OneQuestionMarkIsOneCharacterOfUtf8) {
  EXPECT_TRUE(Matches("/na?f",
                      "/na\xC3\xAF"
                      "f"));
  EXPECT_TRUE(Matches("/[\xC3\xA0-\xC3\xBF]", "/\xC3\xA9"));
  EXPECT_FALSE(Matches("/??", "/\xC3\xA9"));
}

TEST(PathGlobTest, AStrayByteHidesNothingOfWhatFollowsIt) {
  EXPECT_TRUE(Matches("*.log", "/srv/\xF0.log"));
  EXPECT_TRUE(Matches("/srv/?.log", "/srv/\xF0.log"));
  EXPECT_TRUE(Matches(PathGlob::Escape("/srv/\xFF"), "/srv/\xFF"));
  EXPECT_FALSE(Matches(PathGlob::Escape("/srv/\xFF"), "/srv/\xFE"));
}

TEST(PathGlobTest, AnEscapedTextMatchesItselfOnly) {
  const std::string path = "/srv/[a-c]*\\?/x]";
  EXPECT_TRUE(Matches(PathGlob::Escape(path), path));
  EXPECT_FALSE(Matches(PathGlob::Escape("/srv/[ab]"), "/srv/a"));
  EXPECT_FALSE(Matches(PathGlob::Escape("/srv/*"), "/srv/x"));
}

TEST(PathGlobTest, AgreesWithPocoGlobOnRandomPatterns) {
  constexpr std::array<const char*, 13> kPattern = {"a", "b", "c", "/", "*",  "*",       "?",
                                                    "[", "]", "!", "-", "\\", "\xC3\xA9"};
  constexpr std::array<const char*, 10> kText = {"a", "b", "c", "d", "/", ".", "-", "]", "!", "\xC3\xA9"};
  Dice dice;
  int matched = 0;
  for (int i = 0; i < 300'000; ++i) {
    const std::string pattern = dice.Roll(kPattern, 9);
    const std::string text = dice.Roll(kText, 7);
    const bool expected = PocoMatches(pattern, text);
    ASSERT_EQ(Matches(pattern, text), expected) << "pattern '" << pattern << "' text '" << text << "'";
    matched += expected ? 1 : 0;
  }
  EXPECT_GT(matched, 5'000);  // the dice do meet matches
}

TEST(PathGlobTest, AgreesWithPocoGlobOnPatternsMadeOfStarsAndClasses) {
  constexpr std::array<const char*, 9> kPattern = {"*", "a", "b", "[ab]", "[!a]", "[b-]*c]", "[a-\\]]", "[!b", "?"};
  constexpr std::array<const char*, 5> kText = {"a", "b", "c", "]", "-"};
  Dice dice;
  for (int i = 0; i < 200'000; ++i) {
    const std::string pattern = dice.Roll(kPattern, 7);
    const std::string text = dice.Roll(kText, 9);
    ASSERT_EQ(Matches(pattern, text), PocoMatches(pattern, text))
        << "pattern '" << pattern << "' text '" << text << "'";
  }
}

TEST(PathGlobTest, CaseIsIgnoredOnDemand) {
  const PathGlob glob("*ELF 64-bit*\xC3\x89*", PathGlob::Case::Ignored);
  EXPECT_TRUE(glob.Matches("an elf 64-BIT object of \xC3\xA9 kind"));
  EXPECT_FALSE(glob.Matches("an elf 32-bit object of \xC3\xA9 kind"));
  EXPECT_FALSE(Matches("*ELF*", "elf"));
}

TEST(PathGlobTest, AgreesWithPocoGlobWhereCaseIsIgnored) {
  constexpr std::array<const char*, 16> kPattern = {"a", "B", "c", "C", "*",  "*",        "?",        "[",
                                                    "]", "!", "-", "/", "\\", "\xC3\xA9", "\xC3\x89", "D"};
  constexpr std::array<const char*, 11> kText = {"a", "A", "b", "C", "/", "d", "-", "]", "!", "\xC3\xA9", "\xC3\x89"};
  Dice dice;
  int matched = 0;
  for (int i = 0; i < 300'000; ++i) {
    const std::string pattern = dice.Roll(kPattern, 9);
    const std::string text = dice.Roll(kText, 7);
    const bool expected = PocoMatches(pattern, text, Poco::Glob::GLOB_CASELESS);
    ASSERT_EQ(PathGlob(pattern, PathGlob::Case::Ignored).Matches(text), expected)
        << "pattern '" << pattern << "' text '" << text << "'";
    matched += expected ? 1 : 0;
  }
  EXPECT_GT(matched, 5'000);
}

// Eight stars against sixty characters take a backtracking matcher a minute. The test's own time limit is the proof.
TEST(PathGlobTest, ManyStarsAgainstALongTextAreInstant) {
  EXPECT_FALSE(Matches("a*a*a*a*a*a*a*a*b", std::string(60, 'a')));
  std::string pattern;
  for (int i = 0; i < 200; ++i) pattern += "*a";
  EXPECT_FALSE(Matches(pattern + "b", std::string(4'096, 'a')));
  EXPECT_TRUE(Matches(pattern, std::string(4'096, 'a')));
}

}  // namespace
}  // namespace zagent::edr
