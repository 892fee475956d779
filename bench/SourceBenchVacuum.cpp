// SQLite's VACUUM for tz_source_bench (see SourceBenchVacuum.h). Built with
// SQLite where pkg-config finds it; elsewhere TimeVacuum measures nothing.
//
// Settings as in tz_compare_bench: PRAGMA synchronous=OFF, so neither side
// waits for the disk (the library's compaction does not sync either), and
// the default rollback journal and page size.
#include "SourceBenchVacuum.h"

#if TZ_HAVE_SQLITE

#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <stdexcept>

namespace fs = std::filesystem;

namespace {

class Db {
 public:
  explicit Db(const std::string& path) {
    if (sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) !=
        SQLITE_OK) {
      Fail("open");
    }
    Exec("PRAGMA synchronous=OFF");
  }
  ~Db() { sqlite3_close_v2(db_); }
  Db(const Db&) = delete;
  Db& operator=(const Db&) = delete;

  void Exec(const char* sql) {
    if (sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) Fail(sql);
  }
  // Runs `sql` once for each i in [first, end) by `step`, with ?1 the name
  // of stream i and ?2 (when the statement has it) its bytes.
  void ForEach(const char* sql, int first, int end, int step,
               const std::function<std::string(int)>* bytesOf) {
    sqlite3_stmt* s = nullptr;
    if (sqlite3_prepare_v2(db_, sql, -1, &s, nullptr) != SQLITE_OK) Fail(sql);
    for (int i = first; i < end; i += step) {
      const std::string name = "stream" + std::to_string(i);
      sqlite3_bind_text(s, 1, name.c_str(), -1, SQLITE_TRANSIENT);
      if (bytesOf != nullptr) {
        const std::string data = (*bytesOf)(i);
        sqlite3_bind_blob(s, 2, data.data(), static_cast<int>(data.size()), SQLITE_TRANSIENT);
      }
      const int rc = sqlite3_step(s);
      sqlite3_reset(s);
      if (rc != SQLITE_DONE) {
        sqlite3_finalize(s);
        Fail(sql);
      }
    }
    sqlite3_finalize(s);
  }
  void Close() {
    if (sqlite3_close(db_) != SQLITE_OK) Fail("close");
    db_ = nullptr;
  }

 private:
  [[noreturn]] void Fail(const char* what) const {
    throw std::runtime_error(std::string("sqlite: ") + what + ": " + sqlite3_errmsg(db_));
  }
  sqlite3* db_ = nullptr;
};

}  // namespace

VacuumResult TimeVacuum(const std::string& dir, int count, int repeat,
                        const std::function<std::string(int)>& bytesOf) {
  const std::string holed = dir + "/holed.sqlite";
  const std::string work = dir + "/holed-work.sqlite";
  fs::remove(holed);
  {
    Db db(holed);
    db.Exec("CREATE TABLE streams (name TEXT PRIMARY KEY, data BLOB)");
    db.Exec("BEGIN");
    db.ForEach("INSERT INTO streams VALUES (?1, ?2)", 0, count, 1, &bytesOf);
    db.Exec("COMMIT");
    db.Exec("BEGIN");
    db.ForEach("DELETE FROM streams WHERE name = ?1", 1, count, 2, nullptr);
    db.Exec("COMMIT");
    db.Close();
  }
  VacuumResult r;
  r.measured = true;
  r.seconds = 1e30;
  r.lengthBefore = fs::file_size(holed);
  for (int i = 0; i < repeat; ++i) {
    fs::copy_file(holed, work, fs::copy_options::overwrite_existing);
    ::sync();
    const auto start = std::chrono::steady_clock::now();
    Db db(work);
    db.Exec("VACUUM");
    db.Close();
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    r.seconds = std::min(r.seconds, took.count());
  }
  r.length = fs::file_size(work);
  fs::remove(work);
  fs::remove(holed);
  return r;
}

#else

VacuumResult TimeVacuum(const std::string&, int, int, const std::function<std::string(int)>&) {
  return VacuumResult{};
}

#endif  // TZ_HAVE_SQLITE
