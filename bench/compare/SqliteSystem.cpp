// The SQLite system ("sqlite"): one table (name TEXT PRIMARY KEY, data
// BLOB), every write in one transaction, blobs written and read in chunks.
// Built only where pkg-config finds sqlite3.
// Registered with System.h's registry; see CompareBench.cpp for what it
// does in each phase.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <sqlite3.h>

#include "bench/compare/System.h"

namespace tzcompare {
namespace {

class Sqlite : public System {
 public:
  Sqlite() : System("sqlite") {}
  fs::path Store(const fs::path& folder) const override { return folder / "streams.sqlite"; }

  void Write(const fs::path& store, const Pattern& p, const Contents& c, Clock& clock) const override {
    clock.Start();
    Db db(store);
    db.Exec("CREATE TABLE streams(name TEXT PRIMARY KEY, data BLOB)");
    db.Exec("BEGIN");
    Statement insert(db, "INSERT INTO streams(name, data) VALUES(?1, zeroblob(?2))");
    for (std::size_t i = 0; i < c.streams; ++i) {
      if (!c.Has(i)) continue;
      const std::string name = StreamName(i);
      sqlite3_bind_text(insert.s, 1, name.c_str(), -1, SQLITE_STATIC);
      sqlite3_bind_int64(insert.s, 2, static_cast<sqlite3_int64>(c.size));
      insert.Step();
      sqlite3_blob* blob = nullptr;
      db.Check(sqlite3_blob_open(db.db, "main", "streams", "data", sqlite3_last_insert_rowid(db.db), 1, &blob),
               "blob open");
      std::size_t offset = 0;
      ForEachChunk(c.size, [&](std::size_t k, std::size_t n) {
        db.Check(sqlite3_blob_write(blob, p.Chunk(i, k, c.version[i]), static_cast<int>(n), static_cast<int>(offset)),
                 "blob write");
        offset += n;
      });
      db.Check(sqlite3_blob_close(blob), "blob close");
    }
    insert.Finish();
    db.Exec("COMMIT");
    db.Close();
    clock.Stop();
  }

  std::uint64_t Read(const fs::path& store, const Contents& c, Clock& clock) const override {
    Tally tally(c);
    std::vector<char> buffer(kChunk);
    clock.Start();
    Db db(store);
    db.Exec("BEGIN");
    {
      Statement find(db, "SELECT rowid FROM streams WHERE name = ?1");
      sqlite3_blob* blob = nullptr;
      for (std::size_t i = 0; i < c.streams; ++i) {
        if (!c.Has(i)) continue;
        const std::string name = StreamName(i);
        sqlite3_bind_text(find.s, 1, name.c_str(), -1, SQLITE_STATIC);
        if (!find.Step()) Fail("sqlite: no row for " + name);
        const sqlite3_int64 rowid = sqlite3_column_int64(find.s, 0);
        find.Reset();
        if (blob == nullptr) {
          db.Check(sqlite3_blob_open(db.db, "main", "streams", "data", rowid, 0, &blob), "blob open");
        } else {
          db.Check(sqlite3_blob_reopen(blob, rowid), "blob reopen");
        }
        const int bytes = sqlite3_blob_bytes(blob);
        std::size_t offset = 0;
        std::uint64_t got = 0;
        const std::uint64_t sum = SumStream(c.size, buffer.data(), [&](char* b, std::size_t n) -> std::size_t {
          const std::size_t take = std::min(n, static_cast<std::size_t>(bytes) - std::min(offset, static_cast<std::size_t>(bytes)));
          if (take == 0) return 0;
          db.Check(sqlite3_blob_read(blob, b, static_cast<int>(take), static_cast<int>(offset)), "blob read");
          offset += take;
          return take;
        }, &got);
        tally.Found(i, sum, static_cast<std::uint64_t>(bytes));
      }
      if (blob != nullptr) sqlite3_blob_close(blob);
    }
    db.Exec("COMMIT");
    db.Close();
    clock.Stop();
    // A stream that should be gone must be gone (outside the timed span).
    Db again(store);
    Statement count(again, "SELECT count(*) FROM streams");
    count.Step();
    for (auto extra = static_cast<sqlite3_int64>(c.Present()); extra < sqlite3_column_int64(count.s, 0); ++extra) {
      tally.Unexpected();
    }
    return tally.Finish();
  }

