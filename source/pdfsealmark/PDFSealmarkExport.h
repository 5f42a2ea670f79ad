// Symbol visibility for libPDFSealmark27.so.
//
// The library is built with -fvisibility=hidden; only what is marked with
// PDFSEALMARK_API is exported.  Callers see the same macro as a no-op apart
// from the default visibility attribute, so the headers compile unchanged in
// client code.
#ifndef PDFSEALMARK_EXPORT_H
#define PDFSEALMARK_EXPORT_H

#if defined(__GNUC__) || defined(__clang__)
#define PDFSEALMARK_API __attribute__((visibility("default")))
#else
#define PDFSEALMARK_API
#endif

#endif
