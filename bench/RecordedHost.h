#pragma once

#include <string>

namespace zagent::bench {

// The files of the machine on which bench/data/audit-82k-events.log.zst was recorded, in the root of this process: 500
// files of /srv/w, each under both names that it had, and four programs, of which /bin/true is a symbolic link to one.
void CreateRecordedFiles();

// `log` as it would have been recorded here: the inode and device of each PATH record are those of the file that bears
// its name in the root of this process. Records of other files stay as they are.
std::string WithIdentitiesOfThisRoot(const std::string& log);

}  // namespace zagent::bench
