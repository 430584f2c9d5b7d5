#pragma once

#include <sqlite3.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace zagent::health {

// The database of statuses as somebody else on the machine sees it, over a connection of its own.
class StatusTable {
 public:
  explicit StatusTable(const std::string& path) {
    sqlite3* opened = nullptr;
    const int code = sqlite3_open_v2(path.c_str(), &opened, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    database_.reset(opened);
    if (code != SQLITE_OK) throw std::runtime_error("cannot open " + path);
    sqlite3_busy_timeout(opened, 5000);
  }

  // The rows of a statement, columns with "|" between them.
  std::vector<std::string> Ask(const std::string& statement) {
    std::vector<std::string> rows;
    char* error = nullptr;
    sqlite3_exec(database_.get(), statement.c_str(), AddRow, &rows, &error);
    if (error != nullptr) {
      const std::string text = error;
      sqlite3_free(error);
      throw std::runtime_error(text);
    }
    return rows;
  }
  void Insert(const std::string& context, int code, const std::string& fields = "") {
    Ask("INSERT INTO AgentStatus VALUES ('2024-05-01T10:20:30Z', '" + context + "', " + std::to_string(code) +
        ", 1, '" + fields + "')");
  }
  std::vector<std::string> Contexts() { return Ask("SELECT ContextId FROM AgentStatus ORDER BY rowid"); }

 private:
  static int AddRow(void* rows, int count, char** values, char** /*names*/) {
    std::string row;
    for (int i = 0; i < count; ++i) row.append(i == 0 ? "" : "|").append(values[i] == nullptr ? "NULL" : values[i]);
    static_cast<std::vector<std::string>*>(rows)->push_back(row);
    return 0;
  }

  struct Closer {
    void operator()(sqlite3* database) const { sqlite3_close(database); }
  };
  std::unique_ptr<sqlite3, Closer> database_;
};

}  // namespace zagent::health
