// Downloads in ranges and to files, over real sockets.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "common/src/http/ContentRange.h"
#include "common/src/http/DefaultHttpRetryPolicy.h"
#include "common/src/http/HttpInterceptorBuilder.h"
#include "common/src/http/HttpService.h"
#include "common/src/http/OnDiskHttpResponse.h"
#include "common/src/http/interceptors/LzmaCompression.h"
#include "tests/fakes/FakeHttpServer.h"
#include "tests/fakes/FakeInterceptor.h"
#include "tests/fakes/FileSizeLimit.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"
#include "tests/fakes/WhatOf.h"

namespace zagent::common {
namespace {

using fakes::FakeHttpServer;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using State = HttpRequest::State;
using Bytes = std::vector<unsigned char>;

Bytes BytesOf(const std::string& text) {
  return {text.begin(), text.end()};
}

TEST(ContentRangeTest, ReadsAPartOfAWhole) {
  const ContentRange range = ParseContentRange("bytes 100-199/1234");
  EXPECT_EQ(100U, range.first);
  EXPECT_EQ(199U, range.last);
  EXPECT_EQ(1234U, range.total);
  EXPECT_EQ(1U, ParseContentRange("bytes 0-0/1").total);
}

TEST(ContentRangeTest, RefusesWhatSaysNothingOrContradictsItself) {
  for (const char* text : {"", "bytes", "bytes ", "items 0-1/2", "bytes 0-1/*", "bytes */2", "bytes 1-0/2",
                           "bytes 0-2/2", "bytes 0-1", "bytes 0-1/2x", "bytes -1/2", "bytes 0x1-2/3",
                           "bytes 0-1/18446744073709551616", "bytes  0-1/2", "bytes 0 -1/2"}) {
    EXPECT_EQ(std::string("Invalid Content-Range: ") + text, fakes::WhatOf([&] { (void)ParseContentRange(text); }));
  }
}

class RangeDownloadTest : public ::testing::Test {
 protected:
  void SetUp() override { service_.Start(); }

  // One part of `text`, which is `total` bytes long.
  static std::string Part(std::size_t first, const std::string& text, std::size_t total) {
    return FakeHttpServer::Answer("206 Partial Content",
                                  "Content-Range: bytes " + std::to_string(first) + "-" +
                                      std::to_string(first + text.size() - 1) + "/" + std::to_string(total) + "\r\n",
                                  text);
  }

  std::shared_ptr<HttpRequest> Download(const FakeHttpServer& server, std::uint64_t range_size, bool to_file,
                                        std::uint64_t max_attempts = 0, HttpInterceptors interceptors = {}) {
    HttpRequestSettings settings;
    settings.retry_policy = std::make_unique<DefaultHttpRetryPolicy>(max_attempts, 0);
    settings.range_size = range_size;
    if (to_file) settings.download_path = File();
    return service_.Get(server.Url(), {}, std::move(interceptors), std::move(settings));
  }

  [[nodiscard]] std::string File() const { return folder_ / "download"; }
  [[nodiscard]] std::vector<std::string> FileNames() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder_.Path())) {
      names.push_back(entry.path().filename());
    }
    return names;
  }
  static std::vector<std::string> RangesOf(const FakeHttpServer& server) {
    std::vector<std::string> ranges;
    for (const auto& request : server.Requests()) ranges.push_back(request.Header("Range"));
    return ranges;
  }

  fakes::LogCapture log_;
  const fakes::TempFolder folder_;
  HttpService service_{""};
};

TEST_F(RangeDownloadTest, CompletesAtOnceWhenTheFirstRangeIsTheWhole) {
  FakeHttpServer server({Part(0, "whole", 5)});
  const auto request = Download(server, 100, false);
  EXPECT_EQ(BytesOf("whole"), request->GetResponse().GetPayload());
  EXPECT_EQ(State::Completed, request->GetState());
  EXPECT_EQ(HttpStatus::Success, request->GetResponse().GetStatus());
  EXPECT_THAT(RangesOf(server), ElementsAre("bytes=0-99"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "Received the full data"));
}

TEST_F(RangeDownloadTest, GathersRangeAfterRange) {
  FakeHttpServer server({Part(0, "0123", 10), Part(4, "4567", 10), Part(8, "89", 10)});
  EXPECT_EQ(BytesOf("0123456789"), Download(server, 4, false)->GetResponse().GetPayload());
  EXPECT_THAT(RangesOf(server), ElementsAre("bytes=0-3", "bytes=4-7", "bytes=8-11"));
  EXPECT_TRUE(
      log_.Has(Poco::Message::PRIO_INFORMATION, "Received the partial data, 4 out of 10, going for next chunk"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "Received 8 bytes total"));
  EXPECT_EQ(0, log_.Count("Retrying HTTP request for ")) << "a range is no retry";
}

