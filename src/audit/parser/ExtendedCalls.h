#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "src/audit/events/RecordList.h"
#include "src/audit/parser/EventFactory.h"

namespace zagent::audit::internal {

// Calls that become events only where coverage is extended. They are told in the form of a call that the event classes
// know: the records are changed to what that call would have left, and one call may be told as several.
class ExtendedCalls {
 public:
  // What is told of one call: the records, and the number of the call that they look like now.
  struct Told {
    int syscall;
    std::unique_ptr<RecordList> records;
  };

  // `proc_root` is where the actor of an io_uring operation is looked for.
  explicit ExtendedCalls(std::string proc_root = "/proc") : proc_root_(std::move(proc_root)) {}

  // Nothing for what is told as it stands. The records' values belong to the source, which is used up.
  //
  //   openat2      as openat with the flags of the OPENAT2 record
  //   fchmodat2    as fchmodat
  //   truncate, ftruncate, creat of a file that was there    as write
  //   open, openat that made or emptied the file for reading    as the same call for writing
  //   renameat2 with RENAME_EXCHANGE    as two renames, one each way
  //   an operation through io_uring    as the call that does the same
  [[nodiscard]] std::vector<Told> Translate(const EventSubject& subject, RecordSource& source) const;

  // Whether Translate has to look at such a subject.
  [[nodiscard]] static bool Concerns(const EventSubject& subject);

 private:
  [[nodiscard]] std::vector<Told> TranslateUring(RecordSource& source) const;

  std::string proc_root_;
};

}  // namespace zagent::audit::internal
