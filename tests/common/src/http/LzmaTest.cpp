#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common/src/http/HttpInterceptorBuilder.h"
#include "common/src/http/InMemoryHttpResponse.h"
#include "common/src/http/interceptors/LzmaCompression.h"
#include "common/src/http/interceptors/LzmaHttpInterceptor.h"

namespace zagent::common {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

using Bytes = std::vector<unsigned char>;

Bytes BytesOf(const std::string& text) {
  return {text.begin(), text.end()};
}

// Bytes that do not repeat, from a small generator.
Bytes Noise(std::size_t size) {
  Bytes bytes(size);
  std::uint32_t state = 12345;
  for (unsigned char& byte : bytes) {
    state = state * 1664525 + 1013904223;
    byte = static_cast<unsigned char>(state >> 24);
  }
  return bytes;
}

std::uint32_t DictionarySizeIn(const Bytes& alone) {
  return alone.at(1) | alone.at(2) << 8 | alone.at(3) << 16 | static_cast<std::uint32_t>(alone.at(4)) << 24;
}

template <typename Call>
std::string CompressionErrorOf(Call&& call) {
  try {
    call();
  } catch (const CompressionException& error) {
    return error.what();
  }
  return "no error";
}

class LzmaCompressionTest : public ::testing::TestWithParam<LzmaCompression::Container> {};

TEST_P(LzmaCompressionTest, GivesBackWhatItCompressed) {
  const LzmaCompression lzma(GetParam());
  for (const std::size_t size : {0U, 1U, 4095U, 4096U, 4097U, 100'000U}) {
    const Bytes data = Noise(size);
    EXPECT_EQ(data, lzma.Decompress(lzma.Compress(data))) << size;
  }
}

TEST_P(LzmaCompressionTest, MakesRepeatingTextSmall) {
  const LzmaCompression lzma(GetParam());
  EXPECT_LT(lzma.Compress(Bytes(200'000, 'x')).size(), 1000U);
}

TEST_P(LzmaCompressionTest, RefusesAStreamThatDoesNotEnd) {
  const LzmaCompression lzma(GetParam());
  Bytes compressed = lzma.Compress(Noise(10'000));
  for (const std::size_t cut : {1U, 8U, 5'000U}) {
    Bytes torn(compressed.begin(), compressed.end() - static_cast<std::ptrdiff_t>(cut));
    EXPECT_NE("no error", CompressionErrorOf([&] { (void)lzma.Decompress(torn); })) << cut;
  }
  EXPECT_EQ("Compressed data ends too early", CompressionErrorOf([&] { (void)lzma.Decompress({}); }));
}

TEST_P(LzmaCompressionTest, StopsAtTheAllowedSize) {
  const Bytes data(100'000, 'x');
  const Bytes compressed = LzmaCompression(GetParam()).Compress(data);
  EXPECT_EQ(data, LzmaCompression(GetParam(), data.size()).Decompress(compressed));
  EXPECT_EQ("Decompressed data is too large",
            CompressionErrorOf([&] { (void)LzmaCompression(GetParam(), data.size() - 1).Decompress(compressed); }));
}

INSTANTIATE_TEST_SUITE_P(Containers, LzmaCompressionTest,
                         ::testing::Values(LzmaCompression::Container::Alone, LzmaCompression::Container::Xz));

TEST(LzmaAloneTest, LowersTheDictionaryToTheNextPowerOfTwoAboveThePayload) {
  const LzmaCompression lzma;
  EXPECT_EQ(4096U, DictionarySizeIn(lzma.Compress(Noise(10))));
  EXPECT_EQ(131'072U, DictionarySizeIn(lzma.Compress(Noise(100'000))));
  EXPECT_EQ(131'072U, DictionarySizeIn(lzma.Compress(Noise(131'072))));
  EXPECT_EQ(8U * 1024 * 1024, DictionarySizeIn(lzma.Compress(Bytes(9'000'000, 'x')))) << "the preset's own";
}

TEST(LzmaAloneTest, RefusesBytesBehindTheEnd) {
  const LzmaCompression lzma;
  Bytes compressed = lzma.Compress(BytesOf("text"));
  compressed.push_back(0);
  EXPECT_EQ("Compressed data goes on behind its end", CompressionErrorOf([&] { (void)lzma.Decompress(compressed); }));
}

TEST(LzmaAloneTest, NamesWhatIsNoLzmaAtAll) {
  const std::string error = CompressionErrorOf([&] {
    (void)LzmaCompression().Decompress(Bytes{'p', 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
  });
  EXPECT_EQ("Unknown error: 7, possibly a bug", error);
}

TEST(LzmaAloneTest, RefusesADictionaryThatNobodyCouldFill) {
  const Bytes data = BytesOf("text");
  Bytes compressed = LzmaCompression().Compress(data);
  const auto decompress = [&](std::uint32_t dictionary, std::size_t max_size) {
    for (unsigned i = 0; i < 4; ++i) compressed.at(1 + i) = static_cast<unsigned char>(dictionary >> (8 * i));
    return CompressionErrorOf(
        [&] { EXPECT_EQ(data, LzmaCompression(LzmaCompression::Container::Alone, max_size).Decompress(compressed)); });
  };
  constexpr const char* kRefusal = "The dictionary is larger than what may be decompressed";
  EXPECT_EQ("no error", decompress(64U << 20U, LzmaCompression::kMaxDecompressedSize));
  EXPECT_EQ(kRefusal, decompress((64U << 20U) + 1, LzmaCompression::kMaxDecompressedSize));
  EXPECT_EQ(kRefusal, decompress(0xffffffffU, LzmaCompression::kMaxDecompressedSize));
  EXPECT_EQ("no error", decompress(1U << 20U, 1'000'000)) << "the next power of two, as encoders write it";
  EXPECT_EQ("no error", decompress(4096, 10)) << "the smallest that there is";
  EXPECT_EQ("no error", decompress(1U << 20U, static_cast<std::size_t>(-1))) << "without a bound";
}

TEST(LzmaAloneTest, NamesDamagedData) {
  const LzmaCompression lzma;
  Bytes compressed = lzma.Compress(Noise(10'000));
  compressed[13] = 0xff;  // the first byte of the coded data is always zero
  EXPECT_EQ("File size limits exceeded", CompressionErrorOf([&] { (void)lzma.Decompress(compressed); }));
}

class LzmaHttpInterceptorTest : public ::testing::Test {
 protected:
  std::string url_ = "https://platform.example/";
  HttpHeaders headers_;
  LzmaHttpInterceptor interceptor_;
};

TEST_F(LzmaHttpInterceptorTest, CompressesThePayloadAndMarksIt) {
  Bytes payload = BytesOf("a document");
  interceptor_.ProcessRequest(url_, payload, headers_, "POST");
  EXPECT_EQ("LZMA", headers_["Content-Encoding"]);
  EXPECT_EQ(BytesOf("a document"), LzmaCompression().Decompress(payload));
  EXPECT_EQ(0x5d, payload.at(0)) << "the alone container begins with its properties byte";
}

TEST_F(LzmaHttpInterceptorTest, PutsInPlaceWhatWasPrepared) {
  interceptor_.PrepareRequest(BytesOf("prepared"));
  for (int attempt = 0; attempt < 2; ++attempt) {
    Bytes payload = BytesOf("the same, as far as the step knows");
    interceptor_.ProcessRequest(url_, payload, headers_, "POST");
    EXPECT_EQ(BytesOf("prepared"), LzmaCompression().Decompress(payload));
  }
}

TEST_F(LzmaHttpInterceptorTest, UsesTheCompressionThatItIsGiven) {
  struct Known final : Compression {
    [[nodiscard]] Bytes Compress(const Bytes&) const override { return BytesOf("known"); }
    [[nodiscard]] Bytes Decompress(const Bytes&) const override { return BytesOf("unfolded"); }
  };
  LzmaHttpInterceptor interceptor(std::make_shared<const Known>());
  interceptor.PrepareRequest(BytesOf("a document"));
  Bytes payload = BytesOf("a document");
  interceptor.Clone()->ProcessRequest(url_, payload, headers_, "POST");
  EXPECT_EQ(BytesOf("known"), payload);
  EXPECT_EQ("LZMA", headers_["Content-Encoding"]);
  InMemoryHttpResponse response;
  response.AddHeader("content-encoding", "LZMA");
  interceptor.ProcessResponse(url_, response);
  EXPECT_EQ(BytesOf("unfolded"), response.GetPayload());
}

TEST_F(LzmaHttpInterceptorTest, CompressesWhatAnEarlierStepMadeOfEachAttempt) {
  for (const char* text : {"first", "second"}) {
    Bytes payload = BytesOf(text);
    interceptor_.ProcessRequest(url_, payload, headers_, "POST");
    EXPECT_EQ(BytesOf(text), LzmaCompression().Decompress(payload));
  }
}

TEST_F(LzmaHttpInterceptorTest, NeitherCompressesNorMarksAnEmptyPayload) {
  interceptor_.PrepareRequest({});

  Bytes payload;
  interceptor_.ProcessRequest(url_, payload, headers_, "GET");
  EXPECT_TRUE(payload.empty());
  EXPECT_TRUE(headers_.empty());
}

TEST_F(LzmaHttpInterceptorTest, DecompressesAMarkedResponse) {
  InMemoryHttpResponse response;
  response.AddHeader("content-encoding", "LZMA");
  response.UpdatePayload(LzmaCompression().Compress(BytesOf("an answer")));
  interceptor_.ProcessResponse(url_, response);
  EXPECT_EQ(BytesOf("an answer"), response.GetPayload());
}

TEST_F(LzmaHttpInterceptorTest, LeavesAnUnmarkedResponseAlone) {
  InMemoryHttpResponse response;
  response.AddHeader("Content-Encoding", "gzip");
  response.UpdatePayload(BytesOf("an answer"));
  interceptor_.ProcessResponse(url_, response);
  EXPECT_EQ(BytesOf("an answer"), response.GetPayload());
}

TEST_F(LzmaHttpInterceptorTest, FailsOnAResponseThatIsMarkedAndIsNot) {
  InMemoryHttpResponse response;
  response.AddHeader("Content-Encoding", "LZMA");
  response.UpdatePayload(BytesOf("]\x00"));
  try {
    interceptor_.ProcessResponse(url_, response);
    FAIL() << "accepted";
  } catch (const HttpInterceptorException& error) {
    EXPECT_THAT(error.what(), StartsWith("LzmaHttpInterceptor failed to decompress response payload: "));
    EXPECT_THAT(error.what(), HasSubstr("Compressed data ends too early"));
  }
}

TEST_F(LzmaHttpInterceptorTest, PassesChunksOn) {
  Bytes output;
  EXPECT_EQ(HttpInterceptor::ChunkResult::Continue, interceptor_.Clone()->ProcessResponseChunk(BytesOf("x"), output));
}

TEST(HttpInterceptorBuilderTest, BuildsInTheOrderOfTheCalls) {
  const auto config = std::make_shared<HmacConfig>("customer", "agent", "activation", false, HmacVersion::HmacV1);
  HttpInterceptorBuilder builder;
  const HttpInterceptors chain = builder.AddLzma().AddAuth(config, AuthTag::Tag4, AuthTag::None).Build();
  ASSERT_EQ(2U, chain.size());
  std::string url = "https://platform.example/";
  Bytes payload = BytesOf("text");
  HttpHeaders headers;
  chain[0]->ProcessRequest(url, payload, headers, "POST");
  EXPECT_TRUE(headers.contains("Content-Encoding"));
  EXPECT_FALSE(headers.contains("X-OSTL-Authorization"));
  chain[1]->ProcessRequest(url, payload, headers, "POST");
  EXPECT_TRUE(headers.contains("X-OSTL-Authorization"));
}

TEST(HttpInterceptorBuilderTest, BuildsOnlyOnce) {
  HttpInterceptorBuilder builder;
  EXPECT_EQ(1U, builder.AddLzma().Build().size());
  try {
    (void)builder.Build();
    FAIL() << "built twice";
  } catch (const HttpInterceptorBuilderException& error) {
    EXPECT_STREQ("HttpInterceptors are already built!", error.what());
  }
}

}  // namespace
}  // namespace zagent::common