  void Edit(const fs::path& store, const Pattern& p, const Contents& before, const Contents& after,
            Clock& clock) const override {
    const std::vector<std::size_t> changed = Changed(before, after);
    std::vector<char> bytes(after.size);
    clock.Start();
    Db db(store);
    db.Exec("BEGIN");
    {
      Statement update(db, "UPDATE streams SET data = ?2 WHERE name = ?1");
      for (std::size_t i : changed) {
        // The whole stream in one value: the edited streams are 4 KiB.
        ForEachChunk(after.size, [&](std::size_t k, std::size_t n) {
          std::memcpy(bytes.data() + k * kChunk, p.Chunk(i, k, after.version[i]), n);
        });
        const std::string name = StreamName(i);
        sqlite3_bind_text(update.s, 1, name.c_str(), -1, SQLITE_STATIC);
        sqlite3_bind_blob(update.s, 2, bytes.data(), static_cast<int>(bytes.size()), SQLITE_STATIC);
        update.Step();
        if (sqlite3_changes(db.db) != 1) Fail("sqlite: UPDATE missed " + name);
        update.Reset();
      }
    }
    db.Exec("COMMIT");
    db.Close();
    clock.Stop();
  }

  void OpenAndFind(const fs::path& store, std::size_t i, bool write, Clock& clock) const override {
    const std::string name = StreamName(i);
    clock.Start();
    Db db(store);
    if (write) db.Exec("BEGIN IMMEDIATE");
    {
      Statement find(db, "SELECT substr(data, 1, 1) FROM streams WHERE name = ?1");
      sqlite3_bind_text(find.s, 1, name.c_str(), -1, SQLITE_STATIC);
      if (!find.Step() || sqlite3_column_bytes(find.s, 0) != 1) Fail("sqlite: no row for " + name);
    }
    clock.Stop();
    if (write) db.Exec("COMMIT");
    db.Close();
  }
  bool Opens() const override { return true; }

  const char* CompactHow() const override { return "DELETE (untimed), then VACUUM"; }
  void Compact(const fs::path& store, const Pattern&, const Contents& before, const Contents& after,
               Clock& clock) const override {
    {
      Db db(store);
      db.Exec("BEGIN");
      Statement remove(db, "DELETE FROM streams WHERE name = ?1");
      for (std::size_t i : Gone(before, after)) {
        const std::string name = StreamName(i);
        sqlite3_bind_text(remove.s, 1, name.c_str(), -1, SQLITE_STATIC);
        remove.Step();
        remove.Reset();
      }
      remove.Finish();
      db.Exec("COMMIT");
      db.Close();
    }
    clock.Start();
    Db db(store);
    db.Exec("VACUUM");
    db.Close();
    clock.Stop();
  }

 private:
  struct Db {
    sqlite3* db = nullptr;
    explicit Db(const fs::path& path) {
      if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) != SQLITE_OK) {
        Fail("sqlite: cannot open " + path.string());
      }
      Exec("PRAGMA synchronous=OFF");
    }
    ~Db() {
      if (db != nullptr) sqlite3_close_v2(db);
    }
    Db(const Db&) = delete;
    Db& operator=(const Db&) = delete;
    void Close() {
      if (db != nullptr && sqlite3_close(db) != SQLITE_OK) Fail(std::string("sqlite: close: ") + sqlite3_errmsg(db));
      db = nullptr;
    }
    void Check(int rc, const char* what) const {
      if (rc != SQLITE_OK) Fail(std::string("sqlite: ") + what + ": " + sqlite3_errmsg(db));
    }
    void Exec(const char* sql) const { Check(sqlite3_exec(db, sql, nullptr, nullptr, nullptr), sql); }
  };
  struct Statement {
    const Db& db;
    sqlite3_stmt* s = nullptr;
    Statement(const Db& d, const char* sql) : db(d) { db.Check(sqlite3_prepare_v2(db.db, sql, -1, &s, nullptr), sql); }
    ~Statement() { sqlite3_finalize(s); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;
    // True for a row, false when done.
    bool Step() {
      const int rc = sqlite3_step(s);
      if (rc == SQLITE_ROW) return true;
      if (rc == SQLITE_DONE) {
        if (sqlite3_stmt_readonly(s) == 0) Reset();
        return false;
      }
      Fail(std::string("sqlite: step: ") + sqlite3_errmsg(db.db));
    }
    void Reset() {
      sqlite3_reset(s);
      sqlite3_clear_bindings(s);
    }
    void Finish() {
      sqlite3_finalize(s);
      s = nullptr;
    }
  };
};

}  // namespace

const Registration kRegisterSqlite(1, [] { return std::unique_ptr<System>(new Sqlite); });

}  // namespace tzcompare
