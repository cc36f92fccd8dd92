#ifndef VORN_CORE_VORNEXPORT_H
#define VORN_CORE_VORNEXPORT_H

// The library builds with hidden visibility: only what carries VORN_EXPORT reaches a host's
// dynamic linker. Classes a host uses, calls or derives from carry it on the class, which
// exports their members, vtables and type information; the internal classes whose headers
// the exported ones include stay hidden, so changing them can never break a host.
#if defined(__GNUC__) || defined(__clang__)
#define VORN_EXPORT __attribute__((visibility("default")))
// A private helper of an exported class: not part of the interface.
#define VORN_LOCAL __attribute__((visibility("hidden")))
#else
#define VORN_EXPORT
#define VORN_LOCAL
#endif

#endif
