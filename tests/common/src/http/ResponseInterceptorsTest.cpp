// The interceptors that check, decipher or note what comes back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include "common/src/http/HttpInterceptorBuilder.h"
#include "common/src/http/HttpService.h"
#include "common/src/http/InMemoryHttpResponse.h"
#include "common/src/http/interceptors/PayloadDumperHttpInterceptor.h"
#include "common/src/http/interceptors/ShaVerificationHttpInterceptor.h"
#include "common/src/http/interceptors/SigValidationHttpInterceptor.h"
#include "common/src/util/Base64.h"
#include "common/src/util/BlockCipherEvp.h"
#include "tests/fakes/ClosedResponse.h"
#include "tests/fakes/FakeHttpServer.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::common {
namespace {

using fakes::FakeHttpServer;
using Poco::Message;
using ChunkResult = HttpInterceptor::ChunkResult;
using Bytes = std::vector<unsigned char>;

constexpr const char* kUrl = "https://platform.example/file";
// SHA-256 of "hello".
constexpr const char* kHelloHash = "2cf24dba5fb0a30e26e83b2ac5b9e29e1b161e5c1fa7425e73043362938b9824";

Bytes BytesOf(const std::string& text) {
  return {text.begin(), text.end()};
}
std::string TextOf(const Bytes& bytes) {
  return {bytes.begin(), bytes.end()};
}

template <typename Call>
std::string ErrorOf(Call&& call) {
  try {
    call();
  } catch (const HttpInterceptorException& error) {
    return error.what();
  }
  return "no error";
}

// The error of the response step for this body.
std::string Check(HttpInterceptor& interceptor, const std::string& body, const HttpHeaders& headers = {}) {
  InMemoryHttpResponse response;
  response.UpdatePayload(BytesOf(body));
  for (const auto& [name, value] : headers) response.AddHeader(name, value);
  return ErrorOf([&] { interceptor.ProcessResponse(kUrl, response); });
}

std::string Get(const FakeHttpServer& server, HttpInterceptors chain, HttpRequest::State* state = nullptr) {
  HttpService service("");
  service.Start();
  const auto request = service.Get(server.Url(), {}, std::move(chain), {});
  const HttpResponse& response = request->GetResponse();
  if (state != nullptr) *state = request->GetState();
  return TextOf(response.GetPayload());
}

TEST(ShaVerificationHttpInterceptorTest, AcceptsTheBodyThatWasExpected) {
  ShaVerificationHttpInterceptor interceptor(kHelloHash);
  EXPECT_EQ("no error", Check(interceptor, "hello"));
  EXPECT_EQ("no error", Check(*interceptor.Clone(), "hello"));
}

TEST(ShaVerificationHttpInterceptorTest, RefusesAnotherBodyAndShowsBothHashes) {
  const fakes::LogCapture log;
  ShaVerificationHttpInterceptor interceptor(kHelloHash);
  EXPECT_EQ("Hash mismatch.", Check(interceptor, ""));
  EXPECT_TRUE(log.Has(Message::PRIO_ERROR,
                      "actualHash value: e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855, "
                      "expectedHash value: " +
                          std::string(kHelloHash)));
}

TEST(ShaVerificationHttpInterceptorTest, TellsABodyThatCannotBeHad) {
  fakes::ClosedResponse response;
  ShaVerificationHttpInterceptor interceptor(kHelloHash);
  EXPECT_EQ("Invalid access exception: the file is gone",
            ErrorOf([&] { interceptor.ProcessResponse(kUrl, response); }));
}

TEST(ShaVerificationHttpInterceptorTest, FailsAResponseOverTheWire) {
  FakeHttpServer server({FakeHttpServer::Answer("200 OK", "", "hello"), FakeHttpServer::Answer("200 OK", "", "help")});
  HttpRequest::State state{};
  (void)Get(server, HttpInterceptorBuilder().AddShaVerification(kHelloHash).Build(), &state);
  EXPECT_EQ(HttpRequest::State::Completed, state);
  (void)Get(server, HttpInterceptorBuilder().AddShaVerification(kHelloHash).Build(), &state);
  EXPECT_EQ(HttpRequest::State::Failed, state);
}

class BlockCipherHttpInterceptorTest : public ::testing::Test {
 protected:
  static std::unique_ptr<util::cipher::BlockCipher> MakeCipher() {
    return std::make_unique<util::cipher::BlockCipherEvp>("aes-128-cbc", Bytes(16, 1), Bytes(16, 2));
  }
  static Bytes Enciphered(const std::string& text) { return MakeCipher()->Encipher(BytesOf(text)); }

