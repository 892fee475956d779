/// @file
/// Result codes of a compound file and the modes it opens in.
///
/// Status is sticky inside one open file: once it is not StatusOk, block
/// traffic of that file stops until the file is closed (see CompoundFile.h).
#ifndef TESSELZOSTREAM_STATUS_H_
#define TESSELZOSTREAM_STATUS_H_

/// The result codes and open modes of a compound file.
namespace ZoStreamE {

/// The status of a compound file, as CompoundFile reports it. Sticky inside
/// one open file: see Status.h.
enum Status {
  StatusOk = 0,              ///< the file is open and nothing has failed
  StatusFailed = 1,          ///< an I/O failure, a damaged block, a refused write
  StatusNotOpen = 2,         ///< no file behind the handle
  StatusPastEnd = 4,         ///< a block beyond the end of the file was asked for
  StatusPasswordNeeded = 5,  ///< encrypted payload and no password given yet
};

/// How CompoundFile::Open opens a file.
enum OpenMode {
  OpenReadOnly = 0,   ///< no block map is loaded; every write is refused
  OpenReadWrite = 1,  ///< block map from the saved list or from a scan
};

}  // namespace ZoStreamE

#endif  // TESSELZOSTREAM_STATUS_H_
