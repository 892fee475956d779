/// @file
/// Versioned heads: a magic text and a 16-bit version in front of what an
/// object writes to a standard stream.
///
/// Two forms of head:
/// - ZStreamableData and ZStreamBase: the magic as the byte helpers write a
///   text (four-byte length, then the characters without terminator), then
///   the version in two bytes. For ZStreamBase itself that is "ZSB" and 1.
/// - ZStreamLight: the magic's length in two bytes, its characters without
///   terminator, the version in two bytes ("abc", 7 gives 03 00 61 62 63
///   07 00).
///
/// All numbers are little-endian.
///
/// ZStreamBase is a base for objects that stream themselves with << and >>.
/// The operators reset `started` before and after calling the virtual start
/// operation of the most derived class, so overrides that pass through the
/// base operation handle the head once per run of an operator.
///
/// Reporting: bool; the operators turn false into badbit. Nothing is thrown
/// here. A head that does not match leaves the stream behind what was read
/// so far; nothing seeks back. A stored magic longer than the stream holds is
/// refused before anything is allocated for it.
///
/// Thread safety: ZStreamBase::MyStreamableData (with the version of the
/// last head read) and the buffer in which ZStreamableData::Check reads the
/// stored magic serve the whole process without a lock: heads of these two
/// forms are read on one thread at a time. ZStreamLight keeps no state.
#ifndef TESSELZOSTREAM_ZSTREAMBASE_H_
#define TESSELZOSTREAM_ZSTREAMBASE_H_

#include <cstdint>
#include <istream>
#include <ostream>

#include "tesselzostream/Export.h"

/// One magic and version pair, written and tested as a head.
/// Ownership: the magic text is not owned; it must outlive the object (a
/// string literal, as a rule). A null magic is taken as the empty text.
class TZ_EXPORT ZStreamableData {
 public:
  /// The pair `version` and `magic`; no version read yet.
  /// REQUIRES: `magic`, when not null, outlives the object.
  constexpr ZStreamableData(std::int16_t version, const char* magic)
      : myVersion(version), magicString(magic), readVersion(0) {}
  /// Copies the pair (the magic as a pointer) and the version last read.
  ZStreamableData(const ZStreamableData&) = default;
  /// Copies the pair (the magic as a pointer) and the version last read.
  ZStreamableData& operator=(const ZStreamableData&) = default;

  /// The version found by the last successful Check (0 before one).
  std::int16_t GetZStreamVersionNumber() const { return readVersion; }
  /// The version this code writes.
  std::int16_t GetMyZStreamVersionNumber() const { return myVersion; }
  /// The magic text as given (not owned; null if null was given).
  const char* GetMagicString() const { return magicString; }

  /// Writes the head; true when the stream has no state bit set afterwards.
  /// A failed write of the magic stops before the version.
  bool Write(std::ostream& stream) const;

  /// Reads a head and tests its magic. True, with the stored version in
  /// readVersion, when the magic matches; any stored version passes (callers
  /// compare GetZStreamVersionNumber with GetMyZStreamVersionNumber). False
  /// for a short head or another magic; readVersion then stays.
  bool Check(std::istream& stream);

 private:
  std::int16_t myVersion;
  const char* magicString;
  std::int16_t readVersion;
};

/// A base for objects that stream themselves with << and >>, behind the
/// head "ZSB", 1 (see ZStreamBase.h).
class TZ_EXPORT ZStreamBase {
 public:
  /// The head data of ZStreamBase: version 1, magic "ZSB".
  class TZ_EXPORT DerivedStreamableData : public ZStreamableData {
   public:
    /// Version 1, magic "ZSB".
    constexpr DerivedStreamableData() : ZStreamableData(1, "ZSB") {}
  };
  /// One object for all ZStreamBase objects of the process.
  static DerivedStreamableData MyStreamableData;

  /// An object whose head is not yet handled.
  ZStreamBase() : started(false) {}
  /// Copies the bookkeeping of `other`.
  ZStreamBase(const ZStreamBase& other) : started(other.started) {}
  /// Copies the bookkeeping of `other`.
  ZStreamBase& operator=(const ZStreamBase& other);
  /// Virtual, for the classes derived from it.
  virtual ~ZStreamBase();

  /// The version of the last head read through MyStreamableData, by any
  /// object of the process (0 before one).
  std::int16_t GetZStreamVersionNumber() const;
  /// The version this code writes: 1.
  std::int16_t GetMyZStreamVersionNumber() const;

 protected:
  /// Writes the head of MyStreamableData unless `started` says it was
  /// handled in this run of an operator. True when done (or skipped); false
  /// when the head could not be written.
  virtual bool ZStreamableStartWrite(std::ostream& stream);
  /// Reads the head of MyStreamableData unless `started` says it was
  /// handled in this run of an operator. True when done (or skipped); false
  /// when the head is short or does not match.
  virtual bool ZStreamableStartRead(std::istream& stream);
  /// Sets `started` to false. A direct call of a start operation outside the
  /// operators needs this first.
  virtual void ZStreamableReset();
  /// True, and nothing else: the base has no bytes of its own.
  bool ZStreamableWrite(std::ostream& stream);
  /// True, and nothing else: the base has no bytes of its own.
  bool ZStreamableRead(std::istream& stream);

 private:
  friend TZ_EXPORT std::ostream& operator<<(std::ostream& stream, const ZStreamBase& object);
  friend TZ_EXPORT std::istream& operator>>(std::istream& stream, ZStreamBase& object);

  // Bookkeeping of one run of an operator; mutable so that << may take a
  // constant object.
  mutable bool started;
};

/// Reset, start the write of the most derived class, reset; badbit on false.
/// The object is taken as constant: writing changes only its bookkeeping.
TZ_EXPORT std::ostream& operator<<(std::ostream& stream, const ZStreamBase& object);
/// Reset, start the read of the most derived class, reset; badbit on false.
TZ_EXPORT std::istream& operator>>(std::istream& stream, ZStreamBase& object);

/// The head of the second form, with no stored state.
class TZ_EXPORT ZStreamLight {
 public:
  /// Writes the head; the magic's length is cut to 16 bits (its low 16
  /// bits), and that many of its characters are written. A null magic is
  /// the empty text. True when the stream has no state bit set afterwards.
  static bool WriteMagicStringAndVersionNumber(std::ostream& stream, std::uint16_t version,
                                               const char* magic);
  /// Reads a head and compares its magic byte by byte as it reads, with no
  /// buffer. True, with the stored version in `version`, when the stored
  /// magic equals `magic` (null is the empty text). False for a short head
  /// or another magic; at a mismatch the bytes behind it stay unread and
  /// `version` is untouched.
  static bool CheckMagicStringAndVersionNumber(std::istream& stream, std::uint16_t& version,
                                               const char* magic);
};

#endif  // TESSELZOSTREAM_ZSTREAMBASE_H_
