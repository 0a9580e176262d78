// The marks that decide which names the shared library exports.
#pragma once

/// Marks what users link against. The library and its plug-ins are built with hidden visibility.
#define QUORVAL_EXPORT __attribute__((visibility("default")))

/// Keeps a private record of an exported class out of the library's interface.
#define QUORVAL_HIDDEN __attribute__((visibility("hidden")))