  void Begin(const std::string& range = "") {
    std::string url = kUrl;
    Bytes payload;
    HttpHeaders headers;
    if (!range.empty()) headers["Range"] = range;
    interceptor_.ProcessRequest(url, payload, headers, "GET");
  }
  void End(HttpStatus status, long code) {
    const HttpHeaders headers;
    interceptor_.OnAttemptEnded({kUrl, status, code, headers, {}});
  }
  std::string Chunk(const Bytes& chunk) {
    Bytes output;
    EXPECT_EQ(ChunkResult::Replaced, interceptor_.ProcessResponseChunk(chunk, output));
    return TextOf(output);
  }
  std::string Finish(const std::string& so_far) {
    InMemoryHttpResponse response;
    response.UpdatePayload(BytesOf(so_far));
    interceptor_.ProcessResponse(kUrl, response);
    return TextOf(response.GetPayload());
  }

  BlockCipherHttpInterceptor interceptor_{MakeCipher};
};

TEST_F(BlockCipherHttpInterceptorTest, DeciphersAWholeBody) {
  const Bytes body = Enciphered("a body of more than one block");
  Begin();
  End(HttpStatus::Success, 200);
  EXPECT_EQ("a body of more than one block", Finish(Chunk(body)));
}

TEST_F(BlockCipherHttpInterceptorTest, GoesOnWithTheNextRangeOfABody) {
  const Bytes body = Enciphered("a body of more than one block");
  Begin("bytes=0-6");
  End(HttpStatus::PartialSuccess, 206);
  std::string text = Chunk({body.begin(), body.begin() + 7});
  Begin("bytes=7-31");
  End(HttpStatus::PartialSuccess, 206);
  text += Chunk({body.begin() + 7, body.end()});
  EXPECT_EQ("a body of more than one block", Finish(text));
}

TEST_F(BlockCipherHttpInterceptorTest, BeginsAnewWhenTheWholeComesInsteadOfTheNextRange) {
  const Bytes body = Enciphered("a body of more than one block");
  Begin("bytes=0-6");
  End(HttpStatus::PartialSuccess, 206);
  (void)Chunk({body.begin(), body.begin() + 7});
  Begin("bytes=7-31");
  End(HttpStatus::Success, 200);
  EXPECT_EQ("a body of more than one block", Finish(Chunk(body)));
}

TEST_F(BlockCipherHttpInterceptorTest, GoesOnBehindAnAttemptThatFailed) {
  const Bytes body = Enciphered("a body of more than one block");
  Begin("bytes=0-6");
  End(HttpStatus::PartialSuccess, 206);
  std::string text = Chunk({body.begin(), body.begin() + 7});
  Begin("bytes=7-31");
  End(HttpStatus::ServerError, 503);
  Begin("bytes=7-31");
  End(HttpStatus::PartialSuccess, 206);
  text += Chunk({body.begin() + 7, body.end()});
  EXPECT_EQ("a body of more than one block", Finish(text));
}

TEST_F(BlockCipherHttpInterceptorTest, BeginsAnewWithTheNextAttempt) {
  const Bytes body = Enciphered("text");
  Begin();
  End(HttpStatus::Success, 200);
  (void)Chunk(BytesOf("half a block"));
  Begin();
  End(HttpStatus::Success, 200);
  EXPECT_EQ("text", Finish(Chunk(body)));
}

TEST_F(BlockCipherHttpInterceptorTest, LeavesTheBodyOfAnErrorReadable) {
  Begin();
  End(HttpStatus::ClientError, 400);
  Bytes output;
  EXPECT_EQ(ChunkResult::Continue, interceptor_.ProcessResponseChunk(BytesOf("{}"), output));
}

TEST_F(BlockCipherHttpInterceptorTest, FailsAtTheStepThatFails) {
  Begin();
  End(HttpStatus::Success, 200);
  (void)Chunk(BytesOf("no whole block"));
  EXPECT_EQ("Interceptor ProcessResponse failed in DecipherFinalize", ErrorOf([&] { (void)Finish(""); }));

  BlockCipherHttpInterceptor cannot_begin([]() -> std::unique_ptr<util::cipher::BlockCipher> {
    return std::make_unique<util::cipher::BlockCipherEvp>("bf-cbc", Bytes(16, 1), Bytes(8, 2));
  });
  Bytes output;
  EXPECT_EQ("Interceptor ProcessResponse failed in DecipherInit",
            ErrorOf([&] { (void)cannot_begin.ProcessResponseChunk({1}, output); }));

  BlockCipherHttpInterceptor cannot_go_on([]() -> std::unique_ptr<util::cipher::BlockCipher> {
    Bytes key(64, 1);
    key[0] = 2;
    return std::make_unique<util::cipher::BlockCipherEvp>("aes-256-xts", key, Bytes(16, 2));
  });
  EXPECT_EQ("Interceptor ProcessResponse failed in DecipherUpdate",
            ErrorOf([&] { (void)cannot_go_on.ProcessResponseChunk({1}, output); }));
}

TEST_F(BlockCipherHttpInterceptorTest, DeciphersOverTheWire) {
  FakeHttpServer server({FakeHttpServer::Answer("200 OK", "", TextOf(Enciphered("over the wire, block by block")))});
  EXPECT_EQ("over the wire, block by block", Get(server, HttpInterceptorBuilder().AddBlockCipher(MakeCipher).Build()));
}

class PayloadDumperHttpInterceptorTest : public ::testing::Test {
 protected:
  PayloadDumperHttpInterceptor Dumper() { return {folder_ / "request", folder_ / "chunk", folder_ / "final"}; }

