#include "src/ioc/protobuf/FileTypeIdentifier.h"

#include <gtest/gtest.h>
#include <magic.h>

#include "src/edr/LibMagicWrapper.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::ioc::internal::protobuf {
namespace {

TEST(FileTypeIdentifierTest, EachKnownTypeIsFoundInADescription) {
  const FileTypeIdentifier types;
  const std::pair<const char*, const char*> cases[] = {
      {"EICAR Virus Test Files", "EICAR"},
      {"HTML document, ASCII text", "HTML"},
      {"JPEG image data, JFIF standard 1.01", "JPEG"},
      {"Perl script text executable", "PERL"},
      {"Perl script text", "PERL"},
      {"Ruby script, ASCII text", "Ruby"},
      {"PHP script, ASCII text", "PHP"},
      {"Python script, ASCII text executable", "Python"},
      {"POSIX shell script text executable", "Script"},
      {"SQLite 3.x database, last written using SQLite version 3040001", "SQLite"},
      {"ELF 64-bit LSB executable", ""},
      {"", ""},
  };
  for (const auto& [description, type] : cases) EXPECT_EQ(types.Identify(description), type) << description;
}

TEST(FileTypeIdentifierTest, TheFirstPatternThatIsFoundDecides) {
  EXPECT_EQ(FileTypeIdentifier().Identify("XHTML document, ASCII text"), "HTML");
  EXPECT_EQ(FileTypeIdentifier(FileTypeIdentifier::Patterns{{"XHTML document", "XHTML"}, {"HTML document", "HTML"}})
                .Identify("XHTML document"),
            "XHTML");
  EXPECT_EQ(FileTypeIdentifier().Identify("a Python script text executable"), "Python");
}

TEST(FileTypeIdentifierTest, CapitalLettersAreLikeSmallOnes) {
  EXPECT_EQ(FileTypeIdentifier().Identify("EICAR virus test files"), "EICAR");
  EXPECT_EQ(FileTypeIdentifier().Identify("html DOCUMENT"), "HTML");
}

TEST(FileTypeIdentifierTest, AMatchIsTold) {
  const fakes::LogCapture log;
  EXPECT_EQ(FileTypeIdentifier().Identify("Ruby script"), "Ruby");
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "[IOC]: Matched Type: Ruby"));
}

TEST(FileTypeIdentifierTest, ADescriptionThatComesAgainIsTheSameTypeAndIsToldAgain) {
  const fakes::LogCapture log;
  const FileTypeIdentifier types;
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < 300; ++i) {
      const std::string number = std::to_string(i);
      EXPECT_EQ(types.Identify("Ruby script " + number), "Ruby");
      EXPECT_EQ(types.Identify("words " + number), "");
    }
    EXPECT_EQ(types.Identify("Ruby script 299"), "Ruby");
  }
  EXPECT_EQ(log.Count("[IOC]: Matched Type: Ruby"), 602);
}

TEST(FileTypeIdentifierTest, APatternThatDoesNotCompileIsLeftOutAndTheOthersAreNot) {
  const fakes::LogCapture log;
  const FileTypeIdentifier types(FileTypeIdentifier::Patterns{{"(", "Broken"}, {"HTML", "HTML"}});
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR, "[IOC]: FileTypeIdentifier: Failed to compile patterns: "));
  EXPECT_EQ(types.Identify("( HTML"), "HTML");
}

TEST(FileTypeIdentifierTest, APatternThatFailsAtADescriptionGivesNoType) {
  const fakes::LogCapture log;
  // So many ways to divide the letters that the matcher gives up.
  const FileTypeIdentifier types(FileTypeIdentifier::Patterns{{"(a+)+$", "Hard"}});
  EXPECT_EQ(types.Identify(std::string(200, 'a') + "b"), "");
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR, "[IOC]: FileTypeIdentifier: Failed to match: ")) << log.All();
}

TEST(FileTypeIdentifierTest, WhatLibmagicSaysOfRealFilesIsUnderstood) {
  const fakes::TempFolder folder;
  edr::LibMagicWrapper magic("/usr/lib/file/magic.mgc", MAGIC_ERROR);
  const FileTypeIdentifier types;
  const auto type_of = [&](const std::string& content) {
    const std::string path = folder.Write("file", content);
    return types.Identify(magic.Identify(path).value_or("?"));
  };
  EXPECT_EQ(type_of("X5O!P%@AP[4\\PZX54(P^)7CC)7}$EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*"), "EICAR");
  EXPECT_EQ(type_of("#!/usr/bin/perl\nprint 1;\n"), "PERL");
  EXPECT_EQ(type_of("#!/usr/bin/python3\nimport os\n"), "Python");
  EXPECT_EQ(type_of("#!/usr/bin/ruby\nputs 1\n"), "Ruby");
  EXPECT_EQ(type_of("<?php echo 1; ?>\n"), "PHP");
  EXPECT_EQ(type_of("#!/bin/sh\necho 1\n"), "") << "a \"shell script, ASCII text executable\"";
  EXPECT_EQ(type_of("<!DOCTYPE html><html><body>a</body></html>\n"), "HTML");
  EXPECT_EQ(type_of("just words\n"), "");
}

}  // namespace
}  // namespace zagent::ioc::internal::protobuf
