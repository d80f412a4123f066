#ifndef TESSERA_EXPORT_H
#define TESSERA_EXPORT_H

/// Marks what libtessera.so exports. Everything else in it is hidden.
#define TESSERA_API __attribute__((visibility("default")))

/// Marks what belongs to an exported class and stays inside the library all the same.
#define TESSERA_HIDDEN __attribute__((visibility("hidden")))

#endif  // TESSERA_EXPORT_H
