#pragma once

#include <memory>
#include <string>
#include <vector>

#include "src/audit/events/FileEvent.h"

namespace zagent::audit::internal {

// The creation of an object by nobody known, for one that a look at the disk has found: process id 0, no program and no
// users. `key` is that of the rule that wants it. Null for what is no file, folder or symbolic link, or gone.
[[nodiscard]] std::unique_ptr<edr::Event> MakeFoundObject(const std::string& path, const std::string& key,
                                                          std::int64_t timestamp, const FileEvent::Context& context);

// As that, for the entries of a folder, but not of those below; `most` of them at most.
[[nodiscard]] std::vector<std::unique_ptr<edr::Event>> MakeFoundEntries(const std::string& folder,
                                                                        const std::string& key, std::int64_t timestamp,
                                                                        const FileEvent::Context& context,
                                                                        std::size_t most);

}  // namespace zagent::audit::internal
