/// @file
/// ZoStreamSource: a collection of named byte streams, as an application
/// sees it.
///
/// The application asks for a stream by name to read, to write or both, asks
/// whether a name exists, lists the names and deletes names. Where the bytes
/// lie is the implementing class's business: CompoundFileStreamSource works
/// through a folder of working files, PureCompoundFileStreamSource straight on
/// the compound file.
///
/// Contract of every implementation:
/// - A name is a zero-terminated text of 8-bit characters; no pointer to it
///   is kept after the call.
/// - A stream returned by pointer belongs to the caller, who deletes it; that
///   closes it. Null means no stream could be given, with no further reason.
/// - Operations marked const may still change the source's bookkeeping (name
///   sets, dirty flag, files on disk); const is a promise to callers holding a
///   const source, not a statement that nothing changes.
///
/// Thread safety: each implementation states its own rule; unless it says
/// more, a source and the streams it hands out belong to one thread at a
/// time.
///
/// The class holds no data. The order of the virtual operations below is part
/// of the interface and is kept by every class derived from it.
#ifndef TESSELZOSTREAM_ZOSTREAMSOURCE_H_
#define TESSELZOSTREAM_ZOSTREAMSOURCE_H_

#include <istream>
#include <ostream>
#include <set>
#include <string>

#include <boost/shared_ptr.hpp>

#include "tesselzostream/Export.h"

/// A collection of named byte streams, as an application sees it. The
/// contract every implementation keeps: see ZoStreamSource.h.
class TZ_EXPORT ZoStreamSource {
 public:
  /// Virtual, so that a source can be deleted through this interface.
  virtual ~ZoStreamSource();

  /// The name ceases to exist.
  virtual void DeleteSource(const char* name) const = 0;
  /// Whether a stream of this name exists.
  virtual bool StreamExists(const char* name) const = 0;
  /// Reads an existing stream.
  virtual std::basic_istream<char>* GetIStream(const char* name) const = 0;
  /// Reads and changes an existing stream.
  virtual std::basic_iostream<char>* GetIOStream(const char* name) const = 0;
  /// Removes what the source keeps on the side.
  virtual bool CleanUp() = 0;
  /// A further source for the given name, or null.
  virtual ZoStreamSource* GetStreamSource(const char* name) const = 0;
  /// Like GetIOStream, for scratch streams.
  virtual std::basic_iostream<char>* GetTempIOStream(const char* name) const = 0;
  /// Like GetOStream, for scratch streams.
  virtual std::basic_ostream<char>* GetTempOStream(const char* name) const = 0;
  /// Writes a stream, replacing any earlier content.
  virtual std::basic_ostream<char>* GetOStream(const char* name) const = 0;
  /// The names that exist now, in ascending byte order. The set handed out
  /// never changes afterwards.
  virtual boost::shared_ptr<const std::set<std::string>> GetFileNames() const = 0;
  /// Name of the file that holds the streams.
  virtual const char* GetStreamFileName() const = 0;
  /// Name of the compound file behind the source, as a string.
  virtual std::string GetCompoundFileNameString() const = 0;
  /// Whether the source was opened read-only.
  virtual bool IsReadOnly() const = 0;
  /// Name of the compound file behind the source.
  virtual const char* GetCompoundFileName() const = 0;
  /// Ends the work on the file with the default choices.
  virtual void CloseFile() = 0;
};

#endif  // TESSELZOSTREAM_ZOSTREAMSOURCE_H_