  fakes::TempFolder folder_;
  fakes::LogCapture log_;
};

TEST_F(PayloadDumperHttpInterceptorTest, WritesWhatPassesForItsOwnerAlone) {
  auto dumper = Dumper();
  std::string url = kUrl;
  Bytes payload = BytesOf("request body");
  HttpHeaders headers;
  dumper.ProcessRequest(url, payload, headers, "POST");
  Bytes output;
  EXPECT_EQ(ChunkResult::Continue, dumper.ProcessResponseChunk(BytesOf("answer"), output));
  EXPECT_EQ("request body", folder_.Read("request"));
  EXPECT_EQ("answer", folder_.Read("chunk"));
  struct stat status {};
  ASSERT_EQ(0, stat((folder_ / "request").c_str(), &status));
  EXPECT_EQ(0600U, status.st_mode & 07777);
  EXPECT_EQ("request body", TextOf(payload)) << "and lets it pass";
  payload = BytesOf("short");
  dumper.ProcessRequest(url, payload, headers, "POST");
  EXPECT_EQ("short", folder_.Read("request"));
}

TEST_F(PayloadDumperHttpInterceptorTest, WritesNothingForAnEmptyBody) {
  auto dumper = Dumper();
  std::string url = kUrl;
  Bytes payload;
  HttpHeaders headers;
  dumper.ProcessRequest(url, payload, headers, "GET");
  Bytes output;
  (void)dumper.ProcessResponseChunk({}, output);
  EXPECT_TRUE(log_.Has("PayloadDumperHttpInterceptor:: Request payload is empty for url : " + std::string(kUrl)));
  EXPECT_TRUE(
      log_.Has("PayloadDumperHttpInterceptor:: Response chunk payload is empty for url : " + std::string(kUrl)));
  EXPECT_NE(0, access((folder_ / "request").c_str(), F_OK));
}

TEST_F(PayloadDumperHttpInterceptorTest, SaysThatFinalResponsesAreNotWritten) {
  auto dumper = Dumper();
  EXPECT_EQ("no error", Check(dumper, "body"));
  EXPECT_TRUE(log_.Has("PayloadDumperHttpInterceptor:: Response final logging is not implemented"));
}

TEST_F(PayloadDumperHttpInterceptorTest, WantsAllThreePaths) {
  constexpr const char* kText = "PayloadLogger: request, chunk-response and final-reponse file paths cannot be empty";
  EXPECT_EQ(kText, ErrorOf([] { PayloadDumperHttpInterceptor("", "b", "c"); }));
  EXPECT_EQ(kText, ErrorOf([] { PayloadDumperHttpInterceptor("a", "", "c"); }));
  EXPECT_EQ(kText, ErrorOf([] { (void)HttpInterceptorBuilder().AddPayloadDumper("a", "b", ""); }));
}

TEST_F(PayloadDumperHttpInterceptorTest, HoldsNothingUpWhenItCannotWrite) {
  PayloadDumperHttpInterceptor dumper(folder_ / "none/request", "/dev/full", folder_ / "final");
  std::string url = kUrl;
  Bytes payload = BytesOf("body");
  HttpHeaders headers;
  dumper.ProcessRequest(url, payload, headers, "POST");
  Bytes output;
  (void)dumper.ProcessResponseChunk(payload, output);
  EXPECT_EQ(2, log_.Count("PayloadDumperHttpInterceptor:: Failed to write "));
}

// A key with a self-signed certificate in a folder, and signatures of that key.
class Signer {
 public:
  Signer(const fakes::TempFolder& folder, const std::string& name) : key_(EVP_RSA_gen(2048), EVP_PKEY_free) {
    const std::unique_ptr<X509, decltype(&X509_free)> certificate(X509_new(), X509_free);
    X509_set_pubkey(certificate.get(), key_.get());
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), 0);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 3600);
    X509_sign(certificate.get(), key_.get(), EVP_sha256());
    FILE* file = fopen((folder / (name + ".pem")).c_str(), "w");
    PEM_write_X509(file, certificate.get());
    fclose(file);
  }
  [[nodiscard]] std::string Sign(const std::string& body, const std::string& digest) const {
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    std::string signature(256, '\0');
    std::size_t size = signature.size();
    EVP_DigestSignInit(context.get(), nullptr, EVP_get_digestbyname(digest.c_str()), nullptr, key_.get());
    EVP_DigestSign(context.get(), reinterpret_cast<unsigned char*>(signature.data()), &size,
                   reinterpret_cast<const unsigned char*>(body.data()), body.size());
    return util::Base64Encode(signature);
  }

 private:
  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key_;
};

