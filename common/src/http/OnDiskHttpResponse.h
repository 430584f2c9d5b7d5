#pragma once

#include <string>

#include "common/src/http/MutableHttpResponse.h"
#include "common/src/util/UniqueFd.h"

namespace zagent::common {

// A response whose body goes to a file, for large downloads: it gathers in `path` + ".part", which takes the name
// `path` once the exchange has succeeded and is deleted otherwise. Nobody ever finds half a file under `path`.
//
// The body of an error is no download: it stays in memory, for GetPayload.
class OnDiskHttpResponse final : public MutableHttpResponse {
 public:
  explicit OnDiskHttpResponse(std::string path);
  OnDiskHttpResponse(const OnDiskHttpResponse&) = delete;
  OnDiskHttpResponse& operator=(const OnDiskHttpResponse&) = delete;
  // Deletes what was not saved.
  ~OnDiskHttpResponse() override;

  // Empty but for an error's body and, while interceptors process the response, the file's content, which is read
  // when it is asked for. Throws HttpException "Response processing failed, error to open download-file stream: <path>"
  // when it cannot be read or is larger than a response in memory may be.
  [[nodiscard]] const std::vector<unsigned char>& GetPayload() const override;

  // Makes a new ".part" file in the place of an old one; mode 0600. Throws HttpException "Failed to delete the existing
  // part file <file>" or "Failed to initialize the part file <file>".
  void Begin() override;
  // Appends to the ".part" file; while interceptors work, what comes replaces it, through `path` + ".temp". Throws
  // HttpException "Failed to write data to the file <file>" or "Response processing failed, error to open
  // temp-download-file stream: <file>".
  void UpdatePayload(std::vector<unsigned char> payload) override;
  void AppendPayload(std::vector<unsigned char> payload) override { UpdatePayload(std::move(payload)); }
  void ClearPayload() override;
  void KeepErrorPayload(std::vector<unsigned char> payload) override;
  void BeginProcessing() override { processing_ = true; }
  void EndProcessing() override;
  // Gives the file its name. Throws HttpException "Failed to save the file <path>".
  void Save() override;
  void Finalize() override;

 private:
  void DeletePart();

  const std::string path_;
  const std::string part_;
  const std::string temp_;
  util::UniqueFd file_;  // the ".part" file, from Begin to Save
  bool processing_ = false;
  mutable std::vector<unsigned char> payload_;
};

}  // namespace zagent::common
