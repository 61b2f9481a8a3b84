// Symbol visibility for the nodara shared library.
//
// The library is built with hidden visibility; every public declaration carries
// NODARA_API so that exactly the documented interface is exported.
#ifndef ZQ5_EXPORT_H
#define ZQ5_EXPORT_H

#if defined(_WIN32)
#  if defined(NODARA_BUILDING_LIBRARY)
#    define NODARA_API __declspec(dllexport)
#  else
#    define NODARA_API __declspec(dllimport)
#  endif
#else
#  define NODARA_API __attribute__((visibility("default")))
#endif

#endif  // ZQ5_EXPORT_H
