#ifndef TESSERA_EXPORT_H
#define TESSERA_EXPORT_H

/// Marks what libtessera.so exports. Everything else in it is hidden.
#define TESSERA_API __attribute__((visibility("default")))

#endif  // TESSERA_EXPORT_H
