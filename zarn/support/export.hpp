// Symbol visibility of libzarn_support: the library is built with hidden
// visibility and exports only what its public headers mark ZARN_EXPORT.
#ifndef ZARN_SUPPORT_EXPORT_HPP
#define ZARN_SUPPORT_EXPORT_HPP

#if defined(_WIN32)
#define ZARN_EXPORT
#else
#define ZARN_EXPORT __attribute__((visibility("default")))
#endif

#endif
