/// @file
/// Export macro for the public classes of libtesselzostream.
///
/// The shared object is built with hidden visibility; only what carries
/// TZ_EXPORT is reachable from an application.
#ifndef TESSELZOSTREAM_EXPORT_H_
#define TESSELZOSTREAM_EXPORT_H_

#if defined(__GNUC__) || defined(__clang__)
/// Gives a class or function default visibility, so that it is reachable
/// from outside the shared object; empty for compilers other than GCC and
/// Clang.
#define TZ_EXPORT __attribute__((visibility("default")))
#else
/// Empty: the visibility attribute is for GCC and Clang only.
#define TZ_EXPORT
#endif

#endif  // TESSELZOSTREAM_EXPORT_H_
