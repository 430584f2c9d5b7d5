#pragma once

namespace zagent::common::util {

// Names the calling thread, so that its cost can be told from that of others (`ps -L`, `top -H`,
// /proc/<pid>/task/<tid>/comm). At most 15 bytes; what is longer is cut. Called first thing where a thread starts: it
// bears its creator's name until then.
void NameThisThread(const char* name) noexcept;

}  // namespace zagent::common::util
