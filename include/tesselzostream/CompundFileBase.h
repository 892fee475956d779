/// @file
/// CompundFileBase: a stream source tied to one compound file.
///
/// Holds the CompoundFile handle that the concrete sources work on. The
/// handle lives in a shared holder: a copy of a source (copy constructor or
/// assignment) shares the holder, and with it the one reference on the file,
/// instead of copying a raw reference that two objects would each release.
/// Guarantees:
/// - the reference is released exactly once: when any copy closes or reopens
///   the handle (the other copies then see a handle without a file: null
///   streams, StatusNotOpen, a null name), or when the last copy is destroyed;
/// - an assignment drops the object's share of its old holder, so a reference
///   that nobody else shares is released then and never stays held.
///
/// Thread rules: as CompoundFile; a source and its copies belong to one
/// thread at a time.
#ifndef TESSELZOSTREAM_COMPUNDFILEBASE_H_
#define TESSELZOSTREAM_COMPUNDFILEBASE_H_

#include <string>

#include <boost/shared_ptr.hpp>

#include "tesselzostream/CompoundFile.h"
#include "tesselzostream/Export.h"
#include "tesselzostream/ZoStreamSource.h"

/// A stream source tied to one compound file, whose handle copies of the
/// source share (see CompundFileBase.h).
class TZ_EXPORT CompundFileBase : public ZoStreamSource {
 public:
  /// A source with a handle that has no file yet.
  CompundFileBase();
  /// Shares the holder of `other`, and with it the one reference on its
  /// file.
  CompundFileBase(const CompundFileBase& other);
  /// Drops this object's share of its old holder and shares the holder of
  /// `other`.
  CompundFileBase& operator=(const CompundFileBase& other);
  /// Drops this object's share; the holder's last owner destroys the
  /// CompoundFile handle, which releases the file.
  ~CompundFileBase() override;

  /// The name the CompoundFile handle gives (its canonical path), as a
  /// string; empty while no file is open.
  std::string GetCompoundFileNameString() const override;
  /// The name the CompoundFile handle gives; null while no file is open.
  const char* GetCompoundFileName() const override;

 protected:
  /// Never null. Shared between copies; see the class comment.
  boost::shared_ptr<CompoundFile> mCompoundFile;
};

#endif  // TESSELZOSTREAM_COMPUNDFILEBASE_H_