class SigValidationHttpInterceptorTest : public ::testing::Test {
 protected:
  static constexpr const char* kInvalid = "Failed to validate signature for response";

  static HttpHeaders Header(const std::string& signature, const std::string& digest, const std::string& names) {
    return {{"Security",
             R"({"signature":")" + signature + R"(","digest":")" + digest + R"(","certificates":)" + names + "}"}};
  }
  std::string Validate(const std::string& body, const HttpHeaders& headers) {
    SigValidationHttpInterceptor interceptor(folder_.Path());
    return Check(*interceptor.Clone(), body, headers);
  }

  fakes::LogCapture log_;
  fakes::TempFolder folder_;
  Signer platform_{folder_, "platform"};
};

TEST_F(SigValidationHttpInterceptorTest, AcceptsABodySignedByAKnownCertificate) {
  for (const char* digest : {"sha256", "sha1", "sha512"}) {
    const std::string signature = platform_.Sign("body", digest);
    EXPECT_EQ("no error", Validate("body", Header(signature, digest, R"(["platform"])"))) << digest;
    EXPECT_TRUE(log_.Has("Secuirty header found : " + signature));
  }
  EXPECT_EQ(3, log_.Count("Signature validation check passed for response"));
}

TEST_F(SigValidationHttpInterceptorTest, TriesEveryCertificateThatIsNamed) {
  const Signer other(folder_, "other");
  const std::string signature = platform_.Sign("body", "sha256");
  EXPECT_EQ("no error", Validate("body", Header(signature, "sha256", R"(["unknown", 7, "other", "platform"])")));
  EXPECT_TRUE(log_.Has("Failed to validate with cert:unknown, digest type:sha256"));
  EXPECT_TRUE(log_.Has("Failed to validate with cert:other, digest type:sha256"));
}

