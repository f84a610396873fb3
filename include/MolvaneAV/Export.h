#pragma once

// Marks the classes that form the library's boundary; everything else is
// compiled with hidden visibility and stays private to libMolvaneAV.
#if defined(_WIN32)
#  if defined(MOLVANEAV_BUILDING)
#    define MOLVANEAV_EXPORT __declspec(dllexport)
#  else
#    define MOLVANEAV_EXPORT __declspec(dllimport)
#  endif
#else
#  define MOLVANEAV_EXPORT __attribute__((visibility("default")))
#endif
