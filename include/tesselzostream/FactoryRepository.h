/// @file
/// The process-wide table that leads from a registered name to a factory of
/// objects, shared by every module of the process.
///
/// The library holds what must exist once per process: the table
/// smNameToProductFactoryMap, the look-up of a factory by name, and the
/// translation of a name into its real name over all factories. Concrete
/// factories and repositories live in the callers' modules: they derive from
/// ProductFactoryBase and FactoryRepositoryBase and fill the table at run
/// time, from static initialisers as well (the table is ready before any
/// module linked to this library runs its own). The library registers
/// nothing.
///
/// Names are looked up exactly: byte by byte, case-sensitive, never trimmed
/// or folded.
///
/// Ownership: the table owns its factories through shared pointers; an entry
/// replaced by a caller releases its old factory. GetFactory hands out a raw
/// pointer that stays valid while the entry stands. Entries go only when the
/// library is unloaded, or when a caller erases them. A module that is
/// unloaded before the library must take its factories out of the table
/// first, since their code goes with it.
///
/// Thread safety: none inside. The look-ups only read; registering must be
/// finished before look-ups run beside it, or callers guard both.
#ifndef TESSELZOSTREAM_FACTORYREPOSITORY_H_
#define TESSELZOSTREAM_FACTORYREPOSITORY_H_

#include <map>
#include <string>

#include <boost/shared_ptr.hpp>

#include "tesselzostream/Export.h"

/// The process-wide factory table and the bases of factories and
/// repositories (see FactoryRepository.h).
namespace OBJCREAT_Details {

/// The common base of all factories. Derived factories fill
/// mNameToRealNameMap with the names they know; all the rest (how objects
/// are made) is theirs.
class TZ_EXPORT ProductFactoryBase {
 public:
  /// A factory that knows no name yet.
  ProductFactoryBase();
  /// Virtual, for the factories derived from it.
  virtual ~ProductFactoryBase();

  /// The real name mapped to `name`, or the empty string when this factory
  /// does not know it (or `name` is null).
  std::string GetRealNameOf(const char* name) const;

 protected:
  /// Each name this factory knows, mapped to its real name; filled by the
  /// derived factory, read by GetRealNameOf.
  std::map<std::string, std::string> mNameToRealNameMap;
};

/// The common base of all repositories: the one table of the process and
/// the look-ups on it. Repositories derived from it register their
/// factories in smNameToProductFactoryMap.
class TZ_EXPORT FactoryRepositoryBase {
 public:
  /// Copies nothing: the table is static, so a repository object has no
  /// state of its own.
  FactoryRepositoryBase& operator=(const FactoryRepositoryBase& other);

  /// The first non-empty real name that a factory gives for `name`, asking
  /// the factories in ascending order of their keys. Never empty.
  /// Throws Exception with the text
  ///
  ///     'name' is not a registerd type in FactoryRepositor.
  ///
  /// when no factory knows the name (a null name is the empty text).
  static std::string GetRealName(const char* name);

 protected:
  /// The factory registered under exactly `name`, or null (also for a null
  /// name). The table keeps ownership.
  static ProductFactoryBase* GetFactory(const char* name);

  /// The one table of the process. Derived classes insert their factories
  /// here; nothing stops a caller from replacing an entry.
  static std::map<std::string, boost::shared_ptr<ProductFactoryBase>>
      smNameToProductFactoryMap;
};

}  // namespace OBJCREAT_Details

#endif  // TESSELZOSTREAM_FACTORYREPOSITORY_H_
