// The library against the storage an application would pick instead, in one
// run: the same workloads, the same bytes, interleaved and repeated.
//
// Systems
//   plain     one file per stream in one folder, POSIX open/write/read/close
//             (one file for W1): the physical limit of the file system.
//   sqlite    one table (name TEXT PRIMARY KEY, data BLOB), PRAGMA
//             synchronous=OFF, every write in one transaction; a stream is an
//             INSERT of zeroblob(size), then sqlite3_blob_write in chunks.
//             Reads look the row up by name and read through one blob handle
//             moved from row to row with sqlite3_blob_reopen, in one
//             transaction.
//   ole2      an OLE2 compound document through libgsf (GsfOutfileMSOle,
//             GsfInfileMSOle, default sector sizes). Reads go through the
//             children by index and check each child's name: libgsf finds a
//             child by name with a linear scan, which at 100,000 streams
//             would measure that scan and nothing else. libgsf's reader
//             recurses through the directory tree, deeper with every stream:
//             a document of 40,000 streams already overflows the default
//             8 MiB stack (SIGSEGV), so the ole2 children raise their stack
//             limit to 512 MiB first. Adding a child costs libgsf time in
//             proportion to the children before it, so W4 takes minutes; a
//             write phase over 60 s is not repeated (the table's n says how
//             many runs a figure has).
//   zip       a ZIP archive through libzip, every entry stored (ZIP_CM_STORE).
//             An entry's bytes come from a callback source that hands out
//             the stream chunk by chunk, so nothing is held in memory;
//             libzip pulls them in its own read size at zip_close, which
//             does all the writing. Reads open entries by name.
//   tz-cf     this library: CompoundFile, GetIOStream "wb" then "rb" (the
//             file opened read-only for reading).
//   tz-pure   this library through PureCompoundFileStreamSource (GetOStream,
//             GetIStream).
//   tz-enc    tz-cf with encryption on. The workload goes into a file that
//             is already encrypted: one empty stream, Encrypt, then every
//             stream, so each data block is enciphered on its way to the file
//             as in an application that keeps its file encrypted; reads open
//             the file, give the password and read. Open, Encrypt and Close
//             count in the time. The reference is Nettle's blowfish_encrypt
//             (and _decrypt for reads) over the same bytes in memory, copied
//             into 1000-byte pieces and enciphered in place ("bf-ecb").
//
// Workloads (pseudo-random bytes, different for every stream and chunk,
// written and read in chunks of 64 KiB or the whole stream when smaller)
//   W1  1 stream of 256 MiB           W3  1,000 streams of 256 KiB
//   W2  10,000 streams of 4 KiB       W4  100,000 streams of 1 KiB
//   W4r 10,000 streams of 1 KiB: the reference for W4's cost per stream.
// Every byte read is checked: each stream's checksum against the one its
// bytes should have, its size, and that no stream is missing or doubled.
//
// After every throughput run, on a W2 store of each system written anew
// (untimed; the plain files reuse the folder of their W2 run, which is kept):
//   edit     change 1% of the streams (new bytes, same size) and save:
//            plain rewrites 100 files; sqlite UPDATEs 100 rows in one
//            transaction; zip replaces 100 entries and closes (libzip
//            rewrites the archive into a new file); ole2 rewrites the
//            document (libgsf cannot change one in place); tz-cf, tz-pure
//            and tz-enc replace the streams in place; tz-folder is the
//            working-folder source (CompoundFileStreamSource: Open, GetOStream
//            100 times, Close with SaveChanges) on a copy of the tz-cf file.
//   compact  half the streams deleted (untimed, except for zip and ole2 where
//            deleting is the rewrite), then: sqlite VACUUM; zip deletes and
//            closes; ole2 rewrites the document without them; tz-folder
//            CompactCompoundFile; plain files have nothing to do (n/a).
// The edited and the compacted files are read back and checked.
//
// Every phase runs in a child process forked for it, so that its peak memory
// (ru_maxrss from wait4) is its own; the child starts from the parent's
// resident set, which an empty child shows in the header. Dirty pages are
// synced before each clock starts; writes end in the page cache (no system
// syncs) and reads find the bytes there. Each repetition runs the systems in
// a rotated order.
//
// Usage: tz_compare_bench [--small] [--repeat N] [--dir FOLDER] [--csv FILE]
//                         [--only SYSTEM,...]
//   --small   W2 at 1,000 and W4 at 5,000 streams (and the edit and the
//             compaction on that W2), once: a smoke run for CI. The exit
//             status is non-zero only for a wrong byte or a failed phase,
//             never for a time.
//   --repeat  repetitions of the full run (default 5).
//   --dir     where the scratch folder goes (default: the system's temp
//             folder). Each system's files are removed after its phase,
//             except the plain files of the many-stream workloads (see
//             RunSystem), about 0.75 GiB a run: 4 GiB at most for 5 runs.
//   --csv     the machine-readable figures (default tz-compare-bench.csv);
//             bench/plot-compare.sh draws them.
//   --only    run only these systems (plain always runs: it is the reference).
//   --workloads  run only these workloads (W1,W2,W3,W4,W4r).
//   --verbose    every phase's figures to stderr as they come.
// The code: compare/System.h (the interface and the registry; one file per
// system, each built only where its library is found), compare/Workload.h
// (the bytes and what a store holds), compare/Child.h (a phase in a child),
// compare/Bench.h (the harness; the report in compare/Report.cpp).
// The exit status is non-zero when a stream was read back wrong or a phase
// of this library failed; another system's failure is reported in the
// table and leaves the exit status alone.
#include <cstdio>
#include <exception>

#include "bench/compare/Bench.h"
#include "bench/compare/Options.h"

int main(int argc, char** argv) {
  const tzcompare::Options options = tzcompare::ParseOptions(argc, argv);
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  try {
    tzcompare::Bench bench(options);
    return bench.Run();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "benchmark failed: %s\n", e.what());
    return 1;
  }
}