TEST_F(RangeDownloadTest, GoesOnBehindWhatItHasAfterAFailure) {
  for (const bool to_file : {false, true}) {
    FakeHttpServer server({Part(0, "0123", 8), FakeHttpServer::Answer("503 Busy", "", "sorry"), Part(4, "4567", 8)});
    const auto request = Download(server, 4, to_file, 1);
    const Bytes payload = request->GetResponse().GetPayload();
    EXPECT_EQ(BytesOf("01234567"), to_file ? BytesOf(folder_.Read("download")) : payload);
    EXPECT_THAT(RangesOf(server), ElementsAre("bytes=0-3", "bytes=4-7", "bytes=4-7"));
  }
}

TEST_F(RangeDownloadTest, DoesNotRunOutOfAttemptsWhileRangesCome) {
  std::vector<std::string> script;
  for (std::size_t i = 0; i < 5; ++i) {
    script.push_back(FakeHttpServer::kReset);
    script.push_back(Part(i, "x", 5));
  }
  FakeHttpServer server(script);
  EXPECT_EQ(BytesOf("xxxxx"), Download(server, 1, false, 2)->GetResponse().GetPayload());
}

TEST_F(RangeDownloadTest, StandsAsManyFailuresAsThereAreAttemptsBeforeEveryRange) {
  std::vector<std::string> script;
  for (std::size_t i = 0; i < 3; ++i) {
    script.insert(script.end(), 2, FakeHttpServer::Answer("503 Busy"));
    script.push_back(Part(i, "x", 3));
  }
  FakeHttpServer server(script);
  EXPECT_EQ(BytesOf("xxx"), Download(server, 1, false, 2)->GetResponse().GetPayload());
  EXPECT_EQ(9U, server.Requests().size());
}

TEST_F(RangeDownloadTest, BeginsAnewWhenTheServerSuddenlySendsTheWhole) {
  FakeHttpServer server({Part(0, "0123", 8), FakeHttpServer::Answer("200 OK", "", "another")});
  EXPECT_EQ(BytesOf("another"), Download(server, 4, false)->GetResponse().GetPayload());
  FakeHttpServer again({Part(0, "0123", 8), FakeHttpServer::Answer("200 OK", "", "another")});
  Download(again, 4, true)->GetResponse();
  EXPECT_EQ("another", folder_.Read("download"));
}

TEST_F(RangeDownloadTest, FailsOnARangeThatWasNotAskedFor) {
  const std::vector<std::vector<std::string>> scripts = {
      {FakeHttpServer::Answer("206 Partial Content", "", "0123")},
      {Part(4, "4567", 8)},
      {Part(0, "0123", 8), Part(0, "0123", 8)},
      {Part(0, "0123", 8), Part(4, "4567", 80)},
      {FakeHttpServer::Answer("206 Partial Content", "Content-Range: bytes 0-7/8\r\n", "0123")}};
  for (const auto& script : scripts) {
    FakeHttpServer server(script);
    const auto request = Download(server, 4, false, 3);
    EXPECT_EQ(206, request->GetResponse().GetHttpCode());
    EXPECT_EQ(State::Failed, request->GetState());
    EXPECT_EQ(script.size(), server.Requests().size());
  }
}

TEST_F(RangeDownloadTest, TakesAPartThatNobodyAskedForForNoAnswer) {
  FakeHttpServer server({Part(0, "0123", 8)});
  const auto request = Download(server, 0, false, 3);
  EXPECT_EQ(HttpStatus::PartialSuccess, request->GetResponse().GetStatus());
  EXPECT_EQ(State::Failed, request->GetState());
  EXPECT_EQ("(absent)", server.Requests().at(0).Header("Range"));
}

TEST_F(RangeDownloadTest, CancelsBetweenTwoRanges) {
  FakeHttpServer server({Part(0, "0123", 8), Part(4, "4567", 8)});
  std::shared_ptr<MutableHttpRequest> request;
  HttpRequestSettings settings;
  settings.range_size = 4;
  std::vector<std::string> calls;
  auto canceller = std::make_unique<fakes::FakeInterceptor>("canceller", calls);
  canceller->on_attempt_ended = [&](const HttpAttempt&) { request->Cancel(); };
  HttpInterceptors chain;
  chain.push_back(std::move(canceller));
  request = std::make_shared<MutableHttpRequest>(HttpMethod::Get, server.Url(), HttpHeaders(), Bytes(),
                                                 std::move(chain), std::move(settings));
  service_.Enqueue(request);
  EXPECT_EQ("Response isn't available for cancelled HTTP request for " + server.Url(),
            fakes::WhatOf([&] { (void)request->GetResponse(); }));
  EXPECT_EQ(1U, server.Requests().size());
}

