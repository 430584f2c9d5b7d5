#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>

struct magic_set;

namespace zagent::edr {

class LibMagicException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Textual file types from libmagic's database. Thread-safe: libmagic's handle is not, so each call is serialised.
class LibMagicWrapper {
 public:
  static constexpr const char* kDefaultDatabase = "/etc/ostrel/host-warden/magic.mgc";

  // Opens libmagic with `flags` (MAGIC_ERROR at least: without it a missing file "identifies" as an error text) and
  // loads the database. Throws LibMagicException with the library's text.
  LibMagicWrapper(const std::string& database, int flags);
  LibMagicWrapper(const LibMagicWrapper&) = delete;
  LibMagicWrapper& operator=(const LibMagicWrapper&) = delete;
  virtual ~LibMagicWrapper();

  [[nodiscard]] virtual std::uint64_t GetLoadCount() const;
  virtual void Reload();
  // The type of the file, at most 255 characters; nothing when libmagic cannot tell (logged at error level).
  [[nodiscard]] virtual std::optional<std::string> Identify(const std::string& path);

 protected:
  // For substitutes in tests: no handle, Identify throws "Magic Set struct not initialized".
  LibMagicWrapper();

 private:
  struct Closer {
    void operator()(magic_set* set) const;
  };
  void Load();

  std::mutex mutex_;
  std::string database_;
  std::unique_ptr<magic_set, Closer> set_;
  std::atomic<std::uint64_t> load_count_{0};
};

}  // namespace zagent::edr
