/// @file
/// CompundFileBase: a stream source tied to one compound file.
///
/// Holds the CompoundFile handle that the concrete sources work on, by
/// value. A copy of a source (copy constructor or assignment) holds the same
/// file with a reference of its own, so that each copy's Close or
/// destruction releases exactly one reference and the file closes when the
/// last of them has gone; an assignment gives up the reference the object
/// held before, so none stays held for ever.
///
/// Thread rules: as CompoundFile; a source and its copies belong to one
/// thread at a time.
#ifndef TESSELZOSTREAM_COMPUNDFILEBASE_H_
#define TESSELZOSTREAM_COMPUNDFILEBASE_H_

#include <string>

#include "tesselzostream/CompoundFile.h"
#include "tesselzostream/Export.h"
#include "tesselzostream/ZoStreamSource.h"

/// A stream source tied to one compound file; each copy holds the file with
/// a reference of its own (see CompundFileBase.h).
class TZ_EXPORT CompundFileBase : public ZoStreamSource {
 public:
  /// A source with a handle that has no file yet.
  CompundFileBase();
  /// Holds the file of `other` with a reference of its own.
  CompundFileBase(const CompundFileBase& other);
  /// Gives up the reference this object held and holds the file of `other`
  /// with a reference of its own.
  CompundFileBase& operator=(const CompundFileBase& other);
  /// Releases this object's reference, if it holds a file.
  ~CompundFileBase() override;

  /// The name the CompoundFile handle gives (its canonical path), as a
  /// string; empty while no file is open.
  std::string GetCompoundFileNameString() const override;
  /// The name the CompoundFile handle gives; null while no file is open.
  const char* GetCompoundFileName() const override;

 protected:
  /// The handle on the compound file; without a file until one is opened.
  /// Mutable: the constant operations of the sources open streams on it.
  mutable CompoundFile mCompoundFile;
};

#endif  // TESSELZOSTREAM_COMPUNDFILEBASE_H_