TEST_F(RangeDownloadTest, SavesTheBodyUnderItsNameOnceItIsWhole) {
  FakeHttpServer server({Part(0, "0123", 8), Part(4, "4567", 8)});
  folder_.Write("download.part", "left over from a killed run, and longer than the download");
  const auto request = Download(server, 4, true);
  EXPECT_THAT(request->GetResponse().GetPayload(), IsEmpty()) << "it is in the file";
  EXPECT_EQ(State::Completed, request->GetState());
  EXPECT_THAT(FileNames(), ElementsAre("download"));
  EXPECT_EQ("01234567", folder_.Read("download"));
  struct stat status {};
  ASSERT_EQ(0, stat(File().c_str(), &status));
  EXPECT_EQ(0600U, status.st_mode & 0777U);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_TRACE, "Updated download file: " + File()));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "Successfully saved file " + File()));
}

TEST_F(RangeDownloadTest, LeavesNoPartOfAFailedDownload) {
  FakeHttpServer server({Part(0, "0123", 8), FakeHttpServer::Answer("404 Gone", "", "why")});
  const auto request = Download(server, 4, true);
  EXPECT_EQ(BytesOf("why"), request->GetResponse().GetPayload()) << "an error is no download";
  EXPECT_THAT(FileNames(), IsEmpty());
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "Deleting file " + File() + ".part"));
}

// What a connection leaves of a body when it breaks: announced longer than it came, or cut in a chunk.
const std::vector<std::string> kTornBodies = {"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nhalf",
                                              "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n64\r\nhalf"};

TEST_F(RangeDownloadTest, SavesNoTornBody) {
  for (const std::string& torn : kTornBodies) {
    FakeHttpServer server({torn});
    const auto request = Download(server, 0, true, 1);
    EXPECT_EQ(HttpStatus::NetworkError, request->GetResponse().GetStatus());
    EXPECT_EQ(200, request->GetResponse().GetHttpCode());
    EXPECT_EQ("Transferred a partial file", request->GetResponse().GetMessage());
    EXPECT_EQ(State::Failed, request->GetState());
    EXPECT_THAT(FileNames(), IsEmpty());
    EXPECT_EQ(2U, server.Requests().size()) << "a broken connection is tried again";
  }
}

TEST_F(RangeDownloadTest, SavesTheWholeThatComesBehindATornBody) {
  FakeHttpServer server({kTornBodies[0], FakeHttpServer::Answer("200 OK", "", "whole")});
  EXPECT_EQ("OK", Download(server, 0, true, 1)->GetResponse().GetMessage());
  EXPECT_EQ("whole", folder_.Read("download"));
}

TEST_F(RangeDownloadTest, AsksAgainForATornRange) {
  const std::string torn = "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes 4-7/8\r\nContent-Length: 4\r\n\r\n45";
  for (const bool to_file : {false, true}) {
    FakeHttpServer server({Part(0, "0123", 8), torn, Part(4, "4567", 8)});
    const Bytes payload = Download(server, 4, to_file, 1)->GetResponse().GetPayload();
    EXPECT_EQ(BytesOf("01234567"), to_file ? BytesOf(folder_.Read("download")) : payload);
    EXPECT_THAT(RangesOf(server), ElementsAre("bytes=0-3", "bytes=4-7", "bytes=4-7"));
  }
}

TEST_F(RangeDownloadTest, SavesNoBodyThatIsTooLong) {
  const std::string much(MutableHttpRequest::kMaxResponseSize + 1, 'x');
  FakeHttpServer server({FakeHttpServer::Answer("200 OK", "", much)});
  EXPECT_EQ(State::Failed, [&] {
    const auto request = Download(server, 0, true);
    (void)request->GetResponse();
    return request->GetState();
  }());
  EXPECT_THAT(FileNames(), IsEmpty());
}

TEST_F(RangeDownloadTest, LeavesNoPartOfACancelledDownload) {
  FakeHttpServer server({Part(0, "0123", 8), FakeHttpServer::kHang});
  const auto request = Download(server, 4, true);
  server.AwaitRequests(2);
  EXPECT_THAT(FileNames(), ElementsAre("download.part"));
  request->Cancel();
  EXPECT_THROW((void)request->GetResponse(), HttpException);
  EXPECT_THAT(FileNames(), IsEmpty());
}