TEST_F(SigValidationHttpInterceptorTest, RefusesWhatIsNotSigned) {
  const std::string signature = platform_.Sign("body", "sha256");
  EXPECT_EQ(kInvalid, Validate("Body", Header(signature, "sha256", R"(["platform"])"))) << "another body";
  EXPECT_EQ(kInvalid, Validate("body", Header(signature, "sha512", R"(["platform"])"))) << "another digest";
  EXPECT_EQ(kInvalid, Validate("body", Header(signature, "md5", R"(["platform"])"))) << "a digest of no worth";
  EXPECT_EQ(kInvalid, Validate("body", Header(signature, "sha256", "[]"))) << "by nobody";
  EXPECT_EQ(kInvalid, Validate("body", Header(signature, "sha256", R"(["../platform"])"))) << "names are no paths";
  EXPECT_EQ(kInvalid, Validate("body", Header("", "sha256", R"(["platform"])")));
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "Failed to validate with cert:platform, digest type:sha256"));
}

TEST_F(SigValidationHttpInterceptorTest, RefusesAResponseWithoutTheHeader) {
  EXPECT_EQ(kInvalid, Validate("body", {}));
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "security header not found"));
}

TEST_F(SigValidationHttpInterceptorTest, RefusesAHeaderThatCannotBeRead) {
  for (const char* text : {"", "text", "[]", "{}", R"({"signature":7,"digest":"sha256","certificates":["platform"]})",
                           R"({"signature":"AA==","digest":"sha256","certificates":"platform"})",
                           R"({"signature":"no base64","digest":"sha256","certificates":["platform"]})"}) {
    EXPECT_EQ(kInvalid, Validate("body", {{"security", text}})) << text;
  }
  std::string many = "[\"platform\"";
  for (int i = 0; i < 16; ++i) many += ",\"platform\"";
  EXPECT_EQ(kInvalid, Validate("body", Header(platform_.Sign("body", "sha256"), "sha256", many + "]")))
      << "nobody names so many";
}

TEST_F(SigValidationHttpInterceptorTest, NeedsCertificates) {
  const auto error_for = [](const std::string& folder) {
    return ErrorOf([&] { const SigValidationHttpInterceptor interceptor(folder); });
  };
  const fakes::TempFolder empty;
  EXPECT_EQ("Failed to initialize SigValidationHttpInterceptor: no certificate in " + empty.Path(),
            error_for(empty.Path()));
  EXPECT_THAT(error_for(empty / "none"), ::testing::StartsWith("Failed to initialize SigValidationHttpInterceptor: "));
  empty.Write("bad.pem", "no certificate");
  EXPECT_THAT(error_for(empty.Path()), ::testing::HasSubstr("no certificate in " + (empty / "bad.pem")));
}

TEST(HttpInterceptorBuilderTest, AddsEveryKindInTheOrderOfTheCalls) {
  const fakes::TempFolder folder;
  const Signer signer(folder, "platform");
  HttpInterceptorBuilder builder;
  builder.AddLzma()
      .AddUrlUpgrader(std::make_shared<ModuleUrlStateTable>("agent"))
      .AddShaVerification(kHelloHash)
      .AddSigValidation(folder.Path())
      .AddBlockCipher(
          [] { return std::make_unique<util::cipher::BlockCipherEvp>("aes-128-cbc", Bytes(16), Bytes(16)); })
      .AddPayloadDumper("a", "b", "c");
  const HttpInterceptors chain = builder.Build();
  ASSERT_EQ(6U, chain.size());
  EXPECT_NE(nullptr, dynamic_cast<ShaVerificationHttpInterceptor*>(chain[2].get()));
  EXPECT_NE(nullptr, dynamic_cast<SigValidationHttpInterceptor*>(chain[3].get()));
  EXPECT_NE(nullptr, dynamic_cast<PayloadDumperHttpInterceptor*>(chain[5].get()));
}

}  // namespace
}  // namespace zagent::common
