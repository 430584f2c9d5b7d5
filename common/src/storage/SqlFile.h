#pragma once

#include <string>

namespace zagent::common::internal {

// Where the file of a database lies, and who may look into it.

std::string SqlFilePath(const std::string& directory, const std::string& name);

// Makes `directory` and its parents (mode 0700) where they are missing. Throws StorageException.
void MakeSqlFolder(const std::string& directory);

// True when there is a file with something in it. Otherwise makes an empty one, if it can: SQLite would give it the
// umask's mode. The file is for its owner alone, and so is SQLite's journal, which takes the mode of its database.
bool PrepareSqlFile(const std::string& path);

// Renames the file and its journal to "<path>.damaged", where an earlier one is replaced. A journal that stayed would
// be played back into the next database of this name. Throws StorageException.
std::string SetSqlFileAside(const std::string& path);

}  // namespace zagent::common::internal
