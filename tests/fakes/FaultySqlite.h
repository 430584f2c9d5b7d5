#pragma once

#include <sqlite3.h>

#include <functional>
#include <stdexcept>

namespace zagent::fakes {

// While it lives, whatever SQLite opens stands on a disk that fails when it is told to. One at a time.
class FaultySqlite {
 public:
  enum class Call { Read, Write, Truncate, Sync, Delete };
  // What becomes of a call: SQLITE_OK lets it pass to the real disk, anything else is its answer.
  using Fault = std::function<int(Call)>;

  FaultySqlite() {
    Instance() = this;
    real_ = sqlite3_vfs_find(nullptr);
    vfs_ = *real_;
    vfs_.zName = "faulty";
    vfs_.pNext = nullptr;
    vfs_.szOsFile = static_cast<int>(sizeof(File)) + real_->szOsFile;
    vfs_.xOpen = Open;
    vfs_.xDelete = [](sqlite3_vfs*, const char* name, int sync) {
      const int code = Ask(Call::Delete);
      return code != SQLITE_OK ? code : Instance()->real_->xDelete(Instance()->real_, name, sync);
    };
    if (sqlite3_vfs_register(&vfs_, 1) != SQLITE_OK) throw std::runtime_error("sqlite3_vfs_register");
  }
  FaultySqlite(const FaultySqlite&) = delete;
  FaultySqlite& operator=(const FaultySqlite&) = delete;
  ~FaultySqlite() {
    sqlite3_vfs_unregister(&vfs_);
    sqlite3_vfs_register(real_, 1);
    Instance() = nullptr;
  }

  Fault fault;

 private:
  // The real file lies behind it.
  struct File {
    sqlite3_file base;
    [[nodiscard]] sqlite3_file* Real() { return reinterpret_cast<sqlite3_file*>(this + 1); }
  };

  static FaultySqlite*& Instance() {
    static FaultySqlite* instance = nullptr;
    return instance;
  }
  static int Ask(Call call) { return Instance()->fault ? Instance()->fault(call) : SQLITE_OK; }
  static sqlite3_file* Real(sqlite3_file* file) { return reinterpret_cast<File*>(file)->Real(); }

  static int Open(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* out_flags) {
    sqlite3_vfs* const real = Instance()->real_;
    file->pMethods = nullptr;
    const int code = real->xOpen(real, name, Real(file), flags, out_flags);
    if (Real(file)->pMethods != nullptr) file->pMethods = Methods();
    return code;
  }

  static const sqlite3_io_methods* Methods() {
    static const sqlite3_io_methods kMethods = [] {
      sqlite3_io_methods methods{};
      methods.iVersion = 1;
      methods.xClose = [](sqlite3_file* file) { return Real(file)->pMethods->xClose(Real(file)); };
      methods.xRead = [](sqlite3_file* file, void* data, int size, sqlite3_int64 at) {
        const int code = Ask(Call::Read);
        return code != SQLITE_OK ? code : Real(file)->pMethods->xRead(Real(file), data, size, at);
      };
      methods.xWrite = [](sqlite3_file* file, const void* data, int size, sqlite3_int64 at) {
        const int code = Ask(Call::Write);
        return code != SQLITE_OK ? code : Real(file)->pMethods->xWrite(Real(file), data, size, at);
      };
      methods.xTruncate = [](sqlite3_file* file, sqlite3_int64 size) {
        const int code = Ask(Call::Truncate);
        return code != SQLITE_OK ? code : Real(file)->pMethods->xTruncate(Real(file), size);
      };
      methods.xSync = [](sqlite3_file* file, int flags) {
        const int code = Ask(Call::Sync);
        return code != SQLITE_OK ? code : Real(file)->pMethods->xSync(Real(file), flags);
      };
      methods.xFileSize = [](sqlite3_file* file, sqlite3_int64* size) {
        return Real(file)->pMethods->xFileSize(Real(file), size);
      };
      methods.xLock = [](sqlite3_file* file, int level) { return Real(file)->pMethods->xLock(Real(file), level); };
      methods.xUnlock = [](sqlite3_file* file, int level) { return Real(file)->pMethods->xUnlock(Real(file), level); };
      methods.xCheckReservedLock = [](sqlite3_file* file, int* result) {
        return Real(file)->pMethods->xCheckReservedLock(Real(file), result);
      };
      methods.xFileControl = [](sqlite3_file* file, int operation, void* argument) {
        return Real(file)->pMethods->xFileControl(Real(file), operation, argument);
      };
      methods.xSectorSize = [](sqlite3_file* file) { return Real(file)->pMethods->xSectorSize(Real(file)); };
      methods.xDeviceCharacteristics = [](sqlite3_file* file) {
        return Real(file)->pMethods->xDeviceCharacteristics(Real(file));
      };
      return methods;
    }();
    return &kMethods;
  }

  sqlite3_vfs* real_ = nullptr;
  sqlite3_vfs vfs_{};
};

}  // namespace zagent::fakes
