// The LMDB system ("lmdb"): one key per stream, values written in place
// with MDB_RESERVE, one transaction per phase. Built only where pkg-config
// finds lmdb.
// Registered with System.h's registry; see CompareBench.cpp for what it
// does in each phase.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <lmdb.h>

#include "bench/compare/System.h"

namespace tzcompare {
namespace {

class Lmdb : public System {
 public:
  Lmdb() : System("lmdb") {}
  fs::path Store(const fs::path& folder) const override { return folder / "streams.lmdb"; }

  void Write(const fs::path& store, const Pattern& p, const Contents& c, Clock& clock) const override {
    clock.Start();
    Env env(store);
    Txn txn(env, 0);
    for (std::size_t i = 0; i < c.streams; ++i) {
      if (c.Has(i)) Put(txn, p, i, c.version[i], c.size);
    }
    txn.Commit();
    env.Close();
    clock.Stop();
  }

  std::uint64_t Read(const fs::path& store, const Contents& c, Clock& clock) const override {
    Tally tally(c);
    std::vector<char> buffer(kChunk);
    std::size_t entries = 0;
    clock.Start();
    {
      Env env(store);
      Txn txn(env, MDB_RDONLY);
      for (std::size_t i = 0; i < c.streams; ++i) {
        if (!c.Has(i)) continue;
        const std::string name = StreamName(i);
        MDB_val key{name.size(), const_cast<char*>(name.data())};
        MDB_val data{};
        const int rc = mdb_get(txn.txn, txn.dbi, &key, &data);
        if (rc == MDB_NOTFOUND) {
          tally.Unexpected();
          continue;
        }
        Check(rc, "get");
        const char* bytes = static_cast<const char*>(data.mv_data);
        std::size_t at = 0;
        std::uint64_t got = 0;
        const std::uint64_t sum = SumStream(c.size, buffer.data(), [&](char* b, std::size_t n) -> std::size_t {
          const std::size_t k = std::min(n, data.mv_size - at);
          std::memcpy(b, bytes + at, k);
          at += k;
          return k;
        }, &got);
        tally.Found(i, sum, data.mv_size);
      }
      MDB_stat st{};
      Check(mdb_stat(txn.txn, txn.dbi, &st), "stat");
      entries = st.ms_entries;
    }
    clock.Stop();
    for (std::size_t extra = c.Present(); extra < entries; ++extra) tally.Unexpected();
    return tally.Finish();
  }

  void Edit(const fs::path& store, const Pattern& p, const Contents& before, const Contents& after,
            Clock& clock) const override {
    const std::vector<std::size_t> changed = Changed(before, after);
    clock.Start();
    Env env(store);
    Txn txn(env, 0);
    for (std::size_t i : changed) Put(txn, p, i, after.version[i], after.size);
    txn.Commit();
    env.Close();
    clock.Stop();
  }

  void OpenAndFind(const fs::path& store, std::size_t i, bool write, Clock& clock) const override {
    const std::string name = StreamName(i);
    clock.Start();
    Env env(store);
    Txn txn(env, write ? 0U : static_cast<unsigned>(MDB_RDONLY));
    MDB_val key{name.size(), const_cast<char*>(name.data())};
    MDB_val data{};
    Check(mdb_get(txn.txn, txn.dbi, &key, &data), "get");
    if (data.mv_size == 0) Fail("lmdb: empty value for " + name);
    volatile char first = *static_cast<const char*>(data.mv_data);
    static_cast<void>(first);
    clock.Stop();
  }
  bool Opens() const override { return true; }

  const char* CompactHow() const override {
    return "mdb_del (untimed), then mdb_env_copy2 MDB_CP_COMPACT, renamed over the old";
  }
  void Compact(const fs::path& store, const Pattern&, const Contents& before, const Contents& after,
               Clock& clock) const override {
    {
      Env env(store);
      Txn txn(env, 0);
      for (std::size_t i : Gone(before, after)) {
        const std::string name = StreamName(i);
        MDB_val key{name.size(), const_cast<char*>(name.data())};
        Check(mdb_del(txn.txn, txn.dbi, &key, nullptr), "del");
      }
      txn.Commit();
      env.Close();
    }
    clock.Start();
    const fs::path copy = store.string() + ".compact";
    {
      Env env(store);
      Check(mdb_env_copy2(env.env, copy.c_str(), MDB_CP_COMPACT), "copy");
      env.Close();
    }
    fs::rename(copy, store);
    clock.Stop();
  }

 private:
  static void Check(int rc, const char* what) {
    if (rc != MDB_SUCCESS) Fail(std::string("lmdb: ") + what + ": " + mdb_strerror(rc));
  }
  struct Env {
    MDB_env* env = nullptr;
    explicit Env(const fs::path& path) {
      Check(mdb_env_create(&env), "env create");
      Check(mdb_env_set_mapsize(env, std::size_t{16} << 30), "set mapsize");
      Check(mdb_env_open(env, path.c_str(), MDB_NOSUBDIR | MDB_NOSYNC, 0644), "env open");
    }
    ~Env() { Close(); }
    Env(const Env&) = delete;
    Env& operator=(const Env&) = delete;
    void Close() {
      if (env != nullptr) mdb_env_close(env);
      env = nullptr;
    }
  };
  struct Txn {
    MDB_txn* txn = nullptr;
    MDB_dbi dbi = 0;
    Txn(const Env& e, unsigned flags) {
      Check(mdb_txn_begin(e.env, nullptr, flags, &txn), "txn begin");
      Check(mdb_dbi_open(txn, nullptr, 0, &dbi), "dbi open");
    }
    ~Txn() {
      if (txn != nullptr) mdb_txn_abort(txn);
    }
    Txn(const Txn&) = delete;
    Txn& operator=(const Txn&) = delete;
    void Commit() {
      const int rc = mdb_txn_commit(txn);
      txn = nullptr;
      Check(rc, "commit");
    }
  };
  static void Put(Txn& txn, const Pattern& p, std::size_t i, int version, std::size_t size) {
    const std::string name = StreamName(i);
    MDB_val key{name.size(), const_cast<char*>(name.data())};
    MDB_val data{size, nullptr};
    Check(mdb_put(txn.txn, txn.dbi, &key, &data, MDB_RESERVE), "put");
    char* out = static_cast<char*>(data.mv_data);
    ForEachChunk(size, [&](std::size_t k, std::size_t n) { std::memcpy(out + k * kChunk, p.Chunk(i, k, version), n); });
  }
};

}  // namespace

const Registration kRegisterLmdb(2, [] { return std::unique_ptr<System>(new Lmdb); });

}  // namespace tzcompare