TEST_F(RangeDownloadTest, UnfoldsADownloadThroughATemporaryFile) {
  const Bytes folded = LzmaCompression().Compress(BytesOf("unfolded"));
  const std::string body(folded.begin(), folded.end());
  FakeHttpServer server({FakeHttpServer::Answer("200 OK", "Content-Encoding: LZMA\r\n", body)});
  HttpInterceptorBuilder chain;
  Download(server, 0, true, 0, chain.AddLzma().Build())->GetResponse();
  EXPECT_EQ("unfolded", folder_.Read("download"));
  EXPECT_THAT(FileNames(), ElementsAre("download"));
}

TEST_F(RangeDownloadTest, SaysWhyADownloadCannotBegin) {
  std::filesystem::create_directories(folder_ / "download.part/in-the-way");
  FakeHttpServer server({FakeHttpServer::Answer("200 OK", "", "x")});
  EXPECT_EQ(HttpStatus::NotStarted, Download(server, 0, true)->GetResponse().GetStatus());
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "Failed to delete the existing part file " + File() + ".part"));
  HttpRequestSettings settings;
  settings.download_path = folder_ / "no/such/folder";
  EXPECT_EQ(HttpStatus::NotStarted, service_.Get(server.Url(), {}, {}, std::move(settings))->GetResponse().GetStatus());
  EXPECT_TRUE(
      log_.Has(Poco::Message::PRIO_ERROR, "Failed to initialize the part file " + folder_ / "no/such/folder.part"));
  EXPECT_THAT(server.Requests(), IsEmpty());
}

TEST_F(RangeDownloadTest, SaysWhyADownloadCannotEnd) {
  std::filesystem::create_directories(folder_ / "download/in-the-way");
  FakeHttpServer server({FakeHttpServer::Answer("200 OK", "", "x")});
  const auto request = Download(server, 0, true);
  EXPECT_EQ("Failed to save the file " + File(), request->GetResponse().GetMessage());
  EXPECT_EQ(State::Failed, request->GetState());
  EXPECT_THAT(FileNames(), ElementsAre("download"));
}

TEST(OnDiskHttpResponseTest, SaysWhichStreamItCannotOpen) {
  const fakes::TempFolder folder;
  OnDiskHttpResponse response(folder / "file");
  response.Begin();
  response.UpdatePayload(BytesOf("x"));
  response.BeginProcessing();
  EXPECT_EQ(BytesOf("x"), response.GetPayload());
  std::filesystem::create_directories(folder / "file.temp/in-the-way");
  EXPECT_EQ("Response processing failed, error to open temp-download-file stream: " + (folder / "file.temp"),
            fakes::WhatOf([&] { response.UpdatePayload(BytesOf("y")); }));
  response.EndProcessing();
  std::filesystem::resize_file(folder / "file.part", OnDiskHttpResponse::kMaxPayloadInMemory + 1);
  response.BeginProcessing();
  EXPECT_EQ("Response processing failed, error to open download-file stream: " + (folder / "file.part"),
            fakes::WhatOf([&] { (void)response.GetPayload(); }));
}

TEST(OnDiskHttpResponseTest, SaysThatTheDiskIsFull) {
  const fakes::TempFolder folder;
  OnDiskHttpResponse response(folder / "file");
  response.Begin();
  const fakes::FileSizeLimit limit(4);
  EXPECT_EQ("Failed to write data to the file " + (folder / "file.part"),
            fakes::WhatOf([&] { response.UpdatePayload(BytesOf("12345")); }));
}

TEST(OnDiskHttpResponseTest, RefusesChangesOnceItIsFinal) {
  const fakes::TempFolder folder;
  OnDiskHttpResponse response(folder / "file");
  response.Begin();
  response.Save();
  response.Finalize();
  const std::string refusal = "Cannot update HttpResponse payload after it has been finalized";
  EXPECT_EQ(refusal, fakes::WhatOf([&] { response.UpdatePayload({}); }));
  EXPECT_EQ(refusal, fakes::WhatOf([&] { response.ClearPayload(); }));
  EXPECT_EQ(refusal, fakes::WhatOf([&] { response.KeepErrorPayload({}); }));
  EXPECT_EQ(refusal, fakes::WhatOf([&] { response.Save(); }));
}

}  // namespace
}  // namespace zagent::common
